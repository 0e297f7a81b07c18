// Block transfers in the SDO message handler: one record per node.
//
//  state                  frame                                              next   what it leaves in the record
//  any                    initiate block download request  C 110x_xcs0       1      object, size, CRC bit, direction 1
//  any                    initiate block download response S 101x_xx00       3      blksize
//  any                    initiate block upload request    C 101x_xx00       1      object, blksize, direction 0
//  1                      initiate block upload response   S 110x_xxx0       2      –
//  2                      start upload                     C 101x_xx11       3      –
//  3, data direction      segment                          lsssssss          3      counter + 1, payload when in sequence
//                         the same with l = 1                                4
//  any                    acknowledgement                  S, C 101x_xx10    same   counter 0, blksize
//  any                    end, from the sender of data     110n_nnx1         same   n bytes cut off the data
//  4                      the same, of a block download    C 110n_nnx1       5
//  any                    end response of a block upload   C 101x_xx01       5      –
//
// Initiate frames reset neither the counter nor the data. The one thing reported is the acknowledgement of a block download
// whose ackseq is not the blksize in force: its message number is listed, without a signal.

#include "sdo/sdomessagehandler.h"

#include "sdo/bytebudget_p.h"
#include "sdo/sdohelper.h"

#include <algorithm>

using CANopen::SDODef::SDOBlockTransfer;

namespace {

enum BlockState : quint32 {
    BS_Initiated = 1,
    BS_UploadAccepted = 2,
    BS_SubBlock = 3,
    BS_LastSegment = 4,
    BS_Ended = 5
};

enum BlockDirection : quint32 { BD_Upload = 0, BD_Download = 1 };

// Client and server subcommands of block transfers
enum : quint8 { InitiateDownload = 0, EndDownload = 1 };
enum : quint8 { InitiateDownloadResponse = 0, DownloadAcknowledgement = 2 };
enum : quint8 { InitiateUpload = 0, EndUploadResponse = 1, UploadAcknowledgement = 2, StartUpload = 3 };
enum : quint8 { InitiateUploadResponse = 0, EndUpload = 1 };

void startNextSubBlock(const CAN::CanMessage &acknowledgement, SDOBlockTransfer &transfer)
{
    transfer.mSequence = 0;
    transfer.mBlockSize = SDOHelper::getBlkSizeOfBlockUploadResponseMsg(acknowledgement);
}

void setObject(const CAN::CanMessage &initiate, SDOBlockTransfer &transfer)
{
    transfer.mIndex = SDOHelper::getIndexOfSDOMessage(initiate);
    transfer.mSubindex = SDOHelper::getSubindexOfSDOMessage(initiate);
}

} // namespace

SDOBlockTransfer &SDOMessageHandler::blockTransfer(unsigned char node)
{
    std::optional<SDOBlockTransfer> &transfer = mBlockTransfers[node];
    return transfer ? *transfer : transfer.emplace();
}

QMap<unsigned char, SDOBlockTransfer> SDOMessageHandler::blockTransfers() const
{
    QMap<unsigned char, SDOBlockTransfer> transfers;
    for (std::size_t node = 0; node < mBlockTransfers.size(); ++node) {
        if (mBlockTransfers[node])
            transfers.insert(static_cast<unsigned char>(node), *mBlockTransfers[node]);
    }
    return transfers;
}

void SDOMessageHandler::handleBlockSegment(const CAN::CanRxMessage &msg, SDOBlockTransfer &transfer)
{
    quint8 sequence = 0;
    QByteArray payload;
    const bool moreFollow = getBlockUploadSubblockData(sequence, payload, msg.mFrame);

    ++transfer.mSequence;
    // A segment out of sequence, or beyond the bound on collected bytes, is counted and its payload dropped.
    if (transfer.mSequence == sequence && mBlockBudget->take(payload.size()))
        transfer.mData.append(payload);
    if (!moreFollow)
        transfer.mState = BS_LastSegment;
}

