#include "settings/AppSettings.h"

#include "base/Checks.h"
#include "settings/JsonSettingsFormat.h"
#include "settings/WatchedAddressJson.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QLoggingCategory>
#include <QSaveFile>
#include <QSettings>
#include <QStandardPaths>

#include <filesystem>
#include <limits>
#include <system_error>

namespace orvane {

Q_LOGGING_CATEGORY(lcSettings, "orvane.settings")

namespace {

const QString kMovedOutOfSandbox = QStringLiteral("movedOutOfSandbox");

std::unique_ptr<QSettings> openStore(const QString& file)
{
    auto store = std::make_unique<QSettings>(file, jsonSettingsFormat());
    store->setAtomicSyncRequired(true); // write a temporary file, then rename it over
    if (store->status() == QSettings::FormatError)
        qCWarning(lcSettings).noquote()
            << "settings: couldn't read" << file << "as a JSON object; using the defaults";
    return store;
}

bool isNumber(const QVariant& value)
{
    const int type = value.metaType().id();
    return type == QMetaType::LongLong || type == QMetaType::Int || type == QMetaType::Double;
}

bool isWhole(const QVariant& value)
{
    const int type = value.metaType().id();
    return type == QMetaType::LongLong || type == QMetaType::Int;
}

// Copies `from` (a file, or a folder with everything in it) to `to`, leaving whatever
// already exists there as it is.
void copyMissing(const QFileInfo& from, const QString& to)
{
    if (!from.isDir()) {
        if (QFileInfo::exists(to))
            return;
        if (!QFile::copy(from.absoluteFilePath(), to))
            qCInfo(lcSettings).noquote() << "settings: couldn't copy" << from.absoluteFilePath();
        return;
    }
    if (!QDir().mkpath(to))
        return;
    const QDir folder(from.absoluteFilePath());
    const auto items =
        folder.entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System);
    for (const QFileInfo& item : items)
        copyMissing(item, to + u'/' + item.fileName());
}

} // namespace

AppSettings::Location AppSettings::standardLocation()
{
    const QString config = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    const QString data = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    return {config + QStringLiteral("/Orvane/Orvane.json"), data + QStringLiteral("/Orvane")};
}

AppSettings::Location AppSettings::containerLocation(const QString& containerFolder)
{
    return {containerFolder + QStringLiteral("/config/Orvane/Orvane.json"),
            containerFolder + QStringLiteral("/data/Orvane")};
}

QString AppSettings::flatpakContainerFolder()
{
    return QDir::homePath() + QStringLiteral("/.var/app/") + QLatin1String(kApplicationId);
}

void AppSettings::moveOutOfContainer(const Location& current, const Location& old)
{
    const auto store = openStore(current.storeFile);
    const QVariant moved = store->value(kMovedOutOfSandbox);
    if (moved.metaType().id() == QMetaType::Bool && moved.toBool())
        return;

    if (QFileInfo::exists(old.storeFile)) {
        const QSettings oldStore(old.storeFile, jsonSettingsFormat());
        if (oldStore.status() == QSettings::NoError) {
            const QStringList oldKeys = oldStore.allKeys();
            for (const QString& key : oldKeys) {
                if (!store->contains(key))
                    store->setValue(key, oldStore.value(key));
            }
        }
    }

    const QFileInfo oldSupport(old.supportFolder);
    if (oldSupport.isDir())
        copyMissing(oldSupport, current.supportFolder);

    store->setValue(kMovedOutOfSandbox, true);
    store->sync();
}

std::unique_ptr<AppSettings> AppSettings::openStandard(QObject* parent)
{
    const Location location = standardLocation();
    moveOutOfContainer(location, containerLocation(flatpakContainerFolder()));
    return std::make_unique<AppSettings>(location, parent);
}

AppSettings::AppSettings(Location location, QObject* parent)
    : QObject(parent)
    , location_(std::move(location))
    , store_(openStore(location_.storeFile))
{
    readAll();
}

AppSettings::~AppSettings() = default;

