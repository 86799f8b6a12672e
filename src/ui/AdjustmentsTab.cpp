#include "ui/InspectorTabs.h"

#include "app/AppModel.h"
#include "ui/SettingBinding.h"

#include <QCheckBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSlider>
#include <QVBoxLayout>

#include <cmath>

namespace orvane {

namespace {

struct Switch {
    const char* key;
    const char* text;
};

// What the overlay can show, in the order of the picture from top to bottom.
constexpr Switch kShowSwitches[] = {
    {"showsShowName", QT_TRANSLATE_NOOP("AdjustmentsTab", "Show name")},
    {"showsCue", QT_TRANSLATE_NOOP("AdjustmentsTab", "Current cue")},
    {"showsNextCue", QT_TRANSLATE_NOOP("AdjustmentsTab", "Next cue")},
    {"showsFields", QT_TRANSLATE_NOOP("AdjustmentsTab", "Custom fields")},
    {"showsQLabCues", QT_TRANSLATE_NOOP("AdjustmentsTab", "QLab cues")},
    {"showsTimecode", QT_TRANSLATE_NOOP("AdjustmentsTab", "Timecode")},
    {"showsClock", QT_TRANSLATE_NOOP("AdjustmentsTab", "Clock")},
    {"showsDate", QT_TRANSLATE_NOOP("AdjustmentsTab", "Date")},
};

// A slider from `from` to `to` (in setting units) with its value in percent beside it.
QWidget* slider(AppSettings& settings, const char* key, double from, double to, QWidget* parent)
{
    auto* row = new QWidget(parent);
    auto* bar = new QSlider(Qt::Horizontal, row);
    bar->setRange(int(std::lround(from * 100)), int(std::lround(to * 100)));
    bar->setPageStep(10);
    auto* value = new QLabel(row);
    value->setObjectName(QString::fromLatin1(key) + QStringLiteral("Value"));
    value->setMinimumWidth(40);
    value->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    bindSlider(bar, value, settings, key);
    auto* line = new QHBoxLayout(row);
    line->setContentsMargins(0, 0, 0, 0);
    line->addWidget(bar, 1);
    line->addWidget(value);
    return row;
}

QLineEdit* textField(AppSettings& settings, const char* key, const QString& placeholder,
                     QWidget* parent)
{
    auto* edit = new QLineEdit(parent);
    edit->setPlaceholderText(placeholder);
    edit->setClearButtonEnabled(true);
    bindText(edit, settings, key);
    return edit;
}

} // namespace

AdjustmentsTab::AdjustmentsTab(AppModel& model, QWidget* parent)
    : QWidget(parent)
    , model_(model)
{
    setObjectName(QStringLiteral("adjustmentsTab"));
    AppSettings& settings = model_.settings();

    auto* overlay = new QGroupBox(tr("Overlay"), this);
    auto* overlayForm = new QFormLayout(overlay);
    auto* enabled = new QCheckBox(tr("Draw the overlay"), overlay);
    bindSwitch(enabled, settings, "overlayEnabled");
    overlayForm->addRow(enabled);
    for (const Switch& item : kShowSwitches) {
        auto* box = new QCheckBox(tr(item.text), overlay);
        bindSwitch(box, settings, item.key);
        overlayForm->addRow(box);
    }
    overlayForm->addRow(tr("Size"),
                        slider(settings, "overlayScale", OverlayLook::kMinimumScale,
                               OverlayLook::kMaximumScale, overlay));
    overlayForm->addRow(tr("Panels"), slider(settings, "overlayOpacity", 0, 1, overlay));
    overlayForm->addRow(tr("Camera label"),
                        textField(settings, "cameraLabel", tr("Stage Cam"), overlay));

    auto* watermark = new QGroupBox(tr("Watermark"), this);
    auto* watermarkForm = new QFormLayout(watermark);
    watermarkForm->addRow(tr("Text"), textField(settings, "watermarkText", tr("None"), watermark));
    thumbnail_ = new QLabel(watermark);
    thumbnail_->setObjectName(QStringLiteral("watermarkThumbnail"));
    thumbnail_->setFixedSize(96, 54);
    thumbnail_->setAlignment(Qt::AlignCenter);
    thumbnail_->setFrameShape(QFrame::StyledPanel);
    auto* choose = new QPushButton(tr("Choose…"), watermark);
    choose->setObjectName(QStringLiteral("chooseWatermarkImage"));
    clear_ = new QPushButton(tr("Clear"), watermark);
    clear_->setObjectName(QStringLiteral("clearWatermarkImage"));
    auto* image = new QHBoxLayout;
    image->addWidget(thumbnail_);
    auto* imageButtons = new QVBoxLayout;
    imageButtons->addWidget(choose);
    imageButtons->addWidget(clear_);
    imageButtons->addStretch(1);
    image->addLayout(imageButtons);
    image->addStretch(1);
    watermarkForm->addRow(tr("Image"), image);
    watermarkForm->addRow(tr("Opacity"), slider(settings, "watermarkOpacity", 0, 1, watermark));
    connect(choose, &QPushButton::clicked, this, &AdjustmentsTab::chooseWatermark);
    connect(clear_, &QPushButton::clicked, this, [this] { model_.clearWatermarkImage(); });
    connect(&model_, &AppModel::watermarkImageChanged, this, &AdjustmentsTab::refreshWatermark);
    connect(&settings, &AppSettings::watermarkImageFileChanged, this,
            &AdjustmentsTab::refreshWatermark);

    auto* camera = new QGroupBox(tr("Camera and Microphone"), this);
    auto* cameraForm = new QFormLayout(camera);
    auto* mirror = new QCheckBox(tr("Mirror the main camera"), camera);
    bindSwitch(mirror, settings, "isMirrored");
    cameraForm->addRow(mirror);
    cameraForm->addRow(tr("Microphone gain"), slider(settings, "audioGain", 0, 2, camera));

    auto* column = new QVBoxLayout(this);
    column->addWidget(overlay);
    column->addWidget(watermark);
    column->addWidget(camera);
    column->addStretch(1);
    refreshWatermark();
}

void AdjustmentsTab::chooseWatermark()
{
    const QString file = QFileDialog::getOpenFileName(
        this, tr("Choose a Watermark Image"), QString(),
        tr("Images (*.png *.jpg *.jpeg *.PNG *.JPG *.JPEG);;All files (*)"));
    if (!file.isEmpty())
        model_.setWatermarkImage(file);
}

void AdjustmentsTab::refreshWatermark()
{
    const auto& image = model_.watermarkImage();
    if (image && !image->isNull()) {
        thumbnail_->setPixmap(QPixmap::fromImage(image->scaled(
            thumbnail_->size() - QSize(4, 4), Qt::KeepAspectRatio, Qt::SmoothTransformation)));
    } else {
        thumbnail_->setPixmap({});
        thumbnail_->setText(tr("No image"));
    }
    clear_->setEnabled(model_.settings().watermarkImageFile().has_value());
}

} // namespace orvane
