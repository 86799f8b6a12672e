// `orvane recover FOLDER`: finishes the recordings in FOLDER that a crash or a power cut cut
// off, as Orvane does by itself at start for its recordings folder, and says what it did.

#include "commands/Command.h"

#include "app/RecordingRecovery.h"

#include <QCommandLineParser>
#include <QFileInfo>
#include <QRegularExpression>

#include <cstdio>

namespace orvane {

namespace {

void printLine(std::FILE* to, const QString& line)
{
    std::fputs(qPrintable(line), to);
    std::fputc('\n', to);
    std::fflush(to);
}

int run(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Finishes the recordings in FOLDER that were cut off by a crash or a power cut: each "
        "movie becomes an ordinary one with its chapters, and the cue log and marker lists are "
        "written from the recording's journal, which then goes. Prints one sentence per "
        "recording. Exits with 0 when every cut-off recording was recovered (or there was none), "
        "1 when one was left as it was."));
    const QCommandLineOption helpOption({QStringLiteral("h"), QStringLiteral("help")},
                                        QStringLiteral("Show this help."));
    parser.addOption(helpOption);
    parser.addPositionalArgument(QStringLiteral("FOLDER"),
                                 QStringLiteral("The recordings folder."));
    if (!parser.parse(QStringList{QStringLiteral("orvane recover")} + arguments)) {
        printLine(stderr, QStringLiteral("orvane recover: ") + parser.errorText());
        return 2;
    }
    if (parser.isSet(helpOption)) {
        QString help = parser.helpText();
        help.replace(QRegularExpression(QStringLiteral("^Usage: [^\\[]*")),
                     QStringLiteral("Usage: orvane recover "));
        std::fputs(qPrintable(help), stdout);
        return 0;
    }
    if (parser.positionalArguments().size() != 1) {
        printLine(stderr,
                  QStringLiteral("orvane recover: give one recordings folder (see --help)"));
        return 2;
    }
    const QString folder = parser.positionalArguments().constFirst();
    if (!QFileInfo(folder).isDir()) {
        printLine(stderr, QStringLiteral("There's no folder “%1”.").arg(folder));
        return 1;
    }
    const RecoveryReport report = recoverRecordings(folder);
    for (const QString& sentence : report.sentences())
        printLine(stdout, sentence);
    if (report.recovered.isEmpty() && report.leftAlone.isEmpty())
        printLine(stdout, QStringLiteral("There's no cut-off recording in “%1”.").arg(folder));
    return report.leftAlone.isEmpty() ? 0 : 1;
}

const CommandRegistration registration{
    {"recover", "finish the recordings a crash cut off in a folder", AppKind::core, &run}};

} // namespace

} // namespace orvane