QStringList AppSettings::keys()
{
    return {
        QStringLiteral("cameraID"),         QStringLiteral("audioDeviceID"),
        QStringLiteral("recordsAudio"),     QStringLiteral("audioGain"),
        QStringLiteral("isMirrored"),       QStringLiteral("extraCameras"),
        QStringLiteral("overlayEnabled"),   QStringLiteral("overlayScale"),
        QStringLiteral("overlayOpacity"),   QStringLiteral("cameraLabel"),
        QStringLiteral("showsTimecode"),    QStringLiteral("showsCue"),
        QStringLiteral("showsNextCue"),     QStringLiteral("showsShowName"),
        QStringLiteral("showsFields"),      QStringLiteral("showsDate"),
        QStringLiteral("showsClock"),       QStringLiteral("showsQLabCues"),
        QStringLiteral("overlayLayout"),    QStringLiteral("layoutPresets"),
        QStringLiteral("watermarkText"),    QStringLiteral("watermarkImageFile"),
        QStringLiteral("watermarkOpacity"), QStringLiteral("qlabEnabled"),
        QStringLiteral("qlabHost"),         QStringLiteral("qlabPort"),
        QStringLiteral("qlabPasscode"),     QStringLiteral("qlabWorkspace"),
        QStringLiteral("oscEnabled"),       QStringLiteral("oscPort"),
        QStringLiteral("eosEnabled"),       QStringLiteral("eosHost"),
        QStringLiteral("eosFraming"),       QStringLiteral("eosPort"),
        QStringLiteral("eosConsoleID"),     QStringLiteral("eosConsoleName"),
        QStringLiteral("eosNetwork"),       QStringLiteral("eosAutoConnect"),
        QStringLiteral("watchedAddresses"), QStringLiteral("ndiEnabled"),
        QStringLiteral("ndiName"),          QStringLiteral("webViewerEnabled"),
        QStringLiteral("webViewerPort"),    QStringLiteral("codec"),
        QStringLiteral("writesCueLog"),
    };
}

void AppSettings::readAll()
{
    cameraID_ = readOptionalString(u"cameraID");
    audioDeviceID_ = readOptionalString(u"audioDeviceID");
    recordsAudio_ = readBool(u"recordsAudio", true);
    audioGain_ = readDouble(u"audioGain", 1.0);
    isMirrored_ = readBool(u"isMirrored", false);
    extraCameras_ = extraCamerasFromJson(readJson(u"extraCameras")).value_or(QList<ExtraCamera>{});
    overlayEnabled_ = readBool(u"overlayEnabled", true);
    overlayScale_ = readDouble(u"overlayScale", 1.0);
    overlayOpacity_ = readDouble(u"overlayOpacity", 0.7);
    cameraLabel_ = readString(u"cameraLabel", QStringLiteral("Stage Cam"));
    showsTimecode_ = readBool(u"showsTimecode", true);
    showsCue_ = readBool(u"showsCue", true);
    showsNextCue_ = readBool(u"showsNextCue", true);
    showsShowName_ = readBool(u"showsShowName", false);
    showsFields_ = readBool(u"showsFields", true);
    showsDate_ = readBool(u"showsDate", false);
    showsClock_ = readBool(u"showsClock", true);
    showsQLabCues_ = readBool(u"showsQLabCues", true);
    overlayLayout_ = OverlayLayout::fromJson(readJson(u"overlayLayout"))
                         .value_or(OverlayLayout::defaultLayout());
    layoutPresets_ =
        layoutPresetsFromJson(readJson(u"layoutPresets")).value_or(QList<LayoutPreset>{});
    watermarkText_ = readString(u"watermarkText", QString());
    watermarkImageFile_ = readOptionalString(u"watermarkImageFile");
    watermarkOpacity_ = readDouble(u"watermarkOpacity", 0.6);
    qlabEnabled_ = readBool(u"qlabEnabled", true);
    qlabHost_ = readString(u"qlabHost", QString());
    qlabPort_ = readInt(u"qlabPort", 53000);
    qlabPasscode_ = readString(u"qlabPasscode", QString());
    qlabWorkspace_ = readString(u"qlabWorkspace", QString());
    oscEnabled_ = readBool(u"oscEnabled", true);
    oscPort_ = readInt(u"oscPort", 8001);
    eosEnabled_ = readBool(u"eosEnabled", true);
    eosHost_ = readString(u"eosHost", QString());
    eosFraming_ = oscFramingFromRawValue(readString(u"eosFraming", {})).value_or(OSCFraming::slip);
    eosPort_ = readInt(u"eosPort", eosFraming_ == OSCFraming::lengthPrefixed ? 3032 : 3037);
    eosConsoleID_ = readOptionalString(u"eosConsoleID");
    eosConsoleName_ = readOptionalString(u"eosConsoleName");
    eosNetwork_ = networkKindFromRawValue(readString(u"eosNetwork", {}));
    eosAutoConnect_ = readBool(u"eosAutoConnect", true);
    watchedAddresses_ =
        watchedAddressesFromJson(readJson(u"watchedAddresses")).value_or(QList<WatchedAddress>{});
    ndiEnabled_ = readBool(u"ndiEnabled", false);
    ndiName_ = readString(u"ndiName", QStringLiteral("Orvane"));
    webViewerEnabled_ = readBool(u"webViewerEnabled", false);
    webViewerPort_ = readInt(u"webViewerPort", 8090);
    codec_ = recordingCodecFromRawValue(readString(u"codec", {})).value_or(RecordingCodec::hevc);
    writesCueLog_ = readBool(u"writesCueLog", true);
}

