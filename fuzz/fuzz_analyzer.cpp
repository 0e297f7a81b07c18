// The analyzer with its thread over a store that is appended to and cleared, while it is paused, resumed, reset, reanalysed,
// stopped and replaced. Nothing waits for the clock: the checks wait for the end of the line, and a sleep is a yield.

#include "analysisprobe.h"

#include "inmemory/inmemorydatachunkhandler.h"
#include "network/canopennetworkanalyzer.h"
#include "parser/sdoparserworker.h"

#include <QCoreApplication>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <sched.h>
#include <thread>

/// Takes the place of the C library's, so that a paused analysis looks at once whether it was resumed.
extern "C" __attribute__((visibility("default"))) int nanosleep(const timespec *, timespec *)
{
    return sched_yield();
}

namespace {

constexpr qint64 nsecsPerMsec = 1000000;
constexpr int mostAnalyzers = 4; // of one input: threads take time

/// Tells when the loop has found no further frame.
class WatchedStore : public InMemoryDatachunkHandler
{
public:
    bool getMessageOfLine(CAN::CanRxMessage &msg, unsigned char line, unsigned int &position) override
    {
        const quint64 ticket = ++mAsked;
        if (InMemoryDatachunkHandler::getMessageOfLine(msg, line, position))
            return true;
        const std::lock_guard<std::mutex> lock(mMutex);
        mFoundNothing = ticket;
        mChanged.notify_all();
        return false;
    }

    quint64 asked() const { return mAsked; }
    void awaitEnd(quint64 askedAfter)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait(lock, [&] { return mFoundNothing > askedAfter; });
    }

private:
    std::atomic<quint64> mAsked{0};
    std::mutex mMutex;
    std::condition_variable mChanged;
    quint64 mFoundNothing = 0;
};

/// Every frame of line 0 has its place in all recordings within the milliseconds of its time stamp, so the frames that the
/// model has seen tell where the analysis started over last.
class Host
{
public:
    Host() { startAnalyzer(); }
    ~Host() { CAN::CanRxMessage::mLiveMode = false; }

    void append(const FuzzStep &step);
    void act(const FuzzStep &step);
    void check();

private:
    void startAnalyzer();
    void clear(bool isLive);
    void startOverSoon();
    void awaitEnd();
    void checkSeen();
    void checkRating() const;
    void checkParser();

    WatchedStore mStore;
    std::unique_ptr<NetworkProbe> mNetwork;
    std::unique_ptr<CANopenNetworkAnalyzer> mAnalyzer; // destroyed before the model
    std::atomic<int> mCallsUntilReset{0};              // within the model

    std::vector<CAN::CanRxMessage> mFrames; // of line 0, of all recordings
    qint64 mMsecs = 0;
    std::size_t mRecording = 0; // place of the first frame of the present recording
    std::size_t mAnalysed = 0;  // frames before this place were analysed and cannot be rescued any more
    // Where the analysis started over last: a clear rescues frames, which a later reset leaves alone
    std::size_t mFirstPossible = 0;
    std::size_t mLastPossible = 0;
    bool mStartOverDue = false;
    int mReanalyses = 0; // asked for
    int mAnalyzers = 0;
};

void Host::startAnalyzer()
{
    if (++mAnalyzers > mostAnalyzers)
        return;
    delete mAnalyzer.get(); // a slot may still use it meanwhile, so it is let go afterwards
    static_cast<void>(mAnalyzer.release());
    mCallsUntilReset = 0;
    mNetwork = std::make_unique<NetworkProbe>();
    mNetwork->inCall = [this] {
        if (mCallsUntilReset > 0 && --mCallsUntilReset == 0)
            mAnalyzer->reset();
    };
    mAnalyzer = std::make_unique<CANopenNetworkAnalyzer>(mNetwork.get(), &mStore);
    mReanalyses = 0;
    mStartOverDue = false;
    mAnalysed = mFirstPossible = mLastPossible = mRecording;
}

void Host::append(const FuzzStep &step)
{
    const quint8 line = step.msecs < 0 ? 1 : 0;
    mMsecs += std::abs(step.msecs);
    CAN::CanRxMessage msg;
    msg.mFrame = step.frame;
    msg.mTimeStamp = CanTimeStamp::fromNSecs(mMsecs * nsecsPerMsec + qint64(mFrames.size()));
    msg.mMessageNumber = mStore.append(line, msg.mFrame, msg.mTimeStamp).value();
    if (line == 0)
        mFrames.push_back(msg);
}

/// At some time before the next check the analysis starts over, behind the frames that are rescued by then.
void Host::startOverSoon()
{
    mStartOverDue = true;
    mAnalysed = std::min(mAnalysed, mRecording);
    mFirstPossible = std::min(mFirstPossible, mAnalysed);
}

