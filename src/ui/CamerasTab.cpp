#include "ui/CamerasTab.h"

#include "app/AppModel.h"
#include "capture/TestPatternSource.h"
#include "ui/SettingsControls.h"

#include <QComboBox>
#include <QFileInfo>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSlider>
#include <QVBoxLayout>

#include <algorithm>

namespace orvane {

namespace {

// The gain slider runs from silence to twice the microphone's level, in percent.
constexpr int kMaximumGainPercent = 200;

std::optional<QString> chosenID(const QComboBox* choice, int index)
{
    const QVariant id = choice->itemData(index);
    if (!id.isValid())
        return std::nullopt;
    return id.toString();
}

} // namespace

CamerasTab::CamerasTab(AppModel& model, QWidget* parent)
    : QWidget(parent)
    , model_(model)
{
    AppSettings& settings = model_.settings();
    CaptureDevices& devices = model_.devices();
    rememberNames();

    auto* mainBox = new QGroupBox(tr("Main camera"), this);
    auto* mainForm = new QFormLayout(mainBox);
    camera_ = new QComboBox(mainBox);
    camera_->setObjectName(QStringLiteral("cameraID"));
    mainForm->addRow(tr("Camera:"), camera_);
    microphone_ = new QComboBox(mainBox);
    microphone_->setObjectName(QStringLiteral("audioDeviceID"));
    mainForm->addRow(tr("Microphone:"), microphone_);

    auto* recordsAudio = new QCheckBox(tr("Record sound"), mainBox);
    recordsAudio->setObjectName(QStringLiteral("recordsAudio"));
    bindSetting(recordsAudio, settings, &AppSettings::recordsAudio, &AppSettings::setRecordsAudio,
                &AppSettings::recordsAudioChanged);
    mainForm->addRow(QString(), recordsAudio);

    gain_ = new QSlider(Qt::Horizontal, mainBox);
    gain_->setObjectName(QStringLiteral("audioGain"));
    gain_->setRange(0, kMaximumGainPercent);
    gain_->setPageStep(10);
    gainText_ = new QLabel(mainBox);
    gainText_->setMinimumWidth(gainText_->fontMetrics().horizontalAdvance(QStringLiteral("000 %")));
    auto* gainRow = new QHBoxLayout;
    gainRow->addWidget(gain_, 1);
    gainRow->addWidget(gainText_);
    mainForm->addRow(tr("Microphone gain:"), gainRow);

    auto* mirror = new QCheckBox(tr("Mirror the picture"), mainBox);
    mirror->setObjectName(QStringLiteral("isMirrored"));
    bindSetting(mirror, settings, &AppSettings::isMirrored, &AppSettings::setIsMirrored,
                &AppSettings::isMirroredChanged);
    mainForm->addRow(QString(), mirror);

    auto* extraBox = new QGroupBox(tr("Extra cameras"), this);
    auto* extraColumn = new QVBoxLayout(extraBox);
    extraList_ = new QVBoxLayout;
    extraColumn->addLayout(extraList_);
    addCamera_ = new QPushButton(tr("Add Camera"), extraBox);
    addCamera_->setObjectName(QStringLiteral("addCamera"));
    extraColumn->addWidget(addCamera_, 0, Qt::AlignLeft);
    auto* note = new QLabel(
        tr("Every camera records at the same time, each to its own file with its own label on "
           "the overlay. Sound is recorded with the main camera. Up to ") +
            QString::number(kMaximumExtraCameras) +
            tr(" more cameras; each one uses more of the computer's processing power."),
        extraBox);
    note->setObjectName(QStringLiteral("extraCamerasNote"));
    note->setWordWrap(true);
    note->setForegroundRole(QPalette::PlaceholderText);
    extraColumn->addWidget(note);

    auto* column = new QVBoxLayout(this);
    column->addWidget(mainBox);
    column->addWidget(extraBox);
    column->addStretch(1);

    connect(camera_, &QComboBox::activated, this,
            [this](int index) { model_.settings().setCameraID(chosenID(camera_, index)); });
    connect(microphone_, &QComboBox::activated, this, [this](int index) {
        model_.settings().setAudioDeviceID(chosenID(microphone_, index));
    });
    connect(gain_, &QSlider::valueChanged, this, [this](int percent) {
        model_.settings().setAudioGain(percent / 100.0);
        gainText_->setText(tr("%1 %").arg(percent));
    });
    connect(addCamera_, &QPushButton::clicked, this, &CamerasTab::addExtraCamera);

    connect(&devices, &CaptureDevices::camerasChanged, this, [this] {
        rememberNames();
        refreshCameraChoice();
        refreshExtraCameras();
    });
    connect(&devices, &CaptureDevices::microphonesChanged, this, [this] {
        rememberNames();
        refreshMicrophoneChoice();
    });
    connect(&settings, &AppSettings::cameraIDChanged, this, &CamerasTab::refreshCameraChoice);
    connect(&settings, &AppSettings::audioDeviceIDChanged, this,
            &CamerasTab::refreshMicrophoneChoice);
    connect(&settings, &AppSettings::audioGainChanged, this, &CamerasTab::refreshGain);
    connect(&settings, &AppSettings::extraCamerasChanged, this, &CamerasTab::refreshExtraCameras);

    refreshCameraChoice();
    refreshMicrophoneChoice();
    refreshGain();
    refreshExtraCameras();
}

void CamerasTab::rememberNames()
{
    for (const auto* sources : {&model_.devices().cameras(), &model_.devices().microphones()})
        for (const CaptureSource& source : *sources)
            knownNames_.insert(source.id, source.name);
}

QString CamerasTab::missingName(const QString& id, const std::optional<QString>& storedName) const
{
    if (storedName && !storedName->isEmpty())
        return *storedName;
    if (const auto camera = model_.devices().lastKnownCameraName(id))
        return *camera;
    if (const auto known = knownNames_.find(id); known != knownNames_.end())
        return *known;
    // A device path such as /dev/v4l/by-id/usb-…-video-index0 reads best by its last part.
    return QFileInfo(id).fileName().isEmpty() ? id : QFileInfo(id).fileName();
}

void CamerasTab::fillDeviceChoice(QComboBox* choice, const std::vector<CaptureSource>& sources,
                                  const std::optional<QString>& chosen,
                                  const std::optional<QString>& storedName)
{
    const QSignalBlocker block(choice);
    choice->clear();
    choice->addItem(tr("None"));
    for (const CaptureSource& source : sources)
        choice->addItem(source.name, source.id);
    if (!chosen) {
        choice->setCurrentIndex(0);
        return;
    }
    int index = choice->findData(*chosen);
    if (index < 0) {
        // The test pattern at a size of its own is always there.
        const auto size = TestPatternSource::sizeIn(*chosen);
        choice->addItem(size ? tr("Test Pattern (%1×%2)").arg(size->width()).arg(size->height())
                             : tr("%1 (not connected)").arg(missingName(*chosen, storedName)),
                        *chosen);
        index = choice->count() - 1;
    }
    choice->setCurrentIndex(index);
}

void CamerasTab::refreshCameraChoice()
{
    const auto& cameras = model_.devices().cameras();
    fillDeviceChoice(camera_, cameras, model_.settings().cameraID(), std::nullopt);
    // With no camera attached and none chosen, the test pattern runs: say so, rather than
    // "None" over a moving picture.
    const bool anyAttached = std::any_of(cameras.begin(), cameras.end(), [](const auto& source) {
        return !TestPatternSource::isTestPattern(source.id);
    });
    if (!anyAttached)
        camera_->setItemText(0, tr("None: the Test Pattern runs until a camera is attached"));
}

void CamerasTab::refreshMicrophoneChoice()
{
    fillDeviceChoice(microphone_, model_.devices().microphones(), model_.settings().audioDeviceID(),
                     std::nullopt);
}

void CamerasTab::refreshGain()
{
    const double gain = model_.settings().audioGain();
    const QSignalBlocker block(gain_);
    gain_->setValue(qRound(gain * 100));
    gainText_->setText(tr("%1 %").arg(qRound(gain * 100)));
}

// Rows are kept by camera and changed in place, so that editing one camera never rebuilds the
// control that is being used.
void CamerasTab::refreshExtraCameras()
{
    const QList<ExtraCamera> cameras = model_.settings().extraCameras();
    std::vector<ExtraRow> rows;
    for (const ExtraCamera& camera : cameras) {
        auto kept = std::find_if(extraRows_.begin(), extraRows_.end(),
                                 [&](const ExtraRow& row) { return row.id == camera.id; });
        if (kept != extraRows_.end()) {
            rows.push_back(*kept);
            extraRows_.erase(kept);
        } else {
            rows.push_back(makeExtraRow(camera.id));
        }
        fillExtraRow(rows.back(), camera);
    }
    for (const ExtraRow& gone : extraRows_) {
        gone.row->hide();
        gone.row->deleteLater(); // its Remove button may be the caller
    }
    extraRows_ = std::move(rows);
    for (int at = 0; at < int(extraRows_.size()); ++at) {
        extraList_->removeWidget(extraRows_[at].row);
        extraList_->insertWidget(at, extraRows_[at].row);
    }
    addCamera_->setEnabled(cameras.size() < kMaximumExtraCameras);
}

CamerasTab::ExtraRow CamerasTab::makeExtraRow(const QUuid& id)
{
    ExtraRow row;
    row.id = id;
    row.row = new QWidget(this);
    row.row->setObjectName(QStringLiteral("extraCamera"));
    row.label = new QLineEdit(row.row);
    row.label->setObjectName(QStringLiteral("extraCameraLabel"));
    row.label->setPlaceholderText(tr("Label on the overlay"));
    row.device = new QComboBox(row.row);
    row.device->setObjectName(QStringLiteral("extraCameraDevice"));
    row.mirror = new QCheckBox(tr("Mirror"), row.row);
    row.mirror->setObjectName(QStringLiteral("extraCameraMirror"));
    auto* remove = new QPushButton(tr("Remove"), row.row);
    remove->setObjectName(QStringLiteral("removeCamera"));

    auto* line = new QHBoxLayout(row.row);
    line->setContentsMargins(0, 0, 0, 0);
    line->addWidget(row.label, 1);
    line->addWidget(row.device, 1);
    line->addWidget(row.mirror);
    line->addWidget(remove);

    QLineEdit* label = row.label;
    QComboBox* device = row.device;
    connect(label, &QLineEdit::editingFinished, this, [this, id, label] {
        label->setModified(false);
        changeExtraCamera(id, [&](ExtraCamera& camera) { camera.label = label->text(); });
    });
    connect(device, &QComboBox::activated, this, [this, id, device](int index) {
        const auto chosen = chosenID(device, index);
        changeExtraCamera(id, [&](ExtraCamera& camera) {
            if (chosen == camera.deviceID)
                return; // the not-connected entry keeps its remembered name
            camera.deviceID = chosen;
            camera.deviceName = chosen ? std::optional(knownNames_.value(*chosen)) : std::nullopt;
        });
    });
    connect(row.mirror, &QCheckBox::clicked, this, [this, id](bool checked) {
        changeExtraCamera(id, [&](ExtraCamera& camera) { camera.isMirrored = checked; });
    });
    connect(remove, &QPushButton::clicked, this, [this, id] { removeExtraCamera(id); });
    return row;
}

void CamerasTab::fillExtraRow(ExtraRow& row, const ExtraCamera& camera)
{
    // A label being typed is kept when a camera is plugged in meanwhile.
    if (row.label->text() != camera.label && !(row.label->hasFocus() && row.label->isModified()))
        row.label->setText(camera.label);
    fillDeviceChoice(row.device, model_.devices().cameras(), camera.deviceID, camera.deviceName);
    const QSignalBlocker block(row.mirror);
    row.mirror->setChecked(camera.isMirrored);
}

void CamerasTab::addExtraCamera()
{
    QList<ExtraCamera> cameras = model_.settings().extraCameras();
    if (cameras.size() >= kMaximumExtraCameras)
        return;
    ExtraCamera camera;
    camera.id = QUuid::createUuid();
    camera.label = tr("Camera %1").arg(cameras.size() + 2);
    // The first attached camera that no other camera uses, if there is one.
    const auto inUse = [&](const QString& id) {
        return model_.settings().cameraID() == id ||
               std::any_of(cameras.begin(), cameras.end(),
                           [&](const ExtraCamera& other) { return other.deviceID == id; });
    };
    for (const CaptureSource& source : model_.devices().cameras()) {
        if (!inUse(source.id)) {
            camera.deviceID = source.id;
            camera.deviceName = source.name;
            break;
        }
    }
    cameras.append(camera);
    model_.settings().setExtraCameras(cameras);
}

void CamerasTab::changeExtraCamera(const QUuid& id, const std::function<void(ExtraCamera&)>& change)
{
    QList<ExtraCamera> cameras = model_.settings().extraCameras();
    for (ExtraCamera& camera : cameras) {
        if (camera.id == id) {
            change(camera);
            model_.settings().setExtraCameras(cameras);
            return;
        }
    }
}

void CamerasTab::removeExtraCamera(const QUuid& id)
{
    QList<ExtraCamera> cameras = model_.settings().extraCameras();
    cameras.removeIf([&](const ExtraCamera& camera) { return camera.id == id; });
    model_.settings().setExtraCameras(cameras);
}

} // namespace orvane
