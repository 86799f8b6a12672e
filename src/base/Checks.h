#pragma once

#include <source_location>
#include <thread>

class QObject;

namespace orvane {

// Checks an invariant. When it is broken: with strict checks (tests, ORVANE_STRICT_CHECKS=1)
// the program aborts with the caller's location; otherwise it is logged once per place and
// the caller takes its fallback. Returns `condition`.
//     if (!holds(frame.width == width_, "frames keep their size")) return;
bool holds(bool condition, const char* what,
           std::source_location where = std::source_location::current());

// Whether broken invariants abort. Read once from ORVANE_STRICT_CHECKS; tests may set it.
bool strictChecks();
void setStrictChecks(bool strict);

// Checks that the caller runs on the thread that owns `object`.
void assertOnOwnThread(const QObject* object,
                       std::source_location where = std::source_location::current());

// Remembers the thread that made it, for classes that are not QObjects. Move it to
// another thread with rebind() when the owner hands itself over.
class ThreadCheck {
public:
    ThreadCheck() : owner_(std::this_thread::get_id()) {}
    void rebind() { owner_ = std::this_thread::get_id(); }
    void check(std::source_location where = std::source_location::current()) const;

private:
    std::thread::id owner_;
};

} // namespace orvane
