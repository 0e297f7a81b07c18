#include "sdo/sdosegmentedtransferanalyzer.h"

#include "sdo/bytebudget_p.h"
#include "sdo/sdohelper.h"
#include "sdo/sdomessagehandler.h"

#include <algorithm>

SDOSegmentedTransferAnalyzer::SDOSegmentedTransferAnalyzer(QObject *parent) : QObject(parent) {}

SDOSegmentedTransferAnalyzer::SDOSegmentedTransferAnalyzer(quint8 node, quint16 index, quint8 subindex, double time,
                                                           QObject *parent)
    : QObject(parent), mNode(node), mIndex(index), mSubindex(subindex), mInitTime(time)
{
}

SDOSegmentedTransferAnalyzer::~SDOSegmentedTransferAnalyzer()
{
    if (mBudget)
        mBudget->give(mTransferData.size());
}

void SDOSegmentedTransferAnalyzer::setByteBudget(ByteBudget *budget)
{
    mBudget = budget;
}

void SDOSegmentedTransferAnalyzer::announceSize(const CAN::CanMessage &initiate)
{
    if (SDOHelper::sizeIndicatedBitOfCanMsg(initiate))
        mAnnouncedSize = SDOHelper::sizeOfSegmentedTransfer(initiate);
}

bool SDOSegmentedTransferAnalyzer::appendSegment(const CAN::CanMessage &segment)
{
    constexpr int segmentBytes = 7;
    const int wanted = segmentBytes - SDOHelper::segmentedBytesWithoutData(segment);
    const int bytes = std::max(0, std::min(wanted, segment.mDataLength - 1));
    const bool fits =
        mBudget ? mBudget->take(bytes) : mTransferData.size() + bytes <= SDOMessageHandler::maxCollectedBytes;
    if (fits)
        mTransferData.append(reinterpret_cast<const char *>(segment.mPayload) + 1, bytes);
    return fits;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedTransferAnalyzer::finish(const CAN::CanRxMessage &msg)
{
    mLastResponseTime = msg.mTimeStamp.toDouble();
    mLastMsgNumber = msg.mMessageNumber;
    return Result::Finished;
}
