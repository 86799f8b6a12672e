// The settings: what a stored file gives, what every setter writes and tells, damaged files,
// presets and their JSON, the watermark image and the move out of the old container.
#include "settings/AppSettings.h"
#include "support/Golden.h"

#include <QDir>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaProperty>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <map>

#include <sys/stat.h>

using namespace orvane;

namespace {

using OptionalText = std::optional<QString>;
using OptionalKind = std::optional<NetworkKind>;

const QByteArray kCameraJson =
    R"({"id":"6b1f6c1e-8d3a-4c55-9e0b-2a7d5f3e9c10",)"
    R"("deviceID":"usb-046d-0825","label":"Wing Cam","isMirrored":true})";

void writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        qFatal("couldn't write %s", qPrintable(path));
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A store file and support folder inside `dir`; `storeText`, when given, is the file's text.
AppSettings::Location privateLocation(const QTemporaryDir& dir, const QByteArray& storeText = {})
{
    const AppSettings::Location location{dir.filePath("config/Orvane/Orvane.json"),
                                         dir.filePath("data/Orvane")};
    if (!storeText.isNull())
        writeFile(location.storeFile, storeText);
    return location;
}

QJsonObject storedObject(const AppSettings::Location& location)
{
    return QJsonDocument::fromJson(readFile(location.storeFile)).object();
}

template <class T> bool holdsType(const QVariant& value)
{
    return value.metaType() == QMetaType::fromType<T>();
}

// The properties that are settings, in declaration order.
QList<QMetaProperty> settingProperties()
{
    QList<QMetaProperty> properties;
    const QMetaObject& meta = AppSettings::staticMetaObject;
    for (int at = meta.propertyOffset(); at < meta.propertyCount(); ++at)
        properties.append(meta.property(at));
    return properties;
}

QVariantMap allValues(const AppSettings& settings)
{
    QVariantMap values;
    for (const QMetaProperty& property : settingProperties())
        values.insert(property.name(), property.read(&settings));
    return values;
}

// A look far from the defaults in every field, so that a field lost on the way shows.
OverlayLook unusualLook()
{
    OverlayLook look;
    look.layout.placements.clear();
    look.layout.setPlacement(OverlayWidget::qlab, {0.25, 0.125, 1.0, 0.0});
    look.layout.setPlacement(OverlayWidget::status, {0.0, 1.0, 0.0, 1.0});
    look.scale = 1.75;
    look.opacity = 0.05;
    look.showsClock = look.showsTimecode = look.showsCue = look.showsNextCue = false;
    look.showsFields = look.showsQLabCues = false;
    look.showsDate = look.showsShowName = true;
    look.watermarkText = QStringLiteral("Rehearsal – “not for broadcast” ©");
    look.watermarkOpacity = 0.33;
    return look;
}

// A value of the property's type that differs from its default `value`.
QVariant differentValue(const QVariant& value)
{
    const QUuid id = QUuid::createUuid();
    if (holdsType<bool>(value))
        return !value.toBool();
    if (holdsType<double>(value))
        return value.toDouble() + 0.25;
    if (holdsType<int>(value))
        return value.toInt() + 1;
    if (holdsType<QString>(value))
        return value.toString() + QStringLiteral(" (changed)");
    if (holdsType<OptionalText>(value))
        return QVariant::fromValue(OptionalText(value.value<OptionalText>().value_or("") + "x"));
    if (holdsType<QList<ExtraCamera>>(value))
        return QVariant::fromValue(QList<ExtraCamera>{{id, "/dev/video2", {}, "Wing Cam", true}});
    if (holdsType<QList<LayoutPreset>>(value))
        return QVariant::fromValue(QList<LayoutPreset>{{id, "Acte 2 – « Café »", unusualLook()}});
    if (holdsType<QList<WatchedAddress>>(value))
        return QVariant::fromValue(QList<WatchedAddress>{{id, "Fog", "/fog/*"}});
    if (holdsType<OverlayLayout>(value)) {
        auto layout = value.value<OverlayLayout>();
        layout.setPlacement(OverlayWidget::qlab, {0.5, 0.125, 0.5, 0.0});
        return QVariant::fromValue(layout);
    }
    if (holdsType<OSCFraming>(value))
        return QVariant::fromValue(OSCFraming::lengthPrefixed);
    if (holdsType<OptionalKind>(value))
        return QVariant::fromValue(OptionalKind(NetworkKind::wifi));
    if (holdsType<RecordingCodec>(value))
        return QVariant::fromValue(RecordingCodec::proRes422Proxy);
    qFatal("no different value for a property of type %s", value.metaType().name());
}

QJsonValue parse(const QByteArray& text)
{
    return QJsonDocument::fromJson("[" + text + "]").array().at(0);
}

// The default look's JSON without the key `without`, with the members of `extra` over it.
QByteArray lookText(const QString& without = {}, const QByteArray& extra = "{}")
{
    QJsonObject object = OverlayLook{}.toJson();
    object.remove(without);
    const QJsonObject members = parse(extra).toObject();
    for (auto it = members.begin(); it != members.end(); ++it)
        object.insert(it.key(), it.value());
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

LayoutPreset preset(const QString& name, const OverlayLook& look = {})
{
    return LayoutPreset{QUuid::createUuid(), name, look};
}

} // namespace

class SettingsTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void storedValuesAreReadOrFallBack_data();
    void storedValuesAreReadOrFallBack();
    void damagedFilesAreKeptAsideAndReadAsFarAsTheyCan_data();
    void damagedFilesAreKeptAsideAndReadAsFarAsTheyCan();
    void everySetterWritesButNotifiesOnlyRealChanges();
    void writesAreGatheredAndReplaceTheFileWhole();
    void presetsAreSavedFoundAndApplied();
    void watermarkImageIsCopiedReplacedAndCleared();
    void migrationCopiesWhatIsMissingOnce_data();
    void migrationCopiesWhatIsMissingOnce();
    void defaultLayoutJsonIsStable();
    void decodingRejectsBadJson_data();
    void decodingRejectsBadJson();
};

