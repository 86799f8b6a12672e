#include "ui/InspectorTabs.h"

#include "app/AppModel.h"
#include "app/OverlayAssembly.h"

#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QScrollArea>
#include <QVBoxLayout>

namespace orvane {

namespace {

constexpr int kBarSteps = 1000;

// One part of the current cue, or one running QLab cue: its name, a bar and the figure beside
// it ("-2.345s", "Done", "40%").
class ProgressRow : public QWidget {
public:
    explicit ProgressRow(QWidget* parent)
        : QWidget(parent)
    {
        setObjectName(QStringLiteral("progressRow"));
        name_ = new QLabel(this);
        name_->setObjectName(QStringLiteral("progressName"));
        name_->setWordWrap(true);
        bar_ = new QProgressBar(this);
        bar_->setRange(0, kBarSteps);
        bar_->setTextVisible(false);
        bar_->setMaximumHeight(8);
        status_ = new QLabel(this);
        status_->setObjectName(QStringLiteral("progressStatus"));
        status_->setMinimumWidth(64);
        status_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
        auto* line = new QHBoxLayout;
        line->addWidget(bar_, 1);
        line->addWidget(status_);
        auto* column = new QVBoxLayout(this);
        column->setContentsMargins(0, 2, 0, 2);
        column->setSpacing(2);
        column->addWidget(name_);
        column->addLayout(line);
    }

    void show(const OverlayPart& part, WallTime now)
    {
        const QString name =
            part.tag.isEmpty() ? part.label : ShowTab::tr("%1  %2").arg(part.tag, part.label);
        name_->setText(part.isRunning ? QStringLiteral("▶ ") + name : name);
        bar_->setValue(int(part.progressAt(now) * kBarSteps));
        const QString status = part.statusAt(now);
        if (!part.isPausedAt(now))
            status_->setText(status);
        else if (part.running)
            status_->setText(ShowTab::tr("%1 paused").arg(status));
        else
            status_->setText(ShowTab::tr("%1 held").arg(status));
    }

private:
    QLabel* name_ = nullptr;
    QProgressBar* bar_ = nullptr;
    QLabel* status_ = nullptr;
};

QLabel* caption(const QString& text, QWidget* parent)
{
    auto* label = new QLabel(text, parent);
    QFont small = label->font();
    small.setBold(true);
    small.setPointSizeF(small.pointSizeF() * 0.85);
    label->setFont(small);
    QPalette colours = label->palette();
    colours.setColor(QPalette::WindowText, colours.color(QPalette::Disabled, QPalette::WindowText));
    label->setPalette(colours);
    return label;
}

QLabel* line(const QString& objectName, QWidget* parent)
{
    auto* label = new QLabel(parent);
    label->setObjectName(objectName);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    return label;
}

QString cueText(const std::optional<OverlayCue>& cue)
{
    if (!cue)
        return ShowTab::tr("None");
    return cue->label.isEmpty() ? cue->number : ShowTab::tr("%1  %2").arg(cue->number, cue->label);
}

// Makes `rows` hold one row per part and shows each part at `now`.
void showRows(QVBoxLayout* rows, const std::vector<OverlayPart>& parts, WallTime now)
{
    while (rows->count() > int(parts.size())) {
        QLayoutItem* item = rows->takeAt(rows->count() - 1);
        delete item->widget();
        delete item;
    }
    QWidget* owner = rows->parentWidget();
    while (rows->count() < int(parts.size()))
        rows->addWidget(new ProgressRow(owner));
    for (int at = 0; at < rows->count(); ++at)
        static_cast<ProgressRow*>(rows->itemAt(at)->widget())->show(parts[size_t(at)], now);
}

} // namespace

ShowTab::ShowTab(AppModel& model, QWidget* parent)
    : QWidget(parent)
    , model_(model)
{
    setObjectName(QStringLiteral("showTab"));
    auto* page = new QWidget;
    auto* column = new QVBoxLayout(page);
    column->setSpacing(4);

    const auto section = [&](const QString& title) {
        column->addSpacing(6);
        column->addWidget(caption(title, page));
    };
    section(tr("SHOW"));
    showName_ = line(QStringLiteral("showName"), page);
    column->addWidget(showName_);
    section(tr("CUE"));
    cue_ = line(QStringLiteral("currentCue"), page);
    QFont large = cue_->font();
    large.setPointSizeF(large.pointSizeF() * 1.3);
    large.setBold(true);
    cue_->setFont(large);
    column->addWidget(cue_);
    auto* parts = new QWidget(page);
    parts->setObjectName(QStringLiteral("cueParts"));
    parts_ = new QVBoxLayout(parts);
    parts_->setContentsMargins(0, 0, 0, 0);
    column->addWidget(parts);
    section(tr("NEXT"));
    nextCue_ = line(QStringLiteral("nextCue"), page);
    column->addWidget(nextCue_);
    section(tr("PREVIOUS"));
    previousCue_ = line(QStringLiteral("previousCue"), page);
    column->addWidget(previousCue_);
    section(tr("FIELDS"));
    auto* fields = new QWidget(page);
    fields->setObjectName(QStringLiteral("showFields"));
    fields_ = new QFormLayout(fields);
    fields_->setContentsMargins(0, 0, 0, 0);
    column->addWidget(fields);
    section(tr("QLAB"));
    auto* qlab = new QWidget(page);
    qlab->setObjectName(QStringLiteral("qlabCues"));
    qlabCues_ = new QVBoxLayout(qlab);
    qlabCues_->setContentsMargins(0, 0, 0, 0);
    column->addWidget(qlab);
    noQLabCues_ = line(QStringLiteral("noQLabCues"), page);
    noQLabCues_->setText(tr("None running"));
    column->addWidget(noQLabCues_);
    section(tr("TIMECODE"));
    timecode_ = line(QStringLiteral("timecode"), page);
    timecode_->setFont(QFont(QStringLiteral("monospace")));
    column->addWidget(timecode_);
    column->addStretch(1);

    auto* scroll = new QScrollArea(this);
    scroll->setWidget(page);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(scroll);

    ShowData& show = model_.show();
    for (auto changed : {&ShowData::showNameChanged, &ShowData::activeCueChanged,
                         &ShowData::pendingCueChanged, &ShowData::previousCueChanged,
                         &ShowData::isHearingEosChanged, &ShowData::activePartsChanged,
                         &ShowData::activeCueClockChanged, &ShowData::fieldsChanged})
        connect(&show, changed, this, &ShowTab::refresh);
    for (auto changed : {&QLabClient::stateChanged, &QLabClient::runningCuesChanged,
                         &QLabClient::timecodeCueChanged})
        connect(&model_.qlab(), changed, this, &ShowTab::refresh);
    connect(&model_.demo(), &DemoShow::showTimeChanged, this, &ShowTab::tick);
    ticker_.setInterval(kTickMilliseconds);
    connect(&ticker_, &QTimer::timeout, this, &ShowTab::tick);
    refresh();
}

void ShowTab::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    tick();
    ticker_.start();
}

