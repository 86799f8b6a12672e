#pragma once

#include "capture/CameraFeed.h"
#include "capture/FramePreview.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QTimer>
#include <QWidget>

#include <cstdint>

namespace orvane {

class AppModel;
class CaptureEngine;
struct FeedState;

// One camera's place in the window: its newest picture scaled to fit, or what its state says
// over a dark background, and a footer with its label, frame size and rate, lost frames, the
// sound level for the main camera and a red REC with the running time while it records.
// Repaints at most at the camera's frame rate and only while shown. Main thread only.
class FeedView : public QWidget {
    Q_OBJECT

public:
    // The main camera when `feed` is null, else that extra camera.
    explicit FeedView(AppModel& model, CameraFeed* feed = nullptr, QWidget* parent = nullptr);

    CameraFeed* feed() const { return feed_; }
    // What the view says instead of a picture; empty while it shows one.
    QString stateText() const;
    // The camera's name in the footer.
    QString label() const;

    QSize sizeHint() const override { return {640, 400}; }
    QSize minimumSizeHint() const override { return {160, 120}; }

protected:
    void paintEvent(QPaintEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    CaptureEngine* engine() const;
    const FeedState& state() const;
    bool isRecording() const;
    void refreshTimer();
    void tick();
    void paintPicture(class QPainter& painter, const QRect& area);
    void paintFooter(class QPainter& painter, const QRect& area);

    AppModel& model_;
    QPointer<CameraFeed> feed_;
    const bool isMain_;
    QTimer repaint_{this};
    FramePreview preview_;
    QElapsedTimer sinceRepaint_;
    std::int64_t shownFrame_ = -1;
};

} // namespace orvane