void SettingsTest::storedValuesAreReadOrFallBack_data()
{
    QTest::addColumn<QByteArray>("members"); // of the stored object
    QTest::addColumn<QString>("key");
    QTest::addColumn<QVariant>("expected");
    const auto row = [](const char* name, const QByteArray& members, const char* key,
                        QVariant value) { QTest::newRow(name) << members << key << value; };
    const auto none = QVariant::fromValue(OptionalText{});
    const auto text = [](const char* value) { return QVariant::fromValue(OptionalText(value)); };
    const auto cameras = [](QList<ExtraCamera> list) { return QVariant::fromValue(list); };
    const QByteArray placement = R"(["qlab",{"x":0.5,"y":0.25,"anchorX":0.5,"anchorY":0}])";

    row("no port, no framing", "", "eosPort", 3037);
    row("length prefix, port 4000", R"("eosFraming":"lengthPrefixed","eosPort":4000)", "eosPort",
        4000);
    row("length prefix, text port", R"("eosFraming":"lengthPrefixed","eosPort":"4000")", "eosPort",
        3032);
    row("framing in another case", R"("eosFraming":"LengthPrefixed")", "eosFraming",
        QVariant::fromValue(OSCFraming::slip));
    row("codec av1", R"("codec":"av1")", "codec", QVariant::fromValue(RecordingCodec::hevc));
    row("network ethernet", R"("eosNetwork":"ethernet")", "eosNetwork",
        QVariant::fromValue(OptionalKind{}));
    row("gain as text", R"("audioGain":"1.5")", "audioGain", 1.0);
    row("port with a fraction", R"("oscPort":9000.5)", "oscPort", 8001);
    row("port written as 9000.0", R"("oscPort":9000.0)", "oscPort", 9000);
    row("port beyond int", R"("oscPort":4294976297)", "oscPort", 8001);
    row("key in another case", R"("OSCPort":9000)", "oscPort", 8001);
    row("bool as 0", R"("recordsAudio":0)", "recordsAudio", true);
    row("scale beyond what is drawn", R"("overlayScale":1000)", "overlayScale", 1000.0);
    row("image without a name", R"("watermarkImageFile":"")", "watermarkImageFile", none);
    row("image named ..", R"("watermarkImageFile":"..")", "watermarkImageFile", none);
    row("label as a number", R"("cameraLabel":5)", "cameraLabel", QStringLiteral("Stage Cam"));
    row("empty label stays empty", R"("cameraLabel":"")", "cameraLabel", QString(""));
    row("camera id null", R"("cameraID":null)", "cameraID", none);
    row("empty camera id is not none", R"("cameraID":"")", "cameraID", text(""));
    row("extra cameras, one bad",
        "\"extraCameras\":[" + kCameraJson + R"(,{"id":"x","label":"B","isMirrored":false}])",
        "extraCameras", cameras({}));
    row("extra camera without a label",
        R"("extraCameras":[{"id":"6b1f6c1e-8d3a-4c55-9e0b-2a7d5f3e9c10","isMirrored":false}])",
        "extraCameras", cameras({}));
    row("layout as a bare array", R"("overlayLayout":)" + placement, "overlayLayout",
        QVariant::fromValue(OverlayLayout::defaultLayout()));
    row("watched address without an address",
        R"("watchedAddresses":[{"id":"6b1f6c1e-8d3a-4c55-9e0b-2a7d5f3e9c10","label":"Fog"}])",
        "watchedAddresses", QVariant::fromValue(QList<WatchedAddress>{}));
}

