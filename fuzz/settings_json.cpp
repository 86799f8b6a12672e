// Feeds arbitrary text to the settings: to the decoders of the settings' JSON values, and as
// a whole settings file.
// - Whatever decodes must encode to JSON that decodes to the same value again, or a saved
//   layout would change (or be dropped) on the next start.
// - A settings file, readable or damaged, must never lose what it holds: a readable file
//   keeps every member a change does not touch; a damaged one is kept aside byte for byte
//   (and the move out of the Flatpak container leaves it alone). What was read is written
//   so that the next start reads the same values, cleanly.
// - What is read is safe to use: the overlay scale stays in the offered range, also through
//   every preset, and the watermark image file is a name inside the support folder, so
//   clearing it deletes nothing outside.
#include "settings/AppSettings.h"
#include "settings/ExtraCamera.h"
#include "settings/JsonSettingsFormat.h"
#include "settings/LayoutPreset.h"
#include "settings/OverlayLayout.h"
#include "settings/OverlayLook.h"
#include "settings/WatchedAddressJson.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QMetaProperty>
#include <QTemporaryDir>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

using namespace orvane;

namespace {

QJsonValue throughText(const QJsonValue& value)
{
    const QByteArray text = value.isArray() ? QJsonDocument(value.toArray()).toJson()
                                            : QJsonDocument(value.toObject()).toJson();
    const QJsonDocument back = QJsonDocument::fromJson(text);
    return back.isArray() ? QJsonValue(back.array()) : QJsonValue(back.object());
}

template <class T, class Decode, class Encode>
void checkRoundTrip(const QJsonValue& input, Decode decode, Encode encode)
{
    const std::optional<T> decoded = decode(input);
    if (!decoded)
        return;
    const std::optional<T> again = decode(throughText(encode(*decoded)));
    if (!again || !(*again == *decoded))
        std::abort();
}

void checkValues(const QByteArray& bytes)
{
    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    const QJsonValue input =
        document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());

    checkRoundTrip<OverlayLayout>(
        input, [](const QJsonValue& v) { return OverlayLayout::fromJson(v); },
        [](const OverlayLayout& layout) { return QJsonValue(layout.toJson()); });
    checkRoundTrip<OverlayLook>(
        input, [](const QJsonValue& v) { return OverlayLook::fromJson(v); },
        [](const OverlayLook& look) { return QJsonValue(look.toJson()); });
    checkRoundTrip<QList<LayoutPreset>>(
        input, [](const QJsonValue& v) { return layoutPresetsFromJson(v); },
        [](const QList<LayoutPreset>& presets) {
            return QJsonValue(layoutPresetsToJson(presets));
        });
    checkRoundTrip<QList<ExtraCamera>>(
        input, [](const QJsonValue& v) { return extraCamerasFromJson(v); },
        [](const QList<ExtraCamera>& cameras) { return QJsonValue(extraCamerasToJson(cameras)); });
    checkRoundTrip<QList<WatchedAddress>>(
        input, [](const QJsonValue& v) { return watchedAddressesFromJson(v); },
        [](const QList<WatchedAddress>& list) { return QJsonValue(watchedAddressesToJson(list)); });
}

#define require(condition)                                                                         \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "settings_json: broken: %s\n", #condition);                       \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    require(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
}

QVariantMap allValues(const AppSettings& settings)
{
    QVariantMap values;
    const QMetaObject& meta = AppSettings::staticMetaObject;
    for (int at = meta.propertyOffset(); at < meta.propertyCount(); ++at)
        values.insert(meta.property(at).name(), meta.property(at).read(&settings));
    return values;
}

void checkSafeToUse(AppSettings& settings)
{
    // Any finite scale is kept; the overlay draws it within its sizes.
    const auto inRange = [&] {
        const double drawn = settings.currentLook().drawnScale();
        return std::isfinite(settings.overlayScale()) && drawn >= OverlayLook::kMinimumScale &&
               drawn <= OverlayLook::kMaximumScale;
    };
    require(inRange());
    if (const auto image = settings.watermarkImagePath())
        require(QFileInfo(*image).absolutePath() ==
                QFileInfo(settings.location().supportFolder).absoluteFilePath());
    const QList<LayoutPreset> presets = settings.layoutPresets();
    for (const LayoutPreset& preset : presets) {
        settings.applyLook(preset.look);
        require(inRange());
    }
}

