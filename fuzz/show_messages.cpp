// Feeds arbitrary text to the cue text parser and arbitrary conversations to the show data:
// each input is a run of messages (an address chosen by one byte, then a string argument up to
// the next newline), with the clock moved between them. Nothing may crash, the parts list must
// stay in part-number order, and every part's fade clock must show a value in 0...1.

#include "base/ManualClock.h"
#include "show/EosCue.h"
#include "show/ShowData.h"

#include <cstdlib>

namespace {

const char* const kAddresses[] = {
    "/eos/out/active/cue/text",
    "/eos/out/pending/cue/text",
    "/eos/out/previous/cue/text",
    "/eos/out/event/cue/1/14/fire",
    "/eos/out/event/cue/1/14/2/fire",
    "/eos/out/event/cue/1/15/fire",
    "/eos/out/show/name",
    "/tavrin/field/Scene",
    "/tavrin/marker",
    "/tavrin/clear",
    "/tavrin/record",
    "/watched/x",
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orvane;
    static ManualClock clock;
    static ShowData show(clock);
    static const bool once = [] {
        show.setWatchedAddresses({{QUuid(), "Watched", "/watched/*"}});
        return true;
    }();
    (void)once;

    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    (void)EosCue::parse(QString::fromUtf8(input));

    for (const QByteArray& line : input.split('\n')) {
        if (line.isEmpty())
            continue;
        const auto code = static_cast<std::uint8_t>(line[0]);
        clock.advance(double(code % 16) * 0.25);
        const char* address = kAddresses[code % std::size(kAddresses)];
        show.handle(OSCMessage{address, {line.mid(1).toStdString()}}, "fuzz");
    }

    const QList<EosCuePart> parts = show.activeParts();
    for (qsizetype i = 0; i < parts.size(); ++i) {
        if (parts[i].percent < 0 || parts[i].percent > 100)
            std::abort();
        if (parts[i].clock) {
            const double shown = parts[i].clock->shownProgress(clock.wallNow());
            if (!(shown >= 0 && shown <= 1))
                std::abort();
        }
        bool leftIsNumber = false;
        bool rightIsNumber = false;
        if (i > 0 &&
            parts[i - 1].number.toLongLong(&leftIsNumber) >=
                parts[i].number.toLongLong(&rightIsNumber) &&
            leftIsNumber && rightIsNumber)
            std::abort();
    }
    return 0;
}
