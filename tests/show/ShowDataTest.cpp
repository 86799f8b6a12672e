#include "show/ShowData.h"

#include "base/ManualClock.h"

#include <QSignalSpy>
#include <QTest>

using namespace orvane;

namespace {

OSCMessage message(std::string address, std::vector<OSCArgument> arguments = {})
{
    return OSCMessage{std::move(address), std::move(arguments)};
}

OSCMessage textMessage(std::string address, const char* text)
{
    return message(std::move(address), {std::string(text)});
}

// One step of a scripted conversation with the show data, written as the console would say it:
//   "fire 1/14", "fire 1/14/2"       a cue fire event (list/number[/part])
//   "active 1/14P2 Chase 4 30%"     active cue text ("active" alone sends an empty text)
//   "wait 1.5"                      the clock moves on
void play(ShowData& show, ManualClock& clock, const QStringList& steps)
{
    for (const QString& step : steps) {
        const QString verb = step.section(u' ', 0, 0);
        const QString rest = step.section(u' ', 1);
        if (verb == u"fire")
            show.handle(message("/eos/out/event/cue/" + rest.toStdString() + "/fire"), "console");
        else if (verb == u"active")
            show.handle(textMessage("/eos/out/active/cue/text", rest.toUtf8().constData()),
                        "console");
        else if (verb == u"wait")
            clock.advance(rest.toDouble());
        else
            QFAIL(qPrintable("unknown step " + step));
    }
}

QString describe(const QList<EosCuePart>& parts)
{
    QStringList rows;
    for (const EosCuePart& part : parts)
        rows.append(QStringLiteral("%1:%2:%3").arg(part.number, part.label).arg(part.percent));
    return rows.join(QStringLiteral(" | "));
}

QString describe(const ShowCommand& command)
{
    const QString kind =
        QStringList{"marker", "layout", "start", "stop", "toggle"}[int(command.kind)];
    return command.text.isEmpty() ? kind : kind + u' ' + command.text;
}

QString describe(const QList<ShowField>& fields)
{
    QStringList rows;
    for (const ShowField& field : fields)
        rows.append(field.id + " " + field.label + "=" + field.value);
    return rows.join(QStringLiteral(" | "));
}

} // namespace

Q_DECLARE_METATYPE(std::vector<OSCArgument>)

class ShowDataTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void takesEosOutputAndWhoSentIt();
    void stopsHearingEosAfterThirtySecondsOfSilence();
    void raisesCueChangeWhenTheActiveCueChanges();
    void keepsThePartsOfTheActiveCue_data();
    void keepsThePartsOfTheActiveCue();
    void clocksTheActiveCueAndEachPart_data();
    void clocksTheActiveCueAndEachPart();
    void takesCommandsAndFields_data();
    void takesCommandsAndFields();
    void fieldsKeepTheirFirstPositionAndWatchedAddressesJoinThem();
    void clearingForgetsTheShow();
};

