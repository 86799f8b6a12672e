// The main window over a real model on the Test Pattern camera: its menus and toolbar carry
// out the model's commands and follow state changed elsewhere, closing finishes the
// recording first, and the camera grid follows the extra cameras.

#include "app/AppModel.h"
#include "capture/TestPatternSource.h"
#include "ui/CameraGrid.h"
#include "ui/FeedView.h"
#include "ui/MainWindow.h"

#include <QAction>
#include <QDir>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QSignalSpy>
#include <QSplitter>
#include <QStatusBar>
#include <QTemporaryDir>
#include <QTest>
#include <QToolButton>

using namespace orvane;

class WindowTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void recordsAndFinishesBeforeClosing();
    void followsTheModelAndTheSettings();
    void opensAsItWasLeft();

private:
    template <class T> T* find(const char* name) { return window_->findChild<T*>(name); }
    qsizetype movies() const { return QDir(dir_->filePath("Videos")).entryList({"*.mov"}).size(); }
    std::unique_ptr<QTemporaryDir> dir_;
    std::unique_ptr<AppModel> model_;
    std::unique_ptr<MainWindow> window_;
};

void WindowTest::init()
{
    window_.reset();
    model_.reset();
    dir_ = std::make_unique<QTemporaryDir>();
    auto settings = std::make_unique<AppSettings>(
        AppSettings::Location{dir_->filePath("Orvane.json"), dir_->filePath("support")});
    settings->setEosEnabled(false);
    settings->setQlabEnabled(false);
    settings->setOscEnabled(false);
    settings->setRecordsAudio(false);
    settings->setCodec(RecordingCodec::h264);
    settings->setCameraID(TestPatternSource::kID);
    model_ = std::make_unique<AppModel>(std::move(settings),
                                        RunOptions{.recordingsFolder = dir_->filePath("Videos")});
    model_->engine().setTestPatternFormat({96, 54, 30});
    window_ = std::make_unique<MainWindow>(*model_);
    window_->show();
    model_->start();
}

void WindowTest::recordsAndFinishesBeforeClosing()
{
    auto* record = find<QAction>("toggleRecording");
    auto* marker = find<QAction>("addMarker");
    const auto looks = [&] {
        return QStringList{record->text(), find<QToolButton>("recordButton")->toolTip(),
                           marker->isEnabled() ? "marker" : "no marker"};
    };
    QTRY_COMPARE_WITH_TIMEOUT(model_->feedState().kind, FeedState::Kind::live, 10000);
    QTRY_VERIFY(window_->cameraGrid()->views().first()->stateText().isEmpty()); // a picture
    QCOMPARE(looks(), QStringList({"Start Recording", "Start recording with the overlay (Ctrl+R)",
                                   "no marker"}));
    QVERIFY(QTest::qWaitForWindowActive(window_.get()));
    QTest::keyClick(window_.get(), Qt::Key_R, Qt::ControlModifier);
    QVERIFY(model_->isRecording());
    QCOMPARE(looks(), QStringList({"Stop Recording", "Stop recording (Ctrl+R)", "marker"}));
    QTRY_VERIFY(find<QLabel>("recordingElapsed")->isVisible());
    QVERIFY(find<QLabel>("recordingElapsed")->text().startsWith("0:00:0"));
    marker->trigger();
    QCOMPARE(model_->cueLog().size(), 1);
    QTRY_VERIFY(model_->engine().recordedFramesForTesting() > 0);
    record->trigger();
    QVERIFY(!model_->isRecording() && record->text() == "Start Recording");
    QTRY_COMPARE_WITH_TIMEOUT(movies(), 1, 10000);

    // Closing while recording waits for the movie, and says so.
    record->trigger();
    QTRY_VERIFY(model_->engine().recordedFramesForTesting() > 0);
    QSignalSpy closed(window_.get(), &MainWindow::closed);
    window_->close();
    QVERIFY(window_->isVisible());
    QCOMPARE(window_->statusBar()->currentMessage(), "Finishing the recording…");
    QVERIFY(closed.wait(15000));
    QVERIFY(!window_->isVisible() && model_->recording().finishingCount() == 0);
    QCOMPARE(movies(), 2);
}

void WindowTest::opensAsItWasLeft()
{
    window_->setSidebar(new QLabel("sidebar"));
    window_->resize(900, 640);
    auto* columns = find<QSplitter>("places");
    QTRY_COMPARE(window_->centralWidget()->width(), 900);
    columns->setSizes({150, 600, 150});
    window_->close();
    MainWindow again(*model_);
    again.setSidebar(new QLabel("sidebar"));
    again.restoreWindowState();
    again.show();
    QCOMPARE(again.size(), QSize(900, 640));
    QTRY_COMPARE(again.findChild<QSplitter*>("places")->sizes().first(), 150);
}

void WindowTest::followsTheModelAndTheSettings()
{
    auto& settings = model_->settings();
    // The toggles' objects are named after their settings.
    for (const char* key : {"overlayEnabled", "writesCueLog"}) {
        auto* toggle = find<QAction>(key);
        settings.setProperty(key, false);
        QVERIFY2(!toggle->isChecked(), key);
        toggle->trigger();
        QVERIFY2(settings.property(key).toBool() && toggle->isChecked(), key);
    }
    auto* demo = find<QAction>("toggleDemoShow");
    demo->trigger();
    QVERIFY(model_->demo().isRunning() && demo->text() == "Stop Demo Show");
    model_->toggleDemoShow();
    QCOMPARE(demo->text(), "Run Demo Show");

    // The Layout menu lists the presets, checks the one shown and applies the one chosen.
    auto* layouts = find<QMenu>("layoutMenu");
    QVERIFY(layouts->actions().size() == 1 && !layouts->actions().first()->isEnabled());
    settings.setOverlayScale(1.5);
    settings.saveLayoutPreset("Rehearsal");
    settings.setOverlayScale(0.75);
    settings.saveLayoutPreset("Archive");
    QCOMPARE(layouts->actions().size(), 2);
    QVERIFY(layouts->actions().at(1)->isChecked());
    layouts->actions().at(0)->trigger();
    QCOMPARE(settings.overlayScale(), 1.5);
    QVERIFY(layouts->actions().at(0)->isChecked() && !layouts->actions().at(1)->isChecked());

    // The layout editor takes the cameras' place while it is open.
    auto* editor = new QLabel("editor");
    window_->setLayoutEditor(editor);
    find<QAction>("editLayout")->trigger();
    QVERIFY(model_->isEditingLayout() && editor->isVisible() &&
            !window_->cameraGrid()->isVisible());
    model_->setEditingLayout(false);
    QVERIFY(!find<QAction>("editLayout")->isChecked() && window_->cameraGrid()->isVisible());

    auto* banner = find<QWidget>("errorBanner");
    model_->setErrorMessage(QStringLiteral("The disk is full."));
    QVERIFY(banner->isVisible());
    QTest::mouseClick(find<QPushButton>("dismissError"), Qt::LeftButton);
    QVERIFY(!model_->errorMessage() && !banner->isVisible());

    settings.setExtraCameras({{QUuid::createUuid(), std::nullopt, std::nullopt, "Wings", false}});
    const auto views = window_->cameraGrid()->views();
    QCOMPARE(views.size(), 2);
    QCOMPARE(views[1]->label(), "Wings");
    QCOMPARE(views[1]->stateText(), "No camera is chosen.");
    settings.setExtraCameras({});
    QCOMPARE(window_->cameraGrid()->views().size(), 1);
}

QTEST_MAIN(WindowTest)
#include "WindowTest.moc"
