#include "show/EosCue.h"
#include "show/MessageText.h"

#include <QTest>

using namespace orvane;

Q_DECLARE_METATYPE(std::optional<EosCue>)
Q_DECLARE_METATYPE(std::optional<double>)
Q_DECLARE_METATYPE(std::optional<QString>)
Q_DECLARE_METATYPE(std::vector<OSCArgument>)
Q_DECLARE_METATYPE(OSCMessage)

namespace {

EosCue cue(QString list, QString number, std::optional<QString> part, QString label, QString time,
           std::optional<int> percent)
{
    return EosCue{list, number, part, std::nullopt, label, time, percent};
}

QString describe(const std::optional<EosCue>& cue)
{
    if (!cue)
        return QStringLiteral("no cue");
    return QStringLiteral("list '%1' number '%2' part '%3' label '%4' time '%5' percent %6")
        .arg(cue->list, cue->number, cue->part.value_or(QStringLiteral("-")), cue->label, cue->time,
             cue->percent ? QString::number(*cue->percent) : QStringLiteral("-"));
}

} // namespace

class MessageValuesTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void parsesCueText_data();
    void parsesCueText();
    void readsCueTimes_data();
    void readsCueTimes();
    void takesTheTextValue_data();
    void takesTheTextValue();
    void formatsWatchedValues_data();
    void formatsWatchedValues();
    void matchesWatchedAddresses_data();
    void matchesWatchedAddresses();
};

void MessageValuesTest::parsesCueText_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<std::optional<EosCue>>("expected");
    const std::optional<QString> noPart;
    const std::optional<int> noPercent;
    const auto row = [](const char* name, const char* text, std::optional<EosCue> expected) {
        QTest::newRow(name) << QString::fromUtf8(text) << expected;
    };

    row("cue with time and percent", "1/14 Opening Number 5 45%",
        cue("1", "14", noPart, "Opening Number", "5", 45));
    row("part in the token, two digits, list 2", "2/7P13 Cyc Colour Change 2 50%",
        cue("2", "7", "13", "Cyc Colour Change", "2", 50));
    row("lower-case part in the token", "1/14p2 Chase 4 30%",
        cue("1", "14", "2", "Chase", "4", 30));
    row("part as its own piece", "1/14 p2 Chase 4 30%", cue("1", "14", "2", "Chase", "4", 30));
    row("Part as its own piece", "1/14 Part3 Chase 4 30%", cue("1", "14", "3", "Chase", "4", 30));
    row("part word in lower case", "1/14 part3 Chase 4",
        cue("1", "14", "3", "Chase", "4", noPercent));
    row("PART in capitals is a label", "1/14 PART3 Chase",
        cue("1", "14", noPart, "PART3 Chase", "", noPercent));
    row("part piece only right after the token", "1/14 Chase p2 4",
        cue("1", "14", noPart, "Chase p2", "4", noPercent));
    row("part 0 is no part", "1/14P0 Label 3", cue("1", "14", noPart, "Label", "3", noPercent));
    row("point cue without a list", "30.5 Pickup",
        cue("", "30.5", noPart, "Pickup", "", noPercent));
    row("several spaces", "  1/14   Opening    Number   5   45%  ",
        cue("1", "14", noPart, "Opening Number", "5", 45));
    row("label with a percent inside", "1/14 50% Off Sale 5 45%",
        cue("1", "14", noPart, "50% Off Sale", "5", 45));
    row("percent that is no number stays in the label", "1/14 Label 5 x%",
        cue("1", "14", noPart, "Label 5 x%", "", noPercent));
    row("minutes and seconds", "1/14 Long Fade 2:30",
        cue("1", "14", noPart, "Long Fade", "2:30", noPercent));
    row("token only", "1/14", cue("1", "14", noPart, "", "", noPercent));
    row("only spaces", "    ", std::nullopt);
    row("dotted version is no cue", "14.5.1 Label", std::nullopt);
    row("part marker alone is no cue", "P2 Label", std::nullopt);
}

void MessageValuesTest::parsesCueText()
{
    QFETCH(QString, text);
    QFETCH(std::optional<EosCue>, expected);
    const std::optional<EosCue> parsed = EosCue::parse(text);
    QCOMPARE(describe(parsed), describe(expected));
    QVERIFY(parsed == expected);
}

