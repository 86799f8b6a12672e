#include "settings/AppSettings.h"

#include "SettingsTesting.h"

#include <QBuffer>
#include <QDir>
#include <QImage>
#include <QJsonArray>
#include <QSignalSpy>
#include <QTest>

#include <sys/stat.h>

using namespace orvane;
using namespace orvane::testing;

namespace {

using OptionalText = std::optional<QString>;

const QByteArray kCameraJson =
    R"({"id":"6b1f6c1e-8d3a-4c55-9e0b-2a7d5f3e9c10","deviceID":"usb-046d-0825",)"
    R"("label":"Wing Cam","isMirrored":true})";

QByteArray lookJson()
{
    return QJsonDocument(OverlayLook{}.toJson()).toJson(QJsonDocument::Compact);
}

QByteArray pngBytes()
{
    QImage image(8, 4, QImage::Format_ARGB32);
    image.fill(Qt::red);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

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

// A value of the property's type that differs from `current`.
QVariant differentValue(const QVariant& current)
{
    if (holdsType<bool>(current))
        return !current.toBool();
    if (holdsType<double>(current))
        return current.toDouble() + 0.25;
    if (holdsType<int>(current))
        return current.toInt() + 1;
    if (holdsType<QString>(current))
        return current.toString() + QStringLiteral(" (changed)");
    if (holdsType<std::optional<QString>>(current)) {
        const auto text = current.value<std::optional<QString>>();
        return QVariant::fromValue(std::optional<QString>(text.value_or(QString()) + "changed"));
    }
    if (holdsType<QList<ExtraCamera>>(current)) {
        auto cameras = current.value<QList<ExtraCamera>>();
        cameras.append(ExtraCamera{QUuid::createUuid(), QStringLiteral("/dev/video2"), std::nullopt,
                                   QStringLiteral("Wing Cam"), true});
        return QVariant::fromValue(cameras);
    }
    if (holdsType<OverlayLayout>(current)) {
        auto layout = current.value<OverlayLayout>();
        layout.setPlacement(OverlayWidget::qlab, {0.5, 0.125, 0.5, 0.0});
        return QVariant::fromValue(layout);
    }
    if (holdsType<QList<LayoutPreset>>(current)) {
        auto presets = current.value<QList<LayoutPreset>>();
        presets.append(LayoutPreset{QUuid::createUuid(), QStringLiteral("Stream"), {}});
        return QVariant::fromValue(presets);
    }
    if (holdsType<QList<WatchedAddress>>(current)) {
        auto watched = current.value<QList<WatchedAddress>>();
        watched.append(
            WatchedAddress{QUuid::createUuid(), QStringLiteral("Fog"), QStringLiteral("/fog/*")});
        return QVariant::fromValue(watched);
    }
    if (holdsType<OSCFraming>(current)) {
        const bool slip = current.value<OSCFraming>() == OSCFraming::slip;
        return QVariant::fromValue(slip ? OSCFraming::lengthPrefixed : OSCFraming::slip);
    }
    if (holdsType<std::optional<NetworkKind>>(current)) {
        const auto kind = current.value<std::optional<NetworkKind>>();
        const NetworkKind next = kind == NetworkKind::wifi ? NetworkKind::wired : NetworkKind::wifi;
        return QVariant::fromValue(std::optional<NetworkKind>(next));
    }
    if (holdsType<RecordingCodec>(current)) {
        const bool prores = current.value<RecordingCodec>() == RecordingCodec::proRes422Proxy;
        return QVariant::fromValue(prores ? RecordingCodec::h264 : RecordingCodec::proRes422Proxy);
    }
    qFatal("no different value for a property of type %s", current.metaType().name());
}

// Every property's value, by key.
QVariantMap allValues(const AppSettings& settings)
{
    QVariantMap values;
    for (const QMetaProperty& property : settingProperties())
        values.insert(property.name(), property.read(&settings));
    return values;
}

} // namespace

class AppSettingsTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void storedValuesAreReadOrFallBack_data();
    void storedValuesAreReadOrFallBack();
    void damagedFilesAreKeptAsideAndReadAsFarAsTheyCan_data();
    void damagedFilesAreKeptAsideAndReadAsFarAsTheyCan();
    void undecodableJsonStaysUntilTheValueChanges();
    void everySetterWritesButNotifiesOnlyRealChanges();
    void settersKeepValuesSafe_data();
    void settersKeepValuesSafe();
    void writesAreGatheredAndReplaceTheFileWhole();
    void presetsAreSavedAndAppliedByName();
    void watermarkImageIsCopiedReplacedAndCleared();
    void migrationCopiesWhatIsMissingOnce_data();
    void migrationCopiesWhatIsMissingOnce();
};

