// The NDI output and the outputs coordinator, with the stand-in runtime (libndi.so.6 built by
// this folder) found through NDI_RUNTIME_DIR_V6 and reporting every call to a log file.

#include "base/ManualClock.h"
#include "capture/FramePool.h"
#include "capture/FrameSink.h"
#include "outputs/NDILibrary.h"
#include "outputs/Outputs.h"

#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <cstring>

using namespace orvane;

namespace {

NDILibrary::LoadResult loadFresh()
{
    return NDILibrary::load(NDILibrary::candidatePaths());
}

int freePort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

std::shared_ptr<Frame> paintedFrame(FramePool& pool, std::uint8_t shade)
{
    auto frame = pool.acquire();
    if (!frame)
        return nullptr;
    std::memset(frame->data[0], shade, frame->bytes);
    return frame;
}

} // namespace

class NDIOutputTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void saysWhyThereIsNoNDI_data();
    void saysWhyThereIsNoNDI();
    void sendsFramesAsPublished_data();
    void sendsFramesAsPublished();
    void staysOffWhenTurnedOffAtOnce();
    void pollsReceivers();
    void restartsOnceAfterARename();
    void appliesOnlyWhatChanged_data();
    void appliesOnlyWhatChanged();

private:
    // The stand-in's log lines that start with one of `kinds` ("create|destroy").
    QStringList calls(const QString& kinds) const;

    QTemporaryDir folder_;
    QString runtimeFolder_;
    QString log_;
};

void NDIOutputTest::initTestCase()
{
    runtimeFolder_ = qEnvironmentVariable("ORVANE_NDI_TEST_RUNTIME_DIR");
    QVERIFY2(QFile::exists(runtimeFolder_ + "/libndi.so.6"), qPrintable(runtimeFolder_));
    log_ = folder_.filePath(QStringLiteral("ndi.log"));
    qputenv("ORVANE_NDI_TEST_LOG", QFile::encodeName(log_));
}

void NDIOutputTest::init()
{
    QFile::remove(log_);
    qputenv("NDI_RUNTIME_DIR_V6", QFile::encodeName(runtimeFolder_));
    for (const char* name : {"ORVANE_NDI_TEST_FAIL_INITIALIZE", "ORVANE_NDI_TEST_FAIL_CREATE",
                             "ORVANE_NDI_TEST_CONNECTIONS", "ORVANE_NDI_TEST_SEND_MS"})
        qunsetenv(name);
}

QStringList NDIOutputTest::calls(const QString& kinds) const
{
    QFile file(log_);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll())
        .split(QLatin1Char('\n'))
        .filter(QRegularExpression("^(" + kinds + ") "));
}

void NDIOutputTest::saysWhyThereIsNoNDI_data()
{
    QTest::addColumn<bool>("runtimeFolderSet");
    QTest::addColumn<QByteArray>("failure");
    QTest::addColumn<bool>("available");
    QTest::addColumn<bool>("sending");
    QTest::addColumn<QString>("status");
    QTest::newRow("no runtime anywhere")
        << false << QByteArray() << false << false << Outputs::kNDINotInstalledText;
    QTest::newRow("runtime does not initialise")
        << true << QByteArray("ORVANE_NDI_TEST_FAIL_INITIALIZE") << false << false
        << Outputs::kNDICouldNotStartText;
    QTest::newRow("runtime makes no sender") << true << QByteArray("ORVANE_NDI_TEST_FAIL_CREATE")
                                             << true << false << Outputs::kNDICouldNotStartText;
    QTest::newRow("runtime works") << true << QByteArray() << true << true << QString();
}

void NDIOutputTest::saysWhyThereIsNoNDI()
{
    QFETCH(bool, runtimeFolderSet);
    QFETCH(QByteArray, failure);
    QFETCH(bool, available);
    QFETCH(bool, sending);
    QFETCH(QString, status);
    if (!runtimeFolderSet)
        qunsetenv("NDI_RUNTIME_DIR_V6");
    if (!failure.isEmpty())
        qputenv(failure.constData(), "1");

    ManualClock clock;
    Outputs outputs(clock, &loadFresh);
    QSignalSpy statusChanges(&outputs, &Outputs::ndiStatusTextChanged);
    const int port = freePort();
    outputs.apply({true, QStringLiteral("Stage"), true, port});
    QTRY_COMPARE(outputs.ndiStatusText(), status);
    QTRY_COMPARE(outputs.isSendingNDI(), sending);
    QCOMPARE(outputs.isNDIAvailable(), available);
    QCOMPARE(statusChanges.size(), status.isEmpty() ? 0 : 1);

    // Whatever NDI does, the web viewer works.
    QTRY_COMPARE(outputs.webState(), WebViewer::State::listening(port));
    QProcess curl;
    curl.start("curl", {"-s", QStringLiteral("http://127.0.0.1:%1/none").arg(port)});
    QVERIFY(curl.waitForFinished(10000));
    QCOMPARE(curl.readAllStandardOutput(), "Not found");

    // Turning NDI off and on tries again.
    qunsetenv("ORVANE_NDI_TEST_FAIL_CREATE");
    outputs.apply({false, QStringLiteral("Stage"), true, port});
    outputs.apply({true, QStringLiteral("Stage"), true, port});
    QTRY_COMPARE(outputs.isSendingNDI(), available);
}