void SettingsTest::storedValuesAreReadOrFallBack()
{
    QFETCH(QByteArray, members);
    QFETCH(QString, key);
    QFETCH(QVariant, expected);
    QTemporaryDir dir;
    const AppSettings settings(privateLocation(dir, '{' + members + '}'));
    const QVariant got = settings.property(key.toLatin1().constData());
    QCOMPARE(got.metaType(), expected.metaType());
    QCOMPARE(got, expected);
}

void SettingsTest::damagedFilesAreKeptAsideAndReadAsFarAsTheyCan_data()
{
    QTest::addColumn<QByteArray>("store");
    QTest::addColumn<QVariantMap>("read"); // the keys still read; every other is its default

    const QByteArray preset = R"({"id":"6b1f6c1e-8d3a-4c55-9e0b-2a7d5f3e9c10","name":"Act 2",)"
                              R"("look":)" +
                              QJsonDocument(OverlayLook{}.toJson()).toJson(QJsonDocument::Compact) +
                              "}";
    const QVariantMap port{{"oscPort", 9000}};
    const auto row = [](const char* name, const QByteArray& store, const QVariantMap& read) {
        QTest::newRow(name) << store << read;
    };
    row("truncated", R"({"oscPort":9000,"qlabHost":"stage-ma)", port);
    row("presets and cameras before the cut",
        "{\"layoutPresets\":[" + preset + "],\"extraCameras\":[" + kCameraJson +
            R"(],"eosHost":"10.101.1.)",
        {{"layoutPresets", QVariant::fromValue(*layoutPresetsFromJson(
                               QJsonDocument::fromJson("[" + preset + "]").array()))},
         {"extraCameras", QVariant::fromValue(*extraCamerasFromJson(
                              QJsonDocument::fromJson("[" + kCameraJson + "]").array()))}});
    row("number cut short", R"({"oscPort":9000,"eosPort":30)", port);
    row("one bad member in the middle", R"({"oscPort":9000,"qlabHost":stage-mac,"eosHost":"c"})",
        {{"oscPort", 9000}, {"eosHost", "c"}});
    row("quotes, commas and brackets inside text",
        R"({"cameraLabel":"Cam \"A\", [left] {1}","oscPort":9000,"ndiName":)",
        {{"cameraLabel", R"(Cam "A", [left] {1})"}, {"oscPort", 9000}});
    row("text after the object", R"({"oscPort":9000}})", port);
    row("not JSON", "oscPort=9000\n", {});
    row("array at the top", R"([{"oscPort":9000}])", port);
    row("empty file", "", {});
}