void MessageValuesTest::readsCueTimes_data()
{
    QTest::addColumn<QString>("time");
    QTest::addColumn<std::optional<double>>("seconds");
    const std::optional<double> none;
    QTest::newRow("seconds") << "5" << std::optional(5.0);
    QTest::newRow("minutes and seconds") << "2:30" << std::optional(150.0);
    QTest::newRow("hours too") << "1:02:30" << std::optional(3750.0);
    QTest::newRow("missing minutes") << ":30" << none;
    QTest::newRow("four pieces") << "1:2:3:4" << none;
    QTest::newRow("letters") << "5s" << none;
}

void MessageValuesTest::readsCueTimes()
{
    QFETCH(QString, time);
    QFETCH(std::optional<double>, seconds);
    QCOMPARE(EosCue::durationOf(time), seconds);
}

void MessageValuesTest::takesTheTextValue_data()
{
    QTest::addColumn<OSCMessage>("message");
    QTest::addColumn<std::optional<QString>>("text");
    const std::optional<QString> none;
    const auto message = [](std::vector<OSCArgument> arguments) {
        return OSCMessage{"/x", std::move(arguments)};
    };
    QTest::newRow("int") << message({std::int32_t(-42)}) << std::optional<QString>("-42");
    QTest::newRow("whole float keeps .0") << message({1.0f}) << std::optional<QString>("1.0");
    QTest::newRow("float shortest, not its binary value")
        << message({0.1f}) << std::optional<QString>("0.1");
    QTest::newRow("string") << message({std::string("Act 1 · Scene 2")})
                            << std::optional<QString>(QString::fromUtf8("Act 1 · Scene 2"));
    QTest::newRow("first argument only")
        << message({std::string("a"), std::int32_t(1)}) << std::optional<QString>("a");
    QTest::newRow("bool gives none") << message({true}) << none;
    QTest::newRow("no argument") << message({}) << none;
}

void MessageValuesTest::takesTheTextValue()
{
    QFETCH(OSCMessage, message);
    QFETCH(std::optional<QString>, text);
    QCOMPARE(messageTextValue(message), text);
}

void MessageValuesTest::formatsWatchedValues_data()
{
    QTest::addColumn<std::vector<OSCArgument>>("arguments");
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("value");
    const auto row = [](const char* name, std::vector<OSCArgument> arguments, const char* locale,
                        const char* value) { QTest::newRow(name) << arguments << locale << value; };
    const std::vector<OSCArgument> mixed{
        std::int32_t(3), 0.5f, std::string("go"), true, false, QByteArray("blob"), OSCNull{}};
    row("every kind, English", mixed, "en_US", "3 0.5 go On Off");
    row("every kind, German", mixed, "de_DE", "3 0,5 go On Off");
    row("whole float has no fraction", {2.0f}, "en_US", "2");
    row("two fraction digits at most", {1.236f}, "en_US", "1.24");
    row("grouped thousands", {1234.5f}, "en_US", "1,234.5");
}

void MessageValuesTest::formatsWatchedValues()
{
    QFETCH(std::vector<OSCArgument>, arguments);
    QFETCH(QString, locale);
    QFETCH(QString, value);
    QCOMPARE(watchedValueText(arguments, QLocale(locale)), value);
}

void MessageValuesTest::matchesWatchedAddresses_data()
{
    QTest::addColumn<QString>("watched");
    QTest::addColumn<QString>("address");
    QTest::addColumn<bool>("matches");
    const auto row = [](const char* name, const char* watched, const char* address, bool matches) {
        QTest::newRow(name) << watched << address << matches;
    };
    row("prefix", "/cue/*", "/cue/1/start", true);
    row("prefix itself", "/cue/*", "/cue/", true);
    row("prefix is not a word", "/cue/*", "/cues", false);
    row("prefix keeps case", "/cue/*", "/CUE/1", false);
    row("star alone", "*", "/anything", true);
    row("exact is not a prefix", "/fader/1", "/fader/10", false);
    row("exact keeps case", "/fader/1", "/Fader/1", false);
    row("star only at the end", "/a*/b", "/ax/b", false);
}

void MessageValuesTest::matchesWatchedAddresses()
{
    QFETCH(QString, watched);
    QFETCH(QString, address);
    QFETCH(bool, matches);
    QCOMPARE(watchedAddressMatches(WatchedAddress{QUuid::createUuid(), "Label", watched}, address),
             matches);
}

QTEST_GUILESS_MAIN(MessageValuesTest)
#include "MessageValuesTest.moc"
