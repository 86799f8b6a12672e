// A recording must survive the death of the program: kill -9 in the middle of a recording
// leaves a movie that plays and holds all but the last two seconds.

#include "MovieProbe.h"

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

class CrashSafetyTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void aKilledRecordingStillPlays_data();
    void aKilledRecordingStillPlays();
};

void CrashSafetyTest::aKilledRecordingStillPlays_data()
{
    QTest::addColumn<QString>("codec");
    QTest::addColumn<bool>("sound");
    QTest::newRow("HEVC with sound") << "hevc" << true;
    QTest::newRow("H.264 with sound") << "h264" << true;
    QTest::newRow("ProRes 422 Proxy") << "prores" << false;
}

void CrashSafetyTest::aKilledRecordingStillPlays()
{
    QFETCH(QString, codec);
    QFETCH(bool, sound);
    QTemporaryDir folder;
    QProcess orvane;
    QStringList arguments{QStringLiteral("test-recording"), QStringLiteral("--seconds"),
                          QStringLiteral("60"), QStringLiteral("--size"),
                          QStringLiteral("640x360"), QStringLiteral("--codec"), codec,
                          QStringLiteral("--out"), folder.path()};
    if (sound)
        arguments << QStringLiteral("--sound");
    orvane.start(qEnvironmentVariable("ORVANE_EXECUTABLE"), arguments);
    QVERIFY(orvane.waitForStarted());
    QElapsedTimer recording;
    QByteArray output;
    while (!output.contains("recording: ")) {
        QVERIFY2(orvane.waitForReadyRead(20000), orvane.readAllStandardError().constData());
        output += orvane.readAllStandardOutput();
    }
    recording.start();
    QTest::qWait(4500);
    ::kill(pid_t(orvane.processId()), SIGKILL);
    const double recorded = double(recording.elapsed()) / 1000;
    QVERIFY(orvane.waitForFinished(10000));
    QCOMPARE(orvane.exitStatus(), QProcess::CrashExit);

    const QStringList movies = QDir(folder.path()).entryList({QStringLiteral("*.mov")});
    QCOMPARE(movies.size(), 1);
    const QString path = folder.filePath(movies.first());
    const auto movie = probeMovie(path);
    QVERIFY2(movie, "ffprobe could not read the movie");
    const ProbedStream* video = movie->stream(QStringLiteral("video"));
    QVERIFY(video);
    QCOMPARE(video->width, 640);
    QVERIFY2(video->duration >= recorded - 2.0 && video->duration <= recorded + 0.5,
             qPrintable(QStringLiteral("%1 s of %2 s").arg(video->duration).arg(recorded)));
    QVERIFY(video->frameCount > 0);
    QCOMPARE(movie->count(QStringLiteral("audio")), sound ? 1 : 0);
    // Every picture in it decodes.
    QProcess decode;
    decode.start(QStringLiteral("ffmpeg"), {QStringLiteral("-v"), QStringLiteral("error"),
                                            QStringLiteral("-xerror"), QStringLiteral("-i"),
                                            path, QStringLiteral("-f"), QStringLiteral("null"),
                                            QStringLiteral("-")});
    QVERIFY(decode.waitForFinished(60000));
    QCOMPARE(decode.exitCode(), 0);
}

QTEST_GUILESS_MAIN(CrashSafetyTest)
#include "CrashSafetyTest.moc"
