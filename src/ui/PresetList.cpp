#include "ui/PresetList.h"

#include "app/AppModel.h"

#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

#include <algorithm>

namespace orvane {

namespace {

std::optional<LayoutPreset> presetWithId(const QList<LayoutPreset>& presets, const QUuid& id)
{
    const auto found = std::find_if(presets.begin(), presets.end(),
                                    [&](const LayoutPreset& preset) { return preset.id == id; });
    if (found == presets.end())
        return std::nullopt;
    return *found;
}

} // namespace

PresetList::PresetList(AppModel& model, QWidget* parent)
    : QWidget(parent)
    , settings_(model.settings())
{
    setObjectName(QStringLiteral("presetList"));
    list_ = new QComboBox(this);
    list_->setObjectName(QStringLiteral("layoutPresets"));
    list_->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    list_->setMinimumContentsLength(12);
    list_->setToolTip(tr("Choose a saved layout to put it back"));
    auto* save = new QPushButton(tr("Save as Preset…"), this);
    save->setObjectName(QStringLiteral("savePreset"));
    rename_ = new QPushButton(tr("Rename…"), this);
    rename_->setObjectName(QStringLiteral("renamePreset"));
    delete_ = new QPushButton(tr("Delete"), this);
    delete_->setObjectName(QStringLiteral("deletePreset"));

    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    row->addWidget(list_);
    row->addWidget(save);
    row->addWidget(rename_);
    row->addWidget(delete_);

    connect(list_, &QComboBox::activated, this, &PresetList::choose);
    connect(save, &QPushButton::clicked, this, &PresetList::askToSave);
    connect(rename_, &QPushButton::clicked, this, &PresetList::askToRename);
    connect(delete_, &QPushButton::clicked, this, &PresetList::deleteChosen);

    // The active preset follows the presets and every value a look holds.
    connect(&settings_, &AppSettings::layoutPresetsChanged, this, &PresetList::refresh);
#define ORVANE_FOLLOW_LOOK_FIELD(Type, field, setting, Setting, fallback)                          \
    connect(&settings_, &AppSettings::setting##Changed, this, &PresetList::refresh);
    ORVANE_OVERLAY_LOOK(ORVANE_FOLLOW_LOOK_FIELD)
#undef ORVANE_FOLLOW_LOOK_FIELD
    refresh();
}

void PresetList::refresh()
{
    const QSignalBlocker blocker(list_);
    list_->clear();
    const auto presets = settings_.layoutPresets();
    const auto active = settings_.activeLayoutPreset();
    if (!active)
        list_->addItem(tr("Custom"));
    for (const LayoutPreset& preset : presets)
        list_->addItem(preset.name, preset.id);
    list_->setCurrentIndex(active ? list_->findData(active->id) : 0);
    list_->setEnabled(!presets.isEmpty());
    rename_->setEnabled(active.has_value());
    delete_->setEnabled(active.has_value());
}

std::optional<QUuid> PresetList::chosenPreset() const
{
    const QVariant id = list_->currentData();
    if (!id.isValid())
        return std::nullopt;
    return id.value<QUuid>();
}

void PresetList::choose(int index)
{
    const QVariant id = list_->itemData(index);
    if (id.isValid())
        if (const auto preset = presetWithId(settings_.layoutPresets(), id.value<QUuid>()))
            settings_.applyLook(preset->look);
    // A preset whose look an earlier one shares shows that one as active.
    refresh();
}

void PresetList::askToSave()
{
    const QString help =
        tr("Saves where the widgets are, which are shown, sizes and the watermark text.");
    askForName(tr("Save as Preset"), tr("Save"), QString(), help, [this](const QString& name) {
        const auto presets = settings_.layoutPresets();
        std::optional<QString> question;
        if (const auto existing = indexOfLayoutPreset(presets, name))
            question = tr("A preset named “%1” already exists. Replace it with the layout as it "
                          "is now?")
                           .arg(presets.at(*existing).name);
        confirm(question, tr("Replace"), [this, name] { settings_.saveLayoutPreset(name); });
    });
}

void PresetList::askToRename()
{
    const auto id = chosenPreset();
    if (!id)
        return;
    const auto preset = presetWithId(settings_.layoutPresets(), *id);
    if (!preset)
        return;
    const auto rename = [this, id](const QString& name) {
        auto others = settings_.layoutPresets();
        others.removeIf([&](const LayoutPreset& other) { return other.id == *id; });
        std::optional<QString> question;
        if (const auto clash = indexOfLayoutPreset(others, name))
            question = tr("Another preset is already called “%1”. The layout command would "
                          "always choose the first of the two. Use the name anyway?")
                           .arg(others.at(*clash).name);
        confirm(question, tr("Use Name"), [this, id, name] {
            auto presets = settings_.layoutPresets();
            for (LayoutPreset& preset : presets)
                if (preset.id == *id)
                    preset.name = name;
            settings_.setLayoutPresets(presets);
        });
    };
    askForName(tr("Rename Preset"), tr("Rename"), preset->name, QString(), rename);
}

void PresetList::deleteChosen()
{
    const auto id = chosenPreset();
    if (!id)
        return;
    auto presets = settings_.layoutPresets();
    presets.removeIf([&](const LayoutPreset& preset) { return preset.id == *id; });
    settings_.setLayoutPresets(presets);
}

void PresetList::askForName(const QString& title, const QString& action, const QString& name,
                            const QString& help, std::function<void(const QString&)> done)
{
    auto* dialog = new QDialog(this);
    dialog->setObjectName(QStringLiteral("presetNameDialog"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle(title);

    auto* helpLabel = new QLabel(help, dialog);
    helpLabel->setWordWrap(true);
    helpLabel->setVisible(!help.isEmpty());
    auto* field = new QLineEdit(name, dialog);
    field->setObjectName(QStringLiteral("presetName"));
    field->setPlaceholderText(tr("Name, such as Rehearsal or Archive"));
    field->selectAll();
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, dialog);
    QPushButton* ok = buttons->button(QDialogButtonBox::Ok);
    ok->setText(action);

    auto* column = new QVBoxLayout(dialog);
    column->addWidget(new QLabel(tr("Name of the preset:"), dialog));
    column->addWidget(field);
    column->addWidget(helpLabel);
    column->addWidget(buttons);

    // A name of blanks only is no name.
    const auto fillable = [field, ok] { ok->setEnabled(!field->text().trimmed().isEmpty()); };
    fillable();
    connect(field, &QLineEdit::textChanged, dialog, fillable);
    connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::reject);
    connect(buttons, &QDialogButtonBox::accepted, dialog, [dialog, field, done] {
        const QString trimmed = field->text().trimmed();
        if (trimmed.isEmpty())
            return;
        dialog->accept();
        done(trimmed);
    });
    dialog->open();
}

void PresetList::confirm(const std::optional<QString>& question, const QString& action,
                         std::function<void()> done)
{
    if (!question) {
        done();
        return;
    }
    auto* box = new QMessageBox(QMessageBox::Question, tr("Layout Presets"), *question,
                                QMessageBox::NoButton, this);
    box->setObjectName(QStringLiteral("confirmPresetName"));
    box->setAttribute(Qt::WA_DeleteOnClose);
    QPushButton* yes = box->addButton(action, QMessageBox::AcceptRole);
    yes->setObjectName(QStringLiteral("confirmName"));
    box->setDefaultButton(box->addButton(QMessageBox::Cancel));
    connect(box, &QMessageBox::buttonClicked, this, [yes, done](QAbstractButton* clicked) {
        if (clicked == yes)
            done();
    });
    box->open();
}

} // namespace orvane
