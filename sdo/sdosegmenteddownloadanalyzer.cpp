#include "sdo/sdosegmenteddownloadanalyzer.h"

#include "sdo/sdohelper.h"

SDOSegmentedDownloadAnalyzer::SDOSegmentedDownloadAnalyzer(QObject *parent) : SDOSegmentedTransferAnalyzer(parent) {}

SDOSegmentedDownloadAnalyzer::SDOSegmentedDownloadAnalyzer(quint8 node, quint16 index, quint8 subindex, double time,
                                                           QObject *parent)
    : SDOSegmentedTransferAnalyzer(node, index, subindex, time, parent)
{
    mState = TS_WaitForInitResponse;
}

SDOSegmentedDownloadAnalyzer::~SDOSegmentedDownloadAnalyzer() = default;

SDOSegmentedTransferAnalyzer::Result SDOSegmentedDownloadAnalyzer::handleNewMessage(SegMsgType type,
                                                                                    const CAN::CanRxMessage &msg)
{
    mLastError = ErrorType::ET_Undefined;
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
    mInitMsgNumber = msg.mMessageNumber;
    return Result::Running;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedDownloadAnalyzer::handleInitResponse(const CAN::CanRxMessage &msg)
{
    if (mState != TS_WaitForInitResponse)
        return refuse(ErrorType::ET_FaultyState);
    if (SDOHelper::getIndexOfSDOMessage(msg.mFrame) != mIndex
        || SDOHelper::getSubindexOfSDOMessage(msg.mFrame) != mSubindex)
        return refuse(ErrorType::ET_ObjectMismatch);

    mState = TS_WaitForSegReq;
    return Result::Running;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedDownloadAnalyzer::handleSegReq(const CAN::CanRxMessage &msg)
{
    if (mState != TS_WaitForSegReq)
        return refuse(ErrorType::ET_Undefined);
    if (SDOHelper::toggleBitOfCanMsg(msg.mFrame) != mRequestToggle)
        return refuse(ErrorType::ET_ToggleBitError);
    if (!appendSegment(msg.mFrame))
        return refuse(ErrorType::ET_SizeError);

    mState = TS_WaitForSegRes;
    mRequestToggle = mResponseToggle ^ 1;
    if (SDOHelper::lastSegmentBitOfCanMsg(msg.mFrame))
        mLastSegmentSeen = true;
    return Result::Running;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedDownloadAnalyzer::handleSegRes(const CAN::CanRxMessage &msg)
{
    if (mState != TS_WaitForSegRes)
        return refuse(ErrorType::ET_Undefined);
    if (SDOHelper::toggleBitOfCanMsg(msg.mFrame) != mResponseToggle)
        return refuse(ErrorType::ET_ToggleBitError);
    if (mLastSegmentSeen) {
        const bool complete = mAnnouncedSize != 0 && quint32(mTransferData.size()) == mAnnouncedSize;
        return complete ? finish(msg) : refuse(ErrorType::ET_SizeError);
    }

    mState = TS_WaitForSegReq;
    mResponseToggle ^= 1;
    return Result::Running;
}

SDOSegmentedTransferAnalyzer::Result SDOSegmentedDownloadAnalyzer::refuse(ErrorType error)
{
    mLastError = error;
    return Result::Error;
}
