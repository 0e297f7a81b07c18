#ifndef CANOPENANALYSIS_NETWORK_CANOPENNETWORKANALYZERWORKER_H
#define CANOPENANALYSIS_NETWORK_CANOPENNETWORKANALYZERWORKER_H

#include "support/canopenanalysis_export.h"
#include "support/canopennetwork.h"
#include "support/canopenrecords.h"
#include "support/datachunkhandler.h"

#include <QHash>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QVariant>

#include <atomic>
#include <memory>

class GuestLock;
class SDOMessageHandler;

/// Analyses one CAN line: the loop over its frames, their classification and dispatch into the network model and the SDO
/// analysis, and the counters of the rating. Hosts use CANopenNetworkAnalyzer, which creates the worker and its thread.
///
/// Owner: the analyzer. Threads: analyze() and handleMessage() belong to the analysis thread; stop(), setPause(),
/// setAnalyzing(), reset(), reanalyze() and the const operations may be called from any thread. Between two frames the loop lets
/// the waiting callers in, so they wait for a frame, not for a batch.
///
/// Must not be deleted while its loop runs, but in the analysis thread at an event point (by a queued call).
class CANOPENANALYSIS_EXPORT CANopenNetworkAnalyzerWorker : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CANopenNetworkAnalyzerWorker)

public:
    /// What speaks against clean, fully understood traffic.
    enum RatingMessageTypes : quint8 {
        RMT_SdoAbort = 0,      ///< SDO abort frames
        RMT_ProtocolError = 1, ///< SDO protocol errors, and malformed NMT error control frames (2 for a wrong length)
        RMT_Unhandled = 2      ///< frames of a class that the analysis does not follow
    };

    /// \a messageDescriptions must outlive the worker; its destructor empties the table.
    CANopenNetworkAnalyzerWorker(QPointer<CANopenNetwork> network, QPointer<DatachunkHandler> datachunkHandler,
                                 QHash<unsigned int, CANopen::CANopenMessageDescription> &messageDescriptions,
                                 QObject *parent = nullptr);
    ~CANopenNetworkAnalyzerWorker() override;

    /// The loop: returns when stop() was called, at any time before or after, or when model or store are gone.
    /// Requires: called once, in the thread that the worker lives in.
    void analyze();

    /// Ends the loop after the frame in hand, for good: analyze() called later returns at once.
    void stop();

    /// True pauses the loop after the frame in hand, false resumes it.
    void setPause(bool paused);
    /// The same the other way round.
    void setAnalyzing(bool analyzing) { setPause(!analyzing); }

    /// See CANopenNetworkAnalyzer::reset().
    void reset();

    /// Classifies one frame, counts it and hands it to whoever deals with its class.
    void handleMessage(const CAN::CanRxMessage &frame);

    /// \a n when it is below 128 (negative values too), otherwise -1.
    static int checkNode(short n);
    /// Node-ID of an SDO response (identifier − 0x580 in 16 bits), as checkNode() gives it.
    static int getNodeFromSDO_RES(const CAN::CanMessage &msg);
    /// Node-ID of an emergency message (identifier − 0x080 in 16 bits), as checkNode() gives it.
    static int getNodeFromEMCY(const CAN::CanMessage &msg);

    /// Records the NMT state that a node announced; malformed error control frames count as protocol errors.
    void handleNMTECMessage(const CAN::CanRxMessage &frame, const CANopen::MessageType &type);
    /// Node-ID of an NMT error control frame (identifier − 0x700 in 16 bits), as checkNode() gives it, and its state in
    /// \a event; -1 for a frame that has not exactly one byte, which counts as a protocol error.
    int getNodeFromNMT_EC(const CAN::CanMessage &msg, CANopen::MessageType type, CANopen::CANopenNMTEvent &event);

    /// Rating from 0 to 100, see CANopenNetworkAnalyzer::calculateRating().
    qint16 calculateRating() const;

    /// See CANopenNetworkAnalyzer::ratingCounts().
    QMap<RatingMessageTypes, unsigned int> ratingCounts() const;
    /// See CANopenNetworkAnalyzer::messageTypeDistribution().
    QMap<CANopen::MessageType, unsigned int> messageTypeDistribution() const;
    /// See SDOMessageHandler::protocolErrors().
    QList<unsigned int> protocolErrors() const;
    /// See SDOMessageHandler::pendingSDOEntryList().
    QHash<SDO::SDOEntryKey, SDO::SDOEntry> pendingSDOEntryList() const;
    /// See SDOMessageHandler::blockTransfers().
    QMap<unsigned char, CANopen::SDODef::SDOBlockTransfer> blockTransfers() const;
    /// See CANopenNetworkAnalyzer::sdoMessageHandler(). A child of the worker.
    const SDOMessageHandler *sdoMessageHandler() const;