void NDIOutputTest::sendsFramesAsPublished_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<double>("duration");
    QTest::addColumn<QString>("sentName");
    QTest::addColumn<QString>("rate");
    QTest::newRow("empty name, 30") << QString() << 1.0 / 30 << "Orvane"
                                    << "30/1";
    QTest::newRow("own name, 29.97") << QStringLiteral("Stage Left – Ü") << 1001.0 / 30000
                                     << QStringLiteral("Stage Left – Ü") << "30000/1001";
}

void NDIOutputTest::sendsFramesAsPublished()
{
    QFETCH(QString, name);
    QFETCH(double, duration);
    QFETCH(QString, sentName);
    QFETCH(QString, rate);
    qputenv("ORVANE_NDI_TEST_SEND_MS", "400");
    ManualClock clock;
    Outputs outputs(clock, &loadFresh);
    outputs.apply({true, name, false, 8090});
    QTRY_VERIFY(outputs.isSendingNDI());
    const QStringList created = calls("create");
    QCOMPARE(created.size(), 1);
    QVERIFY2(
        created[0].endsWith(" name=" + sentName + " groups=(none) clock_video=0 clock_audio=0"),
        qPrintable(created[0]));

    FramePool pool(64, 36, 1);
    outputs.sink()->takeFrame(paintedFrame(pool, 7), duration);
    // The frame stays with the sender until the runtime is done with it; what comes meanwhile
    // is dropped.
    QVERIFY(!pool.acquire());
    FramePool others(64, 36, 8);
    for (int i = 0; i < 8; ++i)
        outputs.send(paintedFrame(others, std::uint8_t(i * 20)), duration);
    QTRY_COMPARE(calls("video").size(), 1);
    QTRY_VERIFY(pool.freeCount() == 1);
    QTest::qWait(500);
    QCOMPARE(calls("video").size(), 1);
    const QString video = calls("video")[0];
    QVERIFY2(QRegularExpression("^video sender=\\d+ size=64x36 fourcc=I420 rate=" +
                                QRegularExpression::escape(rate) +
                                " aspect=0 format=progressive timecode=synthesize stride=64 "
                                "metadata=\\(none\\) picture=[0-9a-f]{8}$")
                 .match(video)
                 .hasMatch(),
             qPrintable(video));
    outputs.send(paintedFrame(pool, 99), duration);
    QTRY_COMPARE(calls("video").size(), 2);
}

void NDIOutputTest::staysOffWhenTurnedOffAtOnce()
{
    ManualClock clock;
    Outputs outputs(clock, &loadFresh);
    outputs.apply({true, QString(), false, 8090});
    outputs.apply({false, QString(), false, 8090});
    QTRY_COMPARE(calls("destroy").size(), 1);
    QTest::qWait(100); // the start's outcome arrives after the stop
    QVERIFY(!outputs.isSendingNDI());
    QCOMPARE(outputs.ndiStatusText(), QString());
}

void NDIOutputTest::pollsReceivers()
{
    ManualClock clock;
    Outputs outputs(clock, &loadFresh);
    QSignalSpy changes(&outputs, &Outputs::ndiReceiversChanged);
    outputs.apply({true, QString(), false, 8090});
    QTRY_VERIFY(outputs.isSendingNDI());
    qputenv("ORVANE_NDI_TEST_CONNECTIONS", "3");
    clock.advance(Outputs::kStatusInterval);
    QTRY_COMPARE(outputs.ndiReceivers(), 3);
    clock.advance(Outputs::kStatusInterval); // unchanged: no signal
    qputenv("ORVANE_NDI_TEST_CONNECTIONS", "1");
    clock.advance(Outputs::kStatusInterval);
    QTRY_COMPARE(outputs.ndiReceivers(), 1);
    outputs.apply({false, QString(), false, 8090});
    QTRY_COMPARE(outputs.ndiReceivers(), 0);
    QTest::qWait(50);
    QCOMPARE(changes.size(), 3);
}

