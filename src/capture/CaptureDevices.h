#pragma once

#include "base/Clock.h"
#include "capture/AudioSource.h"
#include "capture/CameraMode.h"
#include "capture/CaptureSource.h"
#include "capture/VideoSource.h"

#include <QFileSystemWatcher>
#include <QObject>

#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace orvane {

// The cameras and microphones attached to this computer, kept up to date as devices come and
// go: Video4Linux2 cameras that capture video, then the built-in "Test Pattern"; PulseAudio or
// PipeWire sources. Main thread only (the open* functions: any thread).
class CaptureDevices : public QObject {
    Q_OBJECT

public:
    // Whether Orvane may use a kind of device: on Linux, whether its device nodes open.
    enum class Authorization { notDetermined, restricted, denied, authorized };
    Q_ENUM(Authorization)

    // `deviceFolder` holds the video device nodes; the watchers listen for changes in it.
    explicit CaptureDevices(QString deviceFolder = QStringLiteral("/dev"),
                            QObject* parent = nullptr);

    // The cameras, those Orvane may not open included (named from sysfs), then the test
    // pattern.
    const std::vector<CaptureSource>& cameras() const { return cameras_; }
    const std::vector<CaptureSource>& microphones() const { return microphones_; }
    // The name a camera had when it was last listed in this run, so that a camera that was
    // unplugged can still be called by its name; none for one never seen.
    std::optional<QString> lastKnownCameraName(const QString& id) const;
    // Denied when no camera of this computer may be opened (their nodes answer EACCES: the
    // user is not in the "video" group); the test pattern is never denied.
    Authorization cameraAuthorization() const { return cameraAuthorization_; }
    // Whether Orvane may open this one camera: each device is judged by itself, so one node
    // that answers EACCES leaves the others, and the test pattern, usable.
    Authorization cameraAuthorization(const QString& id) const;
    Authorization microphoneAuthorization() const { return microphoneAuthorization_; }

    // Lists the devices again; lists are replaced, and their signals sent, only on change.
    void refresh();
    // Asks for access again (a user added to the "video" group, a node's mode changed).
    void requestCameraAccess();
    void requestMicrophoneAccess();

    // Opens a Video4Linux2 camera or a sound source by identifier; nullptr when it cannot be
    // found or opened. The camera opens in the mode CameraMode::choose() picks, at `size`
    // where the camera offers it.
    static std::unique_ptr<VideoSource> openCamera(const QString& id, Clock& clock,
                                                   std::optional<QSize> size = std::nullopt);
    static std::unique_ptr<AudioSource> openMicrophone(const QString& id, Clock& clock);

    // Whether a node with these capabilities (VIDIOC_QUERYCAP) captures video.
    static bool capturesVideo(quint32 capabilities, quint32 deviceCapabilities);
    // The modes a camera node offers (every pixel format at every size), and the one it is
    // set to.
    struct NodeModes {
        CameraMode active;
        std::vector<CameraMode> offered;
    };
    static std::optional<NodeModes> queryModes(const QString& path);

Q_SIGNALS:
    void camerasChanged();
    void microphonesChanged();
    void cameraAuthorizationChanged();
    void microphoneAuthorizationChanged();

private:
    void watch();

    QString deviceFolder_;
    std::vector<CaptureSource> cameras_;
    std::vector<QString> deniedCameras_; // identifiers
    std::map<QString, QString> knownCameraNames_; // every camera listed in this run, by id
    std::vector<CaptureSource> microphones_;
    Authorization cameraAuthorization_ = Authorization::notDetermined;
    Authorization microphoneAuthorization_ = Authorization::notDetermined;
    QFileSystemWatcher watcher_{this};
};

} // namespace orvane
