#pragma once

#include "osc/NetworkKind.h"
#include "osc/OSCFraming.h"
#include "settings/ExtraCamera.h"
#include "settings/LayoutPreset.h"
#include "settings/OverlayLayout.h"
#include "settings/OverlayLook.h"
#include "settings/RecordingCodec.h"
#include "show/WatchedAddress.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QStringView>

#include <memory>
#include <optional>

class QSettings;

namespace orvane {

// Everything the operator chooses, one property per key of the defaults store (the key is
// the property's name). Every key is read once when the object is built; a missing or
// mistyped value, or JSON that does not decode, gives the key's default without a word.
// Every setter writes the store at once, even when the value is unchanged, and the NOTIFY
// signal fires only when the value really changed. docs/settings.md lists the keys.
// Main thread only.
class AppSettings : public QObject {
    Q_OBJECT
    // clang-format off
    Q_PROPERTY(std::optional<QString> cameraID READ cameraID WRITE setCameraID NOTIFY cameraIDChanged)
    Q_PROPERTY(std::optional<QString> audioDeviceID READ audioDeviceID WRITE setAudioDeviceID NOTIFY audioDeviceIDChanged)
    Q_PROPERTY(bool recordsAudio READ recordsAudio WRITE setRecordsAudio NOTIFY recordsAudioChanged)
    Q_PROPERTY(double audioGain READ audioGain WRITE setAudioGain NOTIFY audioGainChanged)
    Q_PROPERTY(bool isMirrored READ isMirrored WRITE setIsMirrored NOTIFY isMirroredChanged)
    Q_PROPERTY(QList<ExtraCamera> extraCameras READ extraCameras WRITE setExtraCameras NOTIFY extraCamerasChanged)
    Q_PROPERTY(bool overlayEnabled READ overlayEnabled WRITE setOverlayEnabled NOTIFY overlayEnabledChanged)
    Q_PROPERTY(double overlayScale READ overlayScale WRITE setOverlayScale NOTIFY overlayScaleChanged)
    Q_PROPERTY(double overlayOpacity READ overlayOpacity WRITE setOverlayOpacity NOTIFY overlayOpacityChanged)
    Q_PROPERTY(QString cameraLabel READ cameraLabel WRITE setCameraLabel NOTIFY cameraLabelChanged)
    Q_PROPERTY(bool showsTimecode READ showsTimecode WRITE setShowsTimecode NOTIFY showsTimecodeChanged)
    Q_PROPERTY(bool showsCue READ showsCue WRITE setShowsCue NOTIFY showsCueChanged)
    Q_PROPERTY(bool showsNextCue READ showsNextCue WRITE setShowsNextCue NOTIFY showsNextCueChanged)
    Q_PROPERTY(bool showsShowName READ showsShowName WRITE setShowsShowName NOTIFY showsShowNameChanged)
    Q_PROPERTY(bool showsFields READ showsFields WRITE setShowsFields NOTIFY showsFieldsChanged)
    Q_PROPERTY(bool showsDate READ showsDate WRITE setShowsDate NOTIFY showsDateChanged)
    Q_PROPERTY(bool showsClock READ showsClock WRITE setShowsClock NOTIFY showsClockChanged)
    Q_PROPERTY(bool showsQLabCues READ showsQLabCues WRITE setShowsQLabCues NOTIFY showsQLabCuesChanged)
    Q_PROPERTY(OverlayLayout overlayLayout READ overlayLayout WRITE setOverlayLayout NOTIFY overlayLayoutChanged)
    Q_PROPERTY(QList<LayoutPreset> layoutPresets READ layoutPresets WRITE setLayoutPresets NOTIFY layoutPresetsChanged)
    Q_PROPERTY(QString watermarkText READ watermarkText WRITE setWatermarkText NOTIFY watermarkTextChanged)
    Q_PROPERTY(std::optional<QString> watermarkImageFile READ watermarkImageFile WRITE setWatermarkImageFile NOTIFY watermarkImageFileChanged)
    Q_PROPERTY(double watermarkOpacity READ watermarkOpacity WRITE setWatermarkOpacity NOTIFY watermarkOpacityChanged)
    Q_PROPERTY(bool qlabEnabled READ qlabEnabled WRITE setQlabEnabled NOTIFY qlabEnabledChanged)
    Q_PROPERTY(QString qlabHost READ qlabHost WRITE setQlabHost NOTIFY qlabHostChanged)
    Q_PROPERTY(int qlabPort READ qlabPort WRITE setQlabPort NOTIFY qlabPortChanged)
    Q_PROPERTY(QString qlabPasscode READ qlabPasscode WRITE setQlabPasscode NOTIFY qlabPasscodeChanged)
    Q_PROPERTY(QString qlabWorkspace READ qlabWorkspace WRITE setQlabWorkspace NOTIFY qlabWorkspaceChanged)
    Q_PROPERTY(bool oscEnabled READ oscEnabled WRITE setOscEnabled NOTIFY oscEnabledChanged)
    Q_PROPERTY(int oscPort READ oscPort WRITE setOscPort NOTIFY oscPortChanged)
    Q_PROPERTY(bool eosEnabled READ eosEnabled WRITE setEosEnabled NOTIFY eosEnabledChanged)
    Q_PROPERTY(QString eosHost READ eosHost WRITE setEosHost NOTIFY eosHostChanged)
    Q_PROPERTY(OSCFraming eosFraming READ eosFraming WRITE setEosFraming NOTIFY eosFramingChanged)
    Q_PROPERTY(int eosPort READ eosPort WRITE setEosPort NOTIFY eosPortChanged)
    Q_PROPERTY(std::optional<QString> eosConsoleID READ eosConsoleID WRITE setEosConsoleID NOTIFY eosConsoleIDChanged)
    Q_PROPERTY(std::optional<QString> eosConsoleName READ eosConsoleName WRITE setEosConsoleName NOTIFY eosConsoleNameChanged)
    Q_PROPERTY(std::optional<NetworkKind> eosNetwork READ eosNetwork WRITE setEosNetwork NOTIFY eosNetworkChanged)
    Q_PROPERTY(bool eosAutoConnect READ eosAutoConnect WRITE setEosAutoConnect NOTIFY eosAutoConnectChanged)
    Q_PROPERTY(QList<WatchedAddress> watchedAddresses READ watchedAddresses WRITE setWatchedAddresses NOTIFY watchedAddressesChanged)
    Q_PROPERTY(bool ndiEnabled READ ndiEnabled WRITE setNdiEnabled NOTIFY ndiEnabledChanged)
    Q_PROPERTY(QString ndiName READ ndiName WRITE setNdiName NOTIFY ndiNameChanged)
    Q_PROPERTY(bool webViewerEnabled READ webViewerEnabled WRITE setWebViewerEnabled NOTIFY webViewerEnabledChanged)
    Q_PROPERTY(int webViewerPort READ webViewerPort WRITE setWebViewerPort NOTIFY webViewerPortChanged)
    Q_PROPERTY(RecordingCodec codec READ codec WRITE setCodec NOTIFY codecChanged)
    Q_PROPERTY(bool writesCueLog READ writesCueLog WRITE setWritesCueLog NOTIFY writesCueLogChanged)
    // clang-format on

public:
    // Where the settings live: the store's JSON file and the support folder that holds the
    // watermark image.
    struct Location {
        QString storeFile;
        QString supportFolder;
        friend bool operator==(const Location&, const Location&) = default;
    };

