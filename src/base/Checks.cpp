#include "base/Checks.h"

#include <QLoggingCategory>
#include <QMutex>
#include <QObject>
#include <QSet>
#include <QThread>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace orvane {

namespace {

Q_LOGGING_CATEGORY(lcChecks, "orvane.checks")

std::atomic<int>& strictness()
{
    // -1: not read yet; 0: log; 1: abort.
    static std::atomic<int> value{-1};
    return value;
}

void report(const char* what, const SourceLocation& where)
{
    if (strictChecks()) {
        std::fprintf(stderr, "%s:%u: broken invariant: %s\n", where.file, where.line, what);
        std::fflush(stderr);
        std::abort();
    }
    static QMutex mutex;
    static QSet<QString> reported;
    const QString key = QString::fromUtf8(where.file) + QLatin1Char(':') +
                        QString::number(where.line);
    {
        QMutexLocker lock(&mutex);
        if (reported.contains(key))
            return;
        reported.insert(key);
    }
    qCWarning(lcChecks, "%s:%u: broken invariant: %s", where.file, where.line, what);
}

} // namespace

bool strictChecks()
{
    int value = strictness().load();
    if (value < 0) {
        value = qEnvironmentVariableIntValue("ORVANE_STRICT_CHECKS") != 0 ? 1 : 0;
        strictness().store(value);
    }
    return value == 1;
}

void setStrictChecks(bool strict)
{
    strictness().store(strict ? 1 : 0);
}

bool holds(bool condition, const char* what, SourceLocation where)
{
    if (!condition)
        report(what, where);
    return condition;
}

void assertOnOwnThread(const QObject* object, SourceLocation where)
{
    if (object && object->thread() != QThread::currentThread())
        report("called from a thread that does not own the object", where);
}

void ThreadCheck::check(SourceLocation where) const
{
    if (owner_ != std::this_thread::get_id())
        report("called from a thread that does not own the object", where);
}

} // namespace orvane
