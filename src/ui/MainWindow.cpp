#include "ui/MainWindow.h"

#include "app/AppModel.h"
#include "ui/CameraGrid.h"
#include "ui/ElapsedText.h"
#include "ui/ErrorBanner.h"

#include <QAction>
#include <QActionGroup>
#include <QCloseEvent>
#include <QCoreApplication>
#include <QDataStream>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QPainter>
#include <QSplitter>
#include <QStackedWidget>
#include <QStatusBar>
#include <QToolBar>
#include <QVBoxLayout>

namespace orvane {

namespace {

// How long closing waits for stopped movies to get their chapters; the next start finishes
// what is left then.
constexpr qint64 kChapterGraceMilliseconds = 10'000;
// The running time in the toolbar changes once a second; a few looks a second keep it exact.
constexpr int kElapsedRefreshMilliseconds = 250;

enum class RecordLook { idle, recording };

QIcon recordIcon(RecordLook look)
{
    QPixmap pixmap(32, 32);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0xe5, 0x30, 0x2a));
    switch (look) {
    case RecordLook::idle:
        painter.drawEllipse(QRectF(5, 5, 22, 22));
        break;
    case RecordLook::recording:
        painter.drawRoundedRect(QRectF(2, 2, 28, 28), 6, 6);
        painter.setBrush(Qt::white);
        painter.drawRoundedRect(QRectF(10, 10, 12, 12), 2, 2);
        break;
    }
    return QIcon(pixmap);
}

QAction* makeAction(QObject* parent, const QString& objectName, const QString& text,
                    const QKeySequence& shortcut = {})
{
    auto* action = new QAction(text, parent);
    action->setObjectName(objectName);
    action->setShortcut(shortcut);
    return action;
}

// A hidden, empty place in the row, until a panel is given for it.
QWidget* emptyPlace()
{
    auto* place = new QWidget;
    place->hide();
    return place;
}

} // namespace

MainWindow::MainWindow(AppModel& model, QWidget* parent)
    : QMainWindow(parent)
    , model_(model)
{
    setObjectName(QStringLiteral("mainWindow"));
    setWindowTitle(QStringLiteral("Orvane"));
    resize(1280, 800);

    auto* central = new QWidget(this);
    auto* column = new QVBoxLayout(central);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    column->addWidget(new ErrorBanner(model_, central));
    splitter_ = new QSplitter(Qt::Horizontal, central);
    splitter_->setObjectName(QStringLiteral("places"));
    centre_ = new QStackedWidget(splitter_);
    grid_ = new CameraGrid(model_, centre_);
    centre_->addWidget(grid_);
    splitter_->addWidget(emptyPlace());
    splitter_->addWidget(centre_);
    splitter_->addWidget(emptyPlace());
    splitter_->setCollapsible(1, false);
    splitter_->setStretchFactor(0, 0);
    splitter_->setStretchFactor(1, 1);
    splitter_->setStretchFactor(2, 0);
    column->addWidget(splitter_, 1);
    setCentralWidget(central);

    buildMenus();
    buildToolBar();

    connect(&model_, &AppModel::recordingStartChanged, this, &MainWindow::refreshRecording);
    connect(&model_.demo(), &DemoShow::isRunningChanged, this, &MainWindow::refreshDemo);
    connect(&model_, &AppModel::isEditingLayoutChanged, this, &MainWindow::refreshCentre);
    connect(&elapsedTimer_, &QTimer::timeout, this, &MainWindow::refreshElapsed);
    connect(&finishPoll_, &QTimer::timeout, this, &MainWindow::finishThenClose);
    refreshRecording();
    refreshDemo();
    refreshCentre();
}

