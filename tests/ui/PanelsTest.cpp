// The sidebar and the show inspector over a real model: the Eos section follows a pretend
// console on loopback, the adjustments write their settings and follow changes made elsewhere,
// the events tab lists a real recording's cue log, and the show tab shows a cue with its parts.

#include "app/AppModel.h"
#include "peers/PretendConsole.h"
#include "ui/ShowInspector.h"
#include "ui/Sidebar.h"
#include "ui/StatusDot.h"

#include <QAbstractButton>
#include <QLabel>
#include <QLineEdit>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeWidget>

using namespace orvane;

class PanelsTest : public QObject {
    Q_OBJECT
    QTemporaryDir dir_;
    static QString text(const QObject* in, const char* name)
    {
        return in->findChild<QLabel*>(name)->text();
    }
    std::unique_ptr<AppModel> makeModel()
    {
        auto settings = std::make_unique<AppSettings>(
            AppSettings::Location{dir_.filePath("Orvane.json"), dir_.filePath("support")});
        for (const char* off : {"eosEnabled", "qlabEnabled", "oscEnabled"})
            settings->setProperty(off, false);
        settings->setCodec(RecordingCodec::h264);
        RunOptions options;
        options.recordingsFolder = dir_.filePath("Videos");
        auto model = std::make_unique<AppModel>(std::move(settings), options);
        model->engine().setTestPatternFormat({96, 54, 30});
        return model;
    }

private Q_SLOTS:
    void sidebarFollowsAConsole()
    {
        QTcpServer probe; // finds a free port
        QVERIFY(probe.listen(QHostAddress::LocalHost));
        const PretendConsole::Options options{.address = QHostAddress::LocalHost,
                                              .slipPort = probe.serverPort(),
                                              .answersDiscovery = false};
        probe.close();
        PretendConsole console(options);
        QVERIFY(console.start());
        auto model = makeModel();
        model->settings().setEosHost(QStringLiteral("127.0.0.1"));
        model->settings().setEosPort(options.slipPort);
        model->start();
        Sidebar sidebar(*model);
        auto* dot =
            sidebar.findChild<QLabel*>("eosStatus")->parentWidget()->findChild<StatusDot*>();
        QCOMPARE(text(&sidebar, "eosStatus"), QStringLiteral("Off"));
        sidebar.findChild<QAbstractButton*>("eosEnabled")->click();
        QTRY_COMPARE(text(&sidebar, "eosStatus"), QStringLiteral("Connected"));
        QCOMPARE(dot->status(), StatusDot::Status::working);
        QVERIFY(text(&sidebar, "eosConsole").contains(QStringLiteral("127.0.0.1")));
        sidebar.findChild<QAbstractButton*>("eosForget")->click();
        QCOMPARE(model->settings().eosHost(), QString());
    }

    // A switch clicked, a slider pushed to its end, a character typed; rows named by the key.
    void adjustmentsBindBothWays_data()
    {
        QTest::addColumn<QVariant>("written");
        QTest::addColumn<QVariant>("elsewhere");
        QTest::newRow("overlayEnabled") << QVariant(false) << QVariant(true);
        QTest::newRow("showsDate") << QVariant(true) << QVariant(false);
        QTest::newRow("isMirrored") << QVariant(true) << QVariant(false);
        QTest::newRow("overlayScale") << QVariant(2.0) << QVariant(0.75);
        QTest::newRow("overlayOpacity") << QVariant(1.0) << QVariant(0.5);
        QTest::newRow("audioGain") << QVariant(2.0) << QVariant(1.5);
        QTest::newRow("cameraLabel") << QVariant("Stage Cam!") << QVariant("Pit");
        QTest::newRow("watermarkText") << QVariant("!") << QVariant("");
    }
    void adjustmentsBindBothWays()
    {
        QFETCH(QVariant, written);
        QFETCH(QVariant, elsewhere);
        const char* key = QTest::currentDataTag();
        auto model = makeModel();
        ShowInspector inspector(*model);
        QWidget* control = inspector.findChild<QWidget*>(key);
        const bool isSlider = control->inherits("QSlider"), isText = control->inherits("QLineEdit");
        if (isSlider)
            QTest::keyClick(control, Qt::Key_End);
        else if (isText)
            QTest::keyClicks(control, "!");
        else
            static_cast<QAbstractButton*>(control)->click();
        QCOMPARE(model->settings().property(key), written);
        model->settings().setProperty(key, elsewhere);
        QCOMPARE(control->property(isSlider ? "value"
                                   : isText ? "text"
                                            : "checked"),
                 isSlider ? QVariant(int(elsewhere.toDouble() * 100)) : elsewhere);
    }
    void eventsListTheRecording()
    {
        auto model = makeModel();
        model->start();
        ShowInspector inspector(*model);
        auto* add = inspector.findChild<QAbstractButton*>("addMarker");
        QVERIFY(!add->isEnabled() && !inspector.findChild<QLabel*>("notRecording")->isHidden());
        QTRY_COMPARE_WITH_TIMEOUT(model->feedState().kind, FeedState::Kind::live, 10000);
        model->startRecording();
        QVERIFY(add->isEnabled() && inspector.findChild<QLabel*>("notRecording")->isHidden());
        QTest::keyClicks(inspector.findChild<QLineEdit*>("markerText"), "Curtain up");
        add->click();
        add->click(); // the field was emptied: a plain marker
        auto* log = inspector.findChild<QTreeWidget*>("cueLog");
        QCOMPARE(log->topLevelItemCount(), 2);
        QCOMPARE(log->topLevelItem(0)->text(2), QStringLiteral("Curtain up"));
        QCOMPARE(log->topLevelItem(1)->text(1) + log->topLevelItem(1)->text(2), "MarkerMarker");
        model->stopRecording();
        QTRY_COMPARE_WITH_TIMEOUT(model->recording().finishingCount(), 0, 10000);
        QVERIFY(!add->isEnabled());
    }
    void showTabShowsACueWithParts()
    {
        auto model = makeModel();
        model->settings().setShowsCue(false); // the overlay's switches hide nothing here
        ShowInspector inspector(*model);
        const ShowInput::Sender console{"10.0.0.5", QHostAddress("10.0.0.5"), 0};
        for (const auto& [address, text] : std::vector<std::pair<std::string, std::string>>{
                 {"/eos/out/show/name", "Hamlet"},
                 {"/eos/out/active/cue/text", "1/14P2 Chase 4 30%"},
                 {"/eos/out/active/cue/text", "1/14 Opening 5 10%"},
                 {"/eos/out/pending/cue/text", "1/15 Storm 3"},
                 {"/eos/out/previous/cue/text", "1/13 Prologue 2 100%"},
                 {"/tavrin/field/Scene", "1.4"}})
            model->input().receive(OSCMessage{address, {text}}, console);
        QStringList shown;
        for (const char* name : {"showName", "currentCue", "nextCue", "previousCue"})
            shown << text(&inspector, name);
        for (auto* row : inspector.findChild<QWidget*>("cueParts")->findChildren<QWidget*>())
            if (row->objectName() == "progressRow") // "-1.234s": the fade's time left
                shown << text(row, "progressName") + text(row, "progressStatus").left(1);
        for (auto* label : inspector.findChild<QWidget*>("showFields")->findChildren<QLabel*>())
            shown << label->text();
        QCOMPARE(shown, QStringList({"Hamlet", "1/14  Opening", "1/15  Storm", "1/13  Prologue",
                                     "▶ P1  Opening-", "P2  Chase-", "1.4", "Scene:"}));
    }
};

QTEST_MAIN(PanelsTest)
#include "PanelsTest.moc"
