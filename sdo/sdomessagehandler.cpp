// Routing, expedited transfers, aborts and the entry tables. Segmented transfers, block transfers and responder counts each
// have a file of their own beside this one.

#include "sdo/sdomessagehandler.h"

#include "sdo/bytebudget_p.h"
#include "sdo/objecttable_p.h"
#include "sdo/sdohelper.h"
#include "sdo/sdonodeid_p.h"
#include "sdo/valuereceiver_p.h"
#include "support/guestlock_p.h"
#include "support/messageclass_p.h"

#include <QDebug>

using namespace CANopen;
using SDO::SDOEntry;
using SDO::SDOEntryKey;
using SDO::SDOEntryValue;
using Request = ObjectTable::Request;

namespace {

// CiA 301 command specifier, bits 5 to 7 of byte 0, in place
constexpr quint8 commandSpecifierMask = 0xE0;

// What a block record must hold for its node's frames to be block segments
constexpr quint32 subBlockPhase = 3;
constexpr quint32 blockDownload = 1;
constexpr quint32 blockUpload = 0;

bool takesSegments(const SDODef::SDOBlockTransfer &transfer, quint32 direction)
{
    return transfer.mState == subBlockPhase && transfer.mDirection == direction;
}

SDOEntryKey objectOf(const CAN::CanRxMessage &msg, unsigned char node)
{
    return SDOEntryKey(node, SDOHelper::getIndexOfSDOMessage(msg.mFrame),
                       SDOHelper::getSubindexOfSDOMessage(msg.mFrame));
}

QVariant valueOf(const Request &request)
{
    return request.isWrite ? QVariant(request.written) : QVariant();
}

SDOEntry entryOf(const SDOEntryKey &object, const Request &request)
{
    SDOEntry entry(object);
    entry.requestTime = request.time;
    entry.requestMsgNumber = request.msgNumber;
    entry.value = valueOf(request);
    return entry;
}

/// The value that \a response completes, for the request of the given time and message number.
SDOEntryValue answeredValue(CanTimeStamp requestTime, quint32 requestMsgNumber, const CAN::CanRxMessage &response,
                            QVariant value, bool wasSDOWrite)
{
    return {std::move(value),        requestTime.toDouble(), response.mTimeStamp.toDouble(),
            response.mMessageNumber, requestMsgNumber,       wasSDOWrite};
}

} // namespace

SDOMessageHandler::SDOMessageHandler(QObject *parent,
                                     QHash<unsigned int, CANopen::CANopenMessageDescription> *descriptions)
    : QObject(parent),
      mMessageDescriptions(descriptions),
      mSegmentBudget(std::make_unique<ByteBudget>(maxCollectedBytes / 2)),
      mBlockBudget(std::make_unique<ByteBudget>(maxCollectedBytes / 2)),
      mObjects(std::make_unique<ObjectTable>())
{
    // For hosts that connect queued; the other parameters of the signals are known to Qt.
    qRegisterMetaType<CANopen::SdoProtocolErrorType>("CANopen::SdoProtocolErrorType");
    mClock.start();
}

SDOMessageHandler::~SDOMessageHandler()
{
    qDebug() << "virtual SDOMessageHandler::~SDOMessageHandler()"
             << "Line:" << 23;
}

void SDOMessageHandler::setGuestLock(std::shared_ptr<GuestLock> lock)
{
    mGuestLock = std::move(lock);
}

void SDOMessageHandler::setOnlyReceiver(ValueReceiver *receiver)
{
    mOnlyReceiver = receiver;
}

void SDOMessageHandler::connectNotify(const QMetaMethod &signal)
{
    Q_UNUSED(signal)
    mOnlyReceiver = nullptr;
}

void SDOMessageHandler::disconnectNotify(const QMetaMethod &signal)
{
    Q_UNUSED(signal)
    mOnlyReceiver = nullptr;
}

void SDOMessageHandler::setCollectedBytesLimit(qint64 bytes)
{
    mSegmentBudget->setLimit(bytes / 2);
    mBlockBudget->setLimit(bytes / 2);
}

void SDOMessageHandler::reset()
{
    ++mResetCount;
    mProtocolErrors.clear();
    mFoundEntries.clear();
    mObjects->clear();
    mNodeResponseCount.fill(0);
    mReportedNodeCount.fill(0);
    for (auto &analyzer : mSegmentedDownloads)
        analyzer.reset();
    for (auto &analyzer : mSegmentedUploads)
        analyzer.reset();
    for (std::optional<SDODef::SDOBlockTransfer> &transfer : mBlockTransfers) {
        if (transfer)
            mBlockBudget->give(transfer->mData.size());
        transfer.reset();
    }
}

// ---- routing -----------------------------------------------------------------------------------------------------------

void SDOMessageHandler::handleCANMessage(const CAN::CanRxMessage &msg)
{
    bool isAbort = false;
    const MessageType type = MessageClass::of(msg.mFrame, isAbort);
    if (isAbort)
        handleAbortMessage(msg, type);
    else if (type == SDO_REQ)
        handleC2SMessage(msg);
    else if (type == SDO_RES)
        handleS2CMessage(msg);
}

