// The NDI output and the outputs coordinator, with the stand-in runtime (libndi.so.6 built by
// this folder) found through NDI_RUNTIME_DIR_V6 and reporting every call to a log file; and the
// NDI rules that need no runtime: the frame rate announced, the layout of the published frame
// and where the runtime is looked for.

#include "outputs/NDIOutput.h"
#include "base/ManualClock.h"
#include "capture/FramePool.h"
#include "capture/FrameSink.h"
#include "outputs/NDILibrary.h"
#include "outputs/Outputs.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <cstring>

using namespace orvane;

namespace {

int freePort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

std::shared_ptr<Frame> paintedFrame(FramePool& pool, std::uint8_t shade)
{
    auto frame = pool.acquire();
    if (frame)
        std::memset(frame->data[0], shade, frame->bytes);
    return frame;
}

// Outputs with a manual clock, loading the runtime afresh.
struct Coordinator {
    ManualClock clock;
    Outputs outputs{clock, [] { return NDILibrary::load(NDILibrary::candidatePaths()); }};
    Outputs* operator->() { return &outputs; }
};

} // namespace

class NDIOutputTest : public QObject {
    Q_OBJECT

    QTemporaryDir folder_;
    QString log_ = folder_.filePath("ndi.log");

    // The stand-in's log lines that start with one of `kinds` ("create|destroy").
    QStringList calls(const QString& kinds) const
    {
        QFile file(log_);
        if (!file.open(QIODevice::ReadOnly))
            return {};
        return QString::fromUtf8(file.readAll())
            .split('\n')
            .filter(QRegularExpression("^(" + kinds + ") "));
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString runtime = qEnvironmentVariable("ORVANE_NDI_TEST_RUNTIME_DIR");
        QVERIFY2(QFile::exists(runtime + "/libndi.so.6"), qPrintable(runtime));
        qputenv("ORVANE_NDI_TEST_LOG", QFile::encodeName(log_));
    }
    void init()
    {
        QFile::remove(log_);
        qputenv("NDI_RUNTIME_DIR_V6", qgetenv("ORVANE_NDI_TEST_RUNTIME_DIR"));
        for (const char* name : {"ORVANE_NDI_TEST_FAIL_INITIALIZE", "ORVANE_NDI_TEST_FAIL_CREATE",
                                 "ORVANE_NDI_TEST_CONNECTIONS", "ORVANE_NDI_TEST_SEND_MS"})
            qunsetenv(name);
    }

    void saysWhyThereIsNoNDI_data()
    {
        QTest::addColumn<QByteArray>("setting"); // an environment variable set to "1"
        QTest::addColumn<bool>("available");
        QTest::addColumn<bool>("sending");
        QTest::addColumn<QString>("status");
        QTest::newRow("no runtime anywhere")
            << QByteArray("NDI_RUNTIME_DIR_V6") << false << false << Outputs::kNDINotInstalledText;
        QTest::newRow("runtime does not initialise")
            << QByteArray("ORVANE_NDI_TEST_FAIL_INITIALIZE") << false << false
            << Outputs::kNDICouldNotStartText;
        QTest::newRow("runtime makes no sender") << QByteArray("ORVANE_NDI_TEST_FAIL_CREATE")
                                                 << true << false << Outputs::kNDICouldNotStartText;
        QTest::newRow("runtime works") << QByteArray() << true << true << QString();
    }
    void saysWhyThereIsNoNDI()
    {
        QFETCH(QByteArray, setting);
        QFETCH(bool, available);
        QFETCH(bool, sending);
        QFETCH(QString, status);
        if (!setting.isEmpty())
            qputenv(setting.constData(), "1"); // a runtime folder "1" holds none
        Coordinator outputs;
        QSignalSpy statusChanges(&outputs.outputs, &Outputs::ndiStatusTextChanged);
        const int port = freePort();
        outputs->apply({true, "Stage", true, port});
        QTRY_COMPARE(outputs->ndiStatusText(), status);
        QTRY_COMPARE(outputs->isSendingNDI(), sending);
        QCOMPARE(outputs->isNDIAvailable(), available);
        QCOMPARE(statusChanges.size(), status.isEmpty() ? 0 : 1);
        // Whatever NDI does, the web viewer works.
        QTRY_COMPARE(outputs->webState(), WebViewer::State::listening(port));
        QProcess curl;
        curl.start("curl", {"-s", QString("http://127.0.0.1:%1/none").arg(port)});
        QVERIFY(curl.waitForFinished(10000));
        QCOMPARE(curl.readAllStandardOutput(), "Not found");
        // Turning NDI off and on tries again.
        qunsetenv("ORVANE_NDI_TEST_FAIL_CREATE");
        outputs->apply({false, "Stage", true, port});
        outputs->apply({true, "Stage", true, port});
        QTRY_COMPARE(outputs->isSendingNDI(), available);
    }