// Each value notifies once however often the console repeats it.
void ShowDataTest::takesEosOutputAndWhoSentIt()
{
    ManualClock clock;
    ShowData show(clock);
    QSignalSpy name(&show, &ShowData::showNameChanged);
    QSignalSpy sender(&show, &ShowData::eosSenderChanged);
    QSignalSpy hearing(&show, &ShowData::isHearingEosChanged);
    QSignalSpy pending(&show, &ShowData::pendingCueChanged);
    QSignalSpy active(&show, &ShowData::activeCueChanged);
    QSignalSpy parts(&show, &ShowData::activePartsChanged);
    for (int i = 0; i < 3; ++i) {
        show.handle(textMessage("/eos/out/show/name", "Demo Musical"), "10.0.0.5");
        show.handle(textMessage("/eos/out/active/cue/text", "1/14 Opening 5 45%"), "10.0.0.5");
        show.handle(textMessage("/eos/out/pending/cue/text", "1/20 Town Square 4"), "10.0.0.5");
        show.handle(textMessage("/eos/out/previous/cue/text", "1/10 Overture 3 100%"), "10.0.0.5");
    }
    show.handle(message("/eos/out/some/other/thing", {std::int32_t(3)}), "10.0.0.5");
    QCOMPARE(show.showName(), std::optional<QString>("Demo Musical"));
    QCOMPARE(show.activeCue()->token(), "1/14");
    QCOMPARE(show.pendingCue()->token(), "1/20");
    QCOMPARE(show.previousCue()->token(), "1/10");
    QCOMPARE(show.lastEosMessage(), std::optional(clock.wallNow()));
    QCOMPARE(show.activeCueSampledAt(), clock.wallNow());
    QCOMPARE(show.lastReceived(),
             std::optional<QString>("/eos/out/some/other/thing 3 from 10.0.0.5"));
    for (const QSignalSpy* spy : {&name, &sender, &hearing, &pending, &active})
        QCOMPARE(spy->count(), 1);
    QCOMPARE(parts.count(), 0); // a cue without parts keeps the parts list empty

    show.handle(message("/eos/out/pending/cue/text"), "10.0.0.9");
    QCOMPARE(show.pendingCue(), std::nullopt);
    QCOMPARE(show.eosSender(), std::optional<QString>("10.0.0.9"));
    // Only output under /eos/out/ is Eos output.
    show.handle(textMessage("/eos/in/show/name", "Other"), "elsewhere");
    QCOMPARE(show.eosSender(), std::optional<QString>("10.0.0.9"));
    QCOMPARE(show.showName(), std::optional<QString>("Demo Musical"));
}

void ShowDataTest::stopsHearingEosAfterThirtySecondsOfSilence()
{
    ManualClock clock;
    ShowData show(clock);
    QSignalSpy hearing(&show, &ShowData::isHearingEosChanged);
    clock.advance(1.0);
    show.handle(textMessage("/eos/out/show/name", "Show"), "console");
    clock.advance(29.0);
    show.handle(textMessage("/eos/out/show/name", "Show"), "console"); // heard again at 30 s
    clock.advance(30.9);
    QVERIFY(show.isHearingEos()); // the tick at 60 s finds exactly 30 s of silence
    clock.advance(1.0);
    QVERIFY(show.isHearingEos()); // not checked again before 62 s
    clock.advance(0.2);
    QVERIFY(!show.isHearingEos());
    QCOMPARE(hearing.count(), 2);

    // Messages that are not Eos output do not count as hearing the console.
    show.handle(textMessage("/tavrin/field/Scene", "Two"), "panel");
    QVERIFY(!show.isHearingEos());
}

void ShowDataTest::raisesCueChangeWhenTheActiveCueChanges()
{
    ManualClock clock;
    ShowData show(clock);
    QStringList raised;
    show.setOnCueChange([&](const std::optional<EosCue>& cue) {
        raised.append(cue ? cue->token() + " " + cue->label : QStringLiteral("none"));
    });
    play(show, clock,
         {"active 1/14 Opening 5 0%", "active 1/14 Opening 5 50%", "active 1/14P2 Chase 4 10%",
          "active 1/15 Town 3", "active 2/15 Other list 3", "active", "active",
          "active 1/15 Town 3"});
    QCOMPARE(raised,
             (QStringList{"1/14 Opening", "1/15 Town", "2/15 Other list", "none", "1/15 Town"}));
    QCOMPARE(show.reportedCueNumber(), std::optional<QString>("1/15"));
}