void NDIOutputTest::restartsOnceAfterARename()
{
    ManualClock clock;
    Outputs outputs(clock, &loadFresh);
    outputs.apply({true, QStringLiteral("S"), false, 8090});
    QTRY_VERIFY(outputs.isSendingNDI());
    // Typing a name: one restart, with the last name, after the last key.
    for (const char* name : {"St", "Sta", "Stage"}) {
        outputs.apply({true, QString::fromLatin1(name), false, 8090});
        clock.advance(Outputs::kRenameDelay / 2);
    }
    QCOMPARE(outputs.ndiStartsForTesting(), 1);
    clock.advance(Outputs::kRenameDelay);
    QTRY_COMPARE(calls("create").size(), 2);
    QCOMPARE(outputs.ndiStartsForTesting(), 2);
    const QStringList lifecycle = calls("create|destroy");
    QCOMPARE(lifecycle.size(), 3);
    QVERIFY(lifecycle[0].contains(" name=S "));
    QVERIFY(lifecycle[1].startsWith("destroy") && lifecycle[1].endsWith(" name=S"));
    QVERIFY(lifecycle[2].contains(" name=Stage "));
    QVERIFY(outputs.isSendingNDI());
}

void NDIOutputTest::appliesOnlyWhatChanged_data()
{
    QTest::addColumn<Outputs::Configuration>("from");
    QTest::addColumn<Outputs::Configuration>("to");
    QTest::addColumn<int>("webStarts");
    QTest::addColumn<int>("ndiStarts");
    QTest::addColumn<bool>("webOn");
    QTest::addColumn<bool>("ndiOn");
    // Port 1 stands for the first free port, 2 for the second.
    const Outputs::Configuration both{true, QStringLiteral("A"), true, 1};
    QTest::newRow("nothing changed") << both << both << 0 << 0 << true << true;
    QTest::newRow("port changed") << both << Outputs::Configuration{true, "A", true, 2} << 1 << 0
                                  << true << true;
    QTest::newRow("web off") << both << Outputs::Configuration{true, "A", false, 1} << 0 << 0
                             << false << true;
    QTest::newRow("port changed while web is off")
        << Outputs::Configuration{true, "A", false, 1}
        << Outputs::Configuration{true, "A", false, 2} << 0 << 0 << false << true;
    QTest::newRow("NDI off") << both << Outputs::Configuration{false, "A", true, 1} << 0 << 0
                             << true << false;
    QTest::newRow("name changed") << both << Outputs::Configuration{true, "B", true, 1} << 0 << 1
                                  << true << true;
    QTest::newRow("name changed while NDI is off")
        << Outputs::Configuration{false, "A", true, 1}
        << Outputs::Configuration{false, "B", true, 1} << 0 << 0 << true << false;
    QTest::newRow("both on from off")
        << Outputs::Configuration{false, "A", false, 1} << both << 1 << 1 << true << true;
}

void NDIOutputTest::appliesOnlyWhatChanged()
{
    QFETCH(Outputs::Configuration, from);
    QFETCH(Outputs::Configuration, to);
    QFETCH(int, webStarts);
    QFETCH(int, ndiStarts);
    QFETCH(bool, webOn);
    QFETCH(bool, ndiOn);
    const int ports[] = {0, freePort(), freePort()};
    from.webPort = ports[from.webPort];
    to.webPort = ports[to.webPort];

    ManualClock clock;
    Outputs outputs(clock, &loadFresh);
    outputs.apply(from);
    QTRY_COMPARE(outputs.isSendingNDI(), from.ndiEnabled);
    if (from.webEnabled)
        QTRY_COMPARE(outputs.webState(), WebViewer::State::listening(from.webPort));
    const int webBefore = outputs.webStartsForTesting();
    const int ndiBefore = outputs.ndiStartsForTesting();
    QSignalSpy webStates(&outputs, &Outputs::webStateChanged);
    QSignalSpy sending(&outputs, &Outputs::isSendingNDIChanged);

    outputs.apply(to);
    clock.advance(Outputs::kRenameDelay * 2);
    QTRY_COMPARE(outputs.isSendingNDI(), ndiOn);
    QTRY_COMPARE(outputs.webState(),
                 webOn ? WebViewer::State::listening(to.webPort) : WebViewer::State{});
    QCOMPARE(outputs.webStartsForTesting() - webBefore, webStarts);
    QCOMPARE(outputs.ndiStartsForTesting() - ndiBefore, ndiStarts);
    QCOMPARE(outputs.configuration(), std::optional(to));
    QTest::qWait(50);
    // Properties notify only on a real change.
    QCOMPARE(sending.size(), from.ndiEnabled == ndiOn ? 0 : 1);
    if (webStarts == 0 && from.webEnabled == webOn)
        QCOMPARE(webStates.size(), 0);
}

QTEST_GUILESS_MAIN(NDIOutputTest)
#include "NDIOutputTest.moc"