    // The application id under which Orvane is packaged (Flatpak).
    static constexpr const char* kApplicationId = "app.orvane.Orvane";

    // ~/.config/Orvane/Orvane.json and ~/.local/share/Orvane (the XDG locations).
    static Location standardLocation();
    // The same places inside a Flatpak container folder (~/.var/app/<application id>):
    // config/Orvane/Orvane.json and data/Orvane.
    static Location containerLocation(const QString& containerFolder);
    // ~/.var/app/app.orvane.Orvane
    static QString flatpakContainerFolder();

    // Copies the settings and support files of an old container into `current`, once: keys
    // the current store lacks are copied, keys it has are kept; files are copied unless one
    // of the same name exists. Failed steps are skipped. Afterwards "movedOutOfSandbox" is
    // true in the current store and later calls do nothing.
    static void moveOutOfContainer(const Location& current, const Location& old);

    // The application's settings: moves the Flatpak container's settings out first, then
    // reads the standard store.
    static std::unique_ptr<AppSettings> openStandard(QObject* parent = nullptr);

    // Reads every key from the store at `location` (tests pass a private one).
    explicit AppSettings(Location location, QObject* parent = nullptr);
    ~AppSettings() override;

    // The keys, in the order in which they are read.
    static QStringList keys();
    const Location& location() const { return location_; }