void MainWindow::buildMenus()
{
    auto& settings = model_.settings();

    record_ = makeAction(this, QStringLiteral("toggleRecording"), QString(),
                         QKeySequence(Qt::CTRL | Qt::Key_R));
    connect(record_, &QAction::triggered, &model_, [this] { model_.toggleRecording(); });
    marker_ = makeAction(this, QStringLiteral("addMarker"), QStringLiteral("Add Marker"),
                         QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_M));
    marker_->setToolTip(QStringLiteral("Note this moment in the cue log (Ctrl+Shift+M)"));
    connect(marker_, &QAction::triggered, &model_, [this] { model_.addMarker(); });
    showRecordings_ =
        makeAction(this, QStringLiteral("showRecordings"),
                   QStringLiteral("Show Recordings in Files"), QKeySequence(Qt::CTRL | Qt::Key_O));
    connect(showRecordings_, &QAction::triggered, &model_, [this] { model_.showRecordings(); });
    writesCueLog_ = makeAction(this, QStringLiteral("writesCueLog"),
                               QStringLiteral("Save a Cue Log with Each Recording"));
    writesCueLog_->setCheckable(true);
    connect(writesCueLog_, &QAction::triggered, &settings, &AppSettings::setWritesCueLog);
    const auto followCueLog = [this] {
        writesCueLog_->setChecked(model_.settings().writesCueLog());
    };
    connect(&settings, &AppSettings::writesCueLogChanged, this, followCueLog);
    followCueLog();
    auto* openSettings = makeAction(this, QStringLiteral("openSettings"), tr("Settings…"),
                                    QKeySequence(Qt::CTRL | Qt::Key_Comma));
    openSettings->setMenuRole(QAction::PreferencesRole);
    connect(openSettings, &QAction::triggered, this, &MainWindow::settingsRequested);
    auto* quit =
        makeAction(this, QStringLiteral("quit"), tr("Quit"), QKeySequence(Qt::CTRL | Qt::Key_Q));
    quit->setMenuRole(QAction::QuitRole);
    connect(quit, &QAction::triggered, this, &QWidget::close);

    QMenu* file = menuBar()->addMenu(tr("&File"));
    file->addActions({record_, marker_, showRecordings_});
    file->addSeparator();
    file->addAction(writesCueLog_);
    file->addSeparator();
    file->addAction(openSettings);
    file->addSeparator();
    file->addAction(quit);

    overlay_ = makeAction(this, QStringLiteral("overlayEnabled"), QStringLiteral("Show Overlay"),
                          QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_O));
    overlay_->setCheckable(true);
    connect(overlay_, &QAction::triggered, &settings, &AppSettings::setOverlayEnabled);
    const auto followOverlay = [this] { overlay_->setChecked(model_.settings().overlayEnabled()); };
    connect(&settings, &AppSettings::overlayEnabledChanged, this, followOverlay);
    followOverlay();
    editLayout_ = makeAction(this, QStringLiteral("editLayout"), tr("Edit Overlay Layout"));
    editLayout_->setCheckable(true);
    connect(editLayout_, &QAction::triggered, &model_, &AppModel::setEditingLayout);

    QMenu* view = menuBar()->addMenu(tr("&View"));
    view->addAction(overlay_);
    view->addAction(editLayout_);
    layoutMenu_ = view->addMenu(tr("Layout"));
    layoutMenu_->setObjectName(QStringLiteral("layoutMenu"));
    connect(layoutMenu_, &QMenu::aboutToShow, this, &MainWindow::refreshLayoutChecks);
    connect(&settings, &AppSettings::layoutPresetsChanged, this, &MainWindow::rebuildLayoutMenu);
    connect(&settings, &AppSettings::overlayLayoutChanged, this, &MainWindow::refreshLayoutChecks);
    rebuildLayoutMenu();

    demo_ = makeAction(this, QStringLiteral("toggleDemoShow"), QString(),
                       QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_D));
    demo_->setCheckable(true);
    demo_->setToolTip(
        QStringLiteral("Run a pretend show: timecode and cues firing, no console needed"));
    connect(demo_, &QAction::triggered, &model_, [this] {
        model_.toggleDemoShow();
        refreshDemo();
    });
    auto* clear = makeAction(this, QStringLiteral("clearShowData"),
                             QStringLiteral("Clear Show Data"), QKeySequence(Qt::CTRL | Qt::Key_K));
    connect(clear, &QAction::triggered, &model_, [this] { model_.clearShowData(); });

    QMenu* show = menuBar()->addMenu(tr("&Show"));
    show->addAction(demo_);
    show->addAction(clear);

    auto* updates =
        makeAction(this, QStringLiteral("checkForUpdates"), QStringLiteral("Check for Updates…"));
    updates->setMenuRole(QAction::ApplicationSpecificRole);
    connect(updates, &QAction::triggered, this, &MainWindow::checkForUpdatesRequested);
    auto* about = makeAction(this, QStringLiteral("about"), QStringLiteral("About Orvane"));
    about->setMenuRole(QAction::AboutRole);
    connect(about, &QAction::triggered, this, &MainWindow::showAbout);

    auto* automatic = makeAction(this, QStringLiteral("automaticallyChecksForUpdates"),
                                 tr("Check for Updates Automatically"));
    automatic->setCheckable(true);
    connect(automatic, &QAction::triggered, &settings,
            &AppSettings::setAutomaticallyChecksForUpdates);
    const auto followAutomatic = [this, automatic] {
        automatic->setChecked(model_.settings().automaticallyChecksForUpdates());
    };
    connect(&settings, &AppSettings::automaticallyChecksForUpdatesChanged, this, followAutomatic);
    followAutomatic();

    QMenu* help = menuBar()->addMenu(tr("&Help"));
    help->addAction(updates);
    help->addAction(automatic);
    help->addSeparator();
    help->addAction(about);
}