bool AppSettings::readBool(QStringView key, bool fallback) const
{
    const QVariant value = store_->value(key);
    if (value.metaType().id() != QMetaType::Bool)
        return fallback;
    return value.toBool();
}

double AppSettings::readDouble(QStringView key, double fallback) const
{
    const QVariant value = store_->value(key);
    if (!isNumber(value))
        return fallback;
    return value.toDouble();
}

int AppSettings::readInt(QStringView key, int fallback) const
{
    const QVariant value = store_->value(key);
    if (!isWhole(value))
        return fallback;
    const qint64 number = value.toLongLong();
    if (number < std::numeric_limits<int>::min() || number > std::numeric_limits<int>::max())
        return fallback;
    return int(number);
}

QString AppSettings::readString(QStringView key, const QString& fallback) const
{
    const QVariant value = store_->value(key);
    if (value.metaType().id() != QMetaType::QString)
        return fallback;
    return value.toString();
}

std::optional<QString> AppSettings::readOptionalString(QStringView key) const
{
    const QVariant value = store_->value(key);
    if (value.metaType().id() != QMetaType::QString)
        return std::nullopt;
    return value.toString();
}

QJsonValue AppSettings::readJson(QStringView key) const
{
    return QJsonValue::fromVariant(store_->value(key));
}

void AppSettings::write(QStringView key, const QVariant& value)
{
    store_->setValue(key, value);
    store_->sync();
    if (store_->status() == QSettings::AccessError)
        qCWarning(lcSettings).noquote()
            << "settings: couldn't write" << key << "to" << location_.storeFile;
}

void AppSettings::remove(QStringView key)
{
    store_->remove(key);
    store_->sync();
}

void AppSettings::store(QStringView key, bool value)
{
    write(key, value);
}

void AppSettings::store(QStringView key, double value)
{
    write(key, value);
}

void AppSettings::store(QStringView key, int value)
{
    write(key, value);
}

void AppSettings::store(QStringView key, const QString& value)
{
    write(key, value);
}

void AppSettings::store(QStringView key, const std::optional<QString>& value)
{
    if (!value) {
        remove(key);
        return;
    }
    write(key, *value);
}

void AppSettings::store(QStringView key, const QList<ExtraCamera>& value)
{
    write(key, extraCamerasToJson(value));
}

void AppSettings::store(QStringView key, const OverlayLayout& value)
{
    write(key, value.toJson());
}

void AppSettings::store(QStringView key, const QList<LayoutPreset>& value)
{
    write(key, layoutPresetsToJson(value));
}

void AppSettings::store(QStringView key, const QList<WatchedAddress>& value)
{
    write(key, watchedAddressesToJson(value));
}