//  client command specifier (byte 0)   service
//  000x xxxx                           download segment request
//  001x xxxx                           initiate download request
//  010x xxxx                           initiate upload request
//  011x xxxx                           upload segment request
//  100x xxxx                           abort (taken before, by the classifier), else ignored
//  101x xxxx                           block upload
//  110x xxxx                           block download
//  111x xxxx                           not defined: ignored
void SDOMessageHandler::handleC2SMessage(const CAN::CanRxMessage &msg)
{
    SDODef::SDOBlockTransfer &transfer = blockTransfer(SdoNodeId::ofClientFrame(msg.mFrame));
    if (takesSegments(transfer, blockDownload))
        return handleBlockSegment(msg, transfer);

    switch (msg.mFrame.mPayload[0] & commandSpecifierMask) {
    case 0x00:
        return handleDownloadSegmentRequest(msg);
    case 0x20:
        return handleDownloadInitRequest(msg);
    case 0x40:
        return handleUploadInitRequest(msg);
    case 0x60:
        return handleUploadSegmentRequest(msg);
    case 0xA0:
        return handleC2SBlockUploadMsg(msg, transfer);
    case 0xC0:
        return handleC2SBlockDownloadMsg(msg, transfer);
    default:
        return;
    }
}

//  server command specifier (byte 0)   service
//  000x xxxx                           upload segment response
//  001x xxxx                           download segment response
//  010x xxxx                           initiate upload response
//  011x xxxx                           initiate download response
//  100x xxxx                           abort (taken before, by the classifier), else ignored
//  101x xxxx                           block download
//  110x xxxx                           block upload
//  111x xxxx                           not defined: ignored
void SDOMessageHandler::handleS2CMessage(const CAN::CanRxMessage &msg)
{
    SDODef::SDOBlockTransfer &transfer = blockTransfer(SdoNodeId::ofServerFrame(msg.mFrame));
    if (takesSegments(transfer, blockUpload))
        return handleBlockSegment(msg, transfer);

    switch (msg.mFrame.mPayload[0] & commandSpecifierMask) {
    case 0x00:
        return handleUploadSegmentResponse(msg);
    case 0x20:
        return handleDownloadSegmentResponse(msg);
    case 0x40:
        return handleUploadInitResponse(msg);
    case 0x60:
        return handleDownloadInitResponse(msg);
    case 0xA0:
        return handleS2CBlockDownloadMsg(msg, transfer);
    case 0xC0:
        return handleS2CBlockUploadMsg(msg, transfer);
    default:
        return;
    }
}

//  abort   1000 0000 | index | subindex | abort code
void SDOMessageHandler::handleAbortMessage(const CAN::CanRxMessage &msg, CANopen::MessageType type)
{
    constexpr unsigned char noNode = 0xFF;
    const unsigned char node = type == SDO_REQ   ? SdoNodeId::ofClientFrame(msg.mFrame)
                               : type == SDO_RES ? SdoNodeId::ofServerFrame(msg.mFrame)
                                                 : noNode;
    mObjects->forgetPending(objectOf(msg, node));
}

// ---- downloads ---------------------------------------------------------------------------------------------------------

void SDOMessageHandler::handleDownloadInitRequest(const CAN::CanRxMessage &msg)
{
    const unsigned char node = SdoNodeId::ofClientFrame(msg.mFrame);
    if (SDOHelper::expeditedBitOfCanMsg(msg.mFrame))
        handleDLExpeditedRequest(msg, node);
    else
        handleDLSegmentedInitRequest(msg, node);
}

void SDOMessageHandler::handleDLExpeditedRequest(const CAN::CanRxMessage &msg, unsigned char node)
{
    bool ok = false;
    const qint64 value = SDOHelper::getExpeditedRawValue(msg.mFrame, ok);
    if (!ok)
        return;

    const SDOEntryKey object = objectOf(msg, node);
    const Request request = {msg.mTimeStamp, msg.mMessageNumber, true, value};
    // The earlier request, of whichever direction, will get no answer any more: the next answer belongs to this one.
    if (mObjects->forgetPending(object) && !reportError(msg.mMessageNumber, PE_RequestPending))
        return;
    mObjects->setPending(object, request);
}

void SDOMessageHandler::handleDownloadInitResponse(const CAN::CanRxMessage &msg)
{
    const unsigned char node = SdoNodeId::ofServerFrame(msg.mFrame);
    if (SDOSegmentedDownloadAnalyzer *const analyzer = mSegmentedDownloads[node].get()) {
        handleSegmentedDownloadResult(analyzer->handleNewMessage(SDOSegmentedTransferAnalyzer::SMT_InitResponse, msg),
                                      node, msg.mMessageNumber);
    } else {
        handleDLExpeditedResponse(msg, node);
    }
}

