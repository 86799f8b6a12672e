// The one door into the show data: packets, bundles and junk decoded once, and a real
// pretend console's cue over the Eos link reaching the show data within 50 ms. (Commands over
// UDP with their answers: SurfaceRepliesTest; the demo's messages: OverlayFeedTest.)
#include "app/ShowInput.h"
#include "base/ManualClock.h"
#include "eos/EosConnection.h"
#include "peers/PretendConsole.h"
#include "show/ShowData.h"
#include "support/NetNamespace.h"

#include <QElapsedTimer>
#include <QTest>
#include <QtEndian>

#include <unistd.h>

using namespace orvane;

namespace {

QString isolationError;
bool isolated = false;

QByteArray bundleOf(const QList<QByteArray>& messages)
{
    QByteArray bundle("#bundle\0", 8);
    bundle.append(QByteArray("\0\0\0\0\0\0\0\1", 8));
    for (const QByteArray& element : messages) {
        char size[4];
        qToBigEndian<qint32>(qint32(element.size()), size);
        bundle.append(size, 4);
        bundle.append(element);
    }
    return bundle;
}

QByteArray textPacket(std::string address, const char* text)
{
    return encodeOSC(OSCMessage{std::move(address), {std::string(text)}});
}

} // namespace

class ShowInputTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void decodesEachPacketOnce_data();
    void decodesEachPacketOnce();
    void firedCueReachesTheShowWithin50ms();
};

void ShowInputTest::decodesEachPacketOnce_data()
{
    QTest::addColumn<QByteArrayList>("packets");
    QTest::addColumn<QString>("showName");
    QTest::addColumn<QString>("lastReceived");
    QTest::addColumn<int>("messages");

    const QByteArray name = textPacket("/eos/out/show/name", "Bundled");
    const QByteArray cue = textPacket("/eos/out/active/cue/text", "1/3 Three 2 20%");
    QTest::newRow("a bundle, in order")
        << QByteArrayList{bundleOf({name, cue})} << "Bundled"
        << "/eos/out/active/cue/text 1/3 Three 2 20% from 10.0.0.7" << 2;
    QTest::newRow("junk and a cut message are dropped")
        << QByteArrayList{name, "not osc at all", cue.left(cue.size() - 3)} << "Bundled"
        << "/eos/out/show/name Bundled from 10.0.0.7" << 1;
}

void ShowInputTest::decodesEachPacketOnce()
{
    QFETCH(QByteArrayList, packets);
    QFETCH(QString, showName);
    QFETCH(QString, lastReceived);
    QFETCH(int, messages);

    ManualClock clock;
    ShowData show(clock);
    ShowInput input(show, clock);
    int handled = 0;
    connect(&show, &ShowData::lastReceivedChanged, this, [&] { ++handled; });
    for (const QByteArray& packet : packets)
        input.receive(packet, ShowInput::Sender{"10.0.0.7", QHostAddress("10.0.0.7"), 0});
    QCOMPARE(show.showName(), std::optional<QString>(showName));
    QCOMPARE(show.lastReceived(), std::optional<QString>(lastReceived));
    QCOMPARE(show.eosSender(), std::optional<QString>("10.0.0.7"));
    QCOMPARE(handled, messages);
}

void ShowInputTest::firedCueReachesTheShowWithin50ms()
{
    if (!isolated && ::geteuid() != 0)
        QSKIP("network namespaces need root; run the suite with scripts/offline");
    QVERIFY2(isolated, qPrintable(isolationError));
    PretendConsole::Options options;
    options.address = QHostAddress(QHostAddress::LocalHost);
    PretendConsole console(options);
    QString error;
    QVERIFY2(console.start(&error), qPrintable(error));

    ShowData show;
    ShowInput input(show);
    EosConnection connection;
    input.takePacketsFrom(connection);
    connection.apply(EosConnection::Configuration{true, false, QStringLiteral("127.0.0.1")});
    QTRY_VERIFY(show.showName().has_value()); // the reset's answer arrived

    const auto isActive = [&](const char* number) {
        const auto cue = show.activeCue();
        return cue && cue->number == QLatin1String(number);
    };
    QVERIFY(!isActive("14.5"));
    QElapsedTimer timer;
    timer.start();
    console.fireCue(QStringLiteral("14.5"));
    QVERIFY(QTest::qWaitFor([&] { return isActive("14.5"); }, 1000));
    const qint64 elapsed = timer.elapsed();
    qInfo("cue fired to active cue in %lld ms", elapsed);
    QVERIFY2(elapsed < 50, qPrintable(QString::number(elapsed)));
    QCOMPARE(show.activeCue()->label, QStringLiteral("Storm"));
    QCOMPARE(show.eosSender(), std::optional<QString>(QStringLiteral("127.0.0.1")));
    // The console counts the percent up over the cue's 1 s.
    QCOMPARE(show.activeCue()->percent, std::optional<int>(0));
    QTRY_COMPARE_WITH_TIMEOUT(show.activeCue()->percent, std::optional<int>(100), 3000);
}

int main(int argc, char** argv)
{
    // Before any thread starts: threads made later share the private network.
    isolated = NetNamespace::isolateThisProcess(&isolationError);
    QCoreApplication app(argc, argv);
    ShowInputTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "ShowInputTest.moc"