void SettingsTest::damagedFilesAreKeptAsideAndReadAsFarAsTheyCan()
{
    QFETCH(QByteArray, store);
    QFETCH(QVariantMap, read);
    QTemporaryDir dir;
    QTemporaryDir emptyDir;
    QVariantMap expected = allValues(AppSettings(privateLocation(emptyDir)));
    expected.insert(read);
    const auto location = privateLocation(dir, store);

    // Moving the old container's settings in leaves a damaged file alone.
    const auto old = AppSettings::containerLocation(dir.filePath("container"));
    writeFile(old.storeFile, R"({"qlabHost":"old-mac"})");
    AppSettings::moveOutOfContainer(location, old);
    QCOMPARE(readFile(location.storeFile), store);
    {
        AppSettings settings(location);
        QCOMPARE(allValues(settings), expected);
        // The damaged file is kept beside it, byte for byte, and the user is told where.
        const auto copy = settings.damagedFileCopy();
        QVERIFY(copy);
        QCOMPARE(readFile(*copy), store);
        QCOMPARE(QFileInfo(*copy).absolutePath(), QFileInfo(location.storeFile).absolutePath());
        QVERIFY(settings.damagedFileMessage() && settings.damagedFileMessage()->contains(*copy));
        settings.setQlabHost(QStringLiteral("stage-mac"));
    }
    // The new file holds what was read and the change; the next start reads it cleanly.
    expected["qlabHost"] = QStringLiteral("stage-mac");
    const AppSettings reloaded(location);
    QCOMPARE(allValues(reloaded), expected);
    QCOMPARE(reloaded.damagedFileMessage(), std::nullopt);
    QCOMPARE(QDir(QFileInfo(location.storeFile).absolutePath()).entryList(QDir::Files).size(), 2);
}

void SettingsTest::everySetterWritesButNotifiesOnlyRealChanges()
{
    QTemporaryDir dir;
    const auto location = privateLocation(dir);
    AppSettings settings(location);
    for (const QMetaProperty& property : settingProperties()) {
        const QString key = QString::fromLatin1(property.name());
        QVERIFY2(property.hasNotifySignal(), qPrintable(key));
        QSignalSpy changed(&settings, property.notifySignal());
        const QVariant before = property.read(&settings);

        QVERIFY(property.write(&settings, before));
        settings.flush();
        QVERIFY2(changed.isEmpty(), qPrintable(key + " notified without a change"));
        const bool isNone = before == QVariant::fromValue(OptionalText{}) ||
                            before == QVariant::fromValue(OptionalKind{});
        QVERIFY2(storedObject(location).contains(key) != isNone,
                 qPrintable(key + " was not written (or none was not removed)"));

        const QVariant after = differentValue(before);
        QVERIFY(property.write(&settings, after));
        QCOMPARE(property.read(&settings), after);
        QVERIFY(property.write(&settings, after));
        QCOMPARE(changed.count(), 1);
        if (isNone) { // a value cleared after it was written leaves the file
            settings.flush();
            QVERIFY(property.write(&settings, before));
            settings.flush();
            QVERIFY2(!storedObject(location).contains(key), qPrintable(key + " stayed"));
            QVERIFY(property.write(&settings, after));
        }
    }
    // Text that looks like a number stays text; refused values change nothing.
    settings.setCameraLabel(QStringLiteral("8001"));
    const QVariantMap before = allValues(settings);
    settings.setOverlayScale(std::nan(""));
    settings.setWatermarkImageFile(QStringLiteral("/etc/passwd"));
    QCOMPARE(allValues(settings), before);
    settings.flush();
    QCOMPARE(storedObject(location).value("cameraLabel"), QJsonValue("8001"));
    // Every value written is what the next start reads.
    QCOMPARE(allValues(AppSettings(location)), allValues(settings));
}