void SDOMessageHandler::handleDLExpeditedResponse(const CAN::CanRxMessage &msg, unsigned char node)
{
    const SDOEntryKey object = objectOf(msg, node);
    const Request *const pending = mObjects->pendingRequest(object);
    if (!pending)
        return handleUnmatchedResponse(object, msg);

    const Request request = *pending; // a copy, since the table may be reset by a slot below
    SDOEntryValue written = answeredValue(request.time, request.msgNumber, msg, valueOf(request), true);
    if (mKeepFinishedTransfers)
        foundEntry(entryOf(object, request)).values.append(written);
    if (!reportValue(object, std::move(written)))
        return;
    mObjects->finish(object, request.time);
}

// ---- uploads -----------------------------------------------------------------------------------------------------------

void SDOMessageHandler::handleUploadInitRequest(const CAN::CanRxMessage &msg)
{
    const unsigned char node = SdoNodeId::ofClientFrame(msg.mFrame);
    if (!SdoNodeId::isDevice(node))
        return;
    // A repeated read is no error: the answer is paired with the last request.
    mObjects->setPending(objectOf(msg, node), {msg.mTimeStamp, msg.mMessageNumber});
}

void SDOMessageHandler::handleUploadInitResponse(const CAN::CanRxMessage &msg)
{
    const SDOEntryKey object = objectOf(msg, SdoNodeId::ofServerFrame(msg.mFrame));
    if (SDOHelper::expeditedBitOfCanMsg(msg.mFrame))
        handleUploadExpeditedInitResponse(object.node, object.index, object.subindex, msg);
    else if (mObjects->pendingRequest(object))
        handleUploadSegmentedInitResponse(object.node, object.index, object.subindex, msg);
    else
        handleUnmatchedResponse(object, msg);
}

void SDOMessageHandler::handleUploadExpeditedInitResponse(unsigned char node, unsigned short index,
                                                          unsigned char subindex, const CAN::CanRxMessage &msg)
{
    const SDOEntryKey object(node, index, subindex);
    const Request *const pending = mObjects->pendingRequest(object);
    if (!pending)
        return handleUnmatchedResponse(object, msg);

    const Request request = *pending; // a copy, since the table may be reset by a slot below
    // The object's last finished transfer is forgotten: replaced below, and nothing asks for it until then.
    setBackNodeCount(node);
    // Found before its value is read: an answer without value bytes still shows that the object was accessed.
    SDOEntry *const found = mKeepFinishedTransfers ? &foundEntry(entryOf(object, request)) : nullptr;

    bool ok = false;
    const qint64 value = SDOHelper::getExpeditedRawValue(msg.mFrame, ok);
    if (ok) {
        SDOEntryValue read = answeredValue(request.time, request.msgNumber, msg, QVariant(value), false);
        if (found) {
            read.reqMsgNumber = found->requestMsgNumber; // of the request that made the entry, not of this one
            found->values.append(read);
        }
        if (!reportValue(object, std::move(read)))
            return;
    }
    mObjects->finish(object, request.time);
}

void SDOMessageHandler::handleUnmatchedResponse(const SDO::SDOEntryKey &key, const CAN::CanRxMessage &msg)
{
    if (!checkForMultipleResponse(key.node, key.index, key.subindex, msg))
        listAndReportError(msg, PE_UnexpectedResponse);
}

// ---- entry tables ------------------------------------------------------------------------------------------------------

QHash<SDO::SDOEntryKey, SDO::SDOEntry> SDOMessageHandler::pendingSDOEntryList() const
{
    QHash<SDOEntryKey, SDOEntry> entries;
    mObjects->forEachPending(
        [&](const SDOEntryKey &object, const Request &request) { entries.insert(object, entryOf(object, request)); });
    return entries;
}

/// The found entry of the object of \a model, made from \a model when there is none yet.
SDO::SDOEntry &SDOMessageHandler::foundEntry(const SDO::SDOEntry &model)
{
    const auto found = mFoundEntries.find(model);
    return found != mFoundEntries.end() ? *found : *mFoundEntries.insert(model, model);
}

// ---- reports -----------------------------------------------------------------------------------------------------------

bool SDOMessageHandler::reportError(quint32 msgNumber, CANopen::SdoProtocolErrorType type)
{
    const quint32 resets = mResetCount;
    Q_EMIT sigProtocolError(msgNumber, type);
    return mResetCount == resets;
}

void SDOMessageHandler::listAndReportError(const CAN::CanRxMessage &msg, CANopen::SdoProtocolErrorType type)
{
    mProtocolErrors.append(msg.mMessageNumber);
    reportError(msg.mMessageNumber, type);
}

bool SDOMessageHandler::reportValue(const SDO::SDOEntryKey &object, SDO::SDOEntryValue &&value)
{
    const quint32 resets = mResetCount;
    ValueReceiver *const only = mOnlyReceiver;
    if (only && !signalsBlocked())
        only->takeValue(object, std::move(value));
    else
        Q_EMIT newValue(object.node, object.index, object.subindex, value.value, value.reqTime, value.respTime,
                        value.canMsgNumber, value.wasSDOWrite);
    return mResetCount == resets;
}

bool SDOMessageHandler::reportNodeCount(unsigned char node, unsigned char count)
{
    const quint32 resets = mResetCount;
    Q_EMIT sigMultipleNodesDetected(node, count, mLastMultipleResponseMsgNumber);
    return mResetCount == resets;
}
