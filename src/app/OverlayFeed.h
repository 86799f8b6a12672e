#pragma once

#include "app/OverlayAssembly.h"
#include "base/Clock.h"
#include "overlay/OverlayContent.h"
#include "settings/OverlayLook.h"

#include <QImage>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>

#include <optional>

namespace orvane {

class CaptureEngine;
class DemoShow;
class QLabClient;
class ShowData;

// Gathers what the overlay shows (the show data, QLab's running cues and timecode, the demo
// show's timecode, the time and the settings' values), assembles the overlay content from it,
// and hands the content to every camera under that camera's own label whenever any of it
// changes. Main thread only.
class OverlayFeed : public QObject {
    Q_OBJECT
public:
    // Follows `show`, which must outlive this feed.
    explicit OverlayFeed(ShowData& show, Clock& clock = Clock::system(), QObject* parent = nullptr);
    ~OverlayFeed() override;

    // Follows QLab's running cues and timecode; none: no QLab rows.
    void setQLab(QLabClient* client);
    // Follows the demo show's timecode while it runs; none: no demo.
    void setDemoShow(DemoShow* demo);

    // The settings' values and the application's own.
    void setLook(const OverlayLook& look);
    void setEnabled(bool isEnabled);
    void setRecordingStart(std::optional<WallTime> start);
    void setWatermarkImage(std::optional<QImage> image);

    // Hands the content to `engine` from now on, under `label` (called again, a new label).
    void addCamera(CaptureEngine& engine, const QString& label);
    void removeCamera(CaptureEngine& engine);

    // Gathers everything now and hands the new content to every camera.
    void refresh();
    // What the cameras were last given (each under its own label).
    const OverlayContent& content() const { return content_; }
    const OverlaySources& sources() const { return sources_; }
    // The sources as they are at this moment: the show, QLab and the demo read afresh, the
    // settings' values as last given.
    OverlaySources gatherNow() const;

private:
    struct Camera {
        QPointer<CaptureEngine> engine;
        QString label;
    };

    ShowData& show_;
    Clock& clock_;
    QPointer<QLabClient> qlab_;
    QPointer<DemoShow> demo_;
    QList<QMetaObject::Connection> qlabConnections_;
    QList<QMetaObject::Connection> demoConnections_;
    QList<Camera> cameras_;
    OverlaySources sources_;
    OverlayContent content_;
};

} // namespace orvane
