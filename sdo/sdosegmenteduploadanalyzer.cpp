#include "sdo/sdosegmenteduploadanalyzer.h"

#include "sdo/sdohelper.h"

SDOSegmentedUploadAnalyzer::SDOSegmentedUploadAnalyzer(QObject *parent) : SDOSegmentedTransferAnalyzer(parent) {}

SDOSegmentedUploadAnalyzer::SDOSegmentedUploadAnalyzer(quint8 node, quint16 index, quint8 subindex, double time,
                                                       QObject *parent)
    : SDOSegmentedTransferAnalyzer(node, index, subindex, time, parent)
{
    mState = TS_WaitForInitResponse;
}

SDOSegmentedUploadAnalyzer::~SDOSegmentedUploadAnalyzer() = default;

SDOSegmentedTransferAnalyzer::Result SDOSegmentedUploadAnalyzer::handleNewMessage(SegMsgType type,
                                                                                  const CAN::CanRxMessage &msg)
{
    switch (type) {
    case SMT_InitRequest:
        return Result::Error; // the request was answered before the analyzer was made
    case SMT_InitResponse:
        return handleInitResponse(msg);
    case SMT_SegReq:
        return handleSegReq(msg);
    case SMT_SegRes:
        return handleSegRes(msg);
    }
    return Result::Error; // a value outside the enumeration
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedUploadAnalyzer::handleInitResponse(const CAN::CanRxMessage &msg)
{
    if (mState != TS_WaitForInitResponse)
        return Result::Error;

    mState = TS_WaitForSegReq;
    announceSize(msg.mFrame);
    return Result::Running;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedUploadAnalyzer::handleSegReq(const CAN::CanRxMessage &msg)
{
    if (mState != TS_WaitForSegReq)
        return Result::Error;
    if (SDOHelper::toggleBitOfCanMsg(msg.mFrame) != mRequestToggle)
        return Result::Error;

    mState = TS_WaitForSegRes;
    mRequestToggle ^= 1;
    return Result::Running;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedUploadAnalyzer::handleSegRes(const CAN::CanRxMessage &msg)
{
    if (mState != TS_WaitForSegRes)
        return Result::Error;
    if (SDOHelper::toggleBitOfCanMsg(msg.mFrame) != mResponseToggle)
        return Result::Error;
    if (!appendSegment(msg.mFrame))
        return Result::Error;

    mResponseToggle ^= 1;
    mState = TS_WaitForSegReq;
    return SDOHelper::lastSegmentBitOfCanMsg(msg.mFrame) ? finish(msg) : Result::Running;
}
