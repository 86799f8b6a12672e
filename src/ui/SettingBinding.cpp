#include "ui/SettingBinding.h"

#include "base/Checks.h"
#include "settings/AppSettings.h"

#include <QAbstractButton>
#include <QLabel>
#include <QLineEdit>
#include <QSignalBlocker>
#include <QSlider>

#include <cmath>

namespace orvane {

SettingBinding::SettingBinding(AppSettings& settings, const char* key,
                               std::function<void(const QVariant&)> show, QObject* control)
    : QObject(control)
    , settings_(settings)
    , property_(settings.metaObject()->property(settings.metaObject()->indexOfProperty(key)))
    , show_(std::move(show))
{
    if (!holds(property_.isValid() && property_.hasNotifySignal(), "a binding names a setting"))
        return;
    connect(&settings_, property_.notifySignal(), this,
            metaObject()->method(metaObject()->indexOfSlot("refresh()")));
    refresh();
}

void SettingBinding::write(const QVariant& value)
{
    if (property_.isValid())
        property_.write(&settings_, value);
}

void SettingBinding::refresh()
{
    if (property_.isValid())
        show_(property_.read(&settings_));
}

void bindSwitch(QAbstractButton* button, AppSettings& settings, const char* key)
{
    button->setObjectName(QString::fromLatin1(key));
    button->setCheckable(true);
    auto* binding = new SettingBinding(
        settings, key,
        [button](const QVariant& value) {
            const QSignalBlocker quiet(button);
            button->setChecked(value.toBool());
        },
        button);
    QObject::connect(button, &QAbstractButton::toggled, binding,
                     [binding](bool on) { binding->write(on); });
}

void bindText(QLineEdit* edit, AppSettings& settings, const char* key)
{
    edit->setObjectName(QString::fromLatin1(key));
    auto* binding = new SettingBinding(
        settings, key,
        [edit](const QVariant& value) {
            // Only a change made elsewhere replaces the text, so typing keeps its cursor.
            if (edit->text() != value.toString())
                edit->setText(value.toString());
        },
        edit);
    QObject::connect(edit, &QLineEdit::textEdited, binding,
                     [binding](const QString& text) { binding->write(text); });
}

void bindSlider(QSlider* slider, QLabel* value, AppSettings& settings, const char* key,
                int stepsPerUnit)
{
    slider->setObjectName(QString::fromLatin1(key));
    const auto showPercent = [value, slider, stepsPerUnit] {
        if (value)
            value->setText(
                QObject::tr("%1%").arg(std::lround(100.0 * slider->value() / stepsPerUnit)));
    };
    auto* binding = new SettingBinding(
        settings, key,
        [slider, showPercent, stepsPerUnit](const QVariant& stored) {
            const QSignalBlocker quiet(slider);
            slider->setValue(int(std::lround(stored.toDouble() * stepsPerUnit)));
            showPercent();
        },
        slider);
    QObject::connect(slider, &QSlider::valueChanged, binding,
                     [binding, showPercent, stepsPerUnit](int steps) {
                         binding->write(double(steps) / stepsPerUnit);
                         showPercent();
                     });
}

} // namespace orvane
