#pragma once

#include <avahi-common/watch.h>

#include <memory>

namespace orvane {

// Runs the Avahi client library's file descriptor watches and timeouts on the Qt event loop
// of the thread that made it. Main thread only.
class AvahiQtPoll {
public:
    AvahiQtPoll();
    ~AvahiQtPoll();
    AvahiQtPoll(const AvahiQtPoll&) = delete;
    AvahiQtPoll& operator=(const AvahiQtPoll&) = delete;

    // The poll table to hand to avahi_client_new(); valid while this object lives.
    const AvahiPoll* poll() const { return &poll_; }

private:
    AvahiPoll poll_;
};

} // namespace orvane