// The parts list follows the console: a fire of a new cue starts a new list; a part's fire or
// its text adds or updates its entry; the cue itself joins as part 1 beside other parts.
void ShowDataTest::keepsThePartsOfTheActiveCue_data()
{
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QString>("parts");
    QTest::addColumn<QString>("runningPart");

    const auto row = [](const char* name, QStringList steps, const char* parts,
                        const char* runningPart) {
        QTest::newRow(name) << steps << parts << runningPart;
    };

    row("a cue without parts lists none", {"fire 1/14", "active 1/14 Opening 5 45%"}, "", "1");
    row("a part's fire adds it beside the cue itself",
        {"fire 1/14", "active 1/14 Opening 5 10%", "fire 1/14/2"}, "1:Opening:10 | 2::0", "2");
    row("the cue's text updates part 1",
        {"fire 1/14", "active 1/14 Opening 5 10%", "active 1/14P2 Chase 4 30%",
         "active 1/14 Opening 5 60%"},
        "1:Opening:60 | 2:Chase:30", "1");
    row("parts in numeric order",
        {"active 1/14P10 Ten 1 1%", "active 1/14P2 Two 1 2%", "active 1/14 p3 Three 1 3%",
         "fire 1/14/12"},
        "2:Two:2 | 3:Three:3 | 10:Ten:1 | 12::0", "12");
    row("a repeated fire changes nothing",
        {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "fire 1/14/2"}, "2:Chase:50", "2");
    row("a part fired again starts over",
        {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "fire 1/14/3", "fire 1/14/2"},
        "2:Chase:0 | 3::0", "2");
    row("a fire of a new cue starts a new list",
        {"fire 1/14", "active 1/14P2 Chase 4 50%", "fire 1/15"}, "", "1");
    row("a fire of the same cue keeps the list",
        {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "fire 1/14"}, "1::0 | 2:Chase:50", "1");
    row("a fire in another list starts a new list",
        {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "fire 2/14/3"}, "3::0", "3");
    row("the text of another cue starts a new list",
        {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "active 1/15P2 Next 3 5%"}, "2:Next:5", "2");
    row("an empty active text clears the list", {"active 1/14P2 Chase 4 50%", "active"}, "", "");
    row("part 0 is the cue itself", {"fire 1/14/0", "active 1/14P0 Opening 5 20%"}, "", "1");
    row("part 1 is the cue itself",
        {"fire 1/14/1", "active 1/14P3 Cyc 2 20%", "active 1/14 Opening 5 40%"},
        "1:Opening:40 | 3:Cyc:20", "1");
    row("percent clamped, none is done",
        {"active 1/14P2 Over 4 250%", "active 1/14P3 Under 4 -5%", "active 1/14P4 Silent 4"},
        "2:Over:100 | 3:Under:0 | 4:Silent:100", "4");
}

void ShowDataTest::keepsThePartsOfTheActiveCue()
{
    QFETCH(QStringList, steps);
    QFETCH(QString, parts);
    QFETCH(QString, runningPart);
    ManualClock clock;
    ShowData show(clock);
    play(show, clock, steps);
    show.handle(textMessage("/eos/out/pending/cue/text", "1/99 Later 3"), "console");
    show.handle(textMessage("/eos/out/previous/cue/text", "1/9 Before 3 100%"), "console");
    QCOMPARE(describe(show.activeParts()), parts);
    QCOMPARE(show.runningPart().value_or(QString()), runningPart);
}

