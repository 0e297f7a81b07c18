#ifndef CANOPENANALYSIS_SDO_SDOSEGMENTEDTRANSFERANALYZER_H
#define CANOPENANALYSIS_SDO_SDOSEGMENTEDTRANSFERANALYZER_H

#include "support/canopenanalysis_export.h"
#include "support/canopenrecords.h"

#include <QByteArray>
#include <QObject>

class ByteBudget;

/// Follows one segmented SDO transfer (CiA 301, SDO download segment and SDO upload segment) of one node, frame by frame. The
/// tables of the two directions stand with SDOSegmentedDownloadAnalyzer and SDOSegmentedUploadAnalyzer.
///
/// An analyzer only observes; it never times out, and after Finished or Error it takes no more frames.
/// Owner: the SDOMessageHandler that created it. Threads: that of its owner.
class CANOPENANALYSIS_EXPORT SDOSegmentedTransferAnalyzer : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(SDOSegmentedTransferAnalyzer)

public:
    /// Where the conversation stands: what has to come next.
    enum TransferState : int {
        TS_Unitialized = 0,         ///< made without an object; nothing fits
        TS_WaitForInitResponse = 1, ///< the server's answer to the initiate request
        TS_WaitForSegRes = 2,       ///< the server's answer to a segment request
        TS_WaitForSegReq = 3        ///< the client's next segment request
    };
    Q_ENUM(TransferState)

    /// The role of a frame in the conversation.
    enum SegMsgType : int {
        SMT_InitRequest = 0,  ///< initiate request of the client
        SMT_InitResponse = 1, ///< initiate response of the server
        SMT_SegReq = 2,       ///< segment request of the client
        SMT_SegRes = 3        ///< segment response of the server
    };
    Q_ENUM(SegMsgType)

    /// What became of a frame.
    enum class Result : int {
        Finished = 0, ///< transferData() is the value of the object
        Error = 1,    ///< the frame does not fit; it has changed nothing
        Running = 2   ///< more frames have to come
    };
    Q_ENUM(Result)

    /// Why a frame was refused.
    enum class ErrorType : int {
        ET_None = 0,           ///< no frame was handled yet
        ET_ObjectMismatch = 1, ///< the response names another object
        ET_FaultyState = 2,    ///< initiate response out of turn
        ET_SizeError = 3,      ///< length and announced size differ, none was announced, or too many bytes collected
        ET_ToggleBitError = 4, ///< the toggle bit did not alternate
        ET_Undefined = 5       ///< any other reason; also what a frame leaves that was not refused
    };
    Q_ENUM(ErrorType)

    /// An analyzer without an object, in TS_Unitialized.
    explicit SDOSegmentedTransferAnalyzer(QObject *parent = nullptr);
    /// \a time: CanTimeStamp::toDouble() of the frame that opened the transfer, in seconds.
    SDOSegmentedTransferAnalyzer(quint8 node, quint16 index, quint8 subindex, double time, QObject *parent = nullptr);
    ~SDOSegmentedTransferAnalyzer() override;

    /// Takes the next frame of the conversation. A \a type outside the enumeration gives Error.
    virtual Result handleNewMessage(SegMsgType type, const CAN::CanRxMessage &msg) = 0;

    /// The payload collected so far, in transfer order. A copy.
    QByteArray transferData() const { return mTransfer.data; }
    /// Index of the object; 0 without one.
    quint16 index() const { return mTransfer.index; }
    /// Subindex of the object; 0 without one.
    quint8 subindex() const { return mTransfer.subindex; }
    /// The time given at construction, in seconds.
    double initRequestTime() const { return mTransfer.initTime; }
    /// Time in seconds of the frame that finished the transfer; 0 before that.
    double lastResponseTime() const { return mTransfer.lastResponseTime; }
    /// Message number of the frame that finished the transfer; 0 before that.
    quint32 lastMessageNumber() const { return mTransfer.lastMsgNumber; }
    /// Message number of the initiate download request; 0 for an upload.
    quint32 getInitMsgNumber() const { return mTransfer.initMsgNumber; }
    /// Why the last frame failed. Recorded for downloads only; an upload stays at ET_None.
    ErrorType lastError() const { return mTransfer.lastError; }

    /// For the handler, which uses an analyzer again since making one takes longer than most transfers: from now on like one
    /// constructed with these arguments, but for the budget, which it keeps. Requires: it is without an object.
    Q_DECL_HIDDEN void followTransfer(quint8 node, quint16 index, quint8 subindex, double time);
    /// For the handler: back to an analyzer without an object. The bytes collected are given back.
    Q_DECL_HIDDEN void dropTransfer();

    /// For the handler: the bound on the bytes that all its transfers collect. \a budget must outlive the analyzer. Without
    /// one the analyzer's own bytes are bounded alike.
    void setByteBudget(ByteBudget *budget);

protected:
    /// Notes the size that an initiate frame announces, if it does.
    void announceSize(const CAN::CanMessage &initiate);
    /// Appends the data of a segment (bytes 1 to 7 − n); false, with nothing changed, when too many bytes are collected.
    bool appendSegment(const CAN::CanMessage &segment);
    /// Notes the frame that ended the transfer.
    Result finish(const CAN::CanRxMessage &msg);

    /// What is known of one transfer.
    struct Transfer
    {
        quint8 node = 0;                          ///< node-ID of the server
        quint16 index = 0;                        ///< see index()
        quint8 subindex = 0;                      ///< see subindex()
        double initTime = 0.0;                    ///< see initRequestTime()
        TransferState state = TS_Unitialized;     ///< where the conversation stands
        ErrorType lastError = ErrorType::ET_None; ///< see lastError()
        quint8 requestToggle = 0;                 ///< expected in the next segment request
        quint8 responseToggle = 0;                ///< expected in the next segment response
        bool lastSegmentSeen = false;             ///< the download client's segment with c = 1 was accepted
        quint32 announcedSize = 0;                ///< bytes; 0 when no size was indicated
        QByteArray data{""};                      ///< see transferData(); never null: no bytes are a value, too
        quint32 initMsgNumber = 0;                ///< see getInitMsgNumber()
        double lastResponseTime = 0.0;            ///< see lastResponseTime()
        quint32 lastMsgNumber = 0;                ///< see lastMessageNumber()
    };
    Transfer mTransfer; ///< the transfer that is followed

private:
    ByteBudget *mBudget = nullptr; // the handler's
};

#endif // CANOPENANALYSIS_SDO_SDOSEGMENTEDTRANSFERANALYZER_H
