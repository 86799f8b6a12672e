#pragma once

#include "settings/AppSettings.h"

#include <QCheckBox>
#include <QFocusEvent>
#include <QLabel>
#include <QLineEdit>
#include <QSignalBlocker>

#include <optional>

namespace orvane {

// A field for a network port: takes whole numbers only, and hands over what was typed even
// outside 1 to 65535, so that the component using the port can say what is wrong with it.
// Leaving the field empty puts the stored port back. Main thread only.
class PortField : public QLineEdit {
    Q_OBJECT

public:
    explicit PortField(QWidget* parent = nullptr);

    // The port typed, once the field holds a whole number.
    std::optional<int> port() const;
    void showPort(int port);

Q_SIGNALS:
    void portEdited(int port);

protected:
    void focusOutEvent(QFocusEvent* event) override;

private:
    int shown_ = 0;
};

// A grey, wrapping line for a component's state or advice; hidden while it has no text.
QLabel* makeStatusLabel(const QString& objectName, QWidget* parent);
void showStatus(QLabel* label, const QString& text);

// Binds a control to one setting both ways: the control shows the setting now and whenever it
// changes, and writes it at once when the user changes the control. `get`, `set` and
// `changed` are AppSettings' accessor, setter and NOTIFY signal for one key.
template <class Get, class Set, class Changed>
void bindSetting(QCheckBox* box, AppSettings& settings, Get get, Set set, Changed changed)
{
    const auto refresh = [box, &settings, get] {
        const QSignalBlocker block(box);
        box->setChecked((settings.*get)());
    };
    refresh();
    QObject::connect(&settings, changed, box, refresh);
    QObject::connect(box, &QCheckBox::clicked, box,
                     [&settings, set](bool checked) { (settings.*set)(checked); });
}

// Text fields write when the user presses Return or leaves the field, so that a host or a
// name is not tried letter by letter.
template <class Get, class Set, class Changed>
void bindSetting(QLineEdit* field, AppSettings& settings, Get get, Set set, Changed changed)
{
    const auto refresh = [field, &settings, get] {
        if (field->text() != (settings.*get)())
            field->setText((settings.*get)());
    };
    refresh();
    QObject::connect(&settings, changed, field, refresh);
    QObject::connect(field, &QLineEdit::editingFinished, field,
                     [field, &settings, set] { (settings.*set)(field->text()); });
}

template <class Get, class Set, class Changed>
void bindSetting(PortField* field, AppSettings& settings, Get get, Set set, Changed changed)
{
    const auto refresh = [field, &settings, get] { field->showPort((settings.*get)()); };
    refresh();
    QObject::connect(&settings, changed, field, refresh);
    QObject::connect(field, &PortField::portEdited, field,
                     [&settings, set](int port) { (settings.*set)(port); });
}

} // namespace orvane