void Host::act(const FuzzStep &step)
{
    const bool odd = step.argument % 2 != 0;
    switch (step.action % 10) {
    case 0:
        return check();
    case 1:
        return clear(odd);
    case 2:
        mAnalyzer->reset();
        mAnalysed = mFirstPossible = std::min(mAnalysed, mRecording);
        mLastPossible = mRecording;
        return;
    case 3:
        startOverSoon();
        ++mReanalyses;
        return mNetwork->requestReanalysis();
    case 4:
    case 5:
        return mAnalyzer->setAnalyzing(step.action % 10 == 5);
    case 6:
        CAN::CanRxMessage::mLiveMode = odd;
        return;
    case 7:
        FUZZ_REQUIRE(mAnalyzer->calculateRating() >= 0 && mAnalyzer->calculateRating() <= 100);
        FUZZ_REQUIRE(mAnalyzer->protocolErrors().size() <= int(mFrames.size()));
        return;
    case 8:
        if (odd && mAnalyzers < mostAnalyzers) {
            mAnalyzer->stop();
            mAnalyzer->reset();
            clear(false);
        }
        return startAnalyzer();
    case 9:
        startOverSoon();
        mCallsUntilReset = 1 + step.argument % 16;
        return;
    }
}

void Host::clear(bool isLive)
{
    mStore.clear(isLive);
    mRecording = mFrames.size();
}

void Host::awaitEnd()
{
    while (mNetwork->reanalyses < mReanalyses)
        std::this_thread::yield();
    const quint64 asked = mStore.asked();
    mAnalyzer->setAnalyzing(true);
    mStore.awaitEnd(asked);
}

void Host::check()
{
    awaitEnd();
    if (mStartOverDue)
        mLastPossible = mRecording;
    mStartOverDue = false;
    checkSeen();
    checkAnalysis(*mNetwork, *mAnalyzer);
    checkRating();
    if (mFirstPossible == mRecording)
        checkParser();
    if (mCallsUntilReset > 0)
        startOverSoon();
}

/// Each frame once and in order, from where the analysis started over.
void Host::checkSeen()
{
    const auto &seen = mNetwork->seen;
    FUZZ_REQUIRE(seen.size() <= mFrames.size());
    const std::size_t first = mFrames.size() - seen.size();
    FUZZ_REQUIRE(mFirstPossible <= first && first <= mLastPossible);
    FUZZ_REQUIRE(std::equal(seen.cbegin(), seen.cend(), mFrames.cbegin() + std::ptrdiff_t(first),
                            [](const CAN::CanRxMessage &a, const CAN::CanRxMessage &b) {
                                return a.mTimeStamp == b.mTimeStamp && a.mMessageNumber == b.mMessageNumber
                                       && a.mFrame.mIdentifier == b.mFrame.mIdentifier
                                       && a.mFrame.mDataLength == b.mFrame.mDataLength
                                       && a.mFrame.mFlags == b.mFrame.mFlags
                                       && std::equal(std::begin(a.mFrame.mPayload), std::end(a.mFrame.mPayload),
                                                     b.mFrame.mPayload);
                            }));
    mFirstPossible = mLastPossible = first;
    mAnalysed = mFrames.size();
}

void Host::checkRating() const
{
    using Worker = CANopenNetworkAnalyzerWorker;
    const auto counts = mAnalyzer->ratingCounts();
    const int rating = mAnalyzer->calculateRating();
    FUZZ_REQUIRE(rating >= 0 && rating <= 100 && rating == mAnalyzer->calculateRating());
    FUZZ_REQUIRE(counts == mAnalyzer->ratingCounts());
    const auto frames = qint64(mFrames.size() - mRecording);
    if (frames == 0)
        return FUZZ_REQUIRE(rating == 0);
    const auto points = [&](Worker::RatingMessageTypes type, int each) {
        return each * 100LL * counts.value(type) / frames;
    };
    const qint64 exact =
        100 - points(Worker::RMT_SdoAbort, 2) - points(Worker::RMT_Unhandled, 1) - points(Worker::RMT_ProtocolError, 5);
    FUZZ_REQUIRE(std::abs(std::max<qint64>(exact, 0) - rating) <= 1); // a quotient may fall short of a whole number
}

/// The offline parser finds in the recording what the analyzer has found in it.
void Host::checkParser()
{
    SDOParserWorker parser(nullptr);
    parser.setDatachunkHandler(&mStore);
    parser.setNetworkLine(0);
    parser.doWork();
    QHash<SDO::SDOEntryKey, QList<SDO::SDOEntryValue>> values;
    for (const SdoFinding &finding : mNetwork->values)
        values[finding.object].append(finding.value);
    for (const SDO::SDOEntry &entry : parser.getResultList()) {
        QList<SDO::SDOEntryValue> parsed = entry.values;
        for (SDO::SDOEntryValue &value : parsed)
            value.reqMsgNumber = 0; // the model is not told it
        FUZZ_REQUIRE(parsed == values.take(entry));
    }
    FUZZ_REQUIRE(values.isEmpty());
    FUZZ_REQUIRE(parser.sdoProtocolErrors() == mAnalyzer->protocolErrors());
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    constexpr std::size_t steps = 300; // more take more time and find nothing else
    {
        Host host;
        for (const FuzzStep &step : fuzzSteps(data, size, steps))
            step.isAction ? host.act(step) : host.append(step);
        host.check();
    }
    QCoreApplication::processEvents(); // deletes what the threads left to this one
    return 0;
}
