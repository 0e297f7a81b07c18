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

#include "sdo/objecttable_p.h"
#include "support/guestlock_p.h"

#include <QTimer>

using SDO::SDOEntryKey;

namespace {

constexpr qint64 repeatIntervalMs = 20;   // of recording time, from the request to the repeated answer
constexpr int nodeCountCheckDelayMs = 20; // of real time

} // namespace

bool SDOMessageHandler::checkForMultipleResponse(unsigned char node, unsigned short index, unsigned char subindex,
                                                 const CAN::CanRxMessage &msg)
{
    const std::optional<CanTimeStamp> finished = mObjects->finishedRequest(SDOEntryKey(node, index, subindex));
    if (!finished)
        return false;
    if (msg.mTimeStamp.toMsecs() - finished->toMsecs() > repeatIntervalMs) {
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
    mObjects->forgetFinished(SDOEntryKey(node, index, subindex));
    setBackNodeCount(node);
}

void SDOMessageHandler::setBackNodeCount(unsigned char node)
{
    quint8 &count = mNodeResponseCount[node];
    if (count == 1)
        return;
    count = 1;
    scheduleNodeCountCheck();
}

void SDOMessageHandler::checkNodeCount()
{
    const GuestScope guest(mGuestLock.get());
    for (std::size_t node = 0; node < mNodeResponseCount.size(); ++node) {
        const quint8 count = mNodeResponseCount[node];
        if (mReportedNodeCount[node] == count)
            continue;
        mReportedNodeCount[node] = count;
        if (!reportNodeCount(static_cast<unsigned char>(node), count))
            return;
    }
}

// ---- the deferred check ------------------------------------------------------------------------------------------------

void SDOMessageHandler::scheduleNodeCountCheck()
{
    // A check reports for every node, so those asked for in the same millisecond are one, a millisecond later than the first of
    // them needs. Fast traffic asks for thousands between two event points; as many timers would freeze the event loop.
    const qint64 now = mClock.elapsed();
    if (!mDefersNodeCountChecks || now == mNodeCountCheckScheduled)
        return;
    mNodeCountCheckScheduled = now;
    QTimer::singleShot(nodeCountCheckDelayMs + 1, Qt::PreciseTimer, this, &SDOMessageHandler::checkNodeCount);
}
