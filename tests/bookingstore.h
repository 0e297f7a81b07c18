#ifndef CANOPENANALYSIS_TESTS_BOOKINGSTORE_H
#define CANOPENANALYSIS_TESTS_BOOKINGSTORE_H

#include "inmemory/inmemorycanopennetwork.h"
#include "inmemory/inmemorydatachunkhandler.h"
#include "network/canopennetworkanalyzer.h"

#include <QQueue>

#include <array>
#include <atomic>
#include <memory>
#include <numeric>

/// The books of one line: what the loop fetched, what was rescued, and in which order it must be analysed. Frames carry their
/// number within the line, counted over all recordings, as time. Nothing here is protected but by the library's lock, under which
/// every entry is made: so the thread sanitizer watches that lock, too.
class Ledger
{
public:
    void fetched(qint64 frame)
    {
        expect(mInHand < 0 && mRescued.isEmpty() && frame == mNext, "fetched", frame);
        mInHand = mNext++;
    }
    void analysed(qint64 frame)
    {
        expect(mInHand >= 0 || !mRescued.isEmpty(), "analysed without need", frame);
        expect(frame == (mInHand >= 0 ? std::exchange(mInHand, -1) : mRescued.dequeue()), "analysed", frame);
        ++mSinceRestart;
    }
    void rescued(qint64 frame)
    {
        expect(frame == mNext, "rescued", frame);
        mRescued.enqueue(mNext++);
    }
    void classified(quint32 frames) const { expect(frames == mSinceRestart, "the number of those classified", frames); }
    void cleared() { mRecordingStart = mNext; }
    void restarted() // the frame in hand is dropped, and what the store has comes anew; rescued frames stay
    {
        mInHand = -1;
        mNext = mRecordingStart;
        mSinceRestart = 0;
    }
    void metTheEnd() { analysedTo = mRescued.isEmpty() ? mNext : -1; }

    std::atomic<qint64> analysedTo{0};
    std::atomic<qint64> appended{0};
    quint32 readWithoutTheLock() const { return mSinceRestart; } // a planted race

private:
    void expect(bool isRight, const char *what, qint64 frame) const
    {
        if (!isRight)
            qFatal("%lld is %s; in hand %lld, next to fetch %lld, %d rescued, %u analysed", frame, what, mInHand, mNext,
                   mRescued.size(), mSinceRestart);
    }
    qint64 mRecordingStart = 0;
    qint64 mNext = 0;
    qint64 mInHand = -1;
    QQueue<qint64> mRescued;
    quint32 mSinceRestart = 0; // frames analysed
};

/// A line with its model, which makes the entries of the analysis and of those who have it start over.
struct Line : InMemoryCANopenNetwork
{
    explicit Line(int number) : InMemoryCANopenNetwork(number) {}

    void addCANMessage(const CAN::CanRxMessage &msg) override
    {
        ledger.analysed(msg.mTimeStamp.toNSecs());
        InMemoryCANopenNetwork::addCANMessage(msg);
    }
    QList<QPointer<GenericCANDevice>> getDeviceList() override // a reanalysis
    {
        ledger.restarted();
        return InMemoryCANopenNetwork::getDeviceList();
    }
    void reset() override
    {
        ledger.restarted();
        InMemoryCANopenNetwork::reset();
    }
    Ledger ledger;
    std::unique_ptr<CANopenNetworkAnalyzer> analyzer;
};

/// The store, which makes the entries of what leaves it.
class BookingStore : public InMemoryDatachunkHandler
{
public:
    bool getMessageOfLine(CAN::CanRxMessage &msg, unsigned char line, unsigned int &position) override
    {
        const bool found = InMemoryDatachunkHandler::getMessageOfLine(msg, line, position);
        if (line < lines.size())
            found ? lines[line].ledger.fetched(msg.mTimeStamp.toNSecs()) : lines[line].ledger.metTheEnd();
        return found;
    }
    QList<CAN::CanRxMessage> getMessagesOfLine(unsigned char number, unsigned int position) override
    {
        const auto rest = InMemoryDatachunkHandler::getMessagesOfLine(number, position);
        if (number < lines.size()) { // under the library's lock, which also admits its holder to the copies
            Line &line = lines[number];
            for (const CAN::CanRxMessage &msg : rest)
                line.ledger.rescued(msg.mTimeStamp.toNSecs());
            line.ledger.cleared();
            const auto classes = line.analyzer->messageTypeDistribution();
            line.ledger.classified(std::accumulate(classes.cbegin(), classes.cend(), 0u));
        }
        return rest;
    }
    std::array<Line, 4> lines{Line(0), Line(1), Line(2), Line(3)};
};

#endif // CANOPENANALYSIS_TESTS_BOOKINGSTORE_H
