#include "settings/LayoutPreset.h"
#include "settings/OverlayLayout.h"
#include "settings/OverlayLook.h"
#include "support/Golden.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

using namespace orvane;

namespace {

QJsonValue parse(const QByteArray& text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson("[" + text + "]", &error);
    if (error.error != QJsonParseError::NoError)
        qFatal("bad JSON in a test row: %s", text.constData());
    return document.array().at(0);
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
    look.showsClock = false;
    look.showsDate = true;
    look.showsTimecode = false;
    look.showsCue = false;
    look.showsNextCue = false;
    look.showsShowName = true;
    look.showsFields = false;
    look.showsQLabCues = false;
    look.watermarkText = QStringLiteral("Rehearsal – “not for broadcast” ©");
    look.watermarkOpacity = 0.33;
    return look;
}

QByteArray lookText(const QByteArray& without = {}, const QByteArray& replacement = {})
{
    QJsonObject object = OverlayLook{}.toJson();
    if (!without.isEmpty())
        object.remove(QString::fromLatin1(without));
    if (!replacement.isEmpty()) {
        const QJsonObject extra = parse(replacement).toObject();
        for (auto it = extra.begin(); it != extra.end(); ++it)
            object.insert(it.key(), it.value());
    }
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

LayoutPreset preset(const char* name, const OverlayLook& look = {})
{
    return LayoutPreset{QUuid::createUuid(), QString::fromUtf8(name), look};
}

} // namespace

class LayoutTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void defaultLayoutHasItsExactText();
    void valuesSurviveTheirJsonForm();
    void decodingRejectsBadJson_data();
    void decodingRejectsBadJson();
    void presetsAreFoundByTrimmedCaseInsensitiveName_data();
    void presetsAreFoundByTrimmedCaseInsensitiveName();
    void firstPresetWithTheCurrentLookIsActive();
};

void LayoutTest::defaultLayoutHasItsExactText()
{
    const QByteArray text =
        QJsonDocument(OverlayLayout::defaultLayout().toJson()).toJson(QJsonDocument::Indented);
    const auto golden = testing::compareWithGolden(
        text, QStringLiteral(ORVANE_TEST_DATA "/expected/default-layout.json"));
    QVERIFY2(golden.matches, qPrintable(golden.difference));
}

void LayoutTest::valuesSurviveTheirJsonForm()
{
    const LayoutPreset original = preset("Acte 2 – « Café »", unusualLook());
    // Through the text, as the settings file keeps it.
    const QByteArray text = QJsonDocument(original.toJson()).toJson(QJsonDocument::Compact);
    QCOMPARE(LayoutPreset::fromJson(QJsonDocument::fromJson(text).object()), original);
}

void LayoutTest::decodingRejectsBadJson_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("accepted");
    const auto row = [](const char* name, const char* type, const QByteArray& json, bool accepted) {
        QTest::newRow(name) << type << json << accepted;
    };
    const QByteArray placement = R"({"x":0.1,"y":0.2,"anchorX":0,"anchorY":1})";
    const QByteArray id = R"("id":"0F8E3C2A-1B4D-4E5F-8A9B-0C1D2E3F4A5B")";
    const QByteArray look = lookText();
    row("placement with whole numbers", "placement", placement, true);
    row("placement missing anchorY", "placement", R"({"x":0.1,"y":0.2,"anchorX":0})", false);
    row("placement with text x", "placement", R"({"x":"0.1","y":0.2,"anchorX":0,"anchorY":1})",
        false);
    row("layout with one entry", "layout", R"({"placements":["qlab",)" + placement + "]}", true);
    row("layout with odd count", "layout", R"({"placements":["qlab",)" + placement + R"(,"cues"]})",
        false);
    row("layout with unknown widget", "layout", R"({"placements":["clock",)" + placement + "]}",
        false);
    row("layout with upper-case widget", "layout", R"({"placements":["QLab",)" + placement + "]}",
        false);
    row("layout with placements as object", "layout",
        R"({"placements":{"qlab":)" + placement + "}}", false);
    row("complete look", "look", look, true);
    row("look missing showsQLabCues", "look", lookText("showsQLabCues"), false);
    row("look with text scale", "look", lookText({}, R"({"scale":"1.5"})"), false);
    row("look with null watermarkText", "look", lookText({}, R"({"watermarkText":null})"), false);
    row("look with an unknown extra key", "look", lookText({}, R"({"showsWeather":true})"), true);
    row("preset with lower-case id", "preset",
        R"({"id":"0f8e3c2a-1b4d-4e5f-8a9b-0c1d2e3f4a5b","name":"A","look":)" + look + "}", true);
    row("preset with bad id", "preset", R"({"id":"not-a-uuid","name":"A","look":)" + look + "}",
        false);
    row("preset missing name", "preset", "{" + id + R"(,"look":)" + look + "}", false);
    row("preset with look missing a key", "preset",
        "{" + id + R"(,"name":"A","look":)" + lookText("scale") + "}", false);
    row("preset list with one bad preset", "presets",
        "[{" + id + R"(,"name":"A","look":)" + look + R"(},{"id":"x","name":"B","look":)" + look +
            "}]",
        false);
    row("preset list as object", "presets", "{}", false);
}

