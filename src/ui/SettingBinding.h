#pragma once

#include <QMetaProperty>
#include <QObject>
#include <QVariant>

#include <functional>

class QAbstractButton;
class QLabel;
class QLineEdit;
class QSlider;

namespace orvane {

class AppSettings;

// Keeps one control and one setting in step: the control shows the setting's value now and
// after every change made elsewhere, and what the user does with the control is written to the
// setting at once. The setting is named by its key. A child of the control. Main thread only.
class SettingBinding : public QObject {
    Q_OBJECT

public:
    SettingBinding(AppSettings& settings, const char* key,
                   std::function<void(const QVariant&)> show, QObject* control);

    void write(const QVariant& value);

public Q_SLOTS:
    void refresh();

private:
    AppSettings& settings_;
    QMetaProperty property_;
    std::function<void(const QVariant&)> show_;
};

// A check box or switch bound to a Bool setting; its object name becomes the key.
void bindSwitch(QAbstractButton* button, AppSettings& settings, const char* key);
// A line edit bound to a String setting; its object name becomes the key.
void bindText(QLineEdit* edit, AppSettings& settings, const char* key);
// A slider bound to a Double setting, in steps of 1 / `stepsPerUnit`; its object name becomes
// the key. `value` shows the setting as a whole percentage.
void bindSlider(QSlider* slider, QLabel* value, AppSettings& settings, const char* key,
                int stepsPerUnit = 100);

} // namespace orvane
