#ifndef CANOPENANALYSIS_NETWORK_CANOPENNETWORKANALYZER_H
#define CANOPENANALYSIS_NETWORK_CANOPENNETWORKANALYZER_H

#include "network/canopennetworkanalyzerworker.h"
#include "support/canopenanalysis_export.h"
#include "support/canopennetwork.h"
#include "support/canopenrecords.h"
#include "support/datachunkhandler.h"

#include <QHash>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QThread>

class SDOMessageHandler;

/// Runs the analysis of one CAN line: the object through which a host drives it.
///
/// The constructor creates a worker and the analysis thread, moves the worker and the network model into that thread and
/// starts it. The analysis starts paused; setAnalyzing(true) resumes it. A recording is analysed to its end, where the
/// analysis pauses itself; while CAN::CanRxMessage::mLiveMode is set it polls for new frames instead.
///
/// Owner: the host. The analyzer owns its thread and worker; network model and store stay the host's, which see for what they
/// must hold. A missing model or store makes every operation a safe no-op.
///
/// Threads: lives in the thread that constructs it and is destroyed there, never in the analysis thread. The other
/// operations may be called from any thread, also from slots directly connected to signals of the library or of the
/// model. They wait for the frame in hand and for callers before them. They must not be called while holding a lock that the
/// model or the store needs, nor from a thread that the analysis thread is waiting for (a blocking-queued connection; or two
/// analyzers, each with a slot in its analysis thread that calls the other). The analyzer must not be destroyed in a slot
/// that runs inside one of its operations.
class CANOPENANALYSIS_EXPORT CANopenNetworkAnalyzer : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CANopenNetworkAnalyzer)

public:
    /// \a network must have no QObject parent and belong to the calling thread; it is moved into the analysis thread.
    CANopenNetworkAnalyzer(QPointer<CANopenNetwork> network, QPointer<DatachunkHandler> datachunkHandler,
                           QObject *parent = nullptr);

    /// Ends the analysis and waits for its thread: one pause sleep (500 ms) at most, plus the rest of a batch of frames
    /// rescued from a cleared store. Must not run while the store is being cleared.
    ~CANopenNetworkAnalyzer() override;

    /// True resumes the analysis, false pauses it (after the frame in hand). A paused analysis looks twice a second
    /// whether it was resumed.
    void setAnalyzing(bool analyzing);

    /// Ends the analysis for good, after the frame in hand; it cannot be started again. Returns at once.
    void stop();

    /// Forgets everything learnt and starts over at the first frame; what the analysis was (paused or not) it remains.
    /// Has its whole effect when it returns: model and SDO analysis are empty, the counters zero. The frame in hand is
    /// dropped.
    void reset();

    /// The table of message descriptions that belongs to this analyzer: the same object on every call, left empty.
    const QHash<unsigned int, CANopen::CANopenMessageDescription> &getCANopenMessageDescriptions() const;

    /// Rating of the traffic, 0 to 100 (100: nothing against it); 0 while no frame was analysed. An SDO abort in a
    /// hundred frames costs 2 points, a frame of an unhandled class 1, a protocol error 5.
    qint16 calculateRating() const;

    /// The counters behind the rating; a missing one is 0.
    QMap<CANopenNetworkAnalyzerWorker::RatingMessageTypes, unsigned int> ratingCounts() const;

    /// Frames analysed per message class.
    QMap<CANopen::MessageType, unsigned int> messageTypeDistribution() const;

    /// Message numbers of frames that broke the SDO protocol; see SDOMessageHandler::protocolErrors().
    QList<unsigned int> protocolErrors() const;

    /// SDO requests still waiting for their answer; see SDOMessageHandler::pendingSDOEntryList().
    QHash<SDO::SDOEntryKey, SDO::SDOEntry> pendingSDOEntryList() const;

    /// Block transfer records by node-ID; see SDOMessageHandler::blockTransfers().
    QMap<unsigned char, CANopen::SDODef::SDOBlockTransfer> blockTransfers() const;

    /// The SDO analysis, to connect to its signals: directly (the slot runs in the analysis thread, in the middle of a frame)
    /// or queued. Null when the worker is gone. Its operations belong to the analysis thread.
    const SDOMessageHandler *sdoMessageHandler() const;

private Q_SLOTS:
    void networkUpdateFinished();

private:
    // Created by the constructor without a parent, since it is moved to mThread; deleted by the destructor.
    QPointer<CANopenNetworkAnalyzerWorker> mWorker;
    QHash<unsigned int, CANopen::CANopenMessageDescription> mMessageDescriptions;
    QPointer<QThread> mThread; // a child of this object
};

#endif // CANOPENANALYSIS_NETWORK_CANOPENNETWORKANALYZER_H
