#include "framescan.h"

#include "sdo/sdohelper.h"
#include "support/cohelper.h"

#include <array>
#include <unordered_map>

namespace {

// Command specifier: the upper three bits of byte 0. The client's and the server's initiate frames share their values.
constexpr quint8 specifierMask = 0xE0;
constexpr quint8 clientInitiateDownload = 0x20;
constexpr quint8 clientInitiateUpload = 0x40;
constexpr quint8 serverInitiateUpload = 0x40;
constexpr quint8 serverInitiateDownload = 0x60;
constexpr quint8 allExpeditedBytes = 4;

quint64 keyOf(const ObjectRef &object, bool isWrite)
{
    return quint64(object.node) << 32 | quint64(object.index) << 16 | quint64(object.subindex) << 8 | quint64(isWrite);
}

quint8 nodeOf(const CAN::CanMessage &frame)
{
    constexpr quint32 nodeMask = 0x7F;
    return quint8(frame.mIdentifier & nodeMask);
}

// Index and subindex stand at the same place in initiate and abort frames.
ObjectRef objectOf(const CAN::CanMessage &frame)
{
    return {nodeOf(frame), SDOHelper::getIndexOfSDOMessage(frame), SDOHelper::getSubindexOfSDOMessage(frame)};
}

quint32 abortCode(const CAN::CanMessage &frame)
{
    const quint8 *const bytes = frame.mPayload;
    return quint32(bytes[4]) | quint32(bytes[5]) << 8 | quint32(bytes[6]) << 16 | quint32(bytes[7]) << 24;
}

quint8 expeditedBytes(const CAN::CanMessage &frame)
{
    if (!SDOHelper::sizeIndicatedBitOfCanMsg(frame))
        return allExpeditedBytes;
    return quint8(allExpeditedBytes - SDOHelper::expeditedBytesWithoutData(frame));
}

class FrameScan
{
public:
    explicit FrameScan(LineFindings &findings)
        : mFindings(findings), mNextAccess(findings.accesses.begin()), mKnownFaults(findings.faults.size())
    {
    }

    void look(const CAN::CanRxMessage &msg);
    void markAnsweredRequests();

private:
    struct Request
    {
        FrameRef frame;
        quint8 bytes = allExpeditedBytes; // of an expedited download
        bool wasAnswered = false;
    };

    void lookAtRequest(const CAN::CanRxMessage &msg);
    void lookAtResponse(const CAN::CanRxMessage &msg);
    void complete(SdoAccess &access, const CAN::CanRxMessage &msg);
    void judge(ProtocolFault &fault, const CAN::CanRxMessage &msg) const;

