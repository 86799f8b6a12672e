#include "overlay/OverlayContentJson.h"

#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace orvane;

namespace {

const WallTime kNow = WallTime(std::chrono::seconds(1'795'464'907));

std::optional<OverlayContent> decode(const char* json, const QDir& folder = QDir())
{
    return overlayContentFromJson(QJsonDocument::fromJson(json).object(), kNow, folder);
}

} // namespace

// Hand-made contents for the picture tool: what they mean, and what is rejected.
class OverlayContentJsonTest : public QObject {
    Q_OBJECT

private slots:
    void emptyObjectIsTheDefaultContent()
    {
        const auto content = decode("{}");
        QVERIFY(content);
        QCOMPARE(*content, OverlayContent());
    }

    void fullContent()
    {
        const auto content = decode(R"({
            "showName": "Hamlet", "scale": 1.5, "opacity": 0.5, "cameraLabel": "Wide",
            "showsClock": false, "showsDate": true, "showsTimecode": true,
            "layout": {"placements": ["status", {"x": 0.1, "y": 0.2, "anchorX": 0, "anchorY": 0}]},
            "showTime": {"start": 3600, "elapsed": 12.5, "framesPerSecond": 30},
            "recordingSeconds": 90,
            "cue": {"number": "1/30", "label": "Ballad"}, "nextCue": {"number": "1/40"},
            "parts": [{"id": "P1", "tag": "P1", "label": "Intensity", "isRunning": true,
                       "fade": {"fade": 8, "reported": 0.4, "startedSecondsAgo": 3.2,
                                "advancedSecondsAgo": 0.1}}],
            "qlabCues": [{"id": "A", "tag": "12", "label": "Rain",
                          "running": {"elapsed": 4, "duration": 30, "isPaused": true}},
                         {"id": "B", "running": {"elapsed": 2}}],
            "fields": [{"caption": "Sound", "value": "Q 30", "detail": "GO"}],
            "watermarkText": "Rehearsal", "watermarkOpacity": 0.3})");
        QVERIFY(content);
        QCOMPARE(*content->showName, QStringLiteral("Hamlet"));
        QCOMPARE(content->scale, 1.5);
        QCOMPARE(content->layout.placement(OverlayWidget::status),
                 (WidgetPlacement{0.1, 0.2, 0, 0}));
        QCOMPARE(content->layout.placement(OverlayWidget::cues),
                 WidgetPlacement::defaultFor(OverlayWidget::cues));
        QCOMPARE(content->showTime->secondsAt(kNow), 3612.5);
        QCOMPARE(content->showTime->framesPerSecond, 30.0);
        QCOMPARE(secondsBetween(*content->recordingStart, kNow), 90.0);
        QCOMPARE(content->nextCue->label, QString());
        QCOMPARE(content->parts.size(), size_t(1));
        QVERIFY(content->parts[0].clock);
        QCOMPARE(content->parts[0].statusAt(kNow), QStringLiteral("-4.800s"));
        QVERIFY(content->parts[0].isRunning);
        QCOMPARE(content->qlabCues[0].statusAt(kNow), QStringLiteral("-26.000s"));
        QVERIFY(content->qlabCues[0].isPausedAt(kNow));
        QCOMPARE(content->qlabCues[1].statusAt(kNow), QStringLiteral("+2.0s"));
        QCOMPARE(content->fields[0], (OverlayItem{"Sound", "Q 30", "GO"}));
        QCOMPARE(content->watermarkOpacity, 0.3);
    }

    void rejected_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("scale as text") << QByteArray(R"({"scale": "big"})");
        QTest::newRow("show name as number") << QByteArray(R"({"showName": 3})");
        QTest::newRow("cue as text") << QByteArray(R"({"cue": "1/30"})");
        QTest::newRow("parts not a list") << QByteArray(R"({"parts": {"id": "P1"}})");
        QTest::newRow("part not an object") << QByteArray(R"({"parts": ["P1"]})");
        QTest::newRow("fade of no length") << QByteArray(R"({"parts": [{"fade": {"fade": 0}}]})");
        QTest::newRow("running elapsed as text")
            << QByteArray(R"({"qlabCues": [{"running": {"elapsed": "4"}}]})");
        QTest::newRow("field value as number") << QByteArray(R"({"fields": [{"value": 30}]})");
        QTest::newRow("unknown widget") << QByteArray(
            R"({"layout": {"placements": ["clock", {"x": 0, "y": 0, "anchorX": 0, "anchorY": 0}]}})");
        QTest::newRow("missing watermark image")
            << QByteArray(R"({"watermarkImage": "no-such-logo.png"})");
        QTest::newRow("recording as text") << QByteArray(R"({"recordingSeconds": "90"})");
    }
    void rejected()
    {
        QFETCH(QByteArray, json);
        QVERIFY(!decode(json.constData()));
    }

