#pragma once

#include <QWidget>

class QGridLayout;

namespace orvane {

class AppModel;
class FeedView;

// Every camera side by side: the main camera first, then the extra cameras in their order;
// one fills the place, two sit side by side, three or four make two rows of two. Follows
// the extra cameras as they come and go. Main thread only.
class CameraGrid : public QWidget {
    Q_OBJECT

public:
    explicit CameraGrid(AppModel& model, QWidget* parent = nullptr);

    // The views in the order they are laid out, the main camera's first.
    QList<FeedView*> views() const { return views_; }

private:
    void rebuild();

    AppModel& model_;
    QGridLayout* grid_ = nullptr;
    QList<FeedView*> views_;
};

} // namespace orvane