void AppSettings::store(QStringView key, OSCFraming value)
{
    write(key, rawValue(value));
}

void AppSettings::store(QStringView key, const std::optional<NetworkKind>& value)
{
    if (!value) {
        remove(key);
        return;
    }
    write(key, rawValue(*value));
}

void AppSettings::store(QStringView key, RecordingCodec value)
{
    write(key, rawValue(value));
}

template <class T>
void AppSettings::assign(T& field, const T& value, QStringView key, void (AppSettings::*changed)())
{
    assertOnOwnThread(this);
    store(key, value);
    if (field == value)
        return;
    field = value;
    Q_EMIT(this->*changed)();
}

void AppSettings::setCameraID(const std::optional<QString>& value)
{
    assign(cameraID_, value, u"cameraID", &AppSettings::cameraIDChanged);
}

void AppSettings::setAudioDeviceID(const std::optional<QString>& value)
{
    assign(audioDeviceID_, value, u"audioDeviceID", &AppSettings::audioDeviceIDChanged);
}

void AppSettings::setRecordsAudio(bool value)
{
    assign(recordsAudio_, value, u"recordsAudio", &AppSettings::recordsAudioChanged);
}

void AppSettings::setAudioGain(double value)
{
    assign(audioGain_, value, u"audioGain", &AppSettings::audioGainChanged);
}

void AppSettings::setIsMirrored(bool value)
{
    assign(isMirrored_, value, u"isMirrored", &AppSettings::isMirroredChanged);
}

void AppSettings::setExtraCameras(const QList<ExtraCamera>& value)
{
    assign(extraCameras_, value, u"extraCameras", &AppSettings::extraCamerasChanged);
}

void AppSettings::setOverlayEnabled(bool value)
{
    assign(overlayEnabled_, value, u"overlayEnabled", &AppSettings::overlayEnabledChanged);
}

void AppSettings::setOverlayScale(double value)
{
    assign(overlayScale_, value, u"overlayScale", &AppSettings::overlayScaleChanged);
}

void AppSettings::setOverlayOpacity(double value)
{
    assign(overlayOpacity_, value, u"overlayOpacity", &AppSettings::overlayOpacityChanged);
}

void AppSettings::setCameraLabel(const QString& value)
{
    assign(cameraLabel_, value, u"cameraLabel", &AppSettings::cameraLabelChanged);
}

void AppSettings::setShowsTimecode(bool value)
{
    assign(showsTimecode_, value, u"showsTimecode", &AppSettings::showsTimecodeChanged);
}

void AppSettings::setShowsCue(bool value)
{
    assign(showsCue_, value, u"showsCue", &AppSettings::showsCueChanged);
}

void AppSettings::setShowsNextCue(bool value)
{
    assign(showsNextCue_, value, u"showsNextCue", &AppSettings::showsNextCueChanged);
}

void AppSettings::setShowsShowName(bool value)
{
    assign(showsShowName_, value, u"showsShowName", &AppSettings::showsShowNameChanged);
}

void AppSettings::setShowsFields(bool value)
{
    assign(showsFields_, value, u"showsFields", &AppSettings::showsFieldsChanged);
}

void AppSettings::setShowsDate(bool value)
{
    assign(showsDate_, value, u"showsDate", &AppSettings::showsDateChanged);
}

void AppSettings::setShowsClock(bool value)
{
    assign(showsClock_, value, u"showsClock", &AppSettings::showsClockChanged);
}

void AppSettings::setShowsQLabCues(bool value)
{
    assign(showsQLabCues_, value, u"showsQLabCues", &AppSettings::showsQLabCuesChanged);
}

void AppSettings::setOverlayLayout(const OverlayLayout& value)
{
    assign(overlayLayout_, value, u"overlayLayout", &AppSettings::overlayLayoutChanged);
}

void AppSettings::setLayoutPresets(const QList<LayoutPreset>& value)
{
    assign(layoutPresets_, value, u"layoutPresets", &AppSettings::layoutPresetsChanged);
}

