#include "show/ShowData.h"

#include "base/ManualClock.h"

#include <QSignalSpy>
#include <QTest>

using namespace orvane;

namespace {

// Plays a conversation with the show data, each step as a console or a panel would say it:
//   "fire 1/14", "fire 1/14/2"       a cue fire event (list/number[/part])
//   "active 1/14P2 Chase 4 30%"     active cue text ("active" alone sends an empty text)
//   "/any/address some text"        a message with that text (none when there is no text)
//   "wait 1.5"                      the clock moves on
void play(ShowData& show, ManualClock& clock, const QStringList& steps,
          const QString& sender = QStringLiteral("console"))
{
    for (const QString& step : steps) {
        const QString verb = step.section(u' ', 0, 0);
        const QString rest = step.section(u' ', 1);
        std::vector<OSCArgument> text{rest.toStdString()};
        if (verb == u"wait")
            clock.advance(rest.toDouble());
        else if (verb == u"fire")
            show.handle({"/eos/out/event/cue/" + rest.toStdString() + "/fire", {}}, sender);
        else if (verb == u"active")
            show.handle({"/eos/out/active/cue/text", text}, sender);
        else
            show.handle({verb.toStdString(), rest.isEmpty() ? decltype(text){} : text}, sender);
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
    void takesEosOutputAndWhoSentItUntilItFallsSilent();
    void keepsThePartsOfTheActiveCue_data();
    void keepsThePartsOfTheActiveCue();
    void clocksTheActiveCueAndEachPart_data();
    void clocksTheActiveCueAndEachPart();
    void takesCommandsAndFields_data();
    void takesCommandsAndFields();
    void fieldsKeepTheirFirstPositionAndWatchedAddressesJoinThem();
    void raisesCueChangesAndClearingForgetsTheShow();
};

// Each value notifies once however often the console repeats it. After 30 s of silence the
// console no longer counts as heard, checked every 2 s.
void ShowDataTest::takesEosOutputAndWhoSentItUntilItFallsSilent()
{
    ManualClock clock;
    ShowData show(clock);
    QSignalSpy name(&show, &ShowData::showNameChanged);
    QSignalSpy sender(&show, &ShowData::eosSenderChanged);
    QSignalSpy hearing(&show, &ShowData::isHearingEosChanged);
    QSignalSpy pending(&show, &ShowData::pendingCueChanged);
    QSignalSpy active(&show, &ShowData::activeCueChanged);
    QSignalSpy parts(&show, &ShowData::activePartsChanged);
    for (int i = 0; i < 3; ++i)
        play(show, clock,
             {"/eos/out/show/name Demo Musical", "active 1/14 Opening 5 45%",
              "/eos/out/pending/cue/text 1/20 Town Square 4",
              "/eos/out/previous/cue/text 1/10 Overture 3 100%", "/eos/out/some/other/thing 3"},
             "10.0.0.5");
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

    // No text clears a cue; only output under /eos/out/ is Eos output. Heard last at 30 s.
    play(show, clock, {"wait 30", "/eos/out/pending/cue/text"}, "10.0.0.9");
    play(show, clock, {"/eos/in/show/name Other"}, "elsewhere");
    QCOMPARE(show.pendingCue(), std::nullopt);
    QCOMPARE(show.eosSender(), std::optional<QString>("10.0.0.9"));
    QCOMPARE(show.showName(), std::optional<QString>("Demo Musical"));
    clock.advance(30.9);
    QVERIFY(show.isHearingEos()); // the tick at 60 s finds exactly 30 s of silence
    clock.advance(1.0);
    QVERIFY(show.isHearingEos()); // not checked again before 62 s
    clock.advance(0.2);
    QVERIFY(!show.isHearingEos());
    QCOMPARE(hearing.count(), 2);
}

// The parts list follows the console: a fire of a new cue starts a new list; a part's fire or
// its text adds or updates its entry; the cue itself joins as part 1 beside other parts.
void ShowDataTest::keepsThePartsOfTheActiveCue_data()
{
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QString>("parts"); // then the running part
    const auto row = [](const char* name, QStringList steps, const char* parts) {
        QTest::newRow(name) << steps << parts;
    };
    row("a cue without parts lists none", {"fire 1/14", "active 1/14 Opening 5 45%"}, " 1");
    row("a part's fire adds it beside the cue itself",
        {"fire 1/14", "active 1/14 Opening 5 10%", "fire 1/14/2"}, "1:Opening:10 | 2::0 2");
    row("the cue's text updates part 1",
        {"fire 1/14", "active 1/14 Opening 5 10%", "active 1/14P2 Chase 4 30%",
         "active 1/14 Opening 5 60%"},
        "1:Opening:60 | 2:Chase:30 1");
    row("parts in numeric order",
        {"active 1/14P10 Ten 1 1%", "active 1/14P2 Two 1 2%", "active 1/14 p3 Three 1 3%",
         "fire 1/14/12"},
        "2:Two:2 | 3:Three:3 | 10:Ten:1 | 12::0 12");
    row("a repeated fire changes nothing",
        {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "fire 1/14/2"}, "2:Chase:50 2");
    row("a part fired again starts over",
        {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "fire 1/14/3", "fire 1/14/2"},
        "2:Chase:0 | 3::0 2");
    row("a fire of a new cue starts a new list",
        {"fire 1/14", "active 1/14P2 Chase 4 50%", "fire 1/15"}, " 1");
    row("a fire of the same cue keeps the list",
        {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "fire 1/14"}, "1::0 | 2:Chase:50 1");
    row("a fire in another list starts a new list",
        {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "fire 2/14/3"}, "3::0 3");
    row("the text of another cue starts a new list",
        {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "active 1/15P2 Next 3 5%"}, "2:Next:5 2");
    row("an empty active text clears the list", {"active 1/14P2 Chase 4 50%", "active"}, " ");
    row("part 0 is the cue itself", {"fire 1/14/0", "active 1/14P0 Opening 5 20%"}, " 1");
    row("part 1 is the cue itself",
        {"fire 1/14/1", "active 1/14P3 Cyc 2 20%", "active 1/14 Opening 5 40%"},
        "1:Opening:40 | 3:Cyc:20 1");
    row("percent clamped, none is done",
        {"active 1/14P2 Over 4 250%", "active 1/14P3 Under 4 -5%", "active 1/14P4 Silent 4"},
        "2:Over:100 | 3:Under:0 | 4:Silent:100 4");
}

void ShowDataTest::keepsThePartsOfTheActiveCue()
{
    QFETCH(QStringList, steps);
    QFETCH(QString, parts);
    ManualClock clock;
    ShowData show(clock);
    play(show, clock,
         steps + QStringList{"/eos/out/pending/cue/text 1/99 Later 3",
                             "/eos/out/previous/cue/text 1/9 Before 3 100%"});
    QCOMPARE(describe(show.activeParts()) + u' ' + show.runningPart().value_or(""), parts);
}

// Each row: what the console said, then the fade clock of the active cue (part "") or of one
// part: "fade startedAt reported", startedAt in seconds after the first step; "" for none.
void ShowDataTest::clocksTheActiveCueAndEachPart_data()
{
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QString>("part");
    QTest::addColumn<QString>("clock");
    const auto row = [](const char* name, QStringList steps, const char* part, const char* clock) {
        QTest::newRow(name) << steps << part << clock;
    };
    const auto active = [](const char* text) {
        return QStringList{"active 1/1 Earlier 3 50%", "wait 2", QStringLiteral("active ") + text};
    };
    row("cue part way", active("1/14 Opening 10 40%"), "", "10 -2 0.4");
    row("cue just fired", active("1/14 Opening 10 0%"), "", "10 2 0");
    row("cue under one percent is not begun", active("1/14 Opening 10 -3%"), "", "10 2 0");
    row("cue without percent is done", active("1/14 Opening 10"), "", "10 -8 1");
    row("cue over a hundred is done", active("1/14 Opening 10 150%"), "", "10 -8 1");
    row("cue in minutes and seconds", active("1/14 Long 2:30 50%"), "", "150 -73 0.5");
    row("cue without time", active("1/14 Opening 45%"), "", "");
    row("cue of zero time", active("1/14 Snap 0 45%"), "", "");
    row("fire seen: the fade began at the fire",
        {"fire 1/14/2", "wait 1", "active 1/14P2 Chase 4 10%"}, "2", "4 0 0.1");
    row("no fire seen: placed by its percent", {"wait 1", "active 1/14P2 Chase 4 10%"}, "2",
        "4 0.6 0.1");
    row("fire longer ago than the fade: placed by its percent",
        {"fire 1/14/2", "wait 5", "active 1/14P2 Chase 4 10%"}, "2", "4 4.6 0.1");
    row("fire of another part: placed by its percent",
        {"fire 1/14/3", "wait 1", "active 1/14P2 Chase 4 10%"}, "2", "4 0.6 0.1");
    row("fire of another cue: placed by its percent",
        {"fire 1/13/2", "wait 1", "active 1/14P2 Chase 4 10%"}, "2", "4 0.6 0.1");
    row("the cue's own fire starts part 1",
        {"fire 1/14", "active 1/14P2 Chase 4 0%", "wait 1", "active 1/14 Opening 5 10%"}, "1",
        "5 0 0.1");
    row("a later report goes to the same clock",
        {"fire 1/14/2", "wait 1", "active 1/14P2 Chase 4 25%", "wait 0.5",
         "active 1/14P2 Chase 4 40%"},
        "2", "4 0 0.4");
    row("part in minutes and seconds", {"wait 10", "active 1/14P2 Slow 1:00 10%"}, "2", "60 4 0.1");
    row("part without time", {"active 1/14P2 Chase 30%"}, "2", "");
    row("a part's fire without text has no clock yet", {"fire 1/14/2"}, "2", "");
}

void ShowDataTest::clocksTheActiveCueAndEachPart()
{
    QFETCH(QStringList, steps);
    QFETCH(QString, part);
    QFETCH(QString, clock);
    ManualClock time;
    ShowData show(time);
    const WallTime start = time.wallNow();
    play(show, time, steps);
    std::optional<FadeClock> fade = show.activeCueClock();
    const QList<EosCuePart> parts = show.activeParts();
    const auto entry = std::find_if(parts.begin(), parts.end(),
                                    [&](const EosCuePart& each) { return each.number == part; });
    if (!part.isEmpty()) {
        QVERIFY(entry != parts.end());
        fade = entry->clock;
        QCOMPARE(entry->sampledAt, time.wallNow());
        QVERIFY(entry->hasText || clock.isEmpty());
    }
    const QString described =
        fade ? QStringList{QString::number(fade->fade),
                           QString::number(secondsBetween(start, fade->startedAt)),
                           QString::number(fade->reported)}
                   .join(u' ')
             : QString();
    QCOMPARE(described, clock);
    if (fade) {
        QCOMPARE(fade->hasAdvanced, fade->reported > 0);
        QCOMPARE(fade->advancedAt, time.wallNow());
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
                        const char* command, const char* fields = "") {
        QTest::newRow(name) << address << arguments << command << fields;
    };
    const auto text = [](const char* value) { return Arguments{std::string(value)}; };
    row("start", "/tavrin/record/start", {}, "start");
    row("start in any case", "/TAVRIN/Record/Start", {}, "start");
    row("stop", "/tavrin/record/stop", {}, "stop");
    row("record anything toggles", "/tavrin/record/pause", {}, "toggle");
    row("start with more toggles", "/tavrin/record/start/now", {}, "toggle");
    row("marker with text", "/tavrin/marker", text("Big lift"), "marker Big lift");
    row("marker without text", "/tavrin/marker", {}, "marker Marker");
    row("marker with empty text", "/tavrin/marker", text(""), "marker Marker");
    row("layout", "/tavrin/layout", text("Wide Shot"), "layout Wide Shot");
    row("layout keeps its case", "/Tavrin/LAYOUT", text("Close"), "layout Close");
    row("layout with empty name", "/tavrin/layout", text(""), "");
    row("layout without name", "/tavrin/layout", {}, "");
    row("field", "/tavrin/field/Scene", text("Act 1"), "", "/tavrin/field/Scene Scene=Act 1");
    row("field label keeps case and joins words", "/TAVRIN/FIELD/Stage/left", text("open"), "",
        "/TAVRIN/FIELD/Stage/left Stage left=open");
    row("field without value", "/tavrin/field/Empty", {}, "", "/tavrin/field/Empty Empty=");
    row("field alone", "/tavrin/field", text("x"), "");
    row("unknown command", "/tavrin/explode", text("x"), "");
    row("not the prefix", "/tavrinx/record/start", {}, "");
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
    show.handle({address.toStdString(), arguments}, "panel");
    QCOMPARE(commands.join(u','), command);
    QCOMPARE(describe(show.fields()), fields);
    QVERIFY(!show.isHearingEos());
}

// A field keeps the place where it was first heard; it notifies when its value or its time of
// arrival changes. A watched address shows as a field under its own label, the first that
// matches, and the message still does what it does.
void ShowDataTest::fieldsKeepTheirFirstPositionAndWatchedAddressesJoinThem()
{
    ManualClock clock;
    ShowData show(clock);
    QSignalSpy changed(&show, &ShowData::fieldsChanged);
    // The same value at the same moment is no change; arriving again later is.
    play(show, clock,
         {"/tavrin/field/Scene Act 1", "/tavrin/field/Sound Q 1", "/tavrin/field/Sound Q 1"});
    QCOMPARE(changed.count(), 2);
    play(show, clock,
         {"wait 2", "/tavrin/field/Scene Act 2", "/TAVRIN/field/Scene Other",
          "/tavrin/field/Sound Q 1"});
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
    show.handle({"/cue/1", {std::string("go"), std::int32_t(3)}}, "panel");
    show.handle({"/fader/1", {0.75f, true}}, "panel");
    play(show, clock,
         {"/cues no", "/fader/10 0.5", "active 1/14 Opening 5 45%", "/tavrin/marker Lift"});
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

void ShowDataTest::raisesCueChangesAndClearingForgetsTheShow()
{
    ManualClock clock;
    ShowData show(clock);
    QStringList raised;
    show.setOnCueChange([&](const std::optional<EosCue>& cue) {
        raised.append(cue ? cue->token() + " " + cue->label : QStringLiteral("none"));
    });
    // A change of the cue's number or list raises one; its percent or a part does not.
    play(show, clock,
         {"active 1/14 Opening 5 0%", "active 1/14 Opening 5 50%", "active 1/14P2 Chase 4 10%",
          "active 1/15 Town 3", "active 2/15 Other list 3", "active", "active",
          "active 1/15 Town 3", "/eos/out/show/name Show", "fire 1/14", "active 1/14 Opening 5 45%",
          "active 1/14P2 Chase 4 10%", "/eos/out/pending/cue/text 1/15 Next 3",
          "/eos/out/previous/cue/text 1/13 Before 3", "/tavrin/field/Scene Act 1"});
    QCOMPARE(raised, (QStringList{"1/14 Opening", "1/15 Town", "2/15 Other list", "none",
                                  "1/15 Town", "1/14 Opening"}));
    QVERIFY(!show.activeParts().isEmpty());

    play(show, clock, {"/TAVRIN/Clear"}, "panel");
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
    QCOMPARE(raised.last(), "1/14 Opening");
    QCOMPARE(raised.size(), 7);
    QCOMPARE(describe(show.activeParts()), "1:Opening:45 | 2::0");
}

QTEST_GUILESS_MAIN(ShowDataTest)
#include "ShowDataTest.moc"
