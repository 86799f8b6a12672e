#include "ui/SidebarSections.h"

#include "app/AppModel.h"

#include <QLabel>
#include <QLocale>

namespace orvane {

ListenerSection::ListenerSection(AppModel& model, QWidget* parent)
    : SidebarSection(tr("OSC Listener"), model.settings(), "oscEnabled", parent)
    , model_(model)
{
    state_ = addLine(QStringLiteral("oscState"));
    sender_ = addLine(QStringLiteral("oscLastSender"));
    lastMessage_ = addLine(QStringLiteral("oscLastMessage"), true);
    OSCListener& listener = model_.input().listener();
    connect(&listener, &OSCListener::stateChanged, this, &ListenerSection::refresh);
    connect(&listener, &OSCListener::lastSenderChanged, this, &ListenerSection::refresh);
    connect(&model_.show(), &ShowData::lastReceivedChanged, this, &ListenerSection::heard);
    refresh();
    showLine(lastMessage_, {});
}

void ListenerSection::refresh()
{
    const OSCListener& listener = model_.input().listener();
    const OSCListener::State state = listener.state();
    switch (state.kind) {
    case OSCListener::State::Kind::listening:
        setStatus(StatusDot::Status::working);
        break;
    case OSCListener::State::Kind::failed:
        setStatus(StatusDot::Status::needsUser);
        break;
    case OSCListener::State::Kind::off:
        setStatus(StatusDot::Status::off);
        break;
    }
    showLine(state_, listener.stateText());
    const auto sender = listener.lastSender();
    showLine(sender_, sender ? tr("Last sender: %1").arg(*sender) : QString());
    if (state.kind == OSCListener::State::Kind::off)
        showLine(lastMessage_, {});
}

void ListenerSection::heard()
{
    // The newest message from any source, with the moment it came.
    const auto message = model_.show().lastReceived();
    if (!message || model_.input().listener().state().kind == OSCListener::State::Kind::off) {
        showLine(lastMessage_, {});
        return;
    }
    const QTime at = toDateTime(model_.clock().wallNow()).toLocalTime().time();
    showLine(lastMessage_,
             tr("%1  %2").arg(QLocale().toString(at, QStringLiteral("HH:mm:ss")), *message));
}

} // namespace orvane