void MainWindow::buildToolBar()
{
    QToolBar* bar = addToolBar(tr("Recording"));
    bar->setObjectName(QStringLiteral("toolBar"));
    bar->setMovable(false);
    bar->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    bar->addAction(record_);
    bar->widgetForAction(record_)->setObjectName(QStringLiteral("recordButton"));
    bar->addAction(marker_);
    elapsed_ = new QLabel(bar);
    elapsed_->setObjectName(QStringLiteral("recordingElapsed"));
    elapsed_->setContentsMargins(8, 0, 8, 0);
    QFont digits = elapsed_->font();
    digits.setStyleHint(QFont::Monospace);
    digits.setFamily(QStringLiteral("monospace"));
    digits.setBold(true);
    elapsed_->setFont(digits);
    elapsed_->setStyleSheet(QStringLiteral("color: #e5302a;"));
    elapsedAction_ = bar->addWidget(elapsed_);
    bar->addSeparator();
    bar->addAction(demo_);
}

void MainWindow::refreshRecording()
{
    const bool recording = model_.isRecording();
    record_->setText(recording ? QStringLiteral("Stop Recording")
                               : QStringLiteral("Start Recording"));
    record_->setToolTip(recording ? QStringLiteral("Stop recording (Ctrl+R)")
                                  : QStringLiteral("Start recording with the overlay (Ctrl+R)"));
    record_->setIcon(recordIcon(recording ? RecordLook::recording : RecordLook::idle));
    record_->setEnabled(!finishing_);
    marker_->setEnabled(recording);
    elapsedAction_->setVisible(recording);
    if (recording)
        elapsedTimer_.start(kElapsedRefreshMilliseconds);
    else
        elapsedTimer_.stop();
    refreshElapsed();
}

void MainWindow::refreshElapsed()
{
    const auto elapsed = model_.recording().elapsed();
    elapsed_->setText(elapsed ? elapsedText(*elapsed) : QString());
}

void MainWindow::refreshDemo()
{
    const bool running = model_.demo().isRunning();
    demo_->setText(running ? QStringLiteral("Stop Demo Show") : QStringLiteral("Run Demo Show"));
    demo_->setChecked(running);
}

void MainWindow::refreshCentre()
{
    const bool editing = model_.isEditingLayout();
    editLayout_->setChecked(editing);
    centre_->setCurrentWidget(editing && layoutEditor_ ? layoutEditor_.data()
                                                       : static_cast<QWidget*>(grid_));
}

