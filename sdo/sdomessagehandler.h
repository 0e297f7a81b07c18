#ifndef CANOPENANALYSIS_SDO_SDOMESSAGEHANDLER_H
#define CANOPENANALYSIS_SDO_SDOMESSAGEHANDLER_H

#include "sdo/sdosegmenteddownloadanalyzer.h"
#include "sdo/sdosegmenteduploadanalyzer.h"
#include "support/canopenanalysis_export.h"
#include "support/canopenrecords.h"

#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QMap>
#include <QObject>
#include <QVariant>

#include <array>
#include <atomic>
#include <memory>
#include <optional>

class ByteBudget;
class GuestLock;
class ObjectTable;
class ValueReceiver;

/// Follows the SDO conversations on one CAN line: fed with the received frames in recording order, it pairs each request with
/// its answer and reports every transferred value, every frame that breaks the protocol, and nodes that answer more than
/// once. docs/architecture.md shows the state machines.
///
/// Owner: its QObject parent. Threads: passive; every operation runs in the caller's thread, one at a time, and the
/// signals are emitted from there, in the middle of handleCANMessage(). A directly connected slot may call every operation of
/// the handler but handleCANMessage(); after a reset() in a slot the rest of the frame in hand leaves no trace. The handler
/// must not be deleted in a slot of its own signals. Only the deferred check of the responder counts comes from the event
/// loop of the thread that the handler belongs to.
///
/// Nothing fed to it makes it fail: frames that fit no conversation are reported as protocol errors or ignored. A request
/// that is never answered stays pending; there is no time-out.
class CANOPENANALYSIS_EXPORT SDOMessageHandler : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(SDOMessageHandler)

public:
    /// Bound on the payload bytes that one handler keeps: half of it for running segmented transfers, half for block
    /// transfers. Beyond it a segment fails its transfer and the payload of a block segment is dropped. (Two halves, since block
    /// data stay until reset(): sooner or later they would leave nothing to segmented transfers.)
    static constexpr qint64 maxCollectedBytes = 64 * 1024 * 1024;

    /// \a descriptions may be null; the handler keeps the pointer and never reads through it.
    SDOMessageHandler(QObject *parent, QHash<unsigned int, CANopen::CANopenMessageDescription> *descriptions);
    ~SDOMessageHandler() override;

    /// Analyses one frame. Any frame may be passed; frames that belong to no SDO conversation are ignored.
    void handleCANMessage(const CAN::CanRxMessage &msg);

    /// Forgets everything seen. Keeps whether finished transfers are kept, the message number of the last repeated
    /// answer, and deferred checks already scheduled (they find nothing to report).
    void reset();

    /// Message numbers of offending frames in the order found; a number can occur more than once. A copy. Failed segmented
    /// transfers and repeated download requests are signalled only and do not appear here.
    QList<unsigned int> protocolErrors() const { return mProtocolErrors; }

    /// Switches the gathering of foundSDOEntryList() on or off (off at first). What was gathered stays.
    void setKeepFinishedTransfers(bool keep) { mKeepFinishedTransfers = keep; }

    /// Every object with a finished transfer and the history of its values, gathered while finished transfers are
    /// kept. A copy.
    QHash<SDO::SDOEntryKey, SDO::SDOEntry> foundSDOEntryList() const { return mFoundEntries; }

    /// Requests still waiting for their answer, by object. A copy. The request that opened a segmented upload stays among
    /// them until the next expedited download or upload request of the same object, its expedited answer, or its abort.
    QHash<SDO::SDOEntryKey, SDO::SDOEntry> pendingSDOEntryList() const;

    /// Block transfer records by node-ID; each node seen in an SDO frame has one. A copy.
    QMap<unsigned char, CANopen::SDODef::SDOBlockTransfer> blockTransfers() const;

    /// Replaces maxCollectedBytes for this handler; takes effect with the next segment. \a bytes: 0 or more.
    void setCollectedBytesLimit(qint64 bytes);

    /// Whether the deferred checks of the responder counts take place (they do at first). A handler that is fed in another
    /// thread than the one it belongs to must do without them. Changes of the counts upwards are reported in either case.
    void setDefersNodeCountChecks(bool defers) { mDefersNodeCountChecks = defers; }

    /// For the library's own loop: the lock under which it feeds this handler. The deferred check then enters as a
    /// guest. Without it the check takes no lock.
    void setGuestLock(std::shared_ptr<GuestLock> lock);

    /// For the library's own loop, which has connected newValue(): as long as nobody connects to a signal of this handler or
    /// disconnects from one from now on, \a receiver is called in its place, which comes to the same in less time
    /// (but for Qt's hook that lets debugging tools watch every emission). Not owned; must live as long as frames are fed.
    Q_DECL_HIDDEN void setOnlyReceiver(ValueReceiver *receiver);

    /// For the library's own loop, which has classified the frame: what handleCANMessage() does with an SDO_REQ.
    Q_DECL_HIDDEN void handleC2SMessage(const CAN::CanRxMessage &msg);
    /// As handleC2SMessage(), with an SDO_RES.
    Q_DECL_HIDDEN void handleS2CMessage(const CAN::CanRxMessage &msg);
    /// As handleC2SMessage(), with an SDO abort in a frame of \a type. Emits nothing.
    Q_DECL_HIDDEN void handleAbortMessage(const CAN::CanRxMessage &msg, CANopen::MessageType type);