void AppSettings::setWatermarkText(const QString& value)
{
    assign(watermarkText_, value, u"watermarkText", &AppSettings::watermarkTextChanged);
}

void AppSettings::setWatermarkImageFile(const std::optional<QString>& value)
{
    assign(watermarkImageFile_, value, u"watermarkImageFile",
           &AppSettings::watermarkImageFileChanged);
}

void AppSettings::setWatermarkOpacity(double value)
{
    assign(watermarkOpacity_, value, u"watermarkOpacity", &AppSettings::watermarkOpacityChanged);
}

void AppSettings::setQlabEnabled(bool value)
{
    assign(qlabEnabled_, value, u"qlabEnabled", &AppSettings::qlabEnabledChanged);
}

void AppSettings::setQlabHost(const QString& value)
{
    assign(qlabHost_, value, u"qlabHost", &AppSettings::qlabHostChanged);
}

void AppSettings::setQlabPort(int value)
{
    assign(qlabPort_, value, u"qlabPort", &AppSettings::qlabPortChanged);
}

void AppSettings::setQlabPasscode(const QString& value)
{
    assign(qlabPasscode_, value, u"qlabPasscode", &AppSettings::qlabPasscodeChanged);
}

void AppSettings::setQlabWorkspace(const QString& value)
{
    assign(qlabWorkspace_, value, u"qlabWorkspace", &AppSettings::qlabWorkspaceChanged);
}

void AppSettings::setOscEnabled(bool value)
{
    assign(oscEnabled_, value, u"oscEnabled", &AppSettings::oscEnabledChanged);
}

void AppSettings::setOscPort(int value)
{
    assign(oscPort_, value, u"oscPort", &AppSettings::oscPortChanged);
}

void AppSettings::setEosEnabled(bool value)
{
    assign(eosEnabled_, value, u"eosEnabled", &AppSettings::eosEnabledChanged);
}

void AppSettings::setEosHost(const QString& value)
{
    assign(eosHost_, value, u"eosHost", &AppSettings::eosHostChanged);
}

void AppSettings::setEosFraming(OSCFraming value)
{
    assign(eosFraming_, value, u"eosFraming", &AppSettings::eosFramingChanged);
}

void AppSettings::setEosPort(int value)
{
    assign(eosPort_, value, u"eosPort", &AppSettings::eosPortChanged);
}

void AppSettings::setEosConsoleID(const std::optional<QString>& value)
{
    assign(eosConsoleID_, value, u"eosConsoleID", &AppSettings::eosConsoleIDChanged);
}

void AppSettings::setEosConsoleName(const std::optional<QString>& value)
{
    assign(eosConsoleName_, value, u"eosConsoleName", &AppSettings::eosConsoleNameChanged);
}

void AppSettings::setEosNetwork(const std::optional<NetworkKind>& value)
{
    assign(eosNetwork_, value, u"eosNetwork", &AppSettings::eosNetworkChanged);
}

void AppSettings::setEosAutoConnect(bool value)
{
    assign(eosAutoConnect_, value, u"eosAutoConnect", &AppSettings::eosAutoConnectChanged);
}

void AppSettings::setWatchedAddresses(const QList<WatchedAddress>& value)
{
    assign(watchedAddresses_, value, u"watchedAddresses", &AppSettings::watchedAddressesChanged);
}

void AppSettings::setNdiEnabled(bool value)
{
    assign(ndiEnabled_, value, u"ndiEnabled", &AppSettings::ndiEnabledChanged);
}

void AppSettings::setNdiName(const QString& value)
{
    assign(ndiName_, value, u"ndiName", &AppSettings::ndiNameChanged);
}

void AppSettings::setWebViewerEnabled(bool value)
{
    assign(webViewerEnabled_, value, u"webViewerEnabled", &AppSettings::webViewerEnabledChanged);
}

void AppSettings::setWebViewerPort(int value)
{
    assign(webViewerPort_, value, u"webViewerPort", &AppSettings::webViewerPortChanged);
}

void AppSettings::setCodec(RecordingCodec value)
{
    assign(codec_, value, u"codec", &AppSettings::codecChanged);
}

