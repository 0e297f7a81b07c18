#include "sdo/sdosegmentedtransferanalyzer.h"

#include "sdo/bytebudget_p.h"
#include "sdo/sdohelper.h"
#include "sdo/sdomessagehandler.h"

#include <algorithm>

SDOSegmentedTransferAnalyzer::SDOSegmentedTransferAnalyzer(QObject *parent) : QObject(parent) {}

SDOSegmentedTransferAnalyzer::SDOSegmentedTransferAnalyzer(quint8 node, quint16 index, quint8 subindex, double time,
                                                           QObject *parent)
    : QObject(parent), mTransfer{node, index, subindex, time}
{
}

SDOSegmentedTransferAnalyzer::~SDOSegmentedTransferAnalyzer()
{
    dropTransfer();
}

void SDOSegmentedTransferAnalyzer::followTransfer(quint8 node, quint16 index, quint8 subindex, double time)
{
    mTransfer.node = node;
    mTransfer.index = index;
    mTransfer.subindex = subindex;
    mTransfer.initTime = time;
    mTransfer.state = TS_WaitForInitResponse;
}

void SDOSegmentedTransferAnalyzer::dropTransfer()
{
    if (mBudget)
        mBudget->give(mTransfer.data.size());
    mTransfer = Transfer();
}

void SDOSegmentedTransferAnalyzer::setByteBudget(ByteBudget *budget)
{
    mBudget = budget;
}

void SDOSegmentedTransferAnalyzer::announceSize(const CAN::CanMessage &initiate)
{
    if (SDOHelper::sizeIndicatedBitOfCanMsg(initiate))
        mTransfer.announcedSize = SDOHelper::sizeOfSegmentedTransfer(initiate);
}

bool SDOSegmentedTransferAnalyzer::appendSegment(const CAN::CanMessage &segment)
{
    constexpr int segmentBytes = 7;
    const int wanted = segmentBytes - SDOHelper::segmentedBytesWithoutData(segment);
    const int bytes = std::max(0, std::min(wanted, segment.mDataLength - 1));
    const bool fits =
        mBudget ? mBudget->take(bytes) : mTransfer.data.size() + bytes <= SDOMessageHandler::maxCollectedBytes;
    if (fits)
        mTransfer.data.append(reinterpret_cast<const char *>(segment.mPayload) + 1, bytes);
    return fits;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedTransferAnalyzer::finish(const CAN::CanRxMessage &msg)
{
    mTransfer.lastResponseTime = msg.mTimeStamp.toDouble();
    mTransfer.lastMsgNumber = msg.mMessageNumber;
    return Result::Finished;
}
