// Runs `orvane osc-monitor` as a technician would and checks what it prints.

#include "osc/OSCMessage.h"
#include "support/Golden.h"

#include <QProcess>
#include <QTest>
#include <QUdpSocket>
#include <QtEndian>

using namespace orvane;

namespace {

QByteArray bundle(const QByteArrayList& elements)
{
    QByteArray bytes("#bundle\0\0\0\0\0\0\0\0\1", 16);
    for (const QByteArray& element : elements) {
        char size[4];
        qToBigEndian(quint32(element.size()), size);
        bytes.append(size, 4).append(element);
    }
    return bytes;
}

} // namespace

class OscMonitorCommandTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void printsEveryMessageItHears();
    void answersItsArguments_data();
    void answersItsArguments();
};

void OscMonitorCommandTest::printsEveryMessageItHears()
{
    quint16 port = 0;
    {
        QUdpSocket probe;
        QVERIFY(probe.bind(QHostAddress::Any, 0, QAbstractSocket::DontShareAddress));
        port = probe.localPort();
    }
    QProcess monitor;
    monitor.start(qEnvironmentVariable("ORVANE_EXECUTABLE"),
                  {"osc-monitor", "--port", QString::number(port)});
    QVERIFY(monitor.waitForStarted());
    auto stopMonitor = qScopeGuard([&] {
        monitor.kill();
        monitor.waitForFinished();
    });
    QByteArray errors;
    QTRY_VERIFY_WITH_TIMEOUT((errors += monitor.readAllStandardError()).contains("Listening"),
                             10000);

    // What liblo sends, one message per run of oscsend, in order.
    const QList<QStringList> sends = {
        {"/eos/out/active/cue/text", "s", "1/14 Intro 5.0 40%"},
        {"/eos/out/active/cue/text", "s", "Cue \"5\" \\ back\ttab"},
        {"/numbers", "ifd", "-42", "0.1", "2.5"},
        {"/flags", "TFNI"},
        {"/wide", "hh", "4294967301", "-3"},
        {"/empty"},
        {"/symbol", "S", "sym"},
        {"/small", "f", "-0.000001"},
        {"/utf8", "s", "Fade → 40 %"},
    };
    for (const QStringList& arguments : sends)
        QCOMPARE(QProcess::execute("oscsend",
                                   QStringList{"127.0.0.1", QString::number(port)} + arguments),
                 0);
    // What no oscsend writes: a blob, a bundle, and things that are not OSC at all.
    QUdpSocket sender;
    const QByteArray inner = encodeOSC({"/in/bundle", {QByteArray("\x00\xff\x10", 3), 1.0f}});
    for (const QByteArray& datagram :
         {bundle({encodeOSC({"/bundle/first", {std::string("a")}}), bundle({inner})}), QByteArray(),
          QByteArray("hello"), encodeOSC({"/last", {}})})
        sender.writeDatagram(datagram, QHostAddress::LocalHost, port);

    QByteArray output;
    QTRY_VERIFY_WITH_TIMEOUT((output += monitor.readAllStandardOutput()).contains("/last"), 10000);
    const auto golden = orvane::testing::compareWithGolden(
        output, QStringLiteral(ORVANE_TEST_DATA "/expected/osc-monitor.txt"));
    QVERIFY2(golden.matches, qPrintable(golden.difference));
    QTRY_VERIFY((errors += monitor.readAllStandardError()).contains("not OSC"));
    QCOMPARE(errors, QStringLiteral(
                         "Listening on port %1\nIgnored 5 bytes from 127.0.0.1 that are not OSC.\n")
                         .arg(port)
                         .toUtf8());
}

void OscMonitorCommandTest::answersItsArguments_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("output"); // its start
    QTest::addColumn<QByteArray>("errors");
    const QByteArray range = "Choose a port between 1 and 65535.\n";
    QTest::newRow("help") << QStringList{"--help"} << 0
                          << QByteArray("Usage: orvane osc-monitor [options]\n") << QByteArray();
    QTest::newRow("port 0") << QStringList{"--port", "0"} << 1 << QByteArray() << range;
    QTest::newRow("port 70000") << QStringList{"--port", "70000"} << 1 << QByteArray() << range;
    QTest::newRow("port not a number")
        << QStringList{"--port", "8001x"} << 2 << QByteArray()
        << QByteArray("orvane osc-monitor: the port must be a number, not '8001x'\n");
    QTest::newRow("unknown option") << QStringList{"--prot", "8001"} << 2 << QByteArray()
                                    << QByteArray("orvane osc-monitor: Unknown option 'prot'.\n");
    QTest::newRow("stray argument")
        << QStringList{"8001"} << 2 << QByteArray()
        << QByteArray("orvane osc-monitor: unexpected argument '8001'\n");
}

void OscMonitorCommandTest::answersItsArguments()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, output);
    QProcess monitor;
    monitor.start(qEnvironmentVariable("ORVANE_EXECUTABLE"),
                  QStringList{"osc-monitor"} + arguments);
    QVERIFY(monitor.waitForFinished(10000));
    QCOMPARE(monitor.exitStatus(), QProcess::NormalExit);
    QTEST(monitor.exitCode(), "exitCode");
    QVERIFY2(monitor.readAllStandardOutput().startsWith(output), output.constData());
    QTEST(monitor.readAllStandardError(), "errors");
}

QTEST_GUILESS_MAIN(OscMonitorCommandTest)
#include "OscMonitorCommandTest.moc"
