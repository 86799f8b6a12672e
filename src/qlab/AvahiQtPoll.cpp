#include "qlab/AvahiQtPoll.h"

#include <QSocketNotifier>
#include <QTimer>

#include <sys/time.h>

#include <algorithm>

// Avahi declares these as incomplete types and leaves them to each poll implementation.
struct AvahiWatch {
    int fd = -1;
    AvahiWatchEvent events = AvahiWatchEvent(0);
    AvahiWatchEvent lastEvent = AvahiWatchEvent(0);
    AvahiWatchCallback callback = nullptr;
    void* userdata = nullptr;
    QSocketNotifier* read = nullptr;
    QSocketNotifier* write = nullptr;
};

struct AvahiTimeout {
    AvahiTimeoutCallback callback = nullptr;
    void* userdata = nullptr;
    QTimer* timer = nullptr;
};

namespace orvane {

namespace {

// A notifier or timer may be released from inside its own signal (Avahi frees watches from
// their callbacks), so it is deleted later rather than at once.
void release(QObject* object)
{
    if (!object)
        return;
    object->disconnect();
    object->deleteLater();
}

void fire(AvahiWatch* watch, AvahiWatchEvent event)
{
    watch->lastEvent = event;
    // The callback may free `watch`; nothing touches it afterwards.
    watch->callback(watch, watch->fd, event, watch->userdata);
}

void applyEvents(AvahiWatch* watch)
{
    watch->read->setEnabled(watch->events & AVAHI_WATCH_IN);
    watch->write->setEnabled(watch->events & AVAHI_WATCH_OUT);
}

AvahiWatch* watchNew(const AvahiPoll*, int fd, AvahiWatchEvent events, AvahiWatchCallback callback,
                     void* userdata)
{
    auto* watch = new AvahiWatch;
    watch->fd = fd;
    watch->events = events;
    watch->callback = callback;
    watch->userdata = userdata;
    watch->read = new QSocketNotifier(fd, QSocketNotifier::Read);
    watch->write = new QSocketNotifier(fd, QSocketNotifier::Write);
    QObject::connect(watch->read, &QSocketNotifier::activated,
                     [watch] { fire(watch, AVAHI_WATCH_IN); });
    QObject::connect(watch->write, &QSocketNotifier::activated,
                     [watch] { fire(watch, AVAHI_WATCH_OUT); });
    applyEvents(watch);
    return watch;
}

void watchUpdate(AvahiWatch* watch, AvahiWatchEvent events)
{
    watch->events = events;
    applyEvents(watch);
}

AvahiWatchEvent watchGetEvents(AvahiWatch* watch)
{
    return watch->lastEvent;
}

void watchFree(AvahiWatch* watch)
{
    watch->read->setEnabled(false);
    watch->write->setEnabled(false);
    release(watch->read);
    release(watch->write);
    delete watch;
}

void armTimeout(AvahiTimeout* timeout, const struct timeval* at)
{
    if (!at) {
        timeout->timer->stop();
        return;
    }
    struct timeval now;
    gettimeofday(&now, nullptr);
    const long long milliseconds = (at->tv_sec - now.tv_sec) * 1000LL + (at->tv_usec - now.tv_usec) / 1000;
    timeout->timer->start(int(std::clamp(milliseconds, 0LL, 24LL * 3600 * 1000)));
}

AvahiTimeout* timeoutNew(const AvahiPoll*, const struct timeval* at, AvahiTimeoutCallback callback,
                         void* userdata)
{
    auto* timeout = new AvahiTimeout;
    timeout->callback = callback;
    timeout->userdata = userdata;
    timeout->timer = new QTimer;
    timeout->timer->setSingleShot(true);
    timeout->timer->setTimerType(Qt::PreciseTimer);
    QObject::connect(timeout->timer, &QTimer::timeout, [timeout] {
        // The callback may free or re-arm `timeout`; nothing touches it afterwards.
        timeout->callback(timeout, timeout->userdata);
    });
    armTimeout(timeout, at);
    return timeout;
}

void timeoutUpdate(AvahiTimeout* timeout, const struct timeval* at)
{
    armTimeout(timeout, at);
}

void timeoutFree(AvahiTimeout* timeout)
{
    timeout->timer->stop();
    release(timeout->timer);
    delete timeout;
}

} // namespace

AvahiQtPoll::AvahiQtPoll()
{
    poll_.userdata = this;
    poll_.watch_new = watchNew;
    poll_.watch_update = watchUpdate;
    poll_.watch_get_events = watchGetEvents;
    poll_.watch_free = watchFree;
    poll_.timeout_new = timeoutNew;
    poll_.timeout_update = timeoutUpdate;
    poll_.timeout_free = timeoutFree;
}

AvahiQtPoll::~AvahiQtPoll() = default;

} // namespace orvane