void ShowTab::hideEvent(QHideEvent* event)
{
    QWidget::hideEvent(event);
    ticker_.stop();
}

void ShowTab::refresh()
{
    // The overlay's own switches do not hide anything here: the inspector shows it all.
    OverlaySources sources = model_.overlayFeed().gatherNow();
    sources.look.showsCue = true;
    sources.look.showsNextCue = true;
    sources.look.showsShowName = true;
    sources.look.showsFields = true;
    sources.look.showsQLabCues = true;
    content_ = assembleOverlayContent(sources);

    showName_->setText(content_.showName.value_or(tr("No show name yet")));
    cue_->setText(content_.cue ? cueText(content_.cue) : tr("No cue yet"));
    nextCue_->setText(cueText(content_.nextCue));
    const auto previous = model_.show().previousCue();
    previousCue_->setText(
        cueText(previous ? std::optional<OverlayCue>(OverlayCue{previous->token(), previous->label})
                         : std::nullopt));

    while (fields_->rowCount() > 0)
        fields_->removeRow(0);
    for (const OverlayItem& field : content_.fields) {
        auto* value = new QLabel(field.value, fields_->parentWidget());
        value->setWordWrap(true);
        value->setTextInteractionFlags(Qt::TextSelectableByMouse);
        fields_->addRow(tr("%1:").arg(field.caption), value);
    }
    if (content_.fields.empty())
        fields_->addRow(new QLabel(tr("None"), fields_->parentWidget()));
    noQLabCues_->setVisible(content_.qlabCues.empty());
    tick();
}

void ShowTab::tick()
{
    const WallTime now = model_.clock().wallNow();
    showRows(parts_, content_.parts, now);
    showRows(qlabCues_, content_.qlabCues, now);
    const QString timecode = model_.timecodeText();
    timecode_->setText(timecode.isEmpty() ? tr("None") : timecode);
}

} // namespace orvane
