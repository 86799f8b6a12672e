#include "ui/InspectorTabs.h"

#include "app/AppModel.h"
#include "ui/ElapsedText.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <algorithm>

namespace orvane {

namespace {

void addRow(QTreeWidget* log, const CueLogEntry& entry)
{
    auto* row = new QTreeWidgetItem(log, {elapsedText(entry.elapsed), entry.event, entry.detail});
    if (!entry.timecode.isEmpty())
        row->setToolTip(0, EventsTab::tr("Timecode %1").arg(entry.timecode));
    row->setToolTip(2, entry.detail);
}

} // namespace

EventsTab::EventsTab(AppModel& model, QWidget* parent)
    : QWidget(parent)
    , model_(model)
{
    setObjectName(QStringLiteral("eventsTab"));
    log_ = new QTreeWidget(this);
    log_->setObjectName(QStringLiteral("cueLog"));
    log_->setHeaderLabels({tr("Time"), tr("Event"), tr("Detail")});
    log_->setRootIsDecorated(false);
    log_->setUniformRowHeights(true);
    log_->setAlternatingRowColors(true);
    log_->setSelectionMode(QAbstractItemView::NoSelection);
    log_->header()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    log_->header()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
    log_->header()->setStretchLastSection(true);

    notRecording_ = new QLabel(tr("Not recording."), this);
    notRecording_->setObjectName(QStringLiteral("notRecording"));
    notRecording_->setAlignment(Qt::AlignCenter);
    QPalette colours = notRecording_->palette();
    colours.setColor(QPalette::WindowText, colours.color(QPalette::Disabled, QPalette::WindowText));
    notRecording_->setPalette(colours);

    markerText_ = new QLineEdit(this);
    markerText_->setObjectName(QStringLiteral("markerText"));
    markerText_->setPlaceholderText(tr("Marker"));
    markerText_->setClearButtonEnabled(true);
    addMarker_ = new QPushButton(tr("Add Marker"), this);
    addMarker_->setObjectName(QStringLiteral("addMarker"));
    addMarker_->setToolTip(tr("Adds a row to the cue log at this moment of the recording"));
    auto* marker = new QHBoxLayout;
    marker->addWidget(markerText_, 1);
    marker->addWidget(addMarker_);

    auto* column = new QVBoxLayout(this);
    column->addWidget(log_, 1);
    column->addWidget(notRecording_);
    column->addLayout(marker);

    connect(addMarker_, &QPushButton::clicked, this, &EventsTab::addMarker);
    connect(markerText_, &QLineEdit::returnPressed, this, &EventsTab::addMarker);
    connect(&model_, &AppModel::cueLogChanged, this, &EventsTab::refreshLog);
    connect(&model_, &AppModel::recordingStartChanged, this, &EventsTab::refreshRecording);
    refreshLog();
    refreshRecording();
}

void EventsTab::refreshLog()
{
    const QList<CueLogEntry>& log = model_.cueLog();
    // The newest row stays in view, unless the user scrolled up to read an older one.
    const QScrollBar* scroll = log_->verticalScrollBar();
    const bool atBottom = scroll->value() == scroll->maximum();
    // Rows only ever join at the end while a recording runs; anything else starts over.
    const bool grew =
        log.size() >= shown_.size() && std::equal(shown_.cbegin(), shown_.cend(), log.cbegin());
    if (!grew) {
        log_->clear();
        shown_.clear();
    }
    for (qsizetype at = shown_.size(); at < log.size(); ++at)
        addRow(log_, log.at(at));
    shown_ = log;
    if (atBottom || !grew)
        log_->scrollToBottom();
}

void EventsTab::refreshRecording()
{
    const bool recording = model_.isRecording();
    notRecording_->setVisible(!recording);
    markerText_->setEnabled(recording);
    addMarker_->setEnabled(recording);
}

void EventsTab::addMarker()
{
    if (!model_.isRecording())
        return;
    const QString text = markerText_->text().trimmed();
    model_.addMarker(text.isEmpty() ? QStringLiteral("Marker") : text);
    markerText_->clear();
}

} // namespace orvane