// Stored values that were not read (a list that does not decode, a number written as text)
// stay in the file as they were until their setting changes.
void SettingsTest::writesAreGatheredAndReplaceTheFileWhole()
{
    QTemporaryDir dir;
    const QByteArray stored =
        R"({"qlabHost":"old","extraCameras":{"not":"a list"},"oscPort":"9000"})";
    const auto location = privateLocation(dir, stored);
    const QByteArray path = QFile::encodeName(location.storeFile);
    struct stat before = {};
    QCOMPARE(::stat(path.constData(), &before), 0);
    {
        AppSettings settings(location);
        QVERIFY(settings.extraCameras().isEmpty());
        // Dragging a control: many changes, and the file is not written for each.
        for (int step = 0; step < 50; ++step)
            settings.setOverlayOpacity(step / 50.0);
        settings.setQlabHost(QStringLiteral("new"));
        QCOMPARE(readFile(location.storeFile), stored);
        // A short moment later it is, once, by a new file renamed over the old one (a crash
        // while writing never leaves half a file).
        QTRY_COMPARE_WITH_TIMEOUT(storedObject(location).value("qlabHost"), QJsonValue("new"),
                                  5000);
        struct stat after = {};
        QCOMPARE(::stat(path.constData(), &after), 0);
        QVERIFY(before.st_ino != after.st_ino);
        QCOMPARE(storedObject(location).value("overlayOpacity"), QJsonValue(49 / 50.0));
        QCOMPARE(storedObject(location).value("extraCameras"), QJsonObject({{"not", "a list"}}));
        QCOMPARE(storedObject(location).value("oscPort"), QJsonValue("9000"));
        QCOMPARE(QDir(dir.filePath("config/Orvane")).entryList(QDir::Files),
                 QStringList{"Orvane.json"});
        // flush() writes at once; so does the end of the object.
        settings.setQlabHost(QStringLiteral("flushed"));
        settings.flush();
        QCOMPARE(storedObject(location).value("qlabHost"), QJsonValue("flushed"));
        settings.setQlabHost(QStringLiteral("at the end"));
        settings.setExtraCameras({{QUuid::createUuid(), {}, {}, "Booth", false}});
    }
    QCOMPARE(storedObject(location).value("qlabHost"), QJsonValue("at the end"));
    QVERIFY(storedObject(location).value("extraCameras").isArray());
}