    std::optional<QString> cameraID() const { return cameraID_; }
    std::optional<QString> audioDeviceID() const { return audioDeviceID_; }
    bool recordsAudio() const { return recordsAudio_; }
    double audioGain() const { return audioGain_; }
    bool isMirrored() const { return isMirrored_; }
    QList<ExtraCamera> extraCameras() const { return extraCameras_; }
    bool overlayEnabled() const { return overlayEnabled_; }
    double overlayScale() const { return overlayScale_; }
    double overlayOpacity() const { return overlayOpacity_; }
    QString cameraLabel() const { return cameraLabel_; }
    bool showsTimecode() const { return showsTimecode_; }
    bool showsCue() const { return showsCue_; }
    bool showsNextCue() const { return showsNextCue_; }
    bool showsShowName() const { return showsShowName_; }
    bool showsFields() const { return showsFields_; }
    bool showsDate() const { return showsDate_; }
    bool showsClock() const { return showsClock_; }
    bool showsQLabCues() const { return showsQLabCues_; }
    OverlayLayout overlayLayout() const { return overlayLayout_; }
    QList<LayoutPreset> layoutPresets() const { return layoutPresets_; }
    QString watermarkText() const { return watermarkText_; }
    std::optional<QString> watermarkImageFile() const { return watermarkImageFile_; }
    double watermarkOpacity() const { return watermarkOpacity_; }
    bool qlabEnabled() const { return qlabEnabled_; }
    QString qlabHost() const { return qlabHost_; }
    int qlabPort() const { return qlabPort_; }
    QString qlabPasscode() const { return qlabPasscode_; }
    QString qlabWorkspace() const { return qlabWorkspace_; }
    bool oscEnabled() const { return oscEnabled_; }
    int oscPort() const { return oscPort_; }
    bool eosEnabled() const { return eosEnabled_; }
    QString eosHost() const { return eosHost_; }
    OSCFraming eosFraming() const { return eosFraming_; }
    int eosPort() const { return eosPort_; }
    std::optional<QString> eosConsoleID() const { return eosConsoleID_; }
    std::optional<QString> eosConsoleName() const { return eosConsoleName_; }
    std::optional<NetworkKind> eosNetwork() const { return eosNetwork_; }
    bool eosAutoConnect() const { return eosAutoConnect_; }
    QList<WatchedAddress> watchedAddresses() const { return watchedAddresses_; }
    bool ndiEnabled() const { return ndiEnabled_; }
    QString ndiName() const { return ndiName_; }
    bool webViewerEnabled() const { return webViewerEnabled_; }
    int webViewerPort() const { return webViewerPort_; }
    RecordingCodec codec() const { return codec_; }
    bool writesCueLog() const { return writesCueLog_; }

    void setCameraID(const std::optional<QString>& value);
    void setAudioDeviceID(const std::optional<QString>& value);
    void setRecordsAudio(bool value);
    void setAudioGain(double value);
    void setIsMirrored(bool value);
    void setExtraCameras(const QList<ExtraCamera>& value);
    void setOverlayEnabled(bool value);
    void setOverlayScale(double value);
    void setOverlayOpacity(double value);
    void setCameraLabel(const QString& value);
    void setShowsTimecode(bool value);
    void setShowsCue(bool value);
    void setShowsNextCue(bool value);
    void setShowsShowName(bool value);
    void setShowsFields(bool value);
    void setShowsDate(bool value);
    void setShowsClock(bool value);
    void setShowsQLabCues(bool value);
    void setOverlayLayout(const OverlayLayout& value);
    void setLayoutPresets(const QList<LayoutPreset>& value);
    void setWatermarkText(const QString& value);
    void setWatermarkImageFile(const std::optional<QString>& value);
    void setWatermarkOpacity(double value);
    void setQlabEnabled(bool value);
    void setQlabHost(const QString& value);
    void setQlabPort(int value);
    void setQlabPasscode(const QString& value);
    void setQlabWorkspace(const QString& value);
    void setOscEnabled(bool value);
    void setOscPort(int value);
    void setEosEnabled(bool value);
    void setEosHost(const QString& value);
    void setEosFraming(OSCFraming value);
    void setEosPort(int value);
    void setEosConsoleID(const std::optional<QString>& value);
    void setEosConsoleName(const std::optional<QString>& value);
    void setEosNetwork(const std::optional<NetworkKind>& value);
    void setEosAutoConnect(bool value);
    void setWatchedAddresses(const QList<WatchedAddress>& value);
    void setNdiEnabled(bool value);
    void setNdiName(const QString& value);
    void setWebViewerEnabled(bool value);
    void setWebViewerPort(int value);
    void setCodec(RecordingCodec value);
    void setWritesCueLog(bool value);

    // The look made from the current values.
    OverlayLook currentLook() const;
    // Puts every field of `look` into its property through its setter, the layout first.
    void applyLook(const OverlayLook& look);
    // Saves the current look under `name` trimmed of white space: replaces the look of the
    // preset of that name (compared case-insensitively), or appends a new preset. A name of
    // blanks does nothing.
    void saveLayoutPreset(const QString& name);
    // Puts back the look of the first preset of that name (trimmed, case-insensitive).
    // Answers false, changing nothing, when there is none.
    bool applyLayoutPreset(const QString& name);
    // The first preset whose look is the current look.
    std::optional<LayoutPreset> activeLayoutPreset() const;

