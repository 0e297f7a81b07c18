// Several devices under one node-ID, seen by the SDO message handler.
//
//  answer without a waiting request                             effect
//  the object was never answered (expedited)                    protocol error
//  its request came at most 20 ms before the answer             counted: one device more answers under the node-ID
//  its request came earlier                                     protocol error; the object is forgotten, the count is 1 again
//
//  A fresh expedited answer to a read also sets the count back to 1. A rise is reported at once, the way back 20 ms of real
//  time later, so that a second device that goes on answering is not reported as gone in between.

#include "sdo/sdomessagehandler.h"

#include "support/guestlock_p.h"

#include <QTimer>

#include <algorithm>

using SDO::SDOEntryKey;

namespace {

constexpr qint64 repeatIntervalMs = 20;      // of recording time, from the request to the repeated answer
constexpr qint64 nodeCountCheckDelayMs = 20; // of real time

} // namespace

bool SDOMessageHandler::checkForMultipleResponse(unsigned char node, unsigned short index, unsigned char subindex,
                                                 const CAN::CanRxMessage &msg)
{
    const auto finished = mFinishedEntries.constFind(SDOEntryKey(node, index, subindex));
    if (finished == mFinishedEntries.constEnd())
        return false;
    if (msg.mTimeStamp.toMsecs() - finished->requestTime.toMsecs() > repeatIntervalMs) {
        removeFinishedSDOEntry(node, index, subindex);
        return false;
    }
    ++mNodeResponseCount[node];
    mLastMultipleResponseMsgNumber = msg.mMessageNumber;
    checkNodeCount();
    return true;
}

void SDOMessageHandler::removeFinishedSDOEntry(unsigned char node, unsigned short index, unsigned char subindex)
{
    mFinishedEntries.remove(SDOEntryKey(node, index, subindex));
    unsigned char &count = mNodeResponseCount[node]; // 0 when it was missing
    if (count == 1)
        return;
    count = 1;
    scheduleNodeCountCheck();
}

void SDOMessageHandler::checkNodeCount()
{
    const GuestScope guest(mGuestLock.get());
    const QList<unsigned char> nodes = mNodeResponseCount.keys();
    for (const unsigned char node : nodes) {
        const unsigned char count = mNodeResponseCount.value(node);
        unsigned char &reported = mReportedNodeCount[node];
        if (reported == count)
            continue;
        reported = count;
        if (!reportNodeCount(node, count))
            return;
    }
}

// ---- the deferred check ------------------------------------------------------------------------------------------------
//
// Each call that sets a count back asks for a check of its own 20 ms later. A check reports for every node, so those due in
// the same millisecond are one; and a single timer waits for the first of them: fast traffic asks for thousands of
// checks between two event points, and as many timers would freeze the event loop that has to serve them.

void SDOMessageHandler::scheduleNodeCountCheck()
{
    const qint64 due = mClock.elapsed() + nodeCountCheckDelayMs;
    if (!mDueNodeCountChecks.isEmpty() && mDueNodeCountChecks.constLast() == due)
        return;
    mDueNodeCountChecks.append(due);
    if (mDueNodeCountChecks.size() == 1)
        armNodeCountCheck(nodeCountCheckDelayMs);
}

void SDOMessageHandler::armNodeCountCheck(qint64 delayMs)
{
    QTimer::singleShot(static_cast<int>(delayMs), Qt::PreciseTimer, this, [this] { runDueNodeCountChecks(); });
}

void SDOMessageHandler::runDueNodeCountChecks()
{
    const GuestScope guest(mGuestLock.get());
    const qint64 now = mClock.elapsed();
    const auto firstLater = std::upper_bound(mDueNodeCountChecks.begin(), mDueNodeCountChecks.end(), now);
    const bool anyDue = firstLater != mDueNodeCountChecks.begin();
    mDueNodeCountChecks.erase(mDueNodeCountChecks.begin(), firstLater);
    if (!mDueNodeCountChecks.isEmpty())
        armNodeCountCheck(mDueNodeCountChecks.constFirst() - now);
    if (anyDue)
        checkNodeCount();
}
