#include "ui/SidebarSections.h"

#include "app/AppModel.h"
#include "app/StatusReporter.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace orvane {

namespace {

// Short words while the camera works; the sentence that the rest of Orvane says otherwise.
QString stateText(const FeedState& state)
{
    switch (state.kind) {
    case FeedState::Kind::live:
        return DevicesSection::tr("Live");
    case FeedState::Kind::starting:
        return DevicesSection::tr("Starting…");
    case FeedState::Kind::disconnected:
    case FeedState::Kind::failed:
    case FeedState::Kind::noAccess:
    case FeedState::Kind::noCameras:
    case FeedState::Kind::unassigned:
        break;
    }
    return feedStateSentence(state);
}

StatusDot::Status statusOf(const FeedState& state)
{
    switch (state.kind) {
    case FeedState::Kind::live:
        return StatusDot::Status::working;
    case FeedState::Kind::starting:
        return StatusDot::Status::trying;
    case FeedState::Kind::unassigned:
        return StatusDot::Status::off;
    case FeedState::Kind::disconnected:
    case FeedState::Kind::failed:
    case FeedState::Kind::noAccess:
    case FeedState::Kind::noCameras:
        break;
    }
    return StatusDot::Status::needsUser;
}

std::optional<QString> nameOf(const std::vector<CaptureSource>& sources,
                              const std::optional<QString>& id)
{
    if (!id)
        return std::nullopt;
    for (const CaptureSource& source : sources)
        if (source.id == *id)
            return source.name;
    return std::nullopt;
}

} // namespace

DevicesSection::DevicesSection(AppModel& model, QWidget* parent)
    : SidebarSection(tr("Devices"), model.settings(), nullptr, parent)
    , model_(model)
{
    camera_ = addLine(QStringLiteral("mainCamera"));
    microphone_ = addLine(QStringLiteral("microphone"));
    extras_ = new QVBoxLayout;
    extras_->setSpacing(4);
    rows()->addLayout(extras_);
    auto* choose = new QPushButton(tr("Choose Cameras…"), this);
    choose->setObjectName(QStringLiteral("chooseCameras"));
    rows()->addWidget(choose, 0, Qt::AlignLeft);
    connect(choose, &QPushButton::clicked, this, &DevicesSection::settingsRequested);

    AppSettings& settings = model_.settings();
    for (auto changed : {&AppSettings::cameraIDChanged, &AppSettings::audioDeviceIDChanged,
                         &AppSettings::recordsAudioChanged, &AppSettings::cameraLabelChanged})
        connect(&settings, changed, this, &DevicesSection::refresh);
    connect(&model_.devices(), &CaptureDevices::camerasChanged, this, &DevicesSection::refresh);
    connect(&model_.devices(), &CaptureDevices::microphonesChanged, this, &DevicesSection::refresh);
    connect(&model_, &AppModel::feedStateChanged, this, &DevicesSection::refresh);
    connect(&model_, &AppModel::extraFeedsChanged, this, &DevicesSection::rebuildExtras);
    connect(&settings, &AppSettings::extraCamerasChanged, this, &DevicesSection::rebuildExtras);
    rebuildExtras();
}

void DevicesSection::refresh()
{
    const AppSettings& settings = model_.settings();
    const FeedState& feed = model_.feedState();
    // The devices in use: the chosen ones, or the ones Orvane took when none was chosen.
    const CaptureConfiguration inUse = model_.captureConfiguration();
    const auto camera = nameOf(model_.devices().cameras(), inUse.cameraID);
    showLine(camera_, camera ? tr("%1: %2").arg(*camera, stateText(feed))
                             : tr("Camera: %1").arg(stateText(feed)));

    QString microphone;
    if (!settings.recordsAudio())
        microphone = tr("Microphone: Off");
    else if (!inUse.microphoneID)
        microphone = tr("Microphone: None chosen");
    else if (const auto name = nameOf(model_.devices().microphones(), inUse.microphoneID))
        microphone = tr("Microphone: %1").arg(*name);
    else
        microphone = tr("Microphone: not connected");
    showLine(microphone_, microphone);

    StatusDot::Status status = statusOf(feed);
    const QList<ExtraCamera> cameras = settings.extraCameras();
    qsizetype line = 0;
    for (CameraFeed* extra : model_.extraFeeds()) {
        qsizetype position = 0;
        while (position < cameras.size() && cameras.at(position).id != extra->id())
            ++position;
        const QString label = position < cameras.size() && !cameras.at(position).label.isEmpty()
                                  ? cameras.at(position).label
                                  : tr("Camera %1").arg(position + 2);
        if (line < extras_->count())
            if (auto* text = qobject_cast<QLabel*>(extras_->itemAt(int(line))->widget()))
                showLine(text, tr("%1: %2").arg(label, stateText(extra->state())));
        status = StatusDot::combined(status, statusOf(extra->state()));
        ++line;
    }
    setStatus(status);
}

void DevicesSection::rebuildExtras()
{
    for (const auto& connection : std::as_const(feedConnections_))
        disconnect(connection);
    feedConnections_.clear();
    while (QLayoutItem* item = extras_->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    for (CameraFeed* extra : model_.extraFeeds()) {
        auto* line = new QLabel(this);
        line->setObjectName(QStringLiteral("extraCamera"));
        line->setWordWrap(true);
        extras_->addWidget(line);
        feedConnections_.append(
            connect(extra, &CameraFeed::stateChanged, this, &DevicesSection::refresh));
    }
    refresh();
}

} // namespace orvane
