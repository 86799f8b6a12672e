// The settings window over a real model: controls write their settings and follow them; the
// OSC version sets port and framing; extra cameras stop at three and Remove drops exactly one,
// feed and all; a port out of range is written as typed and answered by its component.

#include "ui/SettingsWindow.h"
#include "app/AppModel.h"
#include "capture/TestPatternSource.h"

#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSlider>
#include <QTemporaryDir>
#include <QTest>

using namespace orvane;
using Edit = std::function<void(QWidget*)>;
Q_DECLARE_METATYPE(Edit)

static void type(QWidget* field, const QString& text)
{
    static_cast<QLineEdit*>(field)->clear();
    QTest::keyClicks(field, text + "\r");
}

// What a control shows, as text.
static QString text(QWidget* w)
{
    if (auto* slider = qobject_cast<QSlider*>(w))
        return QString::number(slider->value());
    if (auto* box = qobject_cast<QAbstractButton*>(w))
        return box->isChecked() ? "true" : "false";
    return w->property(qobject_cast<QComboBox*>(w) ? "currentText" : "text").toString();
}

class SettingsWindowTest : public QObject {
    Q_OBJECT
    QTemporaryDir dir_;
    std::unique_ptr<AppModel> model_;
    std::unique_ptr<SettingsWindow> window_;
    QWidget* find(const char* name) { return window_->findChild<QWidget*>(name); }

private Q_SLOTS:
    void init()
    {
        auto settings = std::make_unique<AppSettings>(AppSettings::Location{
            dir_.filePath(QUuid::createUuid().toString()), dir_.filePath("support")});
        settings->setEosEnabled(false);
        settings->setQlabEnabled(false);
        RunOptions options;
        options.recordingsFolder = dir_.filePath("Videos");
        model_ = std::make_unique<AppModel>(std::move(settings), options);
        model_->start();
        window_ = std::make_unique<SettingsWindow>(*model_);
        window_->showTab(SettingsWindow::Tab::cameras);
    }
    void cleanup() { window_.reset(), model_.reset(); }

    // The control, what the user does with it and the setting it gives, then a value the
    // setting takes elsewhere and what the control shows.
    void bindsBothWays_data()
    {
        for (const char* column : {"name", "edit", "written", "changed", "shown"})
            QTest::addColumn<QVariant>(column);
        const auto key = [](Qt::Key k) { return Edit([k](QWidget* w) { QTest::keyClick(w, k); }); };
        const auto typing = [](QString t) { return Edit([t](QWidget* w) { type(w, t); }); };
        const auto row = [](const char* kind, QString name, Edit edit, QVariant written,
                            QVariant changed, QString shown) {
            QTest::newRow(kind) << QVariant(name) << QVariant::fromValue(edit) << written << changed
                                << QVariant(shown);
        };
        row("switch", "writesCueLog", key(Qt::Key_Space), false, true, "true");
        row("text", "eosHost", typing("eos.local"), "eos.local", "10.0.0.5", "10.0.0.5");
        row("port, digits only", "webViewerPort", typing("x80-91"), 8091, 9000, "9000");
        row("choice", "codec", key(Qt::Key_End),
            QVariant::fromValue(RecordingCodec::proRes422Proxy),
            QVariant::fromValue(RecordingCodec::h264), "H.264 (plays anywhere)");
        row("device, then one not connected", "cameraID", key(Qt::Key_End),
            QVariant::fromValue(std::optional(TestPatternSource::kID)),
            QVariant::fromValue(std::optional<QString>("/dev/v4l/by-id/usb-Cam-video-index0")),
            "usb-Cam-video-index0 (not connected)");
        row("device, then none with no camera attached", "cameraID", key(Qt::Key_End),
            QVariant::fromValue(std::optional(TestPatternSource::kID)),
            QVariant::fromValue(std::optional<QString>()),
            "None: the Test Pattern runs until a camera is attached");
        row("slider", "audioGain", key(Qt::Key_PageDown), 0.9, 0.25, "25");
    }
    void bindsBothWays()
    {
        QFETCH(QVariant, name);
        QFETCH(QVariant, written);
        QFETCH(QVariant, changed);
        QFETCH(QVariant, shown);
        const QByteArray key = name.toByteArray();
        QFETCH(QVariant, edit);
        edit.value<Edit>()(find(key));
        QCOMPARE(model_->settings().property(key), written);
        model_->settings().setProperty(key, changed);
        QCOMPARE(text(find(key)), shown.toString());
    }
    void osc1_0SetsPortAndFramingTogether()
    {
        QTest::keyClick(find("eosVersion"), Qt::Key_End);
        QCOMPARE(model_->settings().eosFraming(), OSCFraming::lengthPrefixed);
        QCOMPARE(text(find("eosPort")), "3032");
        model_->settings().setEosFraming(OSCFraming::slip);
        QCOMPARE(text(find("eosVersion")), "OSC 1.1 (port 3037)");
    }
    void extraCamerasStopAtThreeAndRemoveExactlyOne()
    {
        auto* add = window_->findChild<QPushButton*>("addCamera");
        for (int i = 0; i < 3; ++i)
            add->click();
        QVERIFY(!add->isEnabled());
        const auto cameras = model_->settings().extraCameras();
        const auto feeds = model_->extraFeeds();
        QCOMPARE(feeds.size(), std::size_t(3));
        window_->findChildren<QPushButton*>("removeCamera").at(1)->click();
        QCOMPARE(model_->settings().extraCameras(), (QList{cameras[0], cameras[2]}));
        QCOMPARE(model_->extraFeeds(), (std::vector{feeds[0], feeds[2]}));
        QVERIFY(add->isEnabled());
    }
    void listsCodecsInOrder()
    {
        auto* codec = window_->findChild<QComboBox*>("codec");
        QStringList shown;
        while (shown.size() < codec->count())
            shown.append(codec->itemText(shown.size()));
        QCOMPARE(shown, (QStringList{"HEVC (smallest files)", "H.264 (plays anywhere)",
                                     "ProRes 422 Proxy (for editing)"}));
    }
    void outOfRangePortIsWrittenAndAnswered()
    {
        type(find("oscPort"), "70000");
        QCOMPARE(model_->settings().oscPort(), 70000);
        QCOMPARE(text(find("oscState")), "Choose a port between 1 and 65535.");
    }
};

QTEST_MAIN(SettingsWindowTest)
#include "SettingsWindowTest.moc"
