#include "sdo/sdosegmenteduploadanalyzer.h"

#include "sdo/sdohelper.h"

SDOSegmentedUploadAnalyzer::SDOSegmentedUploadAnalyzer(QObject *parent) : SDOSegmentedTransferAnalyzer(parent) {}

SDOSegmentedUploadAnalyzer::SDOSegmentedUploadAnalyzer(quint8 node, quint16 index, quint8 subindex, double time,
                                                       QObject *parent)
    : SDOSegmentedTransferAnalyzer(node, index, subindex, time, parent)
{
    mTransfer.state = TS_WaitForInitResponse;
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
    if (mTransfer.state != TS_WaitForInitResponse)
        return Result::Error;

    mTransfer.state = TS_WaitForSegReq;
    announceSize(msg.mFrame);
    return Result::Running;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedUploadAnalyzer::handleSegReq(const CAN::CanRxMessage &msg)
{
    if (mTransfer.state != TS_WaitForSegReq)
        return Result::Error;
    if (SDOHelper::toggleBitOfCanMsg(msg.mFrame) != mTransfer.requestToggle)
        return Result::Error;

    mTransfer.state = TS_WaitForSegRes;
    mTransfer.requestToggle ^= 1;
    return Result::Running;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedUploadAnalyzer::handleSegRes(const CAN::CanRxMessage &msg)
{
    if (mTransfer.state != TS_WaitForSegRes)
        return Result::Error;
    if (SDOHelper::toggleBitOfCanMsg(msg.mFrame) != mTransfer.responseToggle)
        return Result::Error;
    if (!appendSegment(msg.mFrame))
        return Result::Error;

    mTransfer.responseToggle ^= 1;
    mTransfer.state = TS_WaitForSegReq;
    return SDOHelper::lastSegmentBitOfCanMsg(msg.mFrame) ? finish(msg) : Result::Running;
}