    void staysOffWhenTurnedOffAtOnce()
    {
        Coordinator outputs;
        outputs->apply({true, QString(), false, 8090});
        outputs->apply({false, QString(), false, 8090});
        QTRY_COMPARE(calls("destroy").size(), 1);
        QTest::qWait(100); // the start's outcome arrives after the stop
        QVERIFY(!outputs->isSendingNDI());
        QCOMPARE(outputs->ndiStatusText(), QString());
    }

    // One sender's life. An empty name sends as "Orvane"; the receivers are polled, and told
    // only on a change. Typing a name restarts the sender once, with the last name, after the
    // last key. A frame goes out in its own planes at its own rate, and stays with the sender
    // until the runtime is done with it; what comes meanwhile is dropped.
    void pollsRestartsOnceAfterARenameAndSends()
    {
        qputenv("ORVANE_NDI_TEST_SEND_MS", "400");
        Coordinator outputs;
        QSignalSpy changes(&outputs.outputs, &Outputs::ndiReceiversChanged);
        outputs->apply({true, QString(), false, 8090});
        QTRY_VERIFY(outputs->isSendingNDI());
        qputenv("ORVANE_NDI_TEST_CONNECTIONS", "3");
        outputs.clock.advance(Outputs::kStatusInterval);
        QTRY_COMPARE(outputs->ndiReceivers(), 3);
        outputs.clock.advance(Outputs::kStatusInterval); // unchanged: no signal
        qputenv("ORVANE_NDI_TEST_CONNECTIONS", "1");
        outputs.clock.advance(Outputs::kStatusInterval);
        QTRY_COMPARE(outputs->ndiReceivers(), 1);
        const QString name = "Stage Left – Ü";
        for (const QString& typed : {name.first(1), name.first(5), name}) {
            outputs->apply({true, typed, false, 8090});
            outputs.clock.advance(Outputs::kRenameDelay / 2);
        }
        QCOMPARE(outputs->ndiStartsForTesting(), 1);
        outputs.clock.advance(Outputs::kRenameDelay);
        QTRY_COMPARE(calls("create").size(), 2);
        QCOMPARE(outputs->ndiStartsForTesting(), 2);
        const QStringList lifecycle = calls("create|destroy");
        QVERIFY2(lifecycle.size() == 3 && lifecycle[0].contains(" name=Orvane ") &&
                     lifecycle[1].startsWith("destroy") && lifecycle[1].endsWith(" name=Orvane") &&
                     lifecycle[2].endsWith(" name=" + name +
                                           " groups=(none) clock_video=0 clock_audio=0"),
                 qPrintable(lifecycle.join('\n')));
        QTRY_VERIFY(outputs->isSendingNDI());

        FramePool pool(64, 36, 1);
        outputs->sink()->takeFrame(paintedFrame(pool, 7), 1001.0 / 30000);
        QVERIFY(!pool.acquire());
        FramePool others(64, 36, 8);
        for (int i = 0; i < 8; ++i)
            outputs->send(paintedFrame(others, std::uint8_t(i * 20)), 1.0 / 30);
        QTRY_COMPARE(calls("video").size(), 1);
        QTRY_VERIFY(pool.freeCount() == 1);
        QTest::qWait(500);
        const QStringList video = calls("video");
        QCOMPARE(video.size(), 1);
        QVERIFY2(
            QRegularExpression("^video sender=\\d+ size=64x36 fourcc=I420 rate=30000/1001 aspect=0 "
                               "format=progressive timecode=synthesize stride=64 "
                               "metadata=\\(none\\) picture=[0-9a-f]{8}$")
                .match(video[0])
                .hasMatch(),
            qPrintable(video[0]));
        outputs->send(paintedFrame(pool, 99), 1.0 / 30);
        QTRY_COMPARE(calls("video").size(), 2);

        outputs->apply({false, QString(), false, 8090});
        QTRY_COMPARE(outputs->ndiReceivers(), 0);
        QTest::qWait(50);
        QCOMPARE(changes.size(), 3);
    }

