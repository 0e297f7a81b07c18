#include "reports.h"

#include <cstdio>
#include <unistd.h>

namespace {

bool wantsColours()
{
    return isatty(STDOUT_FILENO) && qEnvironmentVariableIsEmpty("NO_COLOR");
}

template<typename Report>
void writeLine(Report &report, const LineFindings &findings, bool offline)
{
    if (offline)
        report.sdoOnly(findings);
    else
        report.line(findings);
}

} // namespace

Reports::Reports(const Options &options)
    : mOptions(options), mIsList(options.json && options.fileNames.size() > 1), mOutput(stdout), mJson(mOutput)
{
    if (mIsList)
        mJson.beginList();
}

void Reports::begin(const RecordingFacts &recording)
{
    if (mOptions.json) {
        mJsonReport.emplace(mJson, recording);
        mJsonReport->begin();
        return;
    }
    if (mHasBegun)
        mOutput << '\n';
    mHasBegun = true;
    mTextReport.emplace(mOutput, recording, TextReport::Style{wantsColours(), mOptions.all});
    mTextReport->head();
}

void Reports::line(const LineFindings &findings)
{
    if (mJsonReport)
        writeLine(*mJsonReport, findings, mOptions.offline);
    else
        writeLine(*mTextReport, findings, mOptions.offline);
}

void Reports::end()
{
    if (mJsonReport)
        mJsonReport->end();
}

bool Reports::finish()
{
    if (mIsList)
        mJson.endList();
    return mOutput.finish();
}
