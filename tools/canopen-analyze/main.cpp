#include "lineanalysis.h"
#include "livesession.h"
#include "offlinebatch.h"
#include "options.h"
#include "recording.h"
#include "reports.h"

#include <QCoreApplication>

#include <cstdio>
#include <functional>
#include <new>

namespace {

constexpr int statusNotDone = 2;

int complain(const QString &problem)
{
    std::fprintf(stderr, "canopen-analyze: %s\n", qPrintable(problem));
    return statusNotDone;
}

// The library tells at debug level which way it took; that is for its developers.
void printWarnings(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        std::fprintf(stderr, "canopen-analyze: %s\n", qPrintable(text));
}

// Reads, analyses and reports one recording. Returns why it could not be done, or an empty text.
QString analyseRecording(const QString &fileName, const Options &options, Progress &progress, Reports &reports)
{
    Recording recording(progress);
    QString problem = recording.load(fileName);
    if (!problem.isEmpty())
        return problem;
    const std::vector<quint8> lines = linesNamed(options.lines, recording.facts(), problem);
    if (!problem.isEmpty())
        return problem;
    reports.begin(recording.facts());
    for (const quint8 line : lines) {
        LineAnalysis analysis(recording.store(), recording.facts().interfaces[line], line);
        analysis.endWithLine();
        analysis.start();
        reports.line(analysis.finish(progress));
    }
    reports.end();
    return {};
}

QString reportParsed(const OfflineResult &parsed, Reports &reports)
{
    if (!parsed.problem.isEmpty())
        return parsed.problem;
    reports.begin(parsed.facts);
    for (const LineFindings &line : parsed.lines)
        reports.line(line);
    reports.end();
    return {};
}

int reportEach(const Options &options, Reports &reports, const std::function<QString(int)> &reportOne)
{
    int status = 0;
    for (int i = 0; i < options.fileNames.size(); ++i) {
        const QString problem = reportOne(i);
        if (!problem.isEmpty())
            status = complain(problem);
    }
    return reports.finish() ? status : complain(QStringLiteral("The report could not be written."));
}

int analyse(const Options &options)
{
    Progress progress;
    Reports reports(options);
    return reportEach(options, reports,
                      [&](int i) { return analyseRecording(options.fileNames.at(i), options, progress, reports); });
}

int parse(const Options &options)
{
    Progress progress;
    Reports reports(options);
    OfflineBatch batch(options, progress);
    return reportEach(options, reports, [&](int i) { return reportParsed(batch.take(std::size_t(i)), reports); });
}

int analyseLive(const Options &options)
{
    Reports reports(options);
    LiveSession session(options);
    const QString problem = session.run(reports);
    const int status = problem.isEmpty() ? 0 : complain(problem);
    return reports.finish() ? status : complain(QStringLiteral("The report could not be written."));
}

int run(const QStringList &arguments)
{
    QString problem;
    const Options options = Options::parse(arguments, problem);
    if (!problem.isEmpty())
        return complain(problem);
    if (options.help)
        return std::fputs(Options::helpText(), stdout) < 0 ? statusNotDone : 0;
    if (options.version)
        return std::puts("canopen-analyze " CANOPENANALYZE_VERSION) < 0 ? statusNotDone : 0;
    if (!options.live.isEmpty())
        return analyseLive(options);
    return options.offline ? parse(options) : analyse(options);
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
        return complain(QStringLiteral("There is not enough memory."));
    }
}