// Each row: what the console said, then the fade clock of the active cue ("") or of one part.
void ShowDataTest::clocksTheActiveCueAndEachPart_data()
{
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QString>("part");
    QTest::addColumn<bool>("hasClock");
    QTest::addColumn<double>("fade");
    QTest::addColumn<double>("startedAt"); // seconds after the first step
    QTest::addColumn<double>("reported");
    const auto row = [](const char* name, QStringList steps, const char* part, bool hasClock,
                        double fade = 0, double startedAt = 0, double reported = 0) {
        QTest::newRow(name) << steps << part << hasClock << fade << startedAt << reported;
    };
    const auto active = [](const char* text) {
        return QStringList{"active 1/1 Earlier 3 50%", "wait 2", QStringLiteral("active ") + text};
    };

    row("cue part way", active("1/14 Opening 10 40%"), "", true, 10, -2, 0.4);
    row("cue just fired", active("1/14 Opening 10 0%"), "", true, 10, 2, 0);
    row("cue under one percent is not begun", active("1/14 Opening 10 -3%"), "", true, 10, 2, 0);
    row("cue without percent is done", active("1/14 Opening 10"), "", true, 10, -8, 1);
    row("cue over a hundred is done", active("1/14 Opening 10 150%"), "", true, 10, -8, 1);
    row("cue in minutes and seconds", active("1/14 Long 2:30 50%"), "", true, 150, -73, 0.5);
    row("cue without time", active("1/14 Opening 45%"), "", false);
    row("cue of zero time", active("1/14 Snap 0 45%"), "", false);
    row("fire seen: the fade began at the fire",
        {"fire 1/14/2", "wait 1", "active 1/14P2 Chase 4 10%"}, "2", true, 4, 0.0, 0.1);
    row("no fire seen: placed by its percent", {"wait 1", "active 1/14P2 Chase 4 10%"}, "2", true,
        4, 0.6, 0.1);
    row("fire longer ago than the fade: placed by its percent",
        {"fire 1/14/2", "wait 5", "active 1/14P2 Chase 4 10%"}, "2", true, 4, 4.6, 0.1);
    row("fire of another part: placed by its percent",
        {"fire 1/14/3", "wait 1", "active 1/14P2 Chase 4 10%"}, "2", true, 4, 0.6, 0.1);
    row("fire of another cue: placed by its percent",
        {"fire 1/13/2", "wait 1", "active 1/14P2 Chase 4 10%"}, "2", true, 4, 0.6, 0.1);
    row("the cue's own fire starts part 1",
        {"fire 1/14", "active 1/14P2 Chase 4 0%", "wait 1", "active 1/14 Opening 5 10%"}, "1", true,
        5, 0.0, 0.1);
    row("a later report goes to the same clock",
        {"fire 1/14/2", "wait 1", "active 1/14P2 Chase 4 25%", "wait 0.5",
         "active 1/14P2 Chase 4 40%"},
        "2", true, 4, 0.0, 0.4);
    row("part in minutes and seconds", {"wait 10", "active 1/14P2 Slow 1:00 10%"}, "2", true, 60,
        4.0, 0.1);
    row("part without time", {"active 1/14P2 Chase 30%"}, "2", false);
    row("a part's fire without text has no clock yet", {"fire 1/14/2"}, "2", false);
}

void ShowDataTest::clocksTheActiveCueAndEachPart()
{
    QFETCH(QStringList, steps);
    QFETCH(QString, part);
    QFETCH(bool, hasClock);
    QFETCH(double, fade);
    QFETCH(double, startedAt);
    QFETCH(double, reported);
    ManualClock clock;
    ShowData show(clock);
    const WallTime start = clock.wallNow();
    play(show, clock, steps);
    std::optional<FadeClock> fadeClock = show.activeCueClock();
    const QList<EosCuePart> parts = show.activeParts();
    const auto entry = std::find_if(parts.begin(), parts.end(),
                                    [&](const EosCuePart& each) { return each.number == part; });
    if (!part.isEmpty()) {
        QVERIFY(entry != parts.end());
        fadeClock = entry->clock;
    }
    QCOMPARE(fadeClock.has_value(), hasClock);
    if (!hasClock)
        return;
    QCOMPARE(fadeClock->fade, fade);
    QCOMPARE(secondsBetween(start, fadeClock->startedAt), startedAt);
    QCOMPARE(fadeClock->reported, reported);
    QCOMPARE(fadeClock->hasAdvanced, reported > 0);
    QCOMPARE(fadeClock->advancedAt, clock.wallNow());
    if (!part.isEmpty()) {
        QCOMPARE(entry->sampledAt, clock.wallNow());
        QVERIFY(entry->hasText);
    }
}