    // Copies the image file the operator chose into the support folder as
    // "Watermark.<extension in lower case>" and names it in watermarkImageFile. Answers the
    // sentence to show when that fails (nothing is changed then).
    std::optional<QString> setWatermarkImage(const QString& chosenFile);
    // Removes the watermark image file (a failure to remove is ignored) and clears the key.
    void clearWatermarkImage();
    // The full path of the watermark image, or nothing when there is none.
    std::optional<QString> watermarkImagePath() const;

Q_SIGNALS:
    void cameraIDChanged();
    void audioDeviceIDChanged();
    void recordsAudioChanged();
    void audioGainChanged();
    void isMirroredChanged();
    void extraCamerasChanged();
    void overlayEnabledChanged();
    void overlayScaleChanged();
    void overlayOpacityChanged();
    void cameraLabelChanged();
    void showsTimecodeChanged();
    void showsCueChanged();
    void showsNextCueChanged();
    void showsShowNameChanged();
    void showsFieldsChanged();
    void showsDateChanged();
    void showsClockChanged();
    void showsQLabCuesChanged();
    void overlayLayoutChanged();
    void layoutPresetsChanged();
    void watermarkTextChanged();
    void watermarkImageFileChanged();
    void watermarkOpacityChanged();
    void qlabEnabledChanged();
    void qlabHostChanged();
    void qlabPortChanged();
    void qlabPasscodeChanged();
    void qlabWorkspaceChanged();
    void oscEnabledChanged();
    void oscPortChanged();
    void eosEnabledChanged();
    void eosHostChanged();
    void eosFramingChanged();
    void eosPortChanged();
    void eosConsoleIDChanged();
    void eosConsoleNameChanged();
    void eosNetworkChanged();
    void eosAutoConnectChanged();
    void watchedAddressesChanged();
    void ndiEnabledChanged();
    void ndiNameChanged();
    void webViewerEnabledChanged();
    void webViewerPortChanged();
    void codecChanged();
    void writesCueLogChanged();

private:
    bool readBool(QStringView key, bool fallback) const;
    double readDouble(QStringView key, double fallback) const;
    int readInt(QStringView key, int fallback) const;
    QString readString(QStringView key, const QString& fallback) const;
    std::optional<QString> readOptionalString(QStringView key) const;
    QJsonValue readJson(QStringView key) const;
    void readAll();

    void write(QStringView key, const QVariant& value);
    void remove(QStringView key);
    void store(QStringView key, bool value);
    void store(QStringView key, double value);
    void store(QStringView key, int value);
    void store(QStringView key, const QString& value);
    void store(QStringView key, const std::optional<QString>& value);
    void store(QStringView key, const QList<ExtraCamera>& value);
    void store(QStringView key, const OverlayLayout& value);
    void store(QStringView key, const QList<LayoutPreset>& value);
    void store(QStringView key, const QList<WatchedAddress>& value);
    void store(QStringView key, OSCFraming value);
    void store(QStringView key, const std::optional<NetworkKind>& value);
    void store(QStringView key, RecordingCodec value);

    template <class T>
    void assign(T& field, const T& value, QStringView key, void (AppSettings::*changed)());

    Location location_{};
    std::unique_ptr<QSettings> store_;

    std::optional<QString> cameraID_{};
    std::optional<QString> audioDeviceID_{};
    bool recordsAudio_{};
    double audioGain_{};
    bool isMirrored_{};
    QList<ExtraCamera> extraCameras_{};
    bool overlayEnabled_{};
    double overlayScale_{};
    double overlayOpacity_{};
    QString cameraLabel_{};
    bool showsTimecode_{};
    bool showsCue_{};
    bool showsNextCue_{};
    bool showsShowName_{};
    bool showsFields_{};
    bool showsDate_{};
    bool showsClock_{};
    bool showsQLabCues_{};
    OverlayLayout overlayLayout_{};
    QList<LayoutPreset> layoutPresets_{};
    QString watermarkText_{};
    std::optional<QString> watermarkImageFile_{};
    double watermarkOpacity_{};
    bool qlabEnabled_{};
    QString qlabHost_{};
    int qlabPort_{};
    QString qlabPasscode_{};
    QString qlabWorkspace_{};
    bool oscEnabled_{};
    int oscPort_{};
    bool eosEnabled_{};
    QString eosHost_{};
    OSCFraming eosFraming_{};
    int eosPort_{};
    std::optional<QString> eosConsoleID_{};
    std::optional<QString> eosConsoleName_{};
    std::optional<NetworkKind> eosNetwork_{};
    bool eosAutoConnect_{};
    QList<WatchedAddress> watchedAddresses_{};
    bool ndiEnabled_{};
    QString ndiName_{};
    bool webViewerEnabled_{};
    int webViewerPort_{};
    RecordingCodec codec_{};
    bool writesCueLog_{};
};

} // namespace orvane
