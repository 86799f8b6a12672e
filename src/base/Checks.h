#pragma once

#include <thread>

class QObject;

namespace orvane {

// Where a check was made. (std::source_location is not available with every compiler we use.)
struct SourceLocation {
    const char* file = "";
    unsigned line = 0;
    static constexpr SourceLocation current(const char* file = __builtin_FILE(),
                                            unsigned line = __builtin_LINE())
    {
        return {file, line};
    }
};

// Checks an invariant. When it is broken: with strict checks (tests, ORVANE_STRICT_CHECKS=1)
// the program aborts with the caller's location; otherwise it is logged once per place and
// the caller takes its fallback. Returns `condition`.
//     if (!holds(frame.width == width_, "frames keep their size")) return;
bool holds(bool condition, const char* what,
           SourceLocation where = SourceLocation::current());

// Whether broken invariants abort. Read once from ORVANE_STRICT_CHECKS; tests may set it.
bool strictChecks();
void setStrictChecks(bool strict);

// Checks that the caller runs on the thread that owns `object`.
void assertOnOwnThread(const QObject* object,
                       SourceLocation where = SourceLocation::current());

// Remembers the thread that made it, for classes that are not QObjects. Move it to
// another thread with rebind() when the owner hands itself over.
class ThreadCheck {
public:
    ThreadCheck() : owner_(std::this_thread::get_id()) {}
    void rebind() { owner_ = std::this_thread::get_id(); }
    void check(SourceLocation where = SourceLocation::current()) const;

private:
    std::thread::id owner_;
};

} // namespace orvane
