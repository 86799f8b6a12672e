// The one door into the show data: packets from a real UDP sender, from a real pretend
// console over the Eos link, and the demo show's messages all reach the show data decoded
// once and with their sender; commands come out with the address and port to answer to.
#include "app/ShowInput.h"
#include "base/ManualClock.h"
#include "eos/EosConnection.h"
#include "peers/PretendConsole.h"
#include "show/ShowData.h"
#include "support/NetNamespace.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QTest>
#include <QUdpSocket>
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

QString describe(const ShowCommand& command, const ShowInput::Sender& sender)
{
    static const QString kinds[] = {"marker ", "layout ", "start", "stop", "toggle"};
    return kinds[int(command.kind)] + command.text + " from " + sender.host;
}

quint16 freeUdpPort()
{
    QUdpSocket probe;
    probe.bind(QHostAddress::LocalHost, 0);
    return probe.localPort();
}

} // namespace

class ShowInputTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void decodesEachPacketOnce_data();
    void decodesEachPacketOnce();
    void commandsCarryTheSendersAddressAndPort();
    void demoShowComesInAsDemo();
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
    QTest::newRow("one message") << QByteArrayList{name} << "Bundled"
                                 << "/eos/out/show/name Bundled from 10.0.0.7" << 1;
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

// liblo's oscsend and a socket of the test's own speak to the input's listener over loopback.
void ShowInputTest::commandsCarryTheSendersAddressAndPort()
{
    ShowData show;
    ShowInput input(show);
    const quint16 port = freeUdpPort();
    input.listener().configure(true, port);
    QTRY_COMPARE(input.listener().state().kind, OSCListener::State::Kind::listening);

    QStringList commands;
    QList<ShowInput::Sender> senders;
    input.setOnCommand([&](const ShowCommand& command, const ShowInput::Sender& sender) {
        commands << describe(command, sender);
        senders << sender;
    });
    const auto send = [&](const QStringList& arguments) {
        QProcess oscsend;
        oscsend.start("oscsend", QStringList{"127.0.0.1", QString::number(port)} + arguments);
        QVERIFY2(oscsend.waitForFinished(10000), "oscsend did not finish");
        QCOMPARE(oscsend.exitCode(), 0);
    };
    send({"/tavrin/record/start"});
    send({"/tavrin/marker", "s", "Act two · top"});
    send({"/tavrin/field/Scene", "s", "Act 2"});
    QTRY_COMPARE(commands.size(), 2);
    QCOMPARE(commands, (QStringList{"start from 127.0.0.1",
                                    QString::fromUtf8("marker Act two · top from 127.0.0.1")}));
    QTRY_COMPARE(show.fields().size(), 1);

    // A control surface that waits for answers on its own port is told apart by it.
    QUdpSocket surface;
    QVERIFY(surface.bind(QHostAddress("127.0.0.2"), 0));
    surface.writeDatagram(encodeOSC(OSCMessage{"/tavrin/layout", {std::string("Wide")}}),
                          QHostAddress::LocalHost, port);
    QTRY_COMPARE(commands.size(), 3);
    QCOMPARE(commands.back(), "layout Wide from 127.0.0.2");
    QVERIFY(senders.back().address.isEqual(QHostAddress("127.0.0.2")));
    QCOMPARE(senders.back().port, surface.localPort());
    // The answer reaches it there.
    QUdpSocket answer;
    answer.writeDatagram(QByteArray("ok"), senders.back().address, senders.back().port);
    QTRY_VERIFY(surface.hasPendingDatagrams());
}

void ShowInputTest::demoShowComesInAsDemo()
{
    ManualClock clock;
    ShowData show(clock);
    ShowInput input(show, clock);
    QStringList commands;
    input.setOnCommand([&](const ShowCommand& command, const ShowInput::Sender& sender) {
        commands << describe(command, sender);
    });
    DemoShow demo(input.demoDelivery(), clock);
    demo.start();
    clock.advance(1.0);
    QCOMPARE(show.showName(), std::optional<QString>(DemoShow::kShowName));
    QCOMPARE(show.eosSender(), std::optional<QString>("Demo"));
    QVERIFY(show.activeCue().has_value());
    // A command raised by a message from the demo names the demo as its sender.
    input.receive(OSCMessage{"/tavrin/record/stop", {}},
                  ShowInput::Sender{DemoShow::kSender, {}, 0});
    QCOMPARE(commands, QStringList{"stop from Demo"});
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
