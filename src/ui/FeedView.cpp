#include "ui/FeedView.h"

#include "app/AppModel.h"
#include "app/StatusReporter.h"
#include "capture/Frame.h"
#include "ui/ElapsedText.h"

#include <QPainter>

#include <algorithm>
#include <cmath>

namespace orvane {

namespace {

constexpr int kFooterHeight = 26;
// The footer's numbers and running time change at most this often without new frames.
constexpr int kFooterRefreshMilliseconds = 250;
// The sound meter's range: its empty end, in dBFS.
constexpr float kQuietestLevel = -60.0f;

const FeedState kStarting = FeedState::of(FeedState::Kind::starting);

} // namespace

FeedView::FeedView(AppModel& model, CameraFeed* feed, QWidget* parent)
    : QWidget(parent)
    , model_(model)
    , feed_(feed)
    , isMain_(feed == nullptr)
{
    setObjectName(feed ? QStringLiteral("extraFeedView") : QStringLiteral("mainFeedView"));
    setAttribute(Qt::WA_OpaquePaintEvent);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    connect(&repaint_, &QTimer::timeout, this, &FeedView::tick);

    const auto changed = [this] {
        refreshTimer();
        update();
    };
    if (feed)
        connect(feed, &CameraFeed::stateChanged, this, changed);
    else
        connect(&model, &AppModel::feedStateChanged, this, changed);
    connect(&model, &AppModel::recordingStartChanged, this, changed);
    auto& settings = model.settings();
    connect(&settings, &AppSettings::cameraLabelChanged, this, qOverload<>(&QWidget::update));
    connect(&settings, &AppSettings::extraCamerasChanged, this, qOverload<>(&QWidget::update));
    connect(&settings, &AppSettings::recordsAudioChanged, this, qOverload<>(&QWidget::update));
}

CaptureEngine* FeedView::engine() const
{
    if (isMain_)
        return &model_.engine();
    return feed_ ? &feed_->engine() : nullptr;
}

const FeedState& FeedView::state() const
{
    static const FeedState gone = FeedState::of(FeedState::Kind::unassigned);
    if (isMain_)
        return model_.feedState();
    return feed_ ? feed_->state() : gone;
}

bool FeedView::isRecording() const
{
    const auto* cameraEngine = engine();
    return cameraEngine && model_.isRecording() && cameraEngine->isRecording();
}

QString FeedView::stateText() const
{
    if (state().kind != FeedState::Kind::live)
        return feedStateSentence(state());
    const auto* cameraEngine = engine();
    if (!cameraEngine || !cameraEngine->latestFrame())
        return feedStateSentence(kStarting);
    return {};
}

QString FeedView::label() const
{
    const auto& settings = model_.settings();
    if (isMain_) {
        const QString label = settings.cameraLabel().trimmed();
        return label.isEmpty() ? tr("Main camera") : label;
    }
    const auto cameras = settings.extraCameras();
    for (qsizetype i = 0; i < cameras.size(); ++i) {
        if (!feed_ || cameras[i].id != feed_->id())
            continue;
        const QString label = cameras[i].label.trimmed();
        // Named as its movie is: the main camera is camera 1.
        return label.isEmpty() ? tr("Camera %1").arg(i + 2) : label;
    }
    return tr("Camera");
}

void FeedView::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    refreshTimer();
}

void FeedView::hideEvent(QHideEvent* event)
{
    QWidget::hideEvent(event);
    refreshTimer();
}

void FeedView::refreshTimer()
{
    const auto* cameraEngine = engine();
    const bool moving = state().kind == FeedState::Kind::live || isRecording();
    if (!cameraEngine || !isVisible() || !moving) {
        repaint_.stop();
        return;
    }
    // At most one repaint per camera frame.
    double frameDuration = 1.0 / 30;
    if (const auto frame = cameraEngine->latestFrame(); frame && frame->frameDuration > 0)
        frameDuration = frame->frameDuration;
    const int interval = std::clamp(static_cast<int>(std::lround(frameDuration * 1000)), 10, 250);
    if (!repaint_.isActive() || repaint_.interval() != interval)
        repaint_.start(interval);
}