void AppSettings::setWritesCueLog(bool value)
{
    assign(writesCueLog_, value, u"writesCueLog", &AppSettings::writesCueLogChanged);
}

OverlayLook AppSettings::currentLook() const
{
    return OverlayLook{overlayLayout_,   overlayScale_,  overlayOpacity_, showsClock_,
                       showsDate_,       showsTimecode_, showsCue_,       showsNextCue_,
                       showsShowName_,   showsFields_,   showsQLabCues_,  watermarkText_,
                       watermarkOpacity_};
}

void AppSettings::applyLook(const OverlayLook& look)
{
    setOverlayLayout(look.layout);
    setOverlayScale(look.scale);
    setOverlayOpacity(look.opacity);
    setShowsClock(look.showsClock);
    setShowsDate(look.showsDate);
    setShowsTimecode(look.showsTimecode);
    setShowsCue(look.showsCue);
    setShowsNextCue(look.showsNextCue);
    setShowsShowName(look.showsShowName);
    setShowsFields(look.showsFields);
    setShowsQLabCues(look.showsQLabCues);
    setWatermarkText(look.watermarkText);
    setWatermarkOpacity(look.watermarkOpacity);
}

void AppSettings::saveLayoutPreset(const QString& name)
{
    assertOnOwnThread(this);
    const QString trimmed = name.trimmed();
    if (trimmed.isEmpty())
        return;
    QList<LayoutPreset> presets = layoutPresets_;
    if (const auto found = indexOfLayoutPreset(presets, trimmed))
        presets[*found].look = currentLook();
    else
        presets.append(LayoutPreset{QUuid::createUuid(), trimmed, currentLook()});
    setLayoutPresets(presets);
}

bool AppSettings::applyLayoutPreset(const QString& name)
{
    assertOnOwnThread(this);
    const auto found = indexOfLayoutPreset(layoutPresets_, name);
    if (!found)
        return false;
    applyLook(layoutPresets_.at(*found).look);
    return true;
}

std::optional<LayoutPreset> AppSettings::activeLayoutPreset() const
{
    const auto found = indexOfActiveLayoutPreset(layoutPresets_, currentLook());
    if (!found)
        return std::nullopt;
    return layoutPresets_.at(*found);
}

std::optional<QString> AppSettings::setWatermarkImage(const QString& chosenFile)
{
    assertOnOwnThread(this);
    const QFileInfo chosen(chosenFile);
    const QString unreadable =
        QStringLiteral("Orvane couldn't read “%1” as an image. Try a PNG or JPEG.")
            .arg(chosen.fileName());
    QFile source(chosenFile);
    if (!source.open(QIODevice::ReadOnly))
        return unreadable;
    const QByteArray data = source.readAll();
    if (source.error() != QFileDevice::NoError || QImage::fromData(data).isNull())
        return unreadable;

    const QString unusable = QStringLiteral("Orvane couldn't use that image. ");
    std::error_code error;
    std::filesystem::create_directories(location_.supportFolder.toStdString(), error);
    if (error)
        return unusable + QString::fromStdString(error.message());

    const QString name = QStringLiteral("Watermark.") + chosen.suffix().toLower();
    QSaveFile target(location_.supportFolder + u'/' + name);
    if (!target.open(QIODevice::WriteOnly) || target.write(data) != data.size() || !target.commit())
        return unusable + target.errorString();

    // An image of another type leaves its old file behind otherwise.
    if (watermarkImageFile_ && *watermarkImageFile_ != name)
        QFile::remove(location_.supportFolder + u'/' + *watermarkImageFile_);
    setWatermarkImageFile(name);
    return std::nullopt;
}

void AppSettings::clearWatermarkImage()
{
    assertOnOwnThread(this);
    if (watermarkImageFile_)
        QFile::remove(location_.supportFolder + u'/' + *watermarkImageFile_);
    setWatermarkImageFile(std::nullopt);
}

std::optional<QString> AppSettings::watermarkImagePath() const
{
    if (!watermarkImageFile_)
        return std::nullopt;
    return location_.supportFolder + u'/' + *watermarkImageFile_;
}

} // namespace orvane