// The defaults of an empty file are checked with the documentation (test_settings_docs).
void AppSettingsTest::storedValuesAreReadOrFallBack_data()
{
    QTest::addColumn<QByteArray>("members"); // of the stored object
    QTest::addColumn<QString>("key");
    QTest::addColumn<QVariant>("expected");
    const auto row = [](const char* name, const QByteArray& members, const char* key,
                        QVariant value) { QTest::newRow(name) << members << key << value; };
    const auto none = QVariant::fromValue(OptionalText{});
    row("length prefix with port 4000", R"("eosFraming":"lengthPrefixed","eosPort":4000)",
        "eosPort", 4000);
    row("length prefix with text port", R"("eosFraming":"lengthPrefixed","eosPort":"4000")",
        "eosPort", 3032);
    row("framing in another case is SLIP", R"("eosFraming":"LengthPrefixed")", "eosFraming",
        QVariant::fromValue(OSCFraming::slip));
    row("codec av1", R"("codec":"av1")", "codec", QVariant::fromValue(RecordingCodec::hevc));
    row("network ethernet", R"("eosNetwork":"ethernet")", "eosNetwork",
        QVariant::fromValue(std::optional<NetworkKind>{}));
    row("gain as text", R"("audioGain":"1.5")", "audioGain", 1.0);
    row("port as text", R"("oscPort":"9000")", "oscPort", 8001);
    row("port with fraction", R"("oscPort":9000.5)", "oscPort", 8001);
    row("port written as 9000.0", R"("oscPort":9000.0)", "oscPort", 9000);
    row("port beyond int", R"("oscPort":4294976297)", "oscPort", 8001);
    row("key in another case", R"("OSCPort":9000)", "oscPort", 8001);
    row("bool as 0", R"("recordsAudio":0)", "recordsAudio", true);
    row("bool as text", R"("recordsAudio":"false")", "recordsAudio", true);
    row("scale beyond the largest offered", R"("overlayScale":1000)", "overlayScale", 2.0);
    row("scale 0", R"("overlayScale":0)", "overlayScale", 0.5);
    row("image file name", R"("watermarkImageFile":"Watermark.png")", "watermarkImageFile",
        QVariant::fromValue(OptionalText("Watermark.png")));
    row("image in a parent folder", R"("watermarkImageFile":"../../victim")", "watermarkImageFile",
        none);
    row("image in a sub-folder", R"("watermarkImageFile":"sub/W.png")", "watermarkImageFile", none);
    row("image without a name", R"("watermarkImageFile":"")", "watermarkImageFile", none);
    row("image named ..", R"("watermarkImageFile":"..")", "watermarkImageFile", none);
    row("label as number", R"("cameraLabel":5)", "cameraLabel", QStringLiteral("Stage Cam"));
    row("empty label stays empty", R"("cameraLabel":"")", "cameraLabel", QString(""));
    row("camera id null", R"("cameraID":null)", "cameraID", none);
    row("empty camera id is not none", R"("cameraID":"")", "cameraID",
        QVariant::fromValue(OptionalText(QString(""))));
    const ExtraCamera wingCam{
        QUuid::fromString(QStringLiteral("6b1f6c1e-8d3a-4c55-9e0b-2a7d5f3e9c10")),
        QStringLiteral("usb-046d-0825"), std::nullopt, QStringLiteral("Wing Cam"), true};
    row("extra cameras", "\"extraCameras\":[" + kCameraJson + "]", "extraCameras",
        QVariant::fromValue(QList<ExtraCamera>{wingCam}));
    row("extra cameras with one bad camera",
        "\"extraCameras\":[" + kCameraJson + R"(,{"id":"x","label":"B","isMirrored":false}])",
        "extraCameras", QVariant::fromValue(QList<ExtraCamera>{}));
    row("extra camera without label",
        R"("extraCameras":[{"id":"6b1f6c1e-8d3a-4c55-9e0b-2a7d5f3e9c10","isMirrored":false}])",
        "extraCameras", QVariant::fromValue(QList<ExtraCamera>{}));
    OverlayLayout oneEntry;
    oneEntry.setPlacement(OverlayWidget::qlab, {0.5, 0.25, 0.5, 0.0});
    row("layout with one entry",
        R"("overlayLayout":{"placements":["qlab",{"x":0.5,"y":0.25,"anchorX":0.5,"anchorY":0}]})",
        "overlayLayout", QVariant::fromValue(oneEntry));
    row("layout as bare array",
        R"("overlayLayout":["qlab",{"x":0.5,"y":0.25,"anchorX":0.5,"anchorY":0}])", "overlayLayout",
        QVariant::fromValue(OverlayLayout::defaultLayout()));
    row("watched address",
        R"("watchedAddresses":[{"id":"6b1f6c1e-8d3a-4c55-9e0b-2a7d5f3e9c10","label":"Fog",)"
        R"("address":"/fog/*"}])",
        "watchedAddresses",
        QVariant::fromValue(QList<WatchedAddress>{{wingCam.id, "Fog", "/fog/*"}}));
    row("watched address without address",
        R"("watchedAddresses":[{"id":"6b1f6c1e-8d3a-4c55-9e0b-2a7d5f3e9c10","label":"Fog"}])",
        "watchedAddresses", QVariant::fromValue(QList<WatchedAddress>{}));
}

void AppSettingsTest::storedValuesAreReadOrFallBack()
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

void AppSettingsTest::damagedFilesAreKeptAsideAndReadAsFarAsTheyCan_data()
{
    QTest::addColumn<QByteArray>("store");
    QTest::addColumn<QVariantMap>("read"); // the keys still read; every other is its default

    const QByteArray preset =
        R"({"id":"6b1f6c1e-8d3a-4c55-9e0b-2a7d5f3e9c10","name":"Act 2","look":)" + lookJson() + "}";
    QTest::newRow("truncated") << QByteArray(R"({"oscPort":9000,"qlabHost":"stage-ma)")
                               << QVariantMap{{"oscPort", 9000}};
    QTest::newRow("presets and cameras before the cut")
        << "{\"layoutPresets\":[" + preset + "],\"extraCameras\":[" + kCameraJson +
               R"(],"eosHost":"10.101.1.)"
        << QVariantMap{
               {"layoutPresets", QVariant::fromValue(*layoutPresetsFromJson(
                                     QJsonDocument::fromJson("[" + preset + "]").array()))},
               {"extraCameras", QVariant::fromValue(*extraCamerasFromJson(
                                    QJsonDocument::fromJson("[" + kCameraJson + "]").array()))}};
    QTest::newRow("number cut short")
        << QByteArray(R"({"oscPort":9000,"eosPort":30)") << QVariantMap{{"oscPort", 9000}};
    QTest::newRow("one bad member in the middle")
        << QByteArray(R"({"oscPort":9000,"qlabHost":stage-mac,"eosHost":"console"})")
        << QVariantMap{{"oscPort", 9000}, {"eosHost", "console"}};
    QTest::newRow("quotes, commas and brackets inside text")
        << QByteArray(R"({"cameraLabel":"Cam \"A\", [left] {1}","oscPort":9000,"ndiName":)")
        << QVariantMap{{"cameraLabel", R"(Cam "A", [left] {1})"}, {"oscPort", 9000}};
    QTest::newRow("text after the object")
        << QByteArray(R"({"oscPort":9000}})") << QVariantMap{{"oscPort", 9000}};
    QTest::newRow("not JSON") << QByteArray("oscPort=9000\n") << QVariantMap{};
    QTest::newRow("array at the top")
        << QByteArray(R"([{"oscPort":9000}])") << QVariantMap{{"oscPort", 9000}};
    QTest::newRow("empty file") << QByteArray("") << QVariantMap{};
    QTest::newRow("binary before the object")
        << QByteArray("\x00\xff\xfe{\"oscPort\":9000}", 19) << QVariantMap{{"oscPort", 9000}};
}

void AppSettingsTest::damagedFilesAreKeptAsideAndReadAsFarAsTheyCan()
{
    QFETCH(QByteArray, store);
    QFETCH(QVariantMap, read);
    QTemporaryDir dir;
    QTemporaryDir emptyDir;
    QVariantMap expected = allValues(AppSettings(privateLocation(emptyDir)));
    for (auto entry = read.begin(); entry != read.end(); ++entry)
        expected[entry.key()] = entry.value();
    const auto location = privateLocation(dir, store);

    // Moving the old container's settings in leaves a damaged file alone.
    const auto old = AppSettings::containerLocation(dir.filePath("container"));
    writeFile(old.storeFile, R"({"qlabHost":"old-mac"})");
    AppSettings::moveOutOfContainer(location, old);
    QCOMPARE(readFile(location.storeFile), store);

    {
        AppSettings settings(location);
        QCOMPARE(allValues(settings), expected);
        // The damaged file is kept, byte for byte, and the user is told where.
        QVERIFY(settings.damagedFileCopy());
        QCOMPARE(readFile(*settings.damagedFileCopy()), store);
        QCOMPARE(QFileInfo(*settings.damagedFileCopy()).absolutePath(),
                 QFileInfo(location.storeFile).absolutePath());
        QVERIFY(settings.damagedFileMessage());
        QVERIFY2(settings.damagedFileMessage()->contains(*settings.damagedFileCopy()),
                 qPrintable(*settings.damagedFileMessage()));
        settings.setQlabHost(QStringLiteral("stage-mac"));
    }
    // The new file holds what was read and the change; the next start reads it cleanly.
    expected["qlabHost"] = QStringLiteral("stage-mac");
    const AppSettings reloaded(location);
    QCOMPARE(allValues(reloaded), expected);
    QCOMPARE(reloaded.damagedFileMessage(), std::nullopt);
    QCOMPARE(QDir(QFileInfo(location.storeFile).absolutePath()).entryList(QDir::Files).size(), 2);
}

void AppSettingsTest::undecodableJsonStaysUntilTheValueChanges()
{
    QTemporaryDir dir;
    const auto location =
        privateLocation(dir, R"({"extraCameras":{"not":"a list"},"oscPort":"9000"})");
    AppSettings settings(location);
    QVERIFY(settings.extraCameras().isEmpty());
    QCOMPARE(settings.oscPort(), 8001);

    settings.setQlabHost(QStringLiteral("stage-mac"));
    settings.flush();
    QJsonObject stored = storedObject(location);
    QCOMPARE(stored.value("extraCameras"), QJsonValue(QJsonObject{{"not", "a list"}}));
    QCOMPARE(stored.value("oscPort"), QJsonValue("9000")); // still text, not a number

    settings.setExtraCameras({ExtraCamera{QUuid::createUuid(), std::nullopt, std::nullopt,
                                          QStringLiteral("Booth"), false}});
    settings.flush();
    stored = storedObject(location);
    QVERIFY(stored.value("extraCameras").isArray());
    QCOMPARE(AppSettings(location).extraCameras(), settings.extraCameras());
}

void AppSettingsTest::everySetterWritesButNotifiesOnlyRealChanges()
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
                            before == QVariant::fromValue(std::optional<NetworkKind>{});
        QVERIFY2(storedObject(location).contains(key) != isNone,
                 qPrintable(key + " was not written (or none was not removed)"));

        const QVariant after = differentValue(before);
        QVERIFY(property.write(&settings, after));
        QCOMPARE(changed.count(), 1);
        QCOMPARE(property.read(&settings), after);
        QVERIFY(property.write(&settings, after));
        QCOMPARE(changed.count(), 1);
    }
    // A whole-number double and text that looks like a number keep their types.
    settings.setOverlayScale(2.0);
    settings.setCameraLabel(QStringLiteral("8001"));
    settings.flush();
    QCOMPARE(storedObject(location).value("cameraLabel"), QJsonValue("8001"));
    // Every value written is what the next start reads.
    QCOMPARE(allValues(AppSettings(location)), allValues(settings));
}

void AppSettingsTest::settersKeepValuesSafe_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QVariant>("written");
    QTest::addColumn<QVariant>("kept");

    const auto name = [](const char* text) { return QVariant::fromValue(OptionalText(text)); };
    QTest::newRow("scale 1000") << "overlayScale" << QVariant(1000.0) << QVariant(2.0);
    QTest::newRow("scale 0.1") << "overlayScale" << QVariant(0.1) << QVariant(0.5);
    QTest::newRow("scale not a number")
        << "overlayScale" << QVariant(std::nan("")) << QVariant(1.0);
    QTest::newRow("image in a parent folder")
        << "watermarkImageFile" << name("../../victim") << name("Watermark.png");
    QTest::newRow("image at an absolute path")
        << "watermarkImageFile" << name("/etc/passwd") << name("Watermark.png");
}

void AppSettingsTest::settersKeepValuesSafe()
{
    QFETCH(QString, key);
    QFETCH(QVariant, written);
    QFETCH(QVariant, kept);
    QTemporaryDir dir;
    const auto location = privateLocation(dir, R"({"watermarkImageFile":"Watermark.png"})");
    // What a path out of the support folder would reach.
    writeFile(dir.filePath("victim"), "not Orvane's");
    AppSettings settings(location);
    QVERIFY(settings.setProperty(key.toLatin1().constData(), written));
    QCOMPARE(settings.property(key.toLatin1().constData()), kept);
    settings.flush();
    QCOMPARE(AppSettings(location).property(key.toLatin1().constData()), kept);
    settings.clearWatermarkImage();
    QCOMPARE(readFile(dir.filePath("victim")), QByteArray("not Orvane's"));
}

void AppSettingsTest::writesAreGatheredAndReplaceTheFileWhole()
{
    QTemporaryDir dir;
    const auto location = privateLocation(dir, R"({"qlabHost":"old"})");
    const QByteArray path = QFile::encodeName(location.storeFile);
    struct stat before = {};
    QCOMPARE(::stat(path.constData(), &before), 0);
    {
        AppSettings settings(location);
        // Dragging a control: many changes, and the file is not written for each.
        for (int step = 0; step < 50; ++step)
            settings.setOverlayOpacity(step / 50.0);
        settings.setQlabHost(QStringLiteral("new"));
        QCOMPARE(readFile(location.storeFile), QByteArray(R"({"qlabHost":"old"})"));
        // A short moment later it is, once, by a new file renamed over the old one (a crash
        // while writing never leaves half a file).
        QTRY_COMPARE_WITH_TIMEOUT(storedObject(location).value("qlabHost"), QJsonValue("new"),
                                  5000);
        struct stat after = {};
        QCOMPARE(::stat(path.constData(), &after), 0);
        QVERIFY(before.st_ino != after.st_ino);
        QCOMPARE(storedObject(location).value("overlayOpacity"), QJsonValue(49 / 50.0));
        QCOMPARE(QDir(dir.filePath("config/Orvane")).entryList(QDir::Files),
                 QStringList{"Orvane.json"});

        // flush() writes at once; so does the end of the object.
        settings.setQlabHost(QStringLiteral("flushed"));
        settings.flush();
        QCOMPARE(storedObject(location).value("qlabHost"), QJsonValue("flushed"));
        settings.setQlabHost(QStringLiteral("at the end"));
    }
    QCOMPARE(storedObject(location).value("qlabHost"), QJsonValue("at the end"));
}

void AppSettingsTest::presetsAreSavedAndAppliedByName()
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

    // A preset edited by hand to an overlay size the settings window does not offer.
    QList<LayoutPreset> presets = settings.layoutPresets();
    presets[0].look.scale = 1000.0;
    settings.setLayoutPresets(presets);
    QVERIFY(settings.applyLayoutPreset(QStringLiteral("act 2")));
    QCOMPARE(settings.overlayScale(), AppSettings::kMaximumOverlayScale);
}

void AppSettingsTest::watermarkImageIsCopiedReplacedAndCleared()
{
    QTemporaryDir dir;
    const auto location = privateLocation(dir);
    writeFile(dir.filePath("Crest.Jpg"), pngBytes());
    writeFile(dir.filePath("logo"), pngBytes());
    writeFile(dir.filePath("Notes.png"), "just some text");
    AppSettings settings(location);
    QSignalSpy changed(&settings, &AppSettings::watermarkImageFileChanged);
    // What is not an image, or not there, is refused by name and nothing is copied.
    for (const QString name : {"Notes.png", "Gone.png"})
        QCOMPARE(
            settings.setWatermarkImage(dir.filePath(name)),
            std::optional("Orvane couldn't read “" + name + "” as an image. Try a PNG or JPEG."));
    QVERIFY(!QFileInfo::exists(location.supportFolder));
    // Copied under a fixed name with the name's extension in lower case; the same again is no
    // change.
    QCOMPARE(settings.setWatermarkImage(dir.filePath("Crest.Jpg")), std::nullopt);
    QCOMPARE(settings.setWatermarkImage(dir.filePath("Crest.Jpg")), std::nullopt);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(settings.watermarkImagePath(),
             std::optional(location.supportFolder + "/Watermark.jpg"));
    QCOMPARE(readFile(location.supportFolder + "/Watermark.jpg"), pngBytes());
    // Another image replaces the file.
    QCOMPARE(settings.setWatermarkImage(dir.filePath("logo")), std::nullopt);
    QCOMPARE(QDir(location.supportFolder).entryList(QDir::Files), QStringList{"Watermark."});
    settings.flush();
    QCOMPARE(storedObject(location).value("watermarkImageFile"), QJsonValue("Watermark."));
    settings.clearWatermarkImage();
    settings.clearWatermarkImage(); // nothing left to remove: no harm
    QCOMPARE(changed.count(), 3);
    QCOMPARE(settings.watermarkImagePath(), std::nullopt);
    QVERIFY(QDir(location.supportFolder).entryList(QDir::Files).isEmpty());
    settings.flush();
    QVERIFY(!storedObject(location).contains("watermarkImageFile"));

    // A support folder that cannot be made: a file stands where a folder must go.
    QTemporaryDir blocked;
    writeFile(blocked.filePath("data"), "not a folder");
    AppSettings blockedSettings(privateLocation(blocked));
    const auto error = blockedSettings.setWatermarkImage(dir.filePath("Crest.Jpg"));
    QVERIFY(error && error->size() > 32);
    QVERIFY2(error->startsWith("Orvane couldn't use that image. "), qPrintable(*error));
    QCOMPARE(blockedSettings.watermarkImageFile(), std::nullopt);
}

void AppSettingsTest::migrationCopiesWhatIsMissingOnce_data()
{
    QTest::addColumn<QByteArray>("currentStore"); // null: no file yet
    QTest::addColumn<QByteArray>("oldStore");     // null: no old file
    QTest::addColumn<int>("oscPort");
    QTest::addColumn<QString>("qlabHost");

    const QByteArray old = R"({"oscPort":9000,"qlabHost":"stage-mac","movedOutOfSandbox":false})";
    QTest::newRow("current has the key")
        << QByteArray(R"({"oscPort":8001})") << old << 8001 << "stage-mac";
    QTest::newRow("current lacks the key") << QByteArray("{}") << old << 9000 << "stage-mac";
    QTest::newRow("no current file") << QByteArray() << old << 9000 << "stage-mac";
    QTest::newRow("already moved")
        << QByteArray(R"({"movedOutOfSandbox":true})") << old << 8001 << "";
    QTest::newRow("flag of another type does not count")
        << QByteArray(R"({"movedOutOfSandbox":"true"})") << old << 9000 << "stage-mac";
    QTest::newRow("old file unreadable")
        << QByteArray("{}") << QByteArray(R"({"oscPort":90)") << 8001 << "";
    QTest::newRow("no old file") << QByteArray("{}") << QByteArray() << 8001 << "";
}

void AppSettingsTest::migrationCopiesWhatIsMissingOnce()
{
    QFETCH(QByteArray, currentStore);
    QFETCH(QByteArray, oldStore);
    QFETCH(int, oscPort);
    QFETCH(QString, qlabHost);
    QTemporaryDir dir;
    const auto current = privateLocation(dir, currentStore);
    const auto old = AppSettings::containerLocation(dir.filePath(".var/app/app.orvane.Orvane"));
    if (!oldStore.isNull())
        writeFile(old.storeFile, oldStore);
    writeFile(old.supportFolder + "/Watermark.png", "old image");
    writeFile(old.supportFolder + "/Shows/Hamlet.txt", "old notes");
    writeFile(old.supportFolder + "/.hidden", "old hidden");
    writeFile(current.supportFolder + "/Watermark.png", "new image");
    const bool alreadyMoved = currentStore.contains("\"movedOutOfSandbox\":true");

    AppSettings::moveOutOfContainer(current, old);
    {
        const AppSettings settings(current);
        QCOMPARE(settings.oscPort(), oscPort);
        QCOMPARE(settings.qlabHost(), qlabHost);
    }
    QCOMPARE(storedObject(current).value("movedOutOfSandbox"), QJsonValue(true));
    QCOMPARE(readFile(current.supportFolder + "/Watermark.png"), QByteArray("new image"));
    QCOMPARE(readFile(current.supportFolder + "/Shows/Hamlet.txt"),
             alreadyMoved ? QByteArray() : QByteArray("old notes"));
    QCOMPARE(readFile(current.supportFolder + "/.hidden"),
             alreadyMoved ? QByteArray() : QByteArray("old hidden"));

    // A second start copies nothing again.
    writeFile(old.storeFile, R"({"eosHost":"console","oscPort":7000})");
    writeFile(old.supportFolder + "/Later.png", "later");
    AppSettings::moveOutOfContainer(current, old);
    const AppSettings settings(current);
    QCOMPARE(settings.eosHost(), QString());
    QCOMPARE(settings.oscPort(), oscPort);
    QVERIFY(!QFileInfo::exists(current.supportFolder + "/Later.png"));
}

QTEST_GUILESS_MAIN(AppSettingsTest)
#include "AppSettingsTest.moc"