void FeedView::tick()
{
    const auto* cameraEngine = engine();
    const auto frame = cameraEngine ? cameraEngine->latestFrame() : nullptr;
    const std::int64_t number = frame ? frame->number : -1;
    if (number == shownFrame_ && sinceRepaint_.isValid() &&
        sinceRepaint_.elapsed() < kFooterRefreshMilliseconds)
        return;
    if (frame && shownFrame_ < 0)
        refreshTimer(); // the first frame tells the camera's rate
    update();
}

void FeedView::paintEvent(QPaintEvent*)
{
    sinceRepaint_.start();
    QPainter painter(this);
    const QRect whole = rect();
    const QRect picture = whole.adjusted(0, 0, 0, -kFooterHeight);
    const QRect footer(picture.bottomLeft() + QPoint(0, 1), QSize(whole.width(), kFooterHeight));
    paintPicture(painter, picture);
    paintFooter(painter, footer);
}

void FeedView::paintPicture(QPainter& painter, const QRect& area)
{
    const QString text = stateText();
    const auto* cameraEngine = engine();
    const auto frame = cameraEngine && text.isEmpty() ? cameraEngine->latestFrame() : nullptr;
    shownFrame_ = frame ? frame->number : -1;
    if (!frame) {
        painter.fillRect(area, QColor(0x16, 0x16, 0x18));
        painter.setPen(QColor(0xd0, 0xd0, 0xd4));
        painter.drawText(area.adjusted(24, 24, -24, -24), Qt::AlignCenter | Qt::TextWordWrap, text);
        return;
    }
    painter.fillRect(area, Qt::black);
    // Only the pixels shown are converted, at the size they are shown.
    const QSize fitted =
        QSize(frame->width, frame->height).scaled(area.size(), Qt::KeepAspectRatio);
    if (fitted.isEmpty())
        return;
    const QPoint topLeft(area.left() + (area.width() - fitted.width()) / 2,
                         area.top() + (area.height() - fitted.height()) / 2);
    painter.drawImage(topLeft, preview_.convert(frame->planes(), fitted));
}

void FeedView::paintFooter(QPainter& painter, const QRect& area)
{
    painter.fillRect(area, QColor(0x24, 0x24, 0x28));
    QRect room = area.adjusted(8, 0, -8, 0);
    const auto* cameraEngine = engine();
    const CaptureStats stats = cameraEngine ? cameraEngine->stats() : CaptureStats{};
    const bool live = state().kind == FeedState::Kind::live && stats.width > 0;

    // Right to left: REC with the running time, then the sound meter.
    if (isRecording()) {
        const QString text =
            QStringLiteral("REC  ") + elapsedText(model_.recording().elapsed().value_or(0));
        const int width = painter.fontMetrics().horizontalAdvance(text);
        painter.setPen(QColor(0xff, 0x45, 0x3a));
        painter.drawText(room, Qt::AlignRight | Qt::AlignVCenter, text);
        room.setRight(room.right() - width - 12);
    }
    const bool showsSound =
        isMain_ && model_.settings().recordsAudio() && !stats.audioLevels.empty();
    if (showsSound && live) {
        const float loudest = *std::max_element(stats.audioLevels.begin(), stats.audioLevels.end());
        const double fill = std::clamp((loudest - kQuietestLevel) / -kQuietestLevel, 0.0f, 1.0f);
        const QRect meter(room.right() - 80, area.center().y() - 3, 80, 6);
        painter.fillRect(meter, QColor(0x40, 0x40, 0x46));
        const QColor level = loudest > -6    ? QColor(0xff, 0x45, 0x3a)
                             : loudest > -18 ? QColor(0xff, 0xc8, 0x2e)
                                             : QColor(0x3c, 0xc8, 0x5a);
        painter.fillRect(QRect(meter.topLeft(), QSize(int(meter.width() * fill), meter.height())),
                         level);
        room.setRight(meter.left() - 12);
    }

    QString text = label();
    if (live) {
        text += QStringLiteral("   %1 × %2 · %3 fps")
                    .arg(stats.width)
                    .arg(stats.height)
                    .arg(std::lround(stats.framesPerSecond));
        if (stats.droppedFrames > 0)
            text += QLatin1String(" · ") + tr("%n dropped", nullptr, stats.droppedFrames);
    }
    painter.setPen(QColor(0xe8, 0xe8, 0xec));
    painter.drawText(room, Qt::AlignLeft | Qt::AlignVCenter,
                     painter.fontMetrics().elidedText(text, Qt::ElideRight, room.width()));
}

} // namespace orvane
