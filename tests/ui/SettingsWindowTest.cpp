// The settings window over a real model: each kind of control writes its setting when used and
// follows the setting when it changes elsewhere; the OSC version sets port and framing
// together; extra cameras stop at three and Remove drops exactly one, feeds and all; a port
// out of range is written as typed and answered by the listener; bad watched addresses stay.

#include "ui/SettingsWindow.h"
#include "app/AppModel.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSlider>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QTest>
#include <QUdpSocket>

#include <functional>

using namespace orvane;
using Edit = std::function<void(QWidget*)>;
using Check = std::function<bool(AppSettings&, QWidget*)>;
using Change = std::function<void(AppSettings&)>;
Q_DECLARE_METATYPE(Edit)
Q_DECLARE_METATYPE(Check)
Q_DECLARE_METATYPE(Change)

namespace {

void type(QWidget* field, const QString& text)
{
    static_cast<QLineEdit*>(field)->clear();
    QTest::keyClicks(field, text);
    QTest::keyClick(field, Qt::Key_Return);
}

QString text(QWidget* w)
{
    if (auto* combo = qobject_cast<QComboBox*>(w))
        return combo->currentText();
    return static_cast<QLineEdit*>(w)->text();
}

} // namespace

class SettingsWindowTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        dir_ = std::make_unique<QTemporaryDir>();
        auto settings = std::make_unique<AppSettings>(
            AppSettings::Location{dir_->filePath("Orvane.json"), dir_->filePath("support")});
        settings->setEosEnabled(false);
        settings->setQlabEnabled(false);
        QUdpSocket probe;
        probe.bind(QHostAddress::LocalHost, 0);
        settings->setOscPort(probe.localPort());
        RunOptions options;
        options.recordingsFolder = dir_->filePath("Videos");
        model_ = std::make_unique<AppModel>(std::move(settings), options);
        model_->start();
        window_ = std::make_unique<SettingsWindow>(*model_);
        window_->showTab(SettingsWindow::Tab::cameras);
    }
    void cleanup() { window_.reset(), model_.reset(); }

    void bindsBothWays_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<Edit>("edit");
        QTest::addColumn<Check>("written");
        QTest::addColumn<Change>("change");
        QTest::addColumn<Check>("shown");
        const auto row = [](const char* kind, const char* name, Edit edit, Check written,
                            Change change, Check shown) {
            QTest::newRow(kind) << QString(name) << edit << written << change << shown;
        };
        const auto key = [](Qt::Key k) { return [k](QWidget* w) { QTest::keyClick(w, k); }; };
        const auto shows = [](QString expected) {
            return [expected](AppSettings&, QWidget* w) { return text(w) == expected; };
        };
        row(
            "switch", "writesCueLog", [](QWidget* w) { static_cast<QAbstractButton*>(w)->click(); },
            [](AppSettings& s, QWidget*) { return !s.writesCueLog(); },
            [](AppSettings& s) { s.setWritesCueLog(true); },
            [](AppSettings&, QWidget* w) { return static_cast<QAbstractButton*>(w)->isChecked(); });
        row(
            "text", "eosHost", [](QWidget* w) { type(w, "eos.local"); },
            [](AppSettings& s, QWidget*) { return s.eosHost() == "eos.local"; },
            [](AppSettings& s) { s.setEosHost("10.0.0.5"); }, shows("10.0.0.5"));
        row(
            "port, digits only", "webViewerPort", [](QWidget* w) { type(w, "x80-91"); },
            [](AppSettings& s, QWidget*) { return s.webViewerPort() == 8091; },
            [](AppSettings& s) { s.setWebViewerPort(9000); }, shows("9000"));
        row(
            "choice", "codec", key(Qt::Key_End),
            [](AppSettings& s, QWidget*) { return s.codec() == RecordingCodec::proRes422Proxy; },
            [](AppSettings& s) { s.setCodec(RecordingCodec::h264); },
            shows("H.264 (plays anywhere)"));
        row(
            "device, then one not connected", "mainCamera", key(Qt::Key_End),
            [](AppSettings& s, QWidget* w) { return s.cameraID() && text(w) == "Test Pattern"; },
            [](AppSettings& s) { s.setCameraID("/dev/v4l/by-id/usb-Cam-video-index0"); },
            shows("usb-Cam-video-index0 (not connected)"));
        row(
            "slider", "audioGain", key(Qt::Key_PageDown),
            [](AppSettings& s, QWidget*) { return qFuzzyCompare(s.audioGain(), 0.9); },
            [](AppSettings& s) { s.setAudioGain(0.25); },
            [](AppSettings&, QWidget* w) { return static_cast<QSlider*>(w)->value() == 25; });
    }
    void bindsBothWays()
    {
        QFETCH(QString, name);
        QFETCH(Edit, edit);
        QFETCH(Check, written);
        QFETCH(Change, change);
        QFETCH(Check, shown);
        auto* control = window_->findChild<QWidget*>(name);
        QVERIFY(control);
        AppSettings& settings = model_->settings();
        edit(control);
        QVERIFY(written(settings, control));
        change(settings);
        QVERIFY(shown(settings, control));
    }

    void osc1_0SetsPortAndFramingTogether()
    {
        auto* version = window_->findChild<QComboBox*>("eosVersion");
        QTest::keyClick(version, Qt::Key_End);
        QCOMPARE(model_->settings().eosFraming(), OSCFraming::lengthPrefixed);
        QCOMPARE(model_->settings().eosPort(), 3032);
        QCOMPARE(text(window_->findChild<QWidget*>("eosPort")), "3032");
        model_->settings().setEosFraming(OSCFraming::slip);
        QCOMPARE(version->currentIndex(), 0);
    }

    void extraCamerasStopAtThreeAndRemoveExactlyOne()
    {
        auto* add = window_->findChild<QPushButton*>("addCamera");
        for (int i = 0; i < 3; ++i)
            add->click();
        QVERIFY(!add->isEnabled());
        const auto cameras = model_->settings().extraCameras();
        QCOMPARE(model_->extraFeeds().size(), std::size_t(3));
        const auto feeds = model_->extraFeeds();
        window_->findChildren<QPushButton*>("removeCamera").at(1)->click();
        QCOMPARE(model_->settings().extraCameras(), (QList{cameras[0], cameras[2]}));
        QCOMPARE(model_->extraFeeds(), (std::vector{feeds[0], feeds[2]}));
        QVERIFY(add->isEnabled());
    }

    void listsCodecsInOrder()
    {
        auto* codec = window_->findChild<QComboBox*>("codec");
        const QStringList expected{"HEVC (smallest files)", "H.264 (plays anywhere)",
                                   "ProRes 422 Proxy (for editing)"};
        QCOMPARE(codec->count(), expected.size());
        for (int i = 0; i < codec->count(); ++i)
            QCOMPARE(codec->itemText(i), expected[i]);
    }

    void outOfRangePortIsWrittenAndAnswered()
    {
        type(window_->findChild<QWidget*>("oscPort"), "70000");
        QCOMPARE(model_->settings().oscPort(), 70000);
        QCOMPARE(window_->findChild<QLabel*>("oscState")->text(),
                 "Choose a port between 1 and 65535.");
    }

    void keepsAndMarksBadWatchedAddresses()
    {
        window_->findChild<QPushButton*>("addWatchedAddress")->click();
        auto* table = window_->findChild<QTableWidget*>("watchedAddresses");
        table->item(0, 1)->setText("cue 1");
        QCOMPARE(model_->settings().watchedAddresses().at(0).address, "cue 1");
        QVERIFY(!table->item(0, 1)->toolTip().isEmpty());
        table->item(0, 1)->setText("/cue/*");
        QVERIFY(table->item(0, 1)->toolTip().isEmpty());
    }

private:
    std::unique_ptr<QTemporaryDir> dir_;
    std::unique_ptr<AppModel> model_;
    std::unique_ptr<SettingsWindow> window_;
};

QTEST_MAIN(SettingsWindowTest)
#include "SettingsWindowTest.moc"
