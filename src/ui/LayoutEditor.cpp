#include "ui/LayoutEditor.h"

#include "app/AppModel.h"
#include "ui/LayoutCanvas.h"
#include "ui/PresetList.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace orvane {

LayoutEditor::LayoutEditor(AppModel& model, QWidget* parent)
    : QWidget(parent)
    , model_(model)
{
    setObjectName(QStringLiteral("layoutEditor"));

    auto* done = new QPushButton(tr("Done"), this);
    done->setObjectName(QStringLiteral("doneEditingLayout"));
    auto* reset = new QPushButton(tr("Reset Layout"), this);
    reset->setObjectName(QStringLiteral("resetLayout"));
    reset->setToolTip(tr("Puts every widget back where it starts out"));
    auto* hint = new QLabel(tr("Drag a widget to move it, or choose one with Tab and nudge it with the arrow keys."), this);
    hint->setObjectName(QStringLiteral("layoutHint"));
    canvas_ = new LayoutCanvas(model_, this);
    setFocusProxy(canvas_); // the arrow keys move the selected widget as soon as it is shown

    auto* bar = new QHBoxLayout;
    bar->addWidget(new PresetList(model_, this));
    bar->addWidget(reset);
    bar->addStretch(1);
    bar->addWidget(hint);
    bar->addStretch(1);
    bar->addWidget(done);

    auto* column = new QVBoxLayout(this);
    column->addLayout(bar);
    column->addWidget(canvas_, 1);

    connect(done, &QPushButton::clicked, this, [this] { model_.setEditingLayout(false); });
    connect(reset, &QPushButton::clicked, this, [this] {
        OverlayLayout layout = model_.settings().overlayLayout();
        layout.reset();
        model_.settings().setOverlayLayout(layout);
    });
}

} // namespace orvane
