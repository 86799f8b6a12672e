#include "app/OverlayFeed.h"

#include "base/Checks.h"
#include "capture/CaptureEngine.h"
#include "qlab/QLabClient.h"
#include "show/DemoShow.h"
#include "show/ShowData.h"

namespace orvane {

OverlayFeed::OverlayFeed(ShowData& show, Clock& clock, QObject* parent)
    : QObject(parent)
    , show_(show)
    , clock_(clock)
{
    for (const auto changed :
         {&ShowData::activeCueChanged, &ShowData::pendingCueChanged, &ShowData::activePartsChanged,
          &ShowData::activeCueClockChanged, &ShowData::fieldsChanged,
          &ShowData::isHearingEosChanged, &ShowData::showNameChanged})
        connect(&show_, changed, this, &OverlayFeed::refresh);
}

OverlayFeed::~OverlayFeed() = default;

void OverlayFeed::setQLab(QLabClient* client)
{
    assertOnOwnThread(this);
    for (const auto& connection : std::as_const(qlabConnections_))
        disconnect(connection);
    qlabConnections_.clear();
    qlab_ = client;
    if (client) {
        for (const auto changed : {&QLabClient::stateChanged, &QLabClient::runningCuesChanged,
                                   &QLabClient::timecodeCueChanged})
            qlabConnections_.append(connect(client, changed, this, &OverlayFeed::refresh));
    }
    refresh();
}

void OverlayFeed::setDemoShow(DemoShow* demo)
{
    assertOnOwnThread(this);
    for (const auto& connection : std::as_const(demoConnections_))
        disconnect(connection);
    demoConnections_.clear();
    demo_ = demo;
    if (demo)
        demoConnections_.append(
            connect(demo, &DemoShow::showTimeChanged, this, &OverlayFeed::refresh));
    refresh();
}

void OverlayFeed::setLook(const OverlayLook& look)
{
    sources_.look = look;
    refresh();
}

void OverlayFeed::setEnabled(bool isEnabled)
{
    sources_.isEnabled = isEnabled;
    refresh();
}

void OverlayFeed::setRecordingStart(std::optional<WallTime> start)
{
    sources_.recordingStart = start;
    refresh();
}

void OverlayFeed::setWatermarkImage(std::optional<QImage> image)
{
    sources_.watermarkImage = std::move(image);
    refresh();
}

void OverlayFeed::addCamera(CaptureEngine& engine, const QString& label)
{
    assertOnOwnThread(this);
    for (Camera& camera : cameras_) {
        if (camera.engine == &engine) {
            camera.label = label;
            engine.setOverlay(content_, label);
            return;
        }
    }
    cameras_.append(Camera{&engine, label});
    engine.setOverlay(content_, label);
}

void OverlayFeed::removeCamera(CaptureEngine& engine)
{
    assertOnOwnThread(this);
    cameras_.removeIf([&](const Camera& camera) { return camera.engine == &engine; });
}

OverlaySources OverlayFeed::gatherNow() const
{
    const WallTime now = clock_.wallNow();
    OverlaySources sources = sources_;
    sources.demoShowTime = demo_ ? demo_->showTime() : std::nullopt;
    sources.showName = show_.showName();
    sources.activeCue = show_.activeCue();
    sources.pendingCue = show_.pendingCue();
    sources.isHearingEos = show_.isHearingEos();
    sources.activeParts = show_.activeParts();
    sources.activeCueClock = show_.activeCueClock();
    sources.runningPart = show_.runningPart();
    sources.fields = show_.fields();
    sources.isQLabConnected = qlab_ && qlab_->state() == QLabClient::State::connected;
    sources.qlabRunningCues = qlab_ ? qlab_->runningCues() : std::vector<QLabCue>();
    sources.qlabShowTime = qlab_ ? qlab_->showTime(now) : std::nullopt;
    sources.gatheredAt = now;
    return sources;
}

void OverlayFeed::refresh()
{
    assertOnOwnThread(this);
    sources_ = gatherNow();
    content_ = assembleOverlayContent(sources_);
    cameras_.removeIf([](const Camera& camera) { return camera.engine.isNull(); });
    for (const Camera& camera : std::as_const(cameras_))
        camera.engine->setOverlay(content_, camera.label);
}

} // namespace orvane