void SettingsTest::presetsAreSavedFoundAndApplied()
{
    QTemporaryDir dir;
    const auto location = privateLocation(dir);
    AppSettings settings(location);
    const OverlayLook original = settings.currentLook();
    settings.setShowsDate(true);
    settings.saveLayoutPreset(QStringLiteral("act 2"));
    const QUuid id = settings.layoutPresets().at(0).id;
    // The same name in another case, with blanks, replaces the look and keeps id and name; a
    // blank name saves nothing.
    settings.setOverlayScale(1.5);
    settings.saveLayoutPreset(QStringLiteral("  Act 2 \n"));
    settings.saveLayoutPreset(QStringLiteral(" \t "));
    QCOMPARE(settings.layoutPresets().size(), 1);
    QCOMPARE(settings.layoutPresets().at(0).id, id);
    QCOMPARE(settings.layoutPresets().at(0).name, QStringLiteral("act 2"));
    QCOMPARE(settings.layoutPresets().at(0).look.scale, 1.5);

    // Applying notifies each property that changes, once, and nothing else.
    settings.applyLook(original);
    QSignalSpy scaleChanged(&settings, &AppSettings::overlayScaleChanged);
    QSignalSpy clockChanged(&settings, &AppSettings::showsClockChanged);
    QVERIFY(settings.applyLayoutPreset(QStringLiteral("ACT 2")));
    QVERIFY(!settings.applyLayoutPreset(QStringLiteral("Act 3")));
    QCOMPARE(scaleChanged.count(), 1);
    QCOMPARE(clockChanged.count(), 0);
    QCOMPARE(settings.currentLook(), settings.layoutPresets().at(0).look);
    settings.flush();
    QCOMPARE(AppSettings(location).currentLook(), settings.currentLook());

    // A preset edited by hand to an overlay size the controls do not offer applies as it is
    // (the overlay draws it within its sizes).
    QList<LayoutPreset> edited = settings.layoutPresets();
    edited[0].look.scale = 1000.0;
    settings.setLayoutPresets(edited);
    QVERIFY(settings.applyLayoutPreset(QStringLiteral("act 2")));
    QCOMPARE(settings.overlayScale(), 1000.0);

    // The lookups on a list of their own.
    OverlayLook moved;
    moved.layout.setPlacement(OverlayWidget::cues, {0.5, 0.9, 0.5, 1.0});
    const QList<LayoutPreset> presets{preset("Act 1"), preset("act 2", moved),
                                      preset("Act 2", moved), preset("Café")};
    // By name in any case, accented letters too, without the blanks around it, the first of
    // two; accents and inner blanks count.
    const std::pair<QString, int> names[] = {
        {"ACT 2", 1}, {" Act 2 \t", 1}, {"CAFÉ", 3}, {"Cafe", -1}, {"Act  2", -1}};
    for (const auto& [wanted, found] : names)
        QCOMPARE(int(indexOfLayoutPreset(presets, wanted).value_or(-1)), found);
    // By look, the first preset that has it.
    QCOMPARE(indexOfActiveLayoutPreset(presets, moved), std::optional<qsizetype>(1));
    QCOMPARE(indexOfActiveLayoutPreset(presets, OverlayLook{}), std::optional<qsizetype>(0));
    QCOMPARE(indexOfActiveLayoutPreset(presets, unusualLook()), std::nullopt);
}

void SettingsTest::watermarkImageIsCopiedReplacedAndCleared()
{
    QTemporaryDir dir;
    const auto location = privateLocation(dir);
    QImage image(8, 4, QImage::Format_ARGB32);
    image.fill(Qt::red);
    QVERIFY(image.save(dir.filePath("Crest.Jpg"), "PNG") &&
            image.save(dir.filePath("logo"), "PNG"));
    writeFile(dir.filePath("Notes.png"), "just some text");
    writeFile(dir.filePath("data/victim"), "not Orvane's"); // beside the support folder
    AppSettings settings(location);
    QSignalSpy changed(&settings, &AppSettings::watermarkImageFileChanged);
    // What is not an image, or not there, is refused by name and nothing is copied.
    for (const QString name : {"Notes.png", "Gone.png"})
        QCOMPARE(
            settings.setWatermarkImage(dir.filePath(name)),
            std::optional("Orvane couldn't read “" + name + "” as an image. Try a PNG or JPEG."));
    QVERIFY(!QFileInfo::exists(location.supportFolder));
    // Copied under a fixed name with the extension in lower case; the same again is no change.
    QCOMPARE(settings.setWatermarkImage(dir.filePath("Crest.Jpg")), std::nullopt);
    QCOMPARE(settings.setWatermarkImage(dir.filePath("Crest.Jpg")), std::nullopt);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(settings.watermarkImagePath(),
             std::optional(location.supportFolder + "/Watermark.jpg"));
    QCOMPARE(readFile(location.supportFolder + "/Watermark.jpg"), readFile(dir.filePath("logo")));
    // Another image replaces the file.
    QCOMPARE(settings.setWatermarkImage(dir.filePath("logo")), std::nullopt);
    QCOMPARE(QDir(location.supportFolder).entryList(QDir::Files), QStringList{"Watermark."});
    settings.setWatermarkImageFile(QStringLiteral("../victim")); // refused: not in the folder
    settings.clearWatermarkImage();
    settings.clearWatermarkImage(); // nothing left to remove: no harm
    QCOMPARE(changed.count(), 3);
    QVERIFY(QDir(location.supportFolder).entryList(QDir::Files).isEmpty());
    QCOMPARE(readFile(dir.filePath("data/victim")), QByteArray("not Orvane's"));
    settings.flush();
    QVERIFY(!storedObject(location).contains("watermarkImageFile"));

    // A support folder that cannot be made: a file stands where a folder must go.
    QTemporaryDir blocked;
    writeFile(blocked.filePath("data"), "not a folder");
    AppSettings blockedSettings(privateLocation(blocked));
    const auto error = blockedSettings.setWatermarkImage(dir.filePath("Crest.Jpg"));
    QVERIFY2(error && error->startsWith("Orvane couldn't use that image. ") && error->size() > 32,
             qPrintable(error.value_or("no error")));
    QCOMPARE(blockedSettings.watermarkImageFile(), std::nullopt);
}

