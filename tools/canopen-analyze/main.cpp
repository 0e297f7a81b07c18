#include "jsonreport.h"
#include "lineanalysis.h"
#include "options.h"
#include "recording.h"
#include "textreport.h"

#include <QCoreApplication>

#include <cstdio>
#include <new>
#include <unistd.h>

namespace {

constexpr int statusNothingDone = 2;

int complain(const QString &problem)
{
    std::fprintf(stderr, "canopen-analyze: %s\n", qPrintable(problem));
    return statusNothingDone;
}

// The library tells at debug level which way it took; that is for its developers.
void printWarnings(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        std::fprintf(stderr, "canopen-analyze: %s\n", qPrintable(text));
}

// The CAN lines that the user asked for. A name that does not occur is the problem.
std::vector<quint8> chosenLines(const Options &options, const Recording &recording, QString &problem)
{
    const auto &interfaces = recording.interfaces();
    QStringList names;
    for (const std::string &name : interfaces)
        names += QString::fromStdString(name);
    for (const QString &line : options.lines) {
        if (!names.contains(line))
            problem = QStringLiteral("There is no interface %1 in %2, only %3.")
                          .arg(line, recording.name(), names.join(QLatin1String(", ")));
    }
    std::vector<quint8> lines;
    for (int line = 0; line < names.size(); ++line) {
        if (options.lines.isEmpty() || options.lines.contains(names.at(line)))
            lines.push_back(quint8(line));
    }
    return lines;
}

void reportText(Output &output, const Options &options, Recording &recording, const std::vector<quint8> &lines,
                Progress &progress)
{
    const bool colours = isatty(STDOUT_FILENO) && qEnvironmentVariableIsEmpty("NO_COLOR");
    TextReport report(output, recording, {colours, options.all});
    report.head();
    for (const quint8 line : lines)
        report.line(analyseLine(recording, line, progress));
}

void reportJson(Output &output, Recording &recording, const std::vector<quint8> &lines, Progress &progress)
{
    JsonReport report(output, recording);
    report.begin();
    for (const quint8 line : lines)
        report.line(analyseLine(recording, line, progress));
    report.end();
}

int analyse(const Options &options)
{
    Progress progress;
    Recording recording(progress);
    QString problem = recording.load(options.fileName);
    if (!problem.isEmpty())
        return complain(problem);
    const std::vector<quint8> lines = chosenLines(options, recording, problem);
    if (!problem.isEmpty())
        return complain(problem);
    Output output(stdout);
    if (options.json)
        reportJson(output, recording, lines, progress);
    else
        reportText(output, options, recording, lines, progress);
    return output.finish() ? 0 : complain(QStringLiteral("The report could not be written."));
}

int run(const QStringList &arguments)
{
    QString problem;
    const Options options = Options::parse(arguments, problem);
    if (!problem.isEmpty())
        return complain(problem);
    if (options.help)
        return std::fputs(Options::helpText(), stdout) < 0 ? statusNothingDone : 0;
    if (options.version)
        return std::puts("canopen-analyze " CANOPENANALYZE_VERSION) < 0 ? statusNothingDone : 0;
    return analyse(options);
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    qInstallMessageHandler(printWarnings);
    CAN::CanRxMessage::mLiveMode = false;
    try {
        return run(QCoreApplication::arguments().mid(1));
    } catch (const std::bad_alloc &) {
        return complain(QStringLiteral("There is not enough memory for this recording."));
    }
}
