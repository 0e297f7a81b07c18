#include "sdo/sdosegmenteddownloadanalyzer.h"

#include "sdo/sdohelper.h"

SDOSegmentedDownloadAnalyzer::SDOSegmentedDownloadAnalyzer(QObject *parent) : SDOSegmentedTransferAnalyzer(parent) {}

SDOSegmentedDownloadAnalyzer::SDOSegmentedDownloadAnalyzer(quint8 node, quint16 index, quint8 subindex, double time,
                                                           QObject *parent)
    : SDOSegmentedTransferAnalyzer(node, index, subindex, time, parent)
{
    mTransfer.state = TS_WaitForInitResponse;
}

SDOSegmentedDownloadAnalyzer::~SDOSegmentedDownloadAnalyzer() = default;

SDOSegmentedTransferAnalyzer::Result SDOSegmentedDownloadAnalyzer::handleNewMessage(SegMsgType type,
                                                                                    const CAN::CanRxMessage &msg)
{
    mTransfer.lastError = ErrorType::ET_Undefined;
    switch (type) {
    case SMT_InitRequest:
        return handleInitRequest(msg);
    case SMT_InitResponse:
        return handleInitResponse(msg);
    case SMT_SegReq:
        return handleSegReq(msg);
    case SMT_SegRes:
        return handleSegRes(msg);
    }
    return Result::Error; // a value outside the enumeration
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedDownloadAnalyzer::handleInitRequest(const CAN::CanRxMessage &msg)
{
    announceSize(msg.mFrame);
    mTransfer.initMsgNumber = msg.mMessageNumber;
    return Result::Running;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedDownloadAnalyzer::handleInitResponse(const CAN::CanRxMessage &msg)
{
    if (mTransfer.state != TS_WaitForInitResponse)
        return refuse(ErrorType::ET_FaultyState);
    if (SDOHelper::getIndexOfSDOMessage(msg.mFrame) != mTransfer.index
        || SDOHelper::getSubindexOfSDOMessage(msg.mFrame) != mTransfer.subindex)
        return refuse(ErrorType::ET_ObjectMismatch);

    mTransfer.state = TS_WaitForSegReq;
    return Result::Running;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedDownloadAnalyzer::handleSegReq(const CAN::CanRxMessage &msg)
{
    if (mTransfer.state != TS_WaitForSegReq)
        return refuse(ErrorType::ET_Undefined);
    if (SDOHelper::toggleBitOfCanMsg(msg.mFrame) != mTransfer.requestToggle)
        return refuse(ErrorType::ET_ToggleBitError);
    if (!appendSegment(msg.mFrame))
        return refuse(ErrorType::ET_SizeError);

    mTransfer.state = TS_WaitForSegRes;
    mTransfer.requestToggle = mTransfer.responseToggle ^ 1;
    if (SDOHelper::lastSegmentBitOfCanMsg(msg.mFrame))
        mTransfer.lastSegmentSeen = true;
    return Result::Running;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedDownloadAnalyzer::handleSegRes(const CAN::CanRxMessage &msg)
{
    if (mTransfer.state != TS_WaitForSegRes)
        return refuse(ErrorType::ET_Undefined);
    if (SDOHelper::toggleBitOfCanMsg(msg.mFrame) != mTransfer.responseToggle)
        return refuse(ErrorType::ET_ToggleBitError);
    if (mTransfer.lastSegmentSeen) {
        const bool complete = mTransfer.announcedSize != 0 && quint32(mTransfer.data.size()) == mTransfer.announcedSize;
        return complete ? finish(msg) : refuse(ErrorType::ET_SizeError);
    }

    mTransfer.state = TS_WaitForSegReq;
    mTransfer.responseToggle ^= 1;
    return Result::Running;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedDownloadAnalyzer::refuse(ErrorType error)
{
    mTransfer.lastError = error;
    return Result::Error;
}