void MainWindow::rebuildLayoutMenu()
{
    layoutMenu_->clear();
    delete layoutChoices_; // its actions went with clear()
    const auto presets = model_.settings().layoutPresets();
    if (presets.isEmpty()) {
        QAction* none = layoutMenu_->addAction(tr("No Saved Layouts"));
        none->setEnabled(false);
        return;
    }
    auto* group = new QActionGroup(this);
    layoutChoices_ = group;
    group->setExclusionPolicy(QActionGroup::ExclusionPolicy::ExclusiveOptional);
    for (const auto& preset : presets) {
        QAction* choice = layoutMenu_->addAction(preset.name);
        choice->setCheckable(true);
        choice->setData(preset.id);
        group->addAction(choice);
        const QString name = preset.name;
        connect(choice, &QAction::triggered, this, [this, name] {
            model_.settings().applyLayoutPreset(name);
            refreshLayoutChecks();
        });
    }
    refreshLayoutChecks();
}

void MainWindow::refreshLayoutChecks()
{
    const auto active = model_.settings().activeLayoutPreset();
    for (QAction* choice : layoutMenu_->actions())
        if (choice->isCheckable())
            choice->setChecked(active && choice->data().toUuid() == active->id);
}

void MainWindow::replacePlace(int index, QWidget* widget)
{
    QWidget* old = splitter_->replaceWidget(index, widget ? widget : emptyPlace());
    if (widget)
        widget->show();
    delete old;
}

void MainWindow::setSidebar(QWidget* sidebar)
{
    replacePlace(0, sidebar);
}

void MainWindow::setInspector(QWidget* inspector)
{
    replacePlace(2, inspector);
}

void MainWindow::setLayoutEditor(QWidget* editor)
{
    if (layoutEditor_) {
        centre_->removeWidget(layoutEditor_);
        delete layoutEditor_.data();
    }
    layoutEditor_ = editor;
    if (editor)
        centre_->addWidget(editor);
    refreshCentre();
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    if (mayClose_ || (!model_.isRecording() && model_.recording().finishingCount() == 0)) {
        saveWindowState();
        event->accept();
        Q_EMIT closed();
        return;
    }
    event->ignore();
    if (finishing_)
        return;
    finishing_ = true;
    record_->setEnabled(false);
    statusBar()->showMessage(tr("Finishing the recording…"));
    QPointer<MainWindow> self(this);
    model_.stopRecording([self] {
        if (!self)
            return;
        self->sinceStopped_.start();
        self->finishPoll_.start(50); // outside this close event, which must end first
    });
}

void MainWindow::finishThenClose()
{
    // The movies are closed and playable by now; what may still run is the rewrite that
    // gives them their chapters, which a long show's movie needs a while for.
    if (model_.recording().finishingCount() > 0 &&
        sinceStopped_.elapsed() < kChapterGraceMilliseconds)
        return;
    finishPoll_.stop();
    model_.settings().flush();
    mayClose_ = true;
    close();
}

void MainWindow::saveWindowState()
{
    QByteArray state;
    QDataStream out(&state, QIODevice::WriteOnly);
    out << saveGeometry() << splitter_->saveState();
    model_.settings().setWindowState(QString::fromLatin1(state.toBase64()));
}

void MainWindow::restoreWindowState()
{
    QByteArray geometry;
    QByteArray columns;
    QDataStream in(QByteArray::fromBase64(model_.settings().windowState().toLatin1()));
    in >> geometry >> columns;
    if (in.status() != QDataStream::Ok)
        return;
    restoreGeometry(geometry);
    splitter_->restoreState(columns);
}

void MainWindow::showAbout()
{
    QMessageBox::about(
        this, QStringLiteral("About Orvane"),
        tr("<p><b>Orvane %1</b></p><p>Burns the show's cues and timecode into camera video, "
           "records it and shares it on the network.</p>")
            .arg(QCoreApplication::applicationVersion()));
}

} // namespace orvane