Q_SIGNALS:
    /// An expedited or segmented transfer finished with a value; emitted once for each, in the order in which they finish.
    /// \a value is a qlonglong for an expedited transfer and a QByteArray for a segmented one; it is null when a server
    /// answered a read as if it had been a write. \a reqTime and \a respTime are seconds (CanTimeStamp::toDouble()),
    /// \a canMsgNumber is the message number of the response, \a wasSDOWrite is true for a download.
    void newValue(unsigned char node, unsigned short index, unsigned char subindex, QVariant value, double reqTime,
                  double respTime, unsigned int canMsgNumber, bool wasSDOWrite);

    /// The frame \a msgNumber, the one being handled, breaks the protocol.
    void sigProtocolError(unsigned int msgNumber, CANopen::SdoProtocolErrorType errorType);

    /// The number of devices that answer under \a nodeId changed to \a count. \a lastMsgNumber is the message number of the
    /// last repeated answer, 0 when there was none.
    void sigMultipleNodesDetected(unsigned char nodeId, unsigned char count, unsigned int lastMsgNumber);

private Q_SLOTS:
    void checkNodeCount();

private:
    /// By node-ID as SDO frames give it: one step to what a frame belongs to.
    template<typename T>
    using PerNode = std::array<T, 256>;

    // Initiate frames and expedited transfers
    void handleDownloadInitRequest(const CAN::CanRxMessage &msg);
    void handleDownloadInitResponse(const CAN::CanRxMessage &msg);
    void handleUploadInitRequest(const CAN::CanRxMessage &msg);
    void handleUploadInitResponse(const CAN::CanRxMessage &msg);
    void handleDLExpeditedRequest(const CAN::CanRxMessage &msg, unsigned char node);
    void handleDLExpeditedResponse(const CAN::CanRxMessage &msg, unsigned char node);
    void handleUploadExpeditedInitResponse(unsigned char node, unsigned short index, unsigned char subindex,
                                           const CAN::CanRxMessage &msg);
    void handleUnmatchedResponse(const SDO::SDOEntryKey &key, const CAN::CanRxMessage &msg);

    // Segmented transfers
    void handleDLSegmentedInitRequest(const CAN::CanRxMessage &msg, unsigned char node);
    void handleDownloadSegmentRequest(const CAN::CanRxMessage &msg);
    void handleDownloadSegmentResponse(const CAN::CanRxMessage &msg);
    void handleUploadSegmentedInitResponse(unsigned char node, unsigned short index, unsigned char subindex,
                                           const CAN::CanRxMessage &msg);
    void handleUploadSegmentRequest(const CAN::CanRxMessage &msg);
    void handleUploadSegmentResponse(const CAN::CanRxMessage &msg);
    void handleSegmentedDownloadResult(SDOSegmentedTransferAnalyzer::Result result, unsigned char node,
                                       quint32 msgNumber);
    void handleSegmentedUploadResult(SDOSegmentedTransferAnalyzer::Result result, unsigned char node,
                                     quint32 msgNumber);
    void segmentedDownloadFinished(unsigned char node);
    void segmentedUploadFinished(unsigned char node);
    void segmentedDownloadError(unsigned char node, quint32 msgNumber);
    void segmentedUploadError(unsigned char node, quint32 msgNumber);
    bool reportSegmentedValue(const SDOSegmentedTransferAnalyzer &analyzer, unsigned char node, bool wasSDOWrite);
    SDOSegmentedDownloadAnalyzer &followDownload(const SDO::SDOEntryKey &object, double time);
    SDOSegmentedUploadAnalyzer &followUpload(const SDO::SDOEntryKey &object, double time);
    void endDownload(unsigned char node);
    void endUpload(unsigned char node);

    // Block transfers
    void handleC2SBlockDownloadMsg(const CAN::CanRxMessage &msg, CANopen::SDODef::SDOBlockTransfer &transfer);
    void handleS2CBlockDownloadMsg(const CAN::CanRxMessage &msg, CANopen::SDODef::SDOBlockTransfer &transfer);
    void handleC2SBlockUploadMsg(const CAN::CanRxMessage &msg, CANopen::SDODef::SDOBlockTransfer &transfer);
    void handleS2CBlockUploadMsg(const CAN::CanRxMessage &msg, CANopen::SDODef::SDOBlockTransfer &transfer);
    void handleBlockSegment(const CAN::CanRxMessage &msg, CANopen::SDODef::SDOBlockTransfer &transfer);
    CANopen::SDODef::SDOBlockTransfer &blockTransfer(unsigned char node);
    void removeUnsetBytes(const CAN::CanMessage &endFrame, CANopen::SDODef::SDOBlockTransfer &transfer);
    static bool getBlockUploadSubblockData(quint8 &sequence, QByteArray &payload, const CAN::CanMessage &segment);

    // Responder counts
    bool checkForMultipleResponse(unsigned char node, unsigned short index, unsigned char subindex,
                                  const CAN::CanRxMessage &msg);
    void removeFinishedSDOEntry(unsigned char node, unsigned short index, unsigned char subindex);
    void setBackNodeCount(unsigned char node);
    void scheduleNodeCountCheck();

    // Entry tables
    SDO::SDOEntry &foundEntry(const SDO::SDOEntry &model);

    // Others than the only receiver may listen from now on, or it does no more: back to the signal
    void connectNotify(const QMetaMethod &signal) override;
    void disconnectNotify(const QMetaMethod &signal) override;

    // Reports. A slot may call back: afterwards nothing found before (analyzer, iterator, reference) is used, and a false
    // result tells that a slot has called reset(), so that nothing more of the frame in hand may be kept.
    bool reportError(quint32 msgNumber, CANopen::SdoProtocolErrorType type);
    void listAndReportError(const CAN::CanRxMessage &msg, CANopen::SdoProtocolErrorType type);
    bool reportValue(const SDO::SDOEntryKey &object, SDO::SDOEntryValue &&value);
    bool reportNodeCount(unsigned char node, unsigned char count);

    // Set once, then only read
    [[maybe_unused]] QHash<unsigned int, CANopen::CANopenMessageDescription> *const mMessageDescriptions; // not owned
    std::shared_ptr<GuestLock> mGuestLock;
    // Not owned; null as soon as others may be connected, which can happen in any thread
    std::atomic<ValueReceiver *> mOnlyReceiver{nullptr};
    const std::unique_ptr<ByteBudget> mSegmentBudget;
    const std::unique_ptr<ByteBudget> mBlockBudget;

    // What was seen
    // Requests that wait for their answer, and the last answered expedited transfer of each object
    const std::unique_ptr<ObjectTable> mObjects;
    // Every value of every finished transfer, while those are kept
    QHash<SDO::SDOEntryKey, SDO::SDOEntry> mFoundEntries;
    // Devices answering under a node-ID, as last established (0: not yet) and as last reported
    PerNode<quint8> mNodeResponseCount{};
    PerNode<quint8> mReportedNodeCount{};
    // At most one running transfer per node and direction
    PerNode<std::unique_ptr<SDOSegmentedDownloadAnalyzer>> mSegmentedDownloads;
    PerNode<std::unique_ptr<SDOSegmentedUploadAnalyzer>> mSegmentedUploads;
    // The analyzers of the transfers that ended last, for the next ones
    std::unique_ptr<SDOSegmentedDownloadAnalyzer> mSpareDownload;
    std::unique_ptr<SDOSegmentedUploadAnalyzer> mSpareUpload;
    PerNode<std::optional<CANopen::SDODef::SDOBlockTransfer>> mBlockTransfers; // of the nodes seen
    QList<unsigned int> mProtocolErrors;
    bool mKeepFinishedTransfers = false;
    bool mDefersNodeCountChecks = true;
    quint32 mLastMultipleResponseMsgNumber = 0;

    // Counts reset(): tells a function that has emitted a signal whether a slot called it
    quint32 mResetCount = 0;

    // The millisecond in which a deferred count check was scheduled last
    QElapsedTimer mClock;
    qint64 mNodeCountCheckScheduled = -1;
};

#endif // CANOPENANALYSIS_SDO_SDOMESSAGEHANDLER_H
