#pragma once

#include <QUuid>
#include <QWidget>

#include <functional>
#include <optional>

class QComboBox;
class QPushButton;

namespace orvane {

class AppModel;
class AppSettings;

// The saved layouts in the layout editor's bar: a list in which choosing a preset applies it
// and the active one is shown as chosen ("Custom" when none matches), and the buttons that
// save the current look as a preset, rename the chosen one and delete it. A name another
// preset already has is taken only after asking, since the layout command picks the first
// preset of a name. Main thread only.
class PresetList : public QWidget {
    Q_OBJECT

public:
    explicit PresetList(AppModel& model, QWidget* parent = nullptr);

private:
    void refresh();
    void choose(int index);
    void askToSave();
    void askToRename();
    void deleteChosen();
    // Asks for a name (refusing blanks), with `help` below the field when there is one, and
    // hands it on trimmed.
    void askForName(const QString& title, const QString& action, const QString& name,
                    const QString& help, std::function<void(const QString&)> done);
    // Asks before `done` when `question` has something to ask; else does it at once.
    void confirm(const std::optional<QString>& question, const QString& action,
                 std::function<void()> done);
    std::optional<QUuid> chosenPreset() const;

    AppSettings& settings_;
    QComboBox* list_ = nullptr;
    QPushButton* rename_ = nullptr;
    QPushButton* delete_ = nullptr;
};

} // namespace orvane
