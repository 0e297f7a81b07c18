#ifndef CANOPENANALYSIS_SUPPORT_CANOPENNETWORK_H
#define CANOPENANALYSIS_SUPPORT_CANOPENNETWORK_H

#include "support/cannetwork.h"
#include "support/canopenrecords.h"

/// The host's model of a CANopen network: what the analysis learns goes in here.
///
/// Owner: the host. The analyzer holds the model through a QPointer, moves it into its analysis thread and never deletes
/// it. The model must have no QObject parent and must belong to the thread that constructs the analyzer. After the
/// analyzer is gone the host moves the model to its own thread before it gives it to another analyzer.
///
/// Threads: the operations are called by one thread at a time, under the library's lock: by the analysis thread, but
/// reset() also by the thread in which the host resets the analysis, and networkID() by the thread that clears the store.
/// getMessageTypeDistribution() is called once, by the thread that constructs the analyzer. What the host's thread reads from
/// the model meanwhile is for the model to protect. A model
/// - must hold no lock while it emits a signal: a slot may call back into the analyzer;
/// - must not call into the analyzer while it holds a lock that these operations need;
/// - must not throw.
/// Deleting a model in another thread than the analysis thread while the analysis loop runs is an error of the host;
/// deleted in the analysis thread at an event point (by a queued call), or after the loop has ended, the analysis goes on
/// without it; no other thread may be inside an operation of the analyzer or a clear of the store then.
class CANOPENANALYSIS_EXPORT CANopenNetwork : public CANNetwork
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CANopenNetwork)

public:
    /// A model that is given to an analyzer has no parent.
    explicit CANopenNetwork(QObject *parent = nullptr);
    ~CANopenNetwork() override;

    /// Forgets everything learnt from the traffic. May come from the host's thread while the analysis is kept out, so it
    /// must not create child objects or start timers there.
    virtual void reset() = 0;

    /// Records one frame. Called for every frame analysed, in recording order, before it is classified: the hot path.
    virtual void addCANMessage(const CAN::CanRxMessage &msg) = 0;

    /// Records a process data object; addCANMessage() has seen the same frame before. Hot path.
    virtual void addPDOCanMessage(const CAN::CanRxMessage &msg) = 0;

    /// Records a SYNC by its message number.
    virtual void addSYNC(unsigned int msgNumber) = 0;

    /// Records an emergency message of \a node (1 to 127). The frame may be shorter than the 8 bytes of CiA 301.
    virtual void addEMCYMsg(signed char node, CAN::CanRxMessage msg) = 0;

    /// Makes \a node (1 to 127) known; called for each SDO answer of the node, so mostly for one known already.
    /// \a name is empty.
    virtual void addNode(signed char node, const QString &name) = 0;

    /// Records the NMT state that \a node (0 to 127) announced in the error control frame \a msg.
    /// \a event.mEventCode is one of CANopen::NmtEventCode.
    virtual void addNodeState(unsigned int node, CANopen::CANopenNMTEvent event, const CAN::CanRxMessage &msg) = 0;

    /// Records an NMT command. \a node is byte 1 of the frame as it was on the bus (0 addresses all nodes, values above 127
    /// occur), \a command byte 0 unchanged, also when it is no CiA 301 command.
    virtual void addNMTRequest(unsigned int node, NmtCommands command, CanTimeStamp time, unsigned int msgNumber) = 0;

    /// Stores a value read from or written to an object; the arguments are those of SDOMessageHandler::newValue.
    virtual void addNewSubIndexValue(unsigned char node, unsigned short index, unsigned char subindex, QVariant value,
                                     double reqTime, double respTime, unsigned int canMsgNumber, bool wasSDOWrite) = 0;

    /// Records that \a count devices are presumed to answer under \a nodeId. \a lastMsgNumber is the message number of
    /// the last repeated answer, 0 when there was none yet.
    virtual void setPresumedNodeCount(signed char nodeId, unsigned char count, unsigned int lastMsgNumber) = 0;

    /// The model's counters of frames per message class; never null, and valid as long as the model lives.
    /// The analysis asks once, keeps the pointer, and adds to the map and empties it under the library's lock: nobody
    /// reads the map from another thread but through CANopenNetworkAnalyzer::messageTypeDistribution().
    virtual QMap<CANopen::MessageType, unsigned int> *getMessageTypeDistribution() = 0;
};

#endif // CANOPENANALYSIS_SUPPORT_CANOPENNETWORK_H
