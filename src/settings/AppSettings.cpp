#include "settings/AppSettings.h"

#include "base/Checks.h"
#include "settings/JsonSettingsFormat.h"
#include "settings/WatchedAddressJson.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QLoggingCategory>
#include <QSaveFile>
#include <QSettings>
#include <QStandardPaths>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <system_error>

namespace orvane {

Q_LOGGING_CATEGORY(lcSettings, "orvane.settings")

namespace {

const QString kMovedOutOfSandbox = QStringLiteral("movedOutOfSandbox");

// The rules of the key table: which values a key keeps. Each answers the value to keep, or
// nothing to refuse it (a refused stored value gives the default; a refused setter call
// changes nothing), and says in words what it keeps, for the documentation.
struct AnyValue {};
constexpr AnyValue anyValue{};

// A name inside the support folder: never a path that leads out of it.
struct PlainFileName {};
constexpr PlainFileName plainFileName{};

template <class T> std::optional<T> kept(AnyValue, const T& value)
{
    return value;
}

// A number that JSON cannot hold (NaN, infinity) would be written as nothing and read back
// as the default: it is refused instead, so memory and file never disagree.
std::optional<double> kept(AnyValue, double value)
{
    if (!std::isfinite(value))
        return std::nullopt;
    return value;
}

bool isPlainFileName(const QString& name)
{
    return !name.isEmpty() && name != u"." && name != u".." && !name.contains(u'/') &&
           !name.contains(u'\\') && !name.contains(QChar(0));
}

std::optional<std::optional<QString>> kept(PlainFileName, const std::optional<QString>& name)
{
    if (name && !isPlainFileName(*name))
        return std::nullopt;
    return name;
}

QString described(AnyValue)
{
    return {};
}

QString described(PlainFileName)
{
    return QStringLiteral("; a plain file name, never a path");
}

// How each type of setting is read from the store, written to it and named in the
// documentation. A read answers nothing when the stored value has another type; a write
// answers nothing when the key is to be removed.
template <class T> struct As {
};

bool holds(const QVariant& value, QMetaType::Type type)
{
    return value.metaType().id() == type;
}

std::optional<QString> text(const QVariant& value)
{
    if (!holds(value, QMetaType::QString))
        return std::nullopt;
    return value.toString();
}

QJsonValue json(const QVariant& value)
{
    return QJsonValue::fromVariant(value);
}

std::optional<bool> decode(const QVariant& value, As<bool>)
{
    if (!holds(value, QMetaType::Bool))
        return std::nullopt;
    return value.toBool();
}

std::optional<double> decode(const QVariant& value, As<double>)
{
    if (!holds(value, QMetaType::LongLong) && !holds(value, QMetaType::Int) &&
        !holds(value, QMetaType::Double))
        return std::nullopt;
    return value.toDouble();
}

std::optional<int> decode(const QVariant& value, As<int>)
{
    if (!holds(value, QMetaType::LongLong) && !holds(value, QMetaType::Int))
        return std::nullopt;
    const qint64 number = value.toLongLong();
    if (number < std::numeric_limits<int>::min() || number > std::numeric_limits<int>::max())
        return std::nullopt;
    return int(number);
}

std::optional<QString> decode(const QVariant& value, As<QString>)
{
    return text(value);
}

std::optional<std::optional<QString>> decode(const QVariant& value, As<std::optional<QString>>)
{
    const auto stored = text(value);
    if (!stored)
        return std::nullopt;
    return stored;
}

std::optional<QList<ExtraCamera>> decode(const QVariant& value, As<QList<ExtraCamera>>)
{
    return extraCamerasFromJson(json(value));
}

std::optional<OverlayLayout> decode(const QVariant& value, As<OverlayLayout>)
{
    return OverlayLayout::fromJson(json(value));
}

std::optional<QList<LayoutPreset>> decode(const QVariant& value, As<QList<LayoutPreset>>)
{
    return layoutPresetsFromJson(json(value));
}

std::optional<QList<WatchedAddress>> decode(const QVariant& value, As<QList<WatchedAddress>>)
{
    return watchedAddressesFromJson(json(value));
}

std::optional<OSCFraming> decode(const QVariant& value, As<OSCFraming>)
{
    return oscFramingFromRawValue(text(value).value_or(QString()));
}

std::optional<std::optional<NetworkKind>> decode(const QVariant& value,
                                                 As<std::optional<NetworkKind>>)
{
    const auto kind = networkKindFromRawValue(text(value).value_or(QString()));
    if (!kind)
        return std::nullopt;
    return kind;
}

std::optional<RecordingCodec> decode(const QVariant& value, As<RecordingCodec>)
{
    return recordingCodecFromRawValue(text(value).value_or(QString()));
}

template <class T> std::optional<QVariant> encode(const T& value)
{
    return QVariant(value);
}

std::optional<QVariant> encode(const std::optional<QString>& value)
{
    if (!value)
        return std::nullopt;
    return QVariant(*value);
}

std::optional<QVariant> encode(const QList<ExtraCamera>& value)
{
    return QVariant(extraCamerasToJson(value));
}

std::optional<QVariant> encode(const OverlayLayout& value)
{
    return QVariant(value.toJson());
}

std::optional<QVariant> encode(const QList<LayoutPreset>& value)
{
    return QVariant(layoutPresetsToJson(value));
}

std::optional<QVariant> encode(const QList<WatchedAddress>& value)
{
    return QVariant(watchedAddressesToJson(value));
}

std::optional<QVariant> encode(OSCFraming value)
{
    return QVariant(rawValue(value));
}

std::optional<QVariant> encode(const std::optional<NetworkKind>& value)
{
    if (!value)
        return std::nullopt;
    return QVariant(rawValue(*value));
}

std::optional<QVariant> encode(RecordingCodec value)
{
    return QVariant(rawValue(value));
}

QString typeName(As<bool>)
{
    return QStringLiteral("Bool");
}

QString typeName(As<double>)
{
    return QStringLiteral("Double");
}

QString typeName(As<int>)
{
    return QStringLiteral("Int");
}

QString typeName(As<QString>)
{
    return QStringLiteral("String");
}

QString typeName(As<std::optional<QString>>)
{
    return QStringLiteral("String, optional");
}

QString typeName(As<QList<ExtraCamera>>)
{
    return QStringLiteral("JSON: array of ExtraCamera");
}

QString typeName(As<OverlayLayout>)
{
    return QStringLiteral("JSON: OverlayLayout");
}

QString typeName(As<QList<LayoutPreset>>)
{
    return QStringLiteral("JSON: array of LayoutPreset");
}

QString typeName(As<QList<WatchedAddress>>)
{
    return QStringLiteral("JSON: array of WatchedAddress");
}

QString typeName(As<OSCFraming>)
{
    return QStringLiteral("String: OSCFraming");
}

QString typeName(As<std::optional<NetworkKind>>)
{
    return QStringLiteral("String, optional: NetworkKind");
}

QString typeName(As<RecordingCodec>)
{
    return QStringLiteral("String: RecordingCodec");
}

// The stored value of `key` as the key's type keeps it, or `fallback`.
template <class T, class Rule>
T read(const QVariantMap& stored, const QString& key, const Rule& rule, const T& fallback)
{
    const auto it = stored.constFind(key);
    if (it == stored.cend())
        return fallback;
    const std::optional<T> decoded = decode(*it, As<T>{});
    if (!decoded)
        return fallback;
    return kept(rule, *decoded).value_or(fallback);
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

std::unique_ptr<QSettings> openStore(const QString& file)
{
    auto store = std::make_unique<QSettings>(file, jsonSettingsFormat());
    store->setAtomicSyncRequired(true); // write a temporary file, then rename it over
    return store;
}

// The settings file's text; nothing when the file does not exist.
std::optional<QByteArray> fileText(const QString& path, bool& readable)
{
    readable = true;
    if (!QFileInfo::exists(path))
        return std::nullopt;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        readable = false;
        return QByteArray();
    }
    return file.readAll();
}

// Whether the file at `path` is missing or one JSON object.
bool isMissingOrReadable(const QString& path)
{
    bool readable = true;
    const auto text = fileText(path, readable);
    return !text || (readable && settingsObjectFromText(*text));
}

// A free name beside the settings file for a damaged copy of it:
// "Orvane.damaged-20260314-193005.json", with "-2", "-3"… when that is taken.
QString damagedCopyPath(const QString& storeFile)
{
    const QFileInfo store(storeFile);
    const QString stem = store.absolutePath() + u'/' + store.completeBaseName() +
                         QStringLiteral(".damaged-") +
                         QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    const QString suffix = u'.' + store.suffix();
    QString path = stem + suffix;
    for (int n = 2; QFileInfo::exists(path) || QFileInfo(path).isSymLink(); ++n)
        path = stem + u'-' + QString::number(n) + suffix;
    return path;
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
    if (!isMissingOrReadable(current.storeFile))
        return;
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
{
    writeTimer_.setSingleShot(true);
    writeTimer_.setInterval(kWriteDelay);
    connect(&writeTimer_, &QTimer::timeout, this, &AppSettings::flush);
    if (const auto* application = QCoreApplication::instance())
        connect(application, &QCoreApplication::aboutToQuit, this, &AppSettings::flush);
    open();
}

AppSettings::~AppSettings()
{
    flush();
}

void AppSettings::open()
{
    const QString& file = location_.storeFile;
    bool readable = true;
    const auto text = fileText(file, readable);
    const auto object = readable && text ? settingsObjectFromText(*text) : std::nullopt;
    if (!text || object) {
        store_ = openStore(file);
        QVariantMap stored;
        const QStringList keys = store_->allKeys();
        for (const QString& key : keys)
            stored.insert(key, store_->value(key));
        readAll(stored);
        return;
    }

    // A damaged file: keep it as it is under another name, and start a new one with every
    // member that can still be read from it.
    const QJsonObject members = readableMembers(readable ? *text : QByteArray());
    QVariantMap stored;
    for (auto member = members.begin(); member != members.end(); ++member)
        stored.insert(member.key(), settingsValueFromJson(member.value()));
    readAll(stored);

    const QString copy = damagedCopyPath(file);
    QFile damaged(file);
    if (!damaged.rename(copy)) {
        qCWarning(lcSettings).noquote()
            << "settings: couldn't read" << file << "as a JSON object, nor move it to" << copy
            << "(" + damaged.errorString() + "); nothing will be written to it";
        canWrite_ = false;
        store_ = openStore(file);
        damagedFileMessage_ =
            QStringLiteral("Orvane couldn't read all of its settings in “%1” and couldn't move "
                           "that file aside, so changes to settings won't be saved.")
                .arg(QDir::toNativeSeparators(file));
        return;
    }
    qCWarning(lcSettings).noquote()
        << "settings: couldn't read" << file << "as a JSON object; kept it as" << copy << "and read"
        << members.size() << "of its keys";
    damagedFileCopy_ = copy;
    damagedFileMessage_ =
        QStringLiteral("Orvane couldn't read all of its settings, so it kept the damaged file "
                       "as “%1” and uses every setting it could still read.")
            .arg(QDir::toNativeSeparators(copy));
    store_ = openStore(file);
    for (auto entry = stored.begin(); entry != stored.end(); ++entry)
        store_->setValue(entry.key(), entry.value());
    store_->sync();
}

QStringList AppSettings::keys()
{
    return {
#define ORVANE_SETTING_KEY(Type, name, Name, fallback, rule, meaning) QStringLiteral(#name),
        ORVANE_SETTINGS(ORVANE_SETTING_KEY)
#undef ORVANE_SETTING_KEY
    };
}

QList<AppSettings::KeyInfo> AppSettings::keyInfos()
{
    QStringList lookKeys;
#define ORVANE_LOOK_KEY(Type, field, setting, Setting, fallback)                                   \
    lookKeys << QStringLiteral(#setting);
    ORVANE_OVERLAY_LOOK(ORVANE_LOOK_KEY)
#undef ORVANE_LOOK_KEY
    return {
#define ORVANE_SETTING_INFO(Type, name, Name, fallback, rule, meaning)                             \
    KeyInfo{QStringLiteral(#name), typeName(As<Type>{}),                                           \
            QStringLiteral(meaning) + described(rule), lookKeys.contains(QStringLiteral(#name))},
        ORVANE_SETTINGS(ORVANE_SETTING_INFO)
#undef ORVANE_SETTING_INFO
    };
}

int AppSettings::defaultEosPort(OSCFraming framing)
{
    return framing == OSCFraming::lengthPrefixed ? 3032 : 3037;
}

void AppSettings::readAll(const QVariantMap& stored)
{
    // In table order: a default may follow a key read before it (eosPort from eosFraming).
#define ORVANE_READ_SETTING(Type, name, Name, fallback, rule, meaning)                             \
    name##_ = read<Type>(stored, QStringLiteral(#name), rule, fallback);
    ORVANE_SETTINGS(ORVANE_READ_SETTING)
#undef ORVANE_READ_SETTING
}

void AppSettings::write(QStringView key, const std::optional<QVariant>& value)
{
    pending_.insert(key.toString(), value);
    if (!writeTimer_.isActive())
        writeTimer_.start();
}

std::optional<QVariant> AppSettings::storedValue(const QString& key) const
{
    assertOnOwnThread(this);
    if (pending_.contains(key))
        return pending_.value(key);
    if (!store_->contains(key))
        return std::nullopt;
    return store_->value(key);
}

void AppSettings::flush()
{
    assertOnOwnThread(this);
    writeTimer_.stop();
    if (pending_.isEmpty())
        return;
    if (!canWrite_) {
        qCInfo(lcSettings).noquote() << "settings: not writing" << pending_.size()
                                     << "changed keys to the damaged" << location_.storeFile;
        pending_.clear();
        return;
    }
    for (auto entry = pending_.begin(); entry != pending_.end(); ++entry) {
        if (entry.value())
            store_->setValue(entry.key(), *entry.value());
        else
            store_->remove(entry.key());
    }
    const auto written = pending_.size();
    pending_.clear();
    store_->sync();
    if (store_->status() != QSettings::NoError)
        qCWarning(lcSettings).noquote()
            << "settings: couldn't write" << written << "changed keys to" << location_.storeFile;
}

template <class T, class Rule>
void AppSettings::assign(T& field, const T& value, QStringView key, const Rule& rule,
                         void (AppSettings::*changed)())
{
    assertOnOwnThread(this);
    const std::optional<T> accepted = kept(rule, value);
    if (!accepted) {
        qCInfo(lcSettings).noquote()
            << QStringLiteral("settings: refused a value of %1%2").arg(key, described(rule));
        return;
    }
    write(key, encode(*accepted));
    if (field == *accepted)
        return;
    field = *accepted;
    Q_EMIT(this->*changed)();
}

#define ORVANE_SETTING_SETTER(Type, name, Name, fallback, rule, meaning)                           \
    void AppSettings::set##Name(SettingArgument<Type> value)                                       \
    {                                                                                              \
        assign(name##_, value, u"" #name, rule, &AppSettings::name##Changed);                      \
    }
ORVANE_SETTINGS(ORVANE_SETTING_SETTER)
#undef ORVANE_SETTING_SETTER

OverlayLook AppSettings::currentLook() const
{
    OverlayLook look;
#define ORVANE_LOOK_FROM_SETTING(Type, field, setting, Setting, fallback) look.field = setting##_;
    ORVANE_OVERLAY_LOOK(ORVANE_LOOK_FROM_SETTING)
#undef ORVANE_LOOK_FROM_SETTING
    return look;
}

void AppSettings::applyLook(const OverlayLook& look)
{
#define ORVANE_LOOK_TO_SETTING(Type, field, setting, Setting, fallback) set##Setting(look.field);
    ORVANE_OVERLAY_LOOK(ORVANE_LOOK_TO_SETTING)
#undef ORVANE_LOOK_TO_SETTING
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