void ShowDataTest::takesCommandsAndFields_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<std::vector<OSCArgument>>("arguments");
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("fields");
    using Arguments = std::vector<OSCArgument>;
    const auto row = [](const char* name, const char* address, Arguments arguments,
                        const char* command, const char* fields) {
        QTest::newRow(name) << address << arguments << command << fields;
    };
    const auto text = [](const char* value) { return Arguments{std::string(value)}; };

    row("start", "/tavrin/record/start", {}, "start", "");
    row("start in any case", "/TAVRIN/Record/Start", {}, "start", "");
    row("stop", "/tavrin/record/stop", {}, "stop", "");
    row("record anything toggles", "/tavrin/record/pause", {}, "toggle", "");
    row("start with more toggles", "/tavrin/record/start/now", {}, "toggle", "");
    row("marker with text", "/tavrin/marker", text("Big lift"), "marker Big lift", "");
    row("marker without text", "/tavrin/marker", {}, "marker Marker", "");
    row("marker with empty text", "/tavrin/marker", text(""), "marker Marker", "");
    row("layout", "/tavrin/layout", text("Wide Shot"), "layout Wide Shot", "");
    row("layout keeps its case", "/Tavrin/LAYOUT", text("Close"), "layout Close", "");
    row("layout with empty name", "/tavrin/layout", text(""), "", "");
    row("layout without name", "/tavrin/layout", {}, "", "");
    row("field", "/tavrin/field/Scene", text("Act 1"), "", "/tavrin/field/Scene Scene=Act 1");
    row("field label keeps case and joins words", "/TAVRIN/FIELD/Stage/left", text("open"), "",
        "/TAVRIN/FIELD/Stage/left Stage left=open");
    row("field without value", "/tavrin/field/Empty", {}, "", "/tavrin/field/Empty Empty=");
    row("field alone", "/tavrin/field", text("x"), "", "");
    row("unknown command", "/tavrin/explode", text("x"), "", "");
    row("not the prefix", "/tavrinx/record/start", {}, "", "");
}

void ShowDataTest::takesCommandsAndFields()
{
    QFETCH(QString, address);
    QFETCH(std::vector<OSCArgument>, arguments);
    QFETCH(QString, command);
    QFETCH(QString, fields);
    ManualClock clock;
    ShowData show(clock);
    QStringList commands;
    show.setOnCommand([&](const ShowCommand& raised) { commands.append(describe(raised)); });
    show.handle(message(address.toStdString(), arguments), "panel");
    QCOMPARE(commands, command.isEmpty() ? QStringList() : QStringList{command});
    QCOMPARE(describe(show.fields()), fields);
    QVERIFY(!show.isHearingEos());
}