// Opens `bytes` as the settings file and checks that nothing is lost and what is read is safe.
void checkSettingsFile(const QByteArray& bytes)
{
    // In memory where there is a tmpfs: every write of the store syncs the disk.
    static QTemporaryDir folder(QFileInfo(QStringLiteral("/dev/shm")).isWritable()
                                    ? QStringLiteral("/dev/shm/fuzz_settings_json-XXXXXX")
                                    : QDir::tempPath() +
                                          QStringLiteral("/fuzz_settings_json-XXXXXX"));
    const QString victim = folder.filePath("victim");
    const QString oldStore = folder.filePath("container/config/Orvane/Orvane.json");
    if (!QFileInfo::exists(victim))
        writeFile(victim, "not Orvane's");
    if (!QFileInfo::exists(oldStore))
        writeFile(oldStore, R"({"qlabHost":"from the container"})");
    QDir(folder.filePath("config")).removeRecursively();
    QDir(folder.filePath("data")).removeRecursively();
    const AppSettings::Location location{folder.filePath("config/Orvane/Orvane.json"),
                                         folder.filePath("data/Orvane")};
    writeFile(location.storeFile, bytes);

    const std::optional<QJsonObject> original = settingsObjectFromText(bytes);
    if (original)
        require(readableMembers(bytes) == *original); // agrees with the parser on good files
    else {
        AppSettings::moveOutOfContainer(
            location, AppSettings::containerLocation(folder.filePath("container")));
        require(readFile(location.storeFile) == bytes);
    }

    QVariantMap values;
    {
        AppSettings settings(location);
        require(settings.damagedFileMessage().has_value() == !original);
        if (!original)
            require(settings.damagedFileCopy() && readFile(*settings.damagedFileCopy()) == bytes);
        values = allValues(settings);

        // A change rewrites the file; every member it does not touch stays as it was.
        settings.setQlabHost(QStringLiteral("fuzz"));
        values[QStringLiteral("qlabHost")] = QStringLiteral("fuzz");
        settings.flush();
        const auto stored = settingsObjectFromText(readFile(location.storeFile));
        require(stored.has_value());
        if (original) {
            for (auto member = original->begin(); member != original->end(); ++member) {
                if (member.key() != QStringLiteral("qlabHost"))
                    require(stored->value(member.key()) == member.value());
            }
        }

        checkSafeToUse(settings);
        // Every value read, written back, is read again as it was.
        for (auto entry = values.begin(); entry != values.end(); ++entry)
            settings.setProperty(entry.key().toLatin1().constData(), entry.value());
    }
    AppSettings again(location);
    require(!again.damagedFileMessage());
    require(allValues(again) == values);
    again.clearWatermarkImage();
    require(readFile(victim) == "not Orvane's");
}

// A settings file as Orvane writes it, with every kind of value.
const char* const kWholeFile =
    R"({"cameraID":"usb-046d-0825","audioGain":0.8,"recordsAudio":true,"extraCameras":[{"id":)"
    R"("6B1F6C1E-8D3A-4C55-9E0B-2A7D5F3E9C10","deviceID":"usb-1","label":"Wing Cam",)"
    R"("isMirrored":true}],"overlayScale":1.5,"overlayOpacity":0.5,"cameraLabel":"Stage Cam",)"
    R"("overlayLayout":{"placements":["qlab",{"x":0.5,"y":0.25,"anchorX":0.5,"anchorY":0}]},)"
    R"("layoutPresets":[{"id":"7C2E7D2F-9E4B-4D66-8F1C-3B8E6F4FAD21","name":"Act 2","look":)"
    R"({"layout":{"placements":[]},"scale":1.25,"opacity":0.7,"showsClock":true,)"
    R"("showsDate":false,"showsTimecode":true,"showsCue":true,"showsNextCue":true,)"
    R"("showsShowName":false,"showsFields":true,"showsQLabCues":true,"watermarkText":"Cast",)"
    R"("watermarkOpacity":0.6}}],"watermarkText":"Rehearsal","watermarkImageFile":)"
    R"("Watermark.png","qlabHost":"stage-mac","qlabPort":53000,"oscPort":8001,)"
    R"("eosFraming":"lengthPrefixed","eosPort":3032,"eosNetwork":"wired","watchedAddresses":)"
    R"([{"id":"8D3F8E30-AF5C-4E77-902D-4C9F705FBE32","label":"Fog","address":"/fog/*"}],)"
    R"("codec":"h264","movedOutOfSandbox":true})";

// Faults found before, checked on every run (the fuzzer starts from an empty corpus).
const char* const kSeeds[] = {
    kWholeFile,
    R"({"watermarkImageFile":"../../victim"})",
    R"({"watermarkImageFile":"/etc/passwd"})",
    R"({"overlayScale":1000})",
    R"({"overlayScale":-3,"overlayOpacity":0.5})",
    R"({"layoutPresets":[{"id":"6B1F6C1E-8D3A-4C55-9E0B-2A7D5F3E9C10","name":"Huge","look":)"
    R"({"layout":{"placements":[]},"scale":1000,"opacity":0.7,"showsClock":true,)"
    R"("showsDate":false,"showsTimecode":true,"showsCue":true,"showsNextCue":true,)"
    R"("showsShowName":false,"showsFields":true,"showsQLabCues":true,"watermarkText":"",)"
    R"("watermarkOpacity":0.6}}]})",
    R"({"oscPort":9000,"extraCameras":[],"qlabHost":"stage-ma)",
    R"({"oscPort":9000,"eosPort":30)",
    R"([{"oscPort":9000}])",
    R"({"cameraLabel":"A \"B\", [C]","oscPort":9000}})",
    "null",
    "",
};

// The settings file an input stands for. An input that starts with 0xff is a list of edits
// (4 bytes each: what, where (2 bytes), which byte) to one of the seeds, so that the search
// also runs through damaged and hand-edited versions of real settings files, which random
// bytes seldom reach; any other input is the file itself.
QByteArray settingsText(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), qsizetype(size));
    if (size < 2 || data[0] != 0xff)
        return bytes;
    QByteArray text(kSeeds[data[1] % std::size(kSeeds)]);
    for (size_t at = 2; at + 3 < size; at += 4) {
        const qsizetype where = (data[at + 1] * 256 + data[at + 2]) % (text.size() + 1);
        const char byte = char(data[at + 3]);
        switch (data[at] % 4) {
        case 0:
            text.truncate(where);
            break;
        case 1:
            text.insert(where, byte);
            break;
        case 2:
            text.remove(where, 1);
            break;
        default:
            if (where < text.size())
                text[where] = byte;
            break;
        }
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    static QCoreApplication application(*argc, *argv);
    QLoggingCategory::setFilterRules(
        QStringLiteral("orvane.settings.info=false\norvane.settings.warning=false"));
    for (const char* seed : kSeeds)
        checkSettingsFile(QByteArray(seed));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes = settingsText(data, size);
    checkValues(bytes);
    checkSettingsFile(bytes);
    return 0;
}