    void watermarkImageIsReadBesideTheFile()
    {
        QTemporaryDir folder;
        QImage logo(64, 32, QImage::Format_ARGB32);
        logo.fill(Qt::white);
        QVERIFY(logo.save(folder.filePath(QStringLiteral("logo.png"))));
        const auto content = decode(R"({"watermarkImage": "logo.png"})", QDir(folder.path()));
        QVERIFY(content);
        QCOMPARE(content->watermarkImage->size(), QSize(64, 32));
    }

    // The picture tool end to end: it writes a PNG of the asked size, and refuses bad input.
    void pictureTool_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QSize>("size");
        QTest::newRow("help") << QStringList{"--help"} << 0 << QSize();
        QTest::newRow("sample at 1080p") << QStringList{"--sample"} << 0 << QSize(1920, 1080);
        QTest::newRow("busy at 1280x1024")
            << QStringList{"--busy", "--size", "1280x1024"} << 0 << QSize(1280, 1024);
        QTest::newRow("content file")
            << QStringList{"--content", "CONTENT", "--size", "640x360"} << 0 << QSize(640, 360);
        QTest::newRow("bad size") << QStringList{"--size", "wide"} << 1 << QSize();
        QTest::newRow("two sources") << QStringList{"--sample", "--busy"} << 1 << QSize();
        QTest::newRow("bad time") << QStringList{"--time", "teatime"} << 1 << QSize();
        QTest::newRow("missing content file")
            << QStringList{"--content", "/nonexistent.json"} << 1 << QSize();
    }
    void pictureTool()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QSize, size);
        QTemporaryDir folder;
        QFile contentFile(folder.filePath(QStringLiteral("content.json")));
        QVERIFY(contentFile.open(QIODevice::WriteOnly));
        contentFile.write(R"({"showName": "Hamlet", "cue": {"number": "5", "label": "Ghost"}})");
        contentFile.close();
        arguments.replaceInStrings(QStringLiteral("CONTENT"), contentFile.fileName());
        const QString out = folder.filePath(QStringLiteral("out.png"));

        QProcess tool;
        tool.start(qEnvironmentVariable("ORVANE_EXECUTABLE"),
                   QStringList{QStringLiteral("overlay-picture")} + arguments + QStringList{out});
        QVERIFY(tool.waitForFinished(60000));
        QCOMPARE(tool.exitCode(), exitCode);
        const QImage picture(out);
        QCOMPARE(picture.isNull() ? QSize() : picture.size(), size);
        if (exitCode != 0)
            QVERIFY(!tool.readAllStandardError().isEmpty());
        if (arguments == QStringList{"--help"}) {
            const QString help = QString::fromUtf8(tool.readAllStandardOutput());
            for (const char* option : {"--size", "--content", "--sample", "--busy", "OUT.png"})
                QVERIFY2(help.contains(QLatin1String(option)), option);
        }
    }
};

QTEST_GUILESS_MAIN(OverlayContentJsonTest)
#include "OverlayContentJsonTest.moc"
