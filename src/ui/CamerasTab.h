#pragma once

#include "capture/CaptureSource.h"
#include "settings/ExtraCamera.h"

#include <QHash>
#include <QUuid>
#include <QWidget>

#include <functional>
#include <optional>
#include <vector>

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSlider;
class QVBoxLayout;

namespace orvane {

class AppModel;

// The settings window's Cameras tab: the main camera and microphone with sound, gain and
// mirroring, and the extra cameras, each with its label, device and mirroring. Device lists
// follow cameras and microphones as they are plugged in and out; a chosen device that is gone
// stays listed as not connected. Main thread only.
class CamerasTab : public QWidget {
    Q_OBJECT

public:
    // How many extra cameras Orvane records beside the main one.
    static constexpr int kMaximumExtraCameras = 3;

    explicit CamerasTab(AppModel& model, QWidget* parent = nullptr);

private:
    struct ExtraRow {
        QUuid id;
        QWidget* row = nullptr;
        QLineEdit* label = nullptr;
        QComboBox* device = nullptr;
        QCheckBox* mirror = nullptr;
    };

    void refreshCameraChoice();
    void refreshMicrophoneChoice();
    void refreshGain();
    void refreshExtraCameras();
    void rememberNames();
    ExtraRow makeExtraRow(const QUuid& id);
    void fillExtraRow(ExtraRow& row, const ExtraCamera& camera);
    void addExtraCamera();
    // Changes the extra camera `id` in the settings, if it is still there.
    void changeExtraCamera(const QUuid& id, const std::function<void(ExtraCamera&)>& change);
    void removeExtraCamera(const QUuid& id);
    // The name to list for a chosen device that is not attached now.
    QString missingName(const QString& id, const std::optional<QString>& storedName) const;
    void fillDeviceChoice(QComboBox* choice, const std::vector<CaptureSource>& sources,
                          const std::optional<QString>& chosen,
                          const std::optional<QString>& storedName);

    AppModel& model_;
    QHash<QString, QString> knownNames_; // every device seen while the window lived
    QComboBox* camera_ = nullptr;
    QComboBox* microphone_ = nullptr;
    QSlider* gain_ = nullptr;
    QLabel* gainText_ = nullptr;
    QVBoxLayout* extraList_ = nullptr;
    QPushButton* addCamera_ = nullptr;
    std::vector<ExtraRow> extraRows_;
};

} // namespace orvane