void SettingsTest::migrationCopiesWhatIsMissingOnce_data()
{
    QTest::addColumn<QByteArray>("currentStore"); // null: no file yet
    QTest::addColumn<QByteArray>("oldStore");     // null: no old file
    QTest::addColumn<int>("oscPort");
    QTest::addColumn<QString>("qlabHost");
    const QByteArray old = R"({"oscPort":9000,"qlabHost":"stage-mac","movedOutOfSandbox":false})";
    const QByteArray empty = "{}";
    QTest::newRow("current has the key")
        << QByteArray(R"({"oscPort":8001})") << old << 8001 << "stage-mac";
    QTest::newRow("current lacks the key") << empty << old << 9000 << "stage-mac";
    QTest::newRow("no current file") << QByteArray() << old << 9000 << "stage-mac";
    QTest::newRow("already moved")
        << QByteArray(R"({"movedOutOfSandbox":true})") << old << 8001 << "";
    QTest::newRow("flag of another type does not count")
        << QByteArray(R"({"movedOutOfSandbox":"true"})") << old << 9000 << "stage-mac";
    QTest::newRow("old file unreadable") << empty << QByteArray(R"({"oscPort":90)") << 8001 << "";
    QTest::newRow("no old file") << empty << QByteArray() << 8001 << "";
}

void SettingsTest::migrationCopiesWhatIsMissingOnce()
{
    QFETCH(QByteArray, currentStore);
    QFETCH(QByteArray, oldStore);
    QFETCH(int, oscPort);
    QTemporaryDir dir;
    const auto current = privateLocation(dir, currentStore);
    const auto old = AppSettings::containerLocation(dir.filePath(".var/app/app.orvane.Orvane"));
    if (!oldStore.isNull())
        writeFile(old.storeFile, oldStore);
    for (const char* name : {"Watermark.png", "Shows/Hamlet.txt", ".hidden"})
        writeFile(old.supportFolder + '/' + name, QByteArray("old ") + name);
    writeFile(current.supportFolder + "/Watermark.png", "new image");
    const bool copies = !currentStore.contains("\"movedOutOfSandbox\":true");

    AppSettings::moveOutOfContainer(current, old);
    QCOMPARE(AppSettings(current).oscPort(), oscPort);
    QTEST(AppSettings(current).qlabHost(), "qlabHost");
    QCOMPARE(storedObject(current).value("movedOutOfSandbox"), QJsonValue(true));
    QCOMPARE(readFile(current.supportFolder + "/Watermark.png"), QByteArray("new image"));
    for (const char* name : {"Shows/Hamlet.txt", ".hidden"})
        QCOMPARE(readFile(current.supportFolder + '/' + name),
                 copies ? QByteArray("old ") + name : QByteArray());

    // A second start copies nothing again.
    writeFile(old.storeFile, R"({"eosHost":"console","oscPort":7000})");
    writeFile(old.supportFolder + "/Later.png", "later");
    AppSettings::moveOutOfContainer(current, old);
    const AppSettings settings(current);
    QCOMPARE(settings.eosHost(), QString());
    QCOMPARE(settings.oscPort(), oscPort);
    QVERIFY(!QFileInfo::exists(current.supportFolder + "/Later.png"));
}

