#include "ui/CameraGrid.h"

#include "app/AppModel.h"
#include "ui/FeedView.h"

#include <QGridLayout>

#include <algorithm>

namespace orvane {

CameraGrid::CameraGrid(AppModel& model, QWidget* parent)
    : QWidget(parent)
    , model_(model)
{
    setObjectName(QStringLiteral("cameraGrid"));
    grid_ = new QGridLayout(this);
    grid_->setContentsMargins(0, 0, 0, 0);
    grid_->setSpacing(2);
    views_.append(new FeedView(model_, nullptr, this));
    connect(&model_, &AppModel::extraFeedsChanged, this, &CameraGrid::rebuild);
    rebuild();
}

void CameraGrid::rebuild()
{
    // Views of feeds that are gone go; the others keep their place in the new order.
    const auto feeds = model_.extraFeeds();
    QList<FeedView*> kept;
    for (FeedView* view : views_.mid(1)) {
        grid_->removeWidget(view);
        if (std::find(feeds.begin(), feeds.end(), view->feed()) == feeds.end())
            delete view;
        else
            kept.append(view);
    }
    QList<FeedView*> views{views_.first()};
    for (CameraFeed* feed : feeds) {
        const auto found = std::find_if(kept.begin(), kept.end(),
                                        [feed](FeedView* view) { return view->feed() == feed; });
        views.append(found != kept.end() ? *found : new FeedView(model_, feed, this));
    }
    views_ = views;

    grid_->removeWidget(views_.first());
    const int columns = views_.size() == 1 ? 1 : 2;
    for (qsizetype i = 0; i < views_.size(); ++i) {
        grid_->addWidget(views_[i], int(i / columns), int(i % columns));
        views_[i]->show();
    }
    for (int column = 0; column < 2; ++column)
        grid_->setColumnStretch(column, column < columns ? 1 : 0);
    for (int row = 0; row < 2; ++row)
        grid_->setRowStretch(row, row * columns < views_.size() ? 1 : 0);
}

} // namespace orvane
