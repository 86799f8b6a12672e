#include "overlay/OverlayContentJson.h"

#include "overlay/OverlayPart.h"

#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>

Q_DECLARE_METATYPE(orvane::OverlayPart)

using namespace orvane;

namespace {

const WallTime kNow = WallTime(std::chrono::seconds(1'795'464'907));

std::optional<OverlayContent> decode(const char* json, const QDir& folder = QDir())
{
    return overlayContentFromJson(QJsonDocument::fromJson(json).object(), kNow, folder);
}

// Part rows at instants counted from t0.
const WallTime t0 = WallTime(std::chrono::seconds(1'800'000'000));

WallTime at(double seconds)
{
    return addSeconds(t0, seconds);
}

OverlayPart stored(double progress)
{
    return {{}, {}, {}, progress};
}

OverlayPart qlab(double elapsed, std::optional<double> duration, bool paused = false,
                 double sampledAt = 0)
{
    return {{}, {}, {}, 0, {}, RunningTime{elapsed, at(sampledAt), duration, paused}};
}

// A 10 s fade that started at t0 and was last reported at `reported` 3 s in.
OverlayPart fading(double reported, double storedProgress = 0)
{
    return {{}, {}, {}, storedProgress, FadeClock{10, t0, reported, at(3), true}};
}

} // namespace

// What the overlay shows: the derived values of a part row (its bar, pause sign and status
// figure) at chosen instants, and hand-made contents for the picture tool (what they mean,
// what is rejected).
class OverlayContentTest : public QObject {
    Q_OBJECT

private slots:
    void derivedValues_data()
    {
        QTest::addColumn<OverlayPart>("part");
        QTest::addColumn<double>("instant");
        QTest::addColumn<double>("progress");
        QTest::addColumn<bool>("paused");
        QTest::addColumn<QString>("status");

        QTest::newRow("stored 40 %") << stored(0.4) << 0.0 << 0.4 << false << "40%";
        QTest::newRow("stored 99.9 % truncates") << stored(0.999) << 0.0 << 0.999 << false << "99%";
        QTest::newRow("stored above 1 is done") << stored(1.7) << 0.0 << 1.0 << false << "Done";
        QTest::newRow("stored below 0 is 0") << stored(-0.2) << 0.0 << 0.0 << false << "0%";
        QTest::newRow("stored not a number is 0")
            << stored(std::nan("")) << 0.0 << 0.0 << false << "0%";

        QTest::newRow("qlab counts down")
            << qlab(12, 45) << 3.0 << 15.0 / 45 << false << "-30.000s";
        QTest::newRow("qlab millisecond figure")
            << qlab(0, 10) << 1.2344 << 0.12344 << false << "-8.766s";
        QTest::newRow("qlab at its end is done") << qlab(12, 45) << 33.0 << 1.0 << false << "Done";
        QTest::newRow("qlab past its end is done")
            << qlab(12, 45) << 50.0 << 1.0 << false << "Done";
        QTest::newRow("qlab unknown length counts up")
            << qlab(73.4, std::nullopt) << 1.3 << 0.0 << false << "+74.7s";
        QTest::newRow("qlab zero length counts up")
            << qlab(2, 0.0) << 0.5 << 0.0 << false << "+2.5s";
        QTest::newRow("qlab paused stands still")
            << qlab(21, 60, true) << 10.0 << 0.35 << true << "-39.000s";
        QTest::newRow("qlab sampled in the future")
            << qlab(12, 45, false, 5) << 0.0 << 12.0 / 45 << false << "-33.000s";

        QTest::newRow("fade under way") << fading(0.3) << 3.1 << 0.31 << false << "-6.900s";
        QTest::newRow("fade runs a lead ahead at most")
            << fading(0.3) << 3.5 << 0.33 << false << "-6.700s";
        QTest::newRow("fade held on the console freezes")
            << fading(0.3) << 6.0 << 0.33 << true << "-6.700s";
        QTest::newRow("fade reported 99 % is done")
            << fading(0.99) << 3.0 << 1.0 << false << "Done";
        QTest::newRow("fade wins over the stored progress")
            << fading(0.3, 0.9) << 3.1 << 0.31 << false << "-6.900s";
        OverlayPart both = fading(0.3);
        both.running = RunningTime{5, t0, 20.0, false};
        QTest::newRow("running time wins over a fade")
            << both << 0.0 << 0.25 << false << "-15.000s";
    }

    void derivedValues()
    {
        QFETCH(OverlayPart, part);
        QFETCH(double, instant);
        QFETCH(double, progress);
        QFETCH(bool, paused);
        QFETCH(QString, status);

        const WallTime now = at(instant);
        QVERIFY2(std::abs(part.progressAt(now) - progress) < 1e-9,
                 qPrintable(QString::number(part.progressAt(now), 'g', 12)));
        QCOMPARE(part.isPausedAt(now), paused);
        QCOMPARE(part.statusAt(now), status);
        QCOMPARE(part.isCompleteAt(now), progress >= 1);
    }

    void emptyObjectIsTheDefaultContent()
    {
        QCOMPARE(decode("{}"), std::optional(OverlayContent()));
    }

    // Everything set; the watermark image is read beside the content file.
    void fullContent()
    {
        QTemporaryDir folder;
        QImage logo(64, 32, QImage::Format_ARGB32);
        logo.fill(Qt::white);
        QVERIFY(logo.save(folder.filePath("logo.png")));
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
            "watermarkText": "Rehearsal", "watermarkOpacity": 0.3, "watermarkImage": "logo.png"})",
                                    QDir(folder.path()));
        QVERIFY(content);
        QCOMPARE(*content->showName, "Hamlet");
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
        QVERIFY(content->parts[0].isRunning && content->parts[0].statusAt(kNow) == "-4.800s");
        QCOMPARE(content->qlabCues[0].statusAt(kNow), "-26.000s");
        QVERIFY(content->qlabCues[0].isPausedAt(kNow));
        QCOMPARE(content->qlabCues[1].statusAt(kNow), "+2.0s");
        QCOMPARE(content->fields[0], (OverlayItem{"Sound", "Q 30", "GO"}));
        QCOMPARE(content->watermarkOpacity, 0.3);
        QCOMPARE(content->watermarkImage->size(), QSize(64, 32));
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

QTEST_GUILESS_MAIN(OverlayContentTest)
#include "OverlayContentTest.moc"