// The default layout as settings files keep it: a change here breaks saved files. (Every field
// of a preset's look goes through the file in the setter test.)
void SettingsTest::defaultLayoutJsonIsStable()
{
    const auto golden = testing::compareWithGolden(
        QJsonDocument(OverlayLayout::defaultLayout().toJson()).toJson(QJsonDocument::Compact),
        QStringLiteral(ORVANE_TEST_DATA "/expected/default-layout.json"));
    QVERIFY2(golden.matches, qPrintable(golden.difference));
}

void SettingsTest::decodingRejectsBadJson_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("accepted");
    const auto row = [](const char* name, const char* type, const QByteArray& json, bool accepted) {
        QTest::newRow(name) << type << json << accepted;
    };
    const QByteArray at = R"({"x":0.1,"y":0.2,"anchorX":0,"anchorY":1})";
    const QByteArray id = R"({"id":"0F8E3C2A-1B4D-4E5F-8A9B-0C1D2E3F4A5B")";
    const QByteArray look = lookText();
    row("placement with whole numbers", "placement", at, true);
    row("placement missing anchorY", "placement", R"({"x":0.1,"y":0.2,"anchorX":0})", false);
    row("placement with text x", "placement", R"({"x":"0.1","y":0.2,"anchorX":0,"anchorY":1})",
        false);
    row("layout with one entry", "layout", R"({"placements":["qlab",)" + at + "]}", true);
    row("layout with odd count", "layout", R"({"placements":["qlab",)" + at + R"(,"cues"]})",
        false);
    row("layout with unknown widget", "layout", R"({"placements":["clock",)" + at + "]}", false);
    row("layout with upper-case widget", "layout", R"({"placements":["QLab",)" + at + "]}", false);
    row("layout with placements as object", "layout", R"({"placements":{"qlab":)" + at + "}}",
        false);
    row("complete look", "look", look, true);
    row("look missing showsQLabCues", "look", lookText("showsQLabCues"), false);
    row("look with text scale", "look", lookText({}, R"({"scale":"1.5"})"), false);
    row("look with null watermarkText", "look", lookText({}, R"({"watermarkText":null})"), false);
    row("look with an unknown extra key", "look", lookText({}, R"({"showsWeather":true})"), true);
    row("preset with lower-case id", "preset",
        R"({"id":"0f8e3c2a-1b4d-4e5f-8a9b-0c1d2e3f4a5b","name":"A","look":)" + look + "}", true);
    row("preset with bad id", "preset", R"({"id":"x","name":"A","look":)" + look + "}", false);
    row("preset missing name", "preset", id + R"(,"look":)" + look + "}", false);
    row("preset with look missing a key", "preset",
        id + R"(,"name":"A","look":)" + lookText("scale") + "}", false);
    row("preset list with one bad preset", "presets",
        "[" + id + R"(,"name":"A","look":)" + look + R"(},{"id":"x","name":"B","look":)" + look +
            "}]",
        false);
    row("preset list as object", "presets", "{}", false);
}

void SettingsTest::decodingRejectsBadJson()
{
    QFETCH(QString, type);
    QFETCH(QByteArray, json);
    const QJsonValue value = parse(json);
    const std::map<QString, bool> decoded{
        {"placement", WidgetPlacement::fromJson(value).has_value()},
        {"layout", OverlayLayout::fromJson(value).has_value()},
        {"look", OverlayLook::fromJson(value).has_value()},
        {"preset", LayoutPreset::fromJson(value).has_value()},
        {"presets", layoutPresetsFromJson(value).has_value()}};
    QTEST(decoded.at(type), "accepted");
}

QTEST_GUILESS_MAIN(SettingsTest)
#include "SettingsTest.moc"
