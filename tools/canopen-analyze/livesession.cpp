#include "livesession.h"

#include "textreport.h"

#include <cstdlib>
#include <memory>
#include <new>

namespace {

constexpr quint8 onlyLine = 0;
constexpr int redrawMs = 1000;
constexpr int connectMs = 5000; // some plug-ins would wait for ever

// What \a write puts into an output.
template<typename Write>
std::string written(Write write)
{
    char *text = nullptr;
    std::size_t size = 0;
    std::FILE *const stream = open_memstream(&text, &size);
    if (!stream)
        return {};
    Output output(stream);
    write(output);
    output.finish();
    std::fclose(stream);
    const std::unique_ptr<char, decltype(&std::free)> owner(text, std::free);
    return {text, size};
}

} // namespace

LiveSession::LiveSession(const Options &options)
    : mOptions(options),
      mPlugin(options.live.section(QLatin1Char(':'), 0, 0)),
      mInterface(options.live.section(QLatin1Char(':'), 1)),
      mAnalysis(mStore, mInterface.toStdString(), onlyLine)
{
    connect(&mSource, &LiveSource::connected, this, &LiveSession::onConnected);
    connect(&mSource, &LiveSource::frame, this, &LiveSession::onFrame);
    connect(&mSource, &LiveSource::failed, this, &LiveSession::end);
    connect(&mInterrupts, &Interrupts::interrupted, this, [this] { end({}); });
    connect(&mRedraw, &QTimer::timeout, this, &LiveSession::draw);
    mConnecting.setSingleShot(true);
    connect(&mConnecting, &QTimer::timeout, this,
            [this] { end(QStringLiteral("Cannot receive from %1: nobody answers there.").arg(mOptions.live)); });
}

LiveSession::~LiveSession() = default;

QString LiveSession::run(Reports &reports)
{
    CAN::CanRxMessage::mLiveMode = true;
    mAnalysis.start();
    mConnecting.start(connectMs);
    mSource.open(mPlugin, mInterface);
    if (!mIsOver)
        mLoop.exec();
    mScreen.close();
    mAnalysis.endWithLine();
    Progress progress;
    const LineFindings findings = mAnalysis.finish(progress);
    CAN::CanRxMessage::mLiveMode = false;
    const RecordingFacts facts = this->facts();
    if (facts.frames == 0)
        return mProblem.isEmpty() ? QStringLiteral("Nothing was received from %1.").arg(mOptions.live) : mProblem;
    reports.begin(facts);
    reports.line(findings);
    reports.end();
    return mProblem;
}

void LiveSession::onConnected()
{
    mConnecting.stop();
    if (!mScreen.isWatched())
        return;
    draw();
    mRedraw.start(redrawMs);
}

void LiveSession::onFrame(const CAN::CanMessage &frame, CanTimeStamp time)
{
    if (mIsFull)
        return;
    try {
        mIsFull = !mStore.append(onlyLine, frame, time);
    } catch (const std::bad_alloc &) {
        mIsFull = true;
    }
    if (mIsFull)
        end(QStringLiteral("There is no room for more frames of %1.").arg(mOptions.live));
}

void LiveSession::end(const QString &problem)
{
    if (mIsOver)
        return;
    mIsOver = true;
    mProblem = problem;
    mRedraw.stop();
    mConnecting.stop();
    mSource.close();
    mLoop.quit();
}

void LiveSession::draw()
{
    const RecordingFacts facts = this->facts();
    const bool colours = qEnvironmentVariableIsEmpty("NO_COLOR");
    mScreen.show(written([&](Output &output) {
        TextReport report(output, facts, TextReport::Style{colours, false});
        output << "Ctrl-C ends the reception and reports everything.\n\n";
        report.head();
        if (facts.frames > 0)
            report.overview(mAnalysis.overview());
    }));
}

RecordingFacts LiveSession::facts() const
{
    RecordingFacts facts;
    facts.name = mOptions.live;
    facts.interfaces = {mInterface.toStdString()};
    const int count = mStore.messageCountOfLine(onlyLine);
    facts.frames = quint32(count);
    if (count == 0)
        return facts;
    facts.first = mStore.messageAt(0).mTimeStamp;
    facts.last = mStore.messageAt(count - 1).mTimeStamp;
    facts.clock = mSource.hasDriverTime().value_or(false) ? "time stamps of the driver" : "time stamps of this machine";
    return facts;
}
