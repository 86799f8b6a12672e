#pragma once

#include <QWidget>

namespace orvane {

class AppModel;
class LayoutCanvas;

// Where the operator arranges the overlay: a bar ("Done", "Reset Layout", the presets) above
// the picture, on which each widget of the overlay is dragged to its place. Shown in place of
// the cameras while the model is editing the layout. Main thread only.
class LayoutEditor : public QWidget {
    Q_OBJECT

public:
    explicit LayoutEditor(AppModel& model, QWidget* parent = nullptr);

    LayoutCanvas& canvas() { return *canvas_; }

private:
    AppModel& model_;
    LayoutCanvas* canvas_ = nullptr;
};

} // namespace orvane