void LayoutTest::decodingRejectsBadJson()
{
    QFETCH(QString, type);
    QFETCH(QByteArray, json);
    QFETCH(bool, accepted);
    const QJsonValue value = parse(json);
    bool decoded = false;
    if (type == "placement")
        decoded = WidgetPlacement::fromJson(value).has_value();
    else if (type == "layout")
        decoded = OverlayLayout::fromJson(value).has_value();
    else if (type == "look")
        decoded = OverlayLook::fromJson(value).has_value();
    else if (type == "preset")
        decoded = LayoutPreset::fromJson(value).has_value();
    else if (type == "presets")
        decoded = layoutPresetsFromJson(value).has_value();
    else
        QFAIL("unknown type in the table");
    QCOMPARE(decoded, accepted);
}

void LayoutTest::presetsAreFoundByTrimmedCaseInsensitiveName_data()
{
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<QString>("wanted");
    QTest::addColumn<int>("found"); // -1: none

    const QStringList acts{"Act 1", "act 2", "Act 2", "Café"};
    QTest::newRow("upper case finds the first of two") << acts << "ACT 2" << 1;
    QTest::newRow("surrounding blanks") << acts << "  Act 2 \t" << 1;
    QTest::newRow("accented letter in another case") << acts << "CAFÉ" << 3;
    QTest::newRow("accent is not ignored") << acts << "Cafe" << -1;
    QTest::newRow("inner blanks count") << acts << "Act  2" << -1;
}

void LayoutTest::presetsAreFoundByTrimmedCaseInsensitiveName()
{
    QFETCH(QStringList, names);
    QFETCH(QString, wanted);
    QFETCH(int, found);
    QList<LayoutPreset> presets;
    for (const QString& name : names)
        presets.append(preset(name.toUtf8().constData()));
    const auto index = indexOfLayoutPreset(presets, wanted);
    QCOMPARE(index.value_or(-1), qsizetype(found));
}

void LayoutTest::firstPresetWithTheCurrentLookIsActive()
{
    OverlayLook moved;
    moved.layout.setPlacement(OverlayWidget::cues, {0.5, 0.9, 0.5, 1.0});
    const QList<LayoutPreset> presets{preset("Default"), preset("Moved", moved),
                                      preset("Moved again", moved)};
    QCOMPARE(indexOfActiveLayoutPreset(presets, moved), std::optional<qsizetype>(1));
    QCOMPARE(indexOfActiveLayoutPreset(presets, OverlayLook{}), std::optional<qsizetype>(0));
    QCOMPARE(indexOfActiveLayoutPreset(presets, unusualLook()), std::nullopt);
}

QTEST_GUILESS_MAIN(LayoutTest)
#include "LayoutTest.moc"
