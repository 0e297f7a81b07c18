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

    void setPause(bool paused);
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

    /// Rating from 0 to 100, see CANopenNetworkAnalyzer::calculateRating().
    qint16 calculateRating() const;

    // Copies of one consistent state, for CANopenNetworkAnalyzer
    QMap<RatingMessageTypes, unsigned int> ratingCounts() const;
    QMap<CANopen::MessageType, unsigned int> messageTypeDistribution() const;
    QList<unsigned int> protocolErrors() const;
    QHash<SDO::SDOEntryKey, SDO::SDOEntry> pendingSDOEntryList() const;
    QMap<unsigned char, CANopen::SDODef::SDOBlockTransfer> blockTransfers() const;
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
};

#endif // CANOPENANALYSIS_NETWORK_CANOPENNETWORKANALYZERWORKER_H