    void appliesOnlyWhatChanged_data()
    {
        QTest::addColumn<Outputs::Configuration>("from");
        QTest::addColumn<Outputs::Configuration>("to");
        QTest::addColumn<int>("webStarts");
        QTest::addColumn<int>("ndiStarts");
        // Port 1 stands for the first free port, 2 for the second.
        using C = Outputs::Configuration;
        const C both{true, "A", true, 1};
        QTest::newRow("nothing changed") << both << both << 0 << 0;
        QTest::newRow("port changed") << both << C{true, "A", true, 2} << 1 << 0;
        QTest::newRow("web off") << both << C{true, "A", false, 1} << 0 << 0;
        QTest::newRow("port changed while web is off")
            << C{true, "A", false, 1} << C{true, "A", false, 2} << 0 << 0;
        QTest::newRow("NDI off") << both << C{false, "A", true, 1} << 0 << 0;
        QTest::newRow("name changed") << both << C{true, "B", true, 1} << 0 << 1;
        QTest::newRow("name changed while NDI is off")
            << C{false, "A", true, 1} << C{false, "B", true, 1} << 0 << 0;
        QTest::newRow("both on from off") << C{false, "A", false, 1} << both << 1 << 1;
    }
    void appliesOnlyWhatChanged()
    {
        QFETCH(Outputs::Configuration, from);
        QFETCH(Outputs::Configuration, to);
        QFETCH(int, webStarts);
        QFETCH(int, ndiStarts);
        const int ports[] = {0, freePort(), freePort()};
        from.webPort = ports[from.webPort];
        to.webPort = ports[to.webPort];
        Coordinator outputs;
        outputs->apply(from);
        QTRY_COMPARE(outputs->isSendingNDI(), from.ndiEnabled);
        if (from.webEnabled)
            QTRY_COMPARE(outputs->webState(), WebViewer::State::listening(from.webPort));
        const int webBefore = outputs->webStartsForTesting();
        const int ndiBefore = outputs->ndiStartsForTesting();
        QSignalSpy webStates(&outputs.outputs, &Outputs::webStateChanged);
        QSignalSpy sending(&outputs.outputs, &Outputs::isSendingNDIChanged);

        outputs->apply(to);
        outputs.clock.advance(Outputs::kRenameDelay * 2);
        QTRY_COMPARE(outputs->isSendingNDI(), to.ndiEnabled);
        QTRY_COMPARE(outputs->webState(),
                     to.webEnabled ? WebViewer::State::listening(to.webPort) : WebViewer::State{});
        QCOMPARE(outputs->webStartsForTesting() - webBefore, webStarts);
        QCOMPARE(outputs->ndiStartsForTesting() - ndiBefore, ndiStarts);
        QCOMPARE(outputs->configuration(), std::optional(to));
        QTest::qWait(50);
        // Properties notify only on a real change.
        QCOMPARE(sending.size(), from.ndiEnabled == to.ndiEnabled ? 0 : 1);
        if (webStarts == 0 && from.webEnabled == to.webEnabled)
            QCOMPARE(webStates.size(), 0);
    }

    void announcesFrameRates_data()
    {
        QTest::addColumn<double>("duration");
        QTest::addColumn<NDIFrameRate>("rate");
        QTest::newRow("25") << 0.04 << NDIFrameRate{25, 1};
        QTest::newRow("60") << 1.0 / 60 << NDIFrameRate{60, 1};
        QTest::newRow("29.97") << 1001.0 / 30000 << NDIFrameRate{30000, 1001};
        QTest::newRow("23.976") << 1001.0 / 24000 << NDIFrameRate{24000, 1001};
        QTest::newRow("12.5") << 0.08 << NDIFrameRate{12500, 1000};
        for (double invalid : {0.0, std::nan(""), 86400.0, 1e-12}) // none, a day, far too fast
            QTest::addRow("invalid %g", invalid) << invalid << NDIFrameRate{30, 1};
    }
    void announcesFrameRates()
    {
        QFETCH(double, duration);
        QFETCH(NDIFrameRate, rate);
        QCOMPARE(ndiFrameRate(duration), rate);
    }

    void keepsThePublishedLayout()
    {
        // The stand-in runtime is built from the same header, so only this sees a field moved
        // away from where the real runtime reads it on a 64-bit system.
        QCOMPARE(offsetof(NDIlib_video_frame_v2_t, timecode), std::size_t(32));
        QCOMPARE(offsetof(NDIlib_video_frame_v2_t, p_data), std::size_t(40));
        QCOMPARE(offsetof(NDIlib_video_frame_v2_t, line_stride_in_bytes), std::size_t(48));
        QCOMPARE(offsetof(NDIlib_video_frame_v2_t, p_metadata), std::size_t(56));
        QCOMPARE(sizeof(NDIlib_video_frame_v2_t), std::size_t(72));
        QCOMPARE(sizeof(NDIlib_send_create_t), std::size_t(24));
    }

    void searchesForTheRuntime_data()
    {
        QTest::addColumn<std::optional<QString>>("v6");
        QTest::addColumn<std::optional<QString>>("v5");
        QTest::addColumn<QStringList>("firstFolders");
        QTest::newRow("neither variable")
            << std::optional<QString>() << std::optional<QString>()
            << QStringList{"/opt/orvane/bin", "/usr/local/lib", "/usr/lib"};
        QTest::newRow("both, V6 first")
            << std::optional<QString>("/opt/ndi6/lib/") << std::optional<QString>("/opt/ndi5")
            << QStringList{"/opt/orvane/bin", "/opt/ndi6/lib", "/opt/ndi5", "/usr/local/lib",
                           "/usr/lib"};
    }
    void searchesForTheRuntime()
    {
        QFETCH(std::optional<QString>, v6);
        QFETCH(std::optional<QString>, v5);
        QFETCH(QStringList, firstFolders);
        const QStringList paths = NDILibrary::candidatePaths("/opt/orvane/bin", v6, v5);
        QStringList expected;
        for (const QString& folder : firstFolders)
            expected << folder + "/libndi.so.6" << folder + "/libndi.so.5";
        QCOMPARE(paths.mid(0, expected.size()), expected);
        QVERIFY(paths.size() - expected.size() <= 2); // only the multiarch folder may follow
    }
};

QTEST_GUILESS_MAIN(NDIOutputTest)
#include "NDIOutputTest.moc"
