#include "sdo/sdosegmentedtransferanalyzer.h"

#include "sdo/bytebudget_p.h"
#include "sdo/sdohelper.h"
#include "sdo/sdomessagehandler.h"

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

bool SDOSegmentedTransferAnalyzer::appendSegment(const CAN::CanMessage &segment)
{
    constexpr int segmentBytes = 7;
    const QByteArray payload =
        segment.dataToByteArray(1, segmentBytes - SDOHelper::segmentedBytesWithoutData(segment), true);
    const bool fits = mBudget ? mBudget->take(payload.size())
                              : mTransferData.size() + payload.size() <= SDOMessageHandler::maxCollectedBytes;
    if (fits)
        mTransferData.append(payload);
    return fits;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedTransferAnalyzer::finish(const CAN::CanRxMessage &msg)
{
    mLastResponseTime = msg.mTimeStamp.toDouble();
    mLastMsgNumber = msg.mMessageNumber;
    return Result::Finished;
}