public Q_SLOTS:
    /// Starts over at the first frame and resumes: forgets the SDO analysis, the counters and the object values of the
    /// model's CANopen devices, but keeps what else the model knows. The frame in hand is dropped.
    void reanalyze();

private Q_SLOTS:
    void newSDOValue(uchar node, ushort index, uchar subindex, QVariant value, double reqTime, double respTime,
                     uint canMsgNumber, bool wasSDOWrite);
    void slotSDOProtocolErrorOccured(uint msgNumber, CANopen::SdoProtocolErrorType errorType);
    void slotSDOMultipleNodesDetected(uchar node, uchar count, uint canMsgNumber);
    void onDatachunkCleared(bool isLive);
    void onDatachunkClearStart();

private:
    class Q_DECL_HIDDEN Values;

    // The road of one frame, compiled into one function. The boolean ones tell whether the loop goes on.
    Q_NEVER_INLINE void analyzeFrames();
    Q_DECL_HIDDEN bool pass(CAN::CanRxMessage &buffer);
    Q_DECL_HIDDEN bool analyzeFetched(const CAN::CanRxMessage &frame);
    Q_DECL_HIDDEN void analyzeFrame(const CAN::CanRxMessage &frame, CANopenNetwork *network);
    Q_DECL_HIDDEN void classify(const CAN::CanRxMessage &frame);
    Q_DECL_HIDDEN void count(CANopen::MessageType type);

    // Off the road, and not compiled into it
    Q_NEVER_INLINE bool sleepWhilePaused();
    Q_NEVER_INLINE void noteMissingModel();
    Q_NEVER_INLINE bool idle(quint32 pauseState, bool wasLive);
    Q_NEVER_INLINE bool handleRescuedFrames();
    Q_NEVER_INLINE void dispatch(const CAN::CanRxMessage &frame, CANopenNetwork *network);
    Q_NEVER_INLINE void endForGood();
    Q_NEVER_INLINE bool serveEvents(unsigned long sleepBeforeMs, unsigned long sleepAfterUs);

    void rescueUnreadFrames();
    void handleSdoRequest(const CAN::CanRxMessage &frame);
    void handleSdoResponse(const CAN::CanRxMessage &frame, CANopenNetwork *network);
    void handleSdoAbort(const CAN::CanRxMessage &frame, CANopen::MessageType direction);
    void handleEmergency(const CAN::CanRxMessage &frame);
    void handleNmtCommand(const CAN::CanRxMessage &frame);
    void startOver();
    void lookAgain();

    // Set once, then only read
    const std::shared_ptr<GuestLock>
        mLock; // protects everything below that is not atomic; the loop holds it while frames flow
    QHash<unsigned int, CANopen::CANopenMessageDescription> *const mMessageDescriptions; // the analyzer's
    QMap<CANopen::MessageType, unsigned int> *mMessageTypeDistribution = nullptr;        // the model's
    const std::unique_ptr<Values> mValues;                                               // takes the handler's values
    const QPointer<SDOMessageHandler> mSdoHandler;                                       // a child of the worker

    // The host's, may vanish
    const QPointer<CANopenNetwork> mNetwork;
    const QPointer<DatachunkHandler> mDatachunkHandler;

    // Flags: written by any thread, polled by the loop
    std::atomic<bool> mStopRequested{false}; // never cleared, so that a stop before the loop's start is not lost
    std::atomic<bool> mRunning{false};
    // Bit 0: paused. The other bits count the commands that ask the loop to look at its line (again): the loop's own pause
    // at the end of a recording is a compare-exchange against the state read before the fetch, so any such command wins.
    std::atomic<quint32> mPauseState{1};
    std::atomic<bool> mClearPending{false}; // frames were rescued; changed by exchange only

    // Under mLock
    quint32 mLinePosition = 0; // of the next fetch; frames analysed since the start, a reset, a reanalysis or a clear
    quint32 mRestarts = 0;  // counts resets and reanalyses: tells whether the frame in hand still belongs to this run
    bool mClearing = false; // between the start and the end of a clear of the store: nothing is fetched
    QList<CAN::CanRxMessage> mPendingMessages; // frames rescued before a clear, oldest first
    QMap<RatingMessageTypes, unsigned int> mRatingCounts;
};

#endif // CANOPENANALYSIS_NETWORK_CANOPENNETWORKANALYZERWORKER_H