    LineFindings &mFindings;
    bool mHasLooked = false;
    std::vector<SdoAccess>::iterator mNextAccess;
    std::size_t mNextFault = 0;
    const std::size_t mKnownFaults;                 // those behind them were added here
    std::array<quint8, 256> mLastClientByte = {};   // byte 0 of the last client frame, by node
    std::unordered_map<quint64, Request> mRequests; // the last request for each object and direction
};

void FrameScan::look(const CAN::CanRxMessage &msg)
{
    if (!mHasLooked)
        mFindings.first = msg.mTimeStamp;
    mHasLooked = true;
    mFindings.last = msg.mTimeStamp;
    bool isAbort = false;
    const CANopen::MessageType type = COHelper::getMessageType(msg.mFrame, isAbort);
    if (isAbort) {
        mFindings.aborts.push_back({{msg.mMessageNumber, msg.mTimeStamp},
                                    objectOf(msg.mFrame),
                                    abortCode(msg.mFrame),
                                    type == CANopen::SDO_REQ});
    } else if (type == CANopen::SDO_REQ) {
        lookAtRequest(msg);
    } else if (type == CANopen::SDO_RES) {
        lookAtResponse(msg);
    } else if (type == CANopen::NMT_EC && msg.mFrame.mDataLength != 1) {
        mFindings.faults.push_back(
            {{msg.mMessageNumber, msg.mTimeStamp}, msg.mFrame, ProtocolFault::ErrorControlLength});
    }
    for (; mNextAccess != mFindings.accesses.end() && mNextAccess->response.number == msg.mMessageNumber; ++mNextAccess)
        complete(*mNextAccess, msg);
    for (; mNextFault < mKnownFaults && mFindings.faults[mNextFault].frame.number == msg.mMessageNumber; ++mNextFault)
        judge(mFindings.faults[mNextFault], msg);
}

void FrameScan::lookAtRequest(const CAN::CanRxMessage &msg)
{
    mLastClientByte[nodeOf(msg.mFrame)] = msg.mFrame.mPayload[0];
    const quint8 specifier = msg.mFrame.mPayload[0] & specifierMask;
    if (specifier != clientInitiateDownload && specifier != clientInitiateUpload)
        return;
    const bool isWrite = specifier == clientInitiateDownload;
    mRequests[keyOf(objectOf(msg.mFrame), isWrite)] = {
        {msg.mMessageNumber, msg.mTimeStamp}, expeditedBytes(msg.mFrame), false};
}

void FrameScan::lookAtResponse(const CAN::CanRxMessage &msg)
{
    const quint8 specifier = msg.mFrame.mPayload[0] & specifierMask;
    if (specifier != serverInitiateDownload && specifier != serverInitiateUpload)
        return;
    const auto request = mRequests.find(keyOf(objectOf(msg.mFrame), specifier == serverInitiateDownload));
    if (request != mRequests.end())
        request->second.wasAnswered = true;
}

void FrameScan::complete(SdoAccess &access, const CAN::CanRxMessage &msg)
{
    access.response.time = msg.mTimeStamp;
    const auto request = mRequests.find(keyOf(access.object, access.wasWrite));
    if (request != mRequests.end())
        access.request = request->second.frame;
    if (!access.isExpedited())
        return;
    if (!access.wasWrite)
        access.expeditedBytes = expeditedBytes(msg.mFrame);
    else if (request != mRequests.end())
        access.expeditedBytes = request->second.bytes;
    // Of a write the analysis takes all four bytes; those beyond the announced size are no data.
    const int unused = 8 * (allExpeditedBytes - access.expeditedBytes);
    access.number &= 0xFFFFFFFFU >> unused;
}

// The last block of a download is as a rule shorter than the block size: an acknowledgement of as many segments as the client
// sent is in order.
void FrameScan::judge(ProtocolFault &fault, const CAN::CanRxMessage &msg) const
{
    constexpr quint8 lastSegment = 0x80;
    const quint8 segment = mLastClientByte[nodeOf(msg.mFrame)];
    const quint8 acknowledged = SDOHelper::getAckseqOfBlockUploadResponseMsg(msg.mFrame);
    if (fault.kind == ProtocolFault::SegmentsLost && segment == (acknowledged | lastSegment))
        fault.kind = ProtocolFault::LastAcknowledge;
}

void FrameScan::markAnsweredRequests()
{
    for (OpenRequest &open : mFindings.openRequests) {
        const auto request = mRequests.find(keyOf(open.object, open.isWrite));
        open.wasAnswered = request != mRequests.end() && request->second.wasAnswered
                           && request->second.frame.number == open.frame.number;
    }
}

} // namespace

void scanFrames(DatachunkHandler &store, LineFindings &findings)
{
    FrameScan scan(findings);
    if (findings.line == allLines) {
        const int count = store.getMessageCount();
        for (int i = 0; i < count; ++i)
            scan.look(store.messageAt(i));
    } else {
        CAN::CanRxMessage msg;
        for (unsigned int position = 0; store.getMessageOfLine(msg, findings.line, position); ++position)
            scan.look(msg);
    }
    scan.markAnsweredRequests();
}
