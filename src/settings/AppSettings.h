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
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QStringView>
#include <QTimer>
#include <QVariant>

#include <chrono>
#include <memory>
#include <optional>
#include <type_traits>

class QSettings;

// The settings, one row per key of the settings file, in the order in which they are read:
//     X(type, key, Key, default, rule, "meaning")
// Each row makes a Qt property `key` of AppSettings with the accessor `type key() const`,
// the setter `void setKey(type)` and the NOTIFY signal `void keyChanged()`, which fires only
// when the value really changes. The default is the value when the file lacks the key or
// holds something else there; the rule says which values are kept (see AppSettings.cpp);
// the meaning is the key's line in docs/settings.md, which a test compares with this table.
// A new setting is one row here.
// clang-format off
#define ORVANE_SETTINGS(X) \
    X(std::optional<QString>, cameraID, CameraID, std::nullopt, anyValue, "unique identifier of the main camera") \
    X(std::optional<QString>, audioDeviceID, AudioDeviceID, std::nullopt, anyValue, "unique identifier of the microphone") \
    X(bool, recordsAudio, RecordsAudio, true, anyValue, "record sound with the main camera") \
    X(double, audioGain, AudioGain, 1.0, anyValue, "gain applied to the microphone") \
    X(bool, isMirrored, IsMirrored, false, anyValue, "mirror the main camera picture") \
    X(QList<ExtraCamera>, extraCameras, ExtraCameras, {}, anyValue, "the extra cameras, in order") \
    X(bool, overlayEnabled, OverlayEnabled, true, anyValue, "draw the overlay at all") \
    X(double, overlayScale, OverlayScale, OverlayLook{}.scale, anyValue, "overlay size factor") \
    X(double, overlayOpacity, OverlayOpacity, OverlayLook{}.opacity, anyValue, "overlay panel opacity") \
    X(QString, cameraLabel, CameraLabel, QStringLiteral("Stage Cam"), anyValue, "label of the main camera on the overlay") \
    X(bool, showsTimecode, ShowsTimecode, OverlayLook{}.showsTimecode, anyValue, "overlay shows the timecode") \
    X(bool, showsCue, ShowsCue, OverlayLook{}.showsCue, anyValue, "overlay shows the current cue") \
    X(bool, showsNextCue, ShowsNextCue, OverlayLook{}.showsNextCue, anyValue, "overlay shows the next cue") \
    X(bool, showsShowName, ShowsShowName, OverlayLook{}.showsShowName, anyValue, "overlay shows the show name") \
    X(bool, showsFields, ShowsFields, OverlayLook{}.showsFields, anyValue, "overlay shows custom fields") \
    X(bool, showsDate, ShowsDate, OverlayLook{}.showsDate, anyValue, "overlay shows the date") \
    X(bool, showsClock, ShowsClock, OverlayLook{}.showsClock, anyValue, "overlay shows the clock") \
    X(bool, showsQLabCues, ShowsQLabCues, OverlayLook{}.showsQLabCues, anyValue, "overlay shows running QLab cues") \
    X(OverlayLayout, overlayLayout, OverlayLayout, OverlayLook{}.layout, anyValue, "widget placements") \
    X(QList<LayoutPreset>, layoutPresets, LayoutPresets, {}, anyValue, "named saved looks") \
    X(QString, watermarkText, WatermarkText, OverlayLook{}.watermarkText, anyValue, "watermark text") \
    X(std::optional<QString>, watermarkImageFile, WatermarkImageFile, std::nullopt, plainFileName, "file name of the watermark image in the support folder") \
    X(double, watermarkOpacity, WatermarkOpacity, OverlayLook{}.watermarkOpacity, anyValue, "watermark opacity") \
    X(bool, qlabEnabled, QlabEnabled, true, anyValue, "follow QLab") \
    X(QString, qlabHost, QlabHost, QString(), anyValue, "QLab host name or address") \
    X(int, qlabPort, QlabPort, 53000, anyValue, "QLab OSC port") \
    X(QString, qlabPasscode, QlabPasscode, QString(), anyValue, "QLab workspace passcode") \
    X(QString, qlabWorkspace, QlabWorkspace, QString(), anyValue, "chosen QLab workspace identifier") \
    X(bool, oscEnabled, OscEnabled, true, anyValue, "run the incoming OSC listener") \
    X(int, oscPort, OscPort, 8001, anyValue, "listener port") \
    X(bool, eosEnabled, EosEnabled, true, anyValue, "follow an Eos console") \
    X(QString, eosHost, EosHost, QString(), anyValue, "console host name or address") \
    X(OSCFraming, eosFraming, EosFraming, OSCFraming::slip, anyValue, "\"slip\" or \"lengthPrefixed\"; anything else is \"slip\"") \
    X(int, eosPort, EosPort, defaultEosPort(eosFraming_), anyValue, "console TCP port") \
    X(std::optional<QString>, eosConsoleID, EosConsoleID, std::nullopt, anyValue, "identifier of the chosen discovered console") \
    X(std::optional<QString>, eosConsoleName, EosConsoleName, std::nullopt, anyValue, "its display name") \
    X(std::optional<NetworkKind>, eosNetwork, EosNetwork, std::nullopt, anyValue, "\"wired\", \"wifi\" or \"other\": where the chosen console was found; anything else is none") \
    X(bool, eosAutoConnect, EosAutoConnect, true, anyValue, "connect to the chosen console automatically") \
    X(QList<WatchedAddress>, watchedAddresses, WatchedAddresses, {}, anyValue, "OSC addresses shown as fields") \
    X(bool, ndiEnabled, NdiEnabled, false, anyValue, "send the NDI source") \
    X(QString, ndiName, NdiName, QStringLiteral("Orvane"), anyValue, "NDI source name") \
    X(bool, webViewerEnabled, WebViewerEnabled, false, anyValue, "run the web viewer") \
    X(int, webViewerPort, WebViewerPort, 8090, anyValue, "web viewer HTTP port") \
    X(RecordingCodec, codec, Codec, RecordingCodec::hevc, anyValue, "\"hevc\", \"h264\" or \"proRes422Proxy\"; anything else is \"hevc\"") \
    X(bool, writesCueLog, WritesCueLog, true, anyValue, "write a CSV cue log beside each movie") \
    X(bool, automaticallyChecksForUpdates, AutomaticallyChecksForUpdates, true, anyValue, "look for a newer Orvane once a day while the window is open") \
    X(QString, windowState, WindowState, QString(), anyValue, "where the window was and how its columns were divided (base64), so it opens as it was left")