// A field keeps the place where it was first heard; it notifies when its value or its time of
// arrival changes.
// A field keeps the place where it was first heard; it notifies when its value or its time of
// arrival changes. A watched address shows as a field under its own label, the first that
// matches, and the message still does what it does.
void ShowDataTest::fieldsKeepTheirFirstPositionAndWatchedAddressesJoinThem()
{
    ManualClock clock;
    ShowData show(clock);
    QSignalSpy changed(&show, &ShowData::fieldsChanged);
    show.handle(textMessage("/tavrin/field/Scene", "Act 1"), "panel");
    show.handle(textMessage("/tavrin/field/Sound", "Q 1"), "panel");
    show.handle(textMessage("/tavrin/field/Sound", "Q 1"), "panel"); // same moment, same value
    QCOMPARE(changed.count(), 2);
    clock.advance(2.0);
    show.handle(textMessage("/tavrin/field/Scene", "Act 2"), "panel");
    show.handle(textMessage("/TAVRIN/field/Scene", "Other"), "panel");
    show.handle(textMessage("/tavrin/field/Sound", "Q 1"), "panel"); // arrived again: new time
    QCOMPARE(changed.count(), 5);
    QCOMPARE(show.fields()[0].receivedAt, clock.wallNow());

    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    show.setWatchedAddresses({{QUuid::createUuid(), "Cue", "/cue/*"},
                              {QUuid::createUuid(), "Cue one", "/cue/1"},
                              {QUuid::createUuid(), "Fader", "/fader/1"},
                              {QUuid::createUuid(), "Console", "/eos/out/active/*"},
                              {QUuid::createUuid(), "Marks", "/tavrin/marker"}});
    QStringList commands;
    show.setOnCommand([&](const ShowCommand& raised) { commands.append(describe(raised)); });
    show.handle(message("/cue/1", {std::string("go"), std::int32_t(3)}), "panel");
    show.handle(message("/cues", {std::string("no")}), "panel");
    show.handle(message("/fader/1", {0.75f, true}), "panel");
    show.handle(message("/fader/10", {0.5f}), "panel");
    show.handle(textMessage("/eos/out/active/cue/text", "1/14 Opening 5 45%"), "console");
    show.handle(textMessage("/tavrin/marker", "Lift"), "panel");
    QLocale::setDefault(QLocale::system());
    QCOMPARE(describe(show.fields()), "/tavrin/field/Scene Scene=Act 2 | "
                                      "/tavrin/field/Sound Sound=Q 1 | "
                                      "/TAVRIN/field/Scene Scene=Other | /cue/* Cue=go 3 | "
                                      "/fader/1 Fader=0,75 On | "
                                      "/eos/out/active/* Console=1/14 Opening 5 45% | "
                                      "/tavrin/marker Marks=Lift");
    QCOMPARE(commands, QStringList{"marker Lift"});
    QCOMPARE(show.activeCue()->token(), "1/14");
}

void ShowDataTest::clearingForgetsTheShow()
{
    ManualClock clock;
    ShowData show(clock);
    QStringList cueChanges;
    show.setOnCueChange([&](const std::optional<EosCue>& cue) {
        cueChanges.append(cue ? cue->token() : QStringLiteral("none"));
    });
    show.handle(textMessage("/eos/out/show/name", "Show"), "console");
    play(show, clock, {"fire 1/14", "active 1/14 Opening 5 45%", "active 1/14P2 Chase 4 10%"});
    show.handle(textMessage("/eos/out/pending/cue/text", "1/15 Next 3"), "console");
    show.handle(textMessage("/eos/out/previous/cue/text", "1/13 Before 3"), "console");
    show.handle(textMessage("/tavrin/field/Scene", "Act 1"), "panel");
    QVERIFY(!show.activeParts().isEmpty());

    show.handle(message("/TAVRIN/Clear"), "panel");
    QCOMPARE(show.showName(), std::nullopt);
    QCOMPARE(show.activeCue(), std::nullopt);
    QCOMPARE(show.pendingCue(), std::nullopt);
    QCOMPARE(show.previousCue(), std::nullopt);
    QVERIFY(show.activeParts().isEmpty());
    QCOMPARE(show.activeCueClock(), std::nullopt);
    QVERIFY(show.fields().isEmpty());
    QCOMPARE(show.eosSender(), std::nullopt);
    QCOMPARE(show.lastEosMessage(), std::nullopt);
    QCOMPARE(show.lastFire(), std::nullopt);
    QCOMPARE(show.reportedCueNumber(), std::nullopt);
    QCOMPARE(show.runningPart(), std::nullopt);
    QVERIFY(!show.isHearingEos());
    QCOMPARE(show.lastReceived(), std::optional<QString>("/TAVRIN/Clear  from panel"));

    // The same cue heard again after clearing is a change, and its repeated fire counts anew.
    play(show, clock, {"fire 1/14", "active 1/14 Opening 5 45%", "fire 1/14/2"});
    QCOMPARE(cueChanges, (QStringList{"1/14", "1/14"}));
    QCOMPARE(describe(show.activeParts()), "1:Opening:45 | 2::0");
}

QTEST_GUILESS_MAIN(ShowDataTest)
#include "ShowDataTest.moc"