//  segment   lsssssss | 7 bytes of data    l: last segment, s: sequence number
bool SDOMessageHandler::getBlockUploadSubblockData(quint8 &sequence, QByteArray &payload,
                                                   const CAN::CanMessage &segment)
{
    constexpr quint8 sequenceMask = 0x7F;
    constexpr quint8 lastSegment = 0x80;
    constexpr int segmentBytes = 7;
    sequence = segment.mPayload[0] & sequenceMask;
    payload = segment.dataToByteArray(1, segmentBytes, true);
    return (segment.mPayload[0] & lastSegment) == 0;
}

void SDOMessageHandler::handleC2SBlockDownloadMsg(const CAN::CanRxMessage &msg, SDOBlockTransfer &transfer)
{
    switch (SDOHelper::getClientSubcommandDownload(msg.mFrame)) {
    case InitiateDownload:
        transfer.mCrcSupport = SDOHelper::getCRCSupport(msg.mFrame);
        setObject(msg.mFrame, transfer);
        transfer.mSize =
            SDOHelper::getSizeIndication(msg.mFrame) ? SDOHelper::getSizeInBytesOfSDOBlockDownload(msg.mFrame) : 0;
        transfer.mState = BS_Initiated;
        transfer.mDirection = BD_Download;
        return;
    case EndDownload:
        removeUnsetBytes(msg.mFrame, transfer);
        if (transfer.mState == BS_LastSegment)
            transfer.mState = BS_Ended;
        return;
    }
}

void SDOMessageHandler::handleS2CBlockDownloadMsg(const CAN::CanRxMessage &msg, SDOBlockTransfer &transfer)
{
    switch (SDOHelper::getServerSubCommandBlockDownload(msg.mFrame)) {
    case InitiateDownloadResponse:
        transfer.mState = BS_SubBlock;
        transfer.mBlockSize = SDOHelper::getBlkSizeOfBlockDLResponseMsg(msg.mFrame);
        return;
    case DownloadAcknowledgement:
        if (transfer.mBlockSize != SDOHelper::getAckseqOfBlockUploadResponseMsg(msg.mFrame))
            mProtocolErrors.append(msg.mMessageNumber);
        startNextSubBlock(msg.mFrame, transfer);
        return;
    default: // end response, not defined
        return;
    }
}

void SDOMessageHandler::handleC2SBlockUploadMsg(const CAN::CanRxMessage &msg, SDOBlockTransfer &transfer)
{
    switch (SDOHelper::getClientSubcommandUpload(msg.mFrame)) {
    case InitiateUpload:
        setObject(msg.mFrame, transfer);
        transfer.mBlockSize = SDOHelper::getBlkSizeOfBlockUploadRequestMsg(msg.mFrame);
        transfer.mState = BS_Initiated;
        transfer.mDirection = BD_Upload;
        return;
    case EndUploadResponse:
        transfer.mState = BS_Ended;
        return;
    case UploadAcknowledgement:
        startNextSubBlock(msg.mFrame, transfer);
        return;
    case StartUpload:
        if (transfer.mState == BS_UploadAccepted)
            transfer.mState = BS_SubBlock;
        return;
    }
}

void SDOMessageHandler::handleS2CBlockUploadMsg(const CAN::CanRxMessage &msg, SDOBlockTransfer &transfer)
{
    switch (SDOHelper::getServerSubCommandBlockUpload(msg.mFrame)) {
    case InitiateUploadResponse:
        if (transfer.mState == BS_Initiated)
            transfer.mState = BS_UploadAccepted;
        return;
    case EndUpload:
        removeUnsetBytes(msg.mFrame, transfer);
        return;
    }
}

void SDOMessageHandler::removeUnsetBytes(const CAN::CanMessage &endFrame, SDOBlockTransfer &transfer)
{
    const int unset = std::min<int>(SDOHelper::getBlockUploadUnsetBytes(endFrame), transfer.mData.size());
    transfer.mData.chop(unset);
    mBlockBudget->give(unset);
}