// clang-format on

namespace orvane {

// How a setter takes its value: small values by value, the others by reference.
template <class T> using SettingArgument = std::conditional_t<std::is_scalar_v<T>, T, const T&>;

// Everything the operator chooses, one property per row of ORVANE_SETTINGS (the key is the
// property's name). Every key is read once when the object is built; a missing or mistyped
// value, JSON that does not decode, or a value its rule refuses gives the key's default
// without a word. A settings file that is no JSON object is kept aside and read as far as
// it can be (damagedFileMessage()). Setters gather their writes: the file is written once a
// short moment after a change (kWriteDelay), on flush(), when the application quits and when
// the object is destroyed. docs/settings.md describes the keys. Main thread only.
class AppSettings : public QObject {
    Q_OBJECT
    // clang-format off
#define ORVANE_SETTING_PROPERTY(Type, name, Name, fallback, rule, meaning) \
    Q_PROPERTY(Type name READ name WRITE set##Name NOTIFY name##Changed)
    ORVANE_SETTINGS(ORVANE_SETTING_PROPERTY)
#undef ORVANE_SETTING_PROPERTY
    // clang-format on

public:
    // Where the settings live: the store's JSON file and the support folder that holds the
    // watermark image.
    struct Location {
        QString storeFile;
        QString supportFolder;
        friend bool operator==(const Location&, const Location&) = default;
    };

    // One row of the key table, as docs/settings.md shows it.
    struct KeyInfo {
        QString key;
        QString type;    // e.g. "Bool", "String, optional", "JSON: array of ExtraCamera"
        QString meaning; // with what the key's rule keeps, e.g. "…; a plain file name, never a path"
        bool savedInPreset = false;
    };

    // The application id under which Orvane is packaged (Flatpak).
    static constexpr const char* kApplicationId = "app.orvane.Orvane";
    // How long after a change the settings file is written.
    static constexpr std::chrono::milliseconds kWriteDelay{250};

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
    // true in the current store and later calls do nothing. A current store that cannot be
    // read is left untouched (AppSettings keeps it aside; the move happens at the next start).
    static void moveOutOfContainer(const Location& current, const Location& old);

    // The application's settings: moves the Flatpak container's settings out first, then
    // reads the standard store.
    static std::unique_ptr<AppSettings> openStandard(QObject* parent = nullptr);

    // Reads every key from the store at `location` (tests pass a private one).
    explicit AppSettings(Location location, QObject* parent = nullptr);
    ~AppSettings() override; // writes what is pending

    // The keys, in the order in which they are read, and their rows for the documentation.
    static QStringList keys();
    static QList<KeyInfo> keyInfos();
    const Location& location() const
    {
        return location_;
    }

    // When the settings file could not be read as a whole at start: the sentence to show
    // (it says where the damaged file was kept), and that copy's path.
    std::optional<QString> damagedFileMessage() const
    {
        return damagedFileMessage_;
    }
    std::optional<QString> damagedFileCopy() const
    {
        return damagedFileCopy_;
    }

    // Writes pending changes to the file now.
    void flush();

    // A key of the settings file that is no setting (such as "OrvaneTestFeedURL", which
    // staging and tests put there by hand), as the file holds it; nothing when it is absent.
    std::optional<QVariant> storedValue(const QString& key) const;

    // One accessor and one setter per key, in the order of the keys.
    // clang-format off
#define ORVANE_SETTING_ACCESSORS(Type, name, Name, fallback, rule, meaning) \
    Type name() const { return name##_; } \
    void set##Name(SettingArgument<Type> value);
    ORVANE_SETTINGS(ORVANE_SETTING_ACCESSORS)
#undef ORVANE_SETTING_ACCESSORS
    // clang-format on

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
#define ORVANE_SETTING_SIGNAL(Type, name, Name, fallback, rule, meaning) void name##Changed();
    ORVANE_SETTINGS(ORVANE_SETTING_SIGNAL)
#undef ORVANE_SETTING_SIGNAL

private:
    static int defaultEosPort(OSCFraming framing);
    void open();
    void readAll(const QVariantMap& stored);
    void write(QStringView key, const std::optional<QVariant>& value);

    template <class T, class Rule>
    void assign(T& field, const T& value, QStringView key, const Rule& rule,
                void (AppSettings::*changed)());

    Location location_{};
    std::unique_ptr<QSettings> store_;
    bool canWrite_ = true;
    std::optional<QString> damagedFileMessage_;
    std::optional<QString> damagedFileCopy_;
    QMap<QString, std::optional<QVariant>> pending_; // nothing: remove the key
    QTimer writeTimer_{this};

#define ORVANE_SETTING_FIELD(Type, name, Name, fallback, rule, meaning) Type name##_{};
    ORVANE_SETTINGS(ORVANE_SETTING_FIELD)
#undef ORVANE_SETTING_FIELD
};

} // namespace orvane
