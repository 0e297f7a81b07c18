#ifndef CANOPENANALYSIS_INMEMORY_INMEMORYCANOPENNETWORK_H
#define CANOPENANALYSIS_INMEMORY_INMEMORYCANOPENNETWORK_H

#include "inmemory/canopenanalysisinmemory_export.h"
#include "inmemory/inmemoryrecords.h"
#include "support/canopennetwork.h"

#include <QMap>

#include <memory>
#include <optional>

/// A network model of one CAN line that keeps everything it is told in memory.
///
/// Owner: the host. Given to an analyzer it must have no parent and belong to the analyzer's thread, see CANopenNetwork.
///
/// Threads: the operations of CANopenNetwork are called by one thread at a time. The snapshots (below) may be asked for
/// from any thread at any time; they are copies, made under a lock of the model's own, and tell what was known at one moment.
/// The lock is never held while a signal is emitted, and never taken for a frame, a process data object or a SYNC; what else
/// comes while a snapshot is taken waits for it.
///
/// What grows: a process data object, a SYNC, a heartbeat that repeats the state before it and any other frame without
/// findings only count. Kept one by one, until reset(), are changes of state (24 bytes), boot-ups (16), emergencies (32), NMT
/// commands (24) and object values (see InMemoryCANopenDevice).
class CANOPENANALYSISINMEMORY_EXPORT InMemoryCANopenNetwork : public CANopenNetwork
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(InMemoryCANopenNetwork)

public:
    /// \a networkId: its low 8 bits are the number of the CAN line.
    explicit InMemoryCANopenNetwork(int networkId, QObject *parent = nullptr);
    ~InMemoryCANopenNetwork() override;

    // ---- operations of the analysis ------------------------------------------------------------------------------------
    // A node is known from its first addNode(), addEMCYMsg(), addNodeState(), addNewSubIndexValue() or
    // setPresumedNodeCount() on; an NMT command sent to it is no sign of life. Node-IDs above 127 are ignored.

    int networkID() const override;
    /// The devices of the known nodes, ascending. Devices live as long as the model: reset() empties them and makes them
    /// unknown, and a node heard again has the same device as before.
    QList<QPointer<GenericCANDevice>> getDeviceList() override;
    void reset() override;
    void addCANMessage(const CAN::CanRxMessage &msg) override;
    /// Counts by identifier; frames with an extended identifier are ignored.
    void addPDOCanMessage(const CAN::CanRxMessage &msg) override;
    void addSYNC(unsigned int msgNumber) override;
    void addEMCYMsg(signed char node, CAN::CanRxMessage msg) override;
    /// An empty \a name leaves the name of a known node alone.
    void addNode(signed char node, const QString &name) override;
    void addNodeState(unsigned int node, CANopen::CANopenNMTEvent event, const CAN::CanRxMessage &msg) override;
    void addNMTRequest(unsigned int node, NmtCommands command, CanTimeStamp time, unsigned int msgNumber) override;
    void addNewSubIndexValue(unsigned char node, unsigned short index, unsigned char subindex, QVariant value,
                             double reqTime, double respTime, unsigned int canMsgNumber, bool wasSDOWrite) override;
    void setPresumedNodeCount(signed char nodeId, unsigned char count, unsigned int lastMsgNumber) override;
    QMap<CANopen::MessageType, unsigned int> *getMessageTypeDistribution() override;

    // ---- for the host: any thread --------------------------------------------------------------------------------------

    /// Has the recording analysed again from its start (emits sigReanalyze). The object values are learnt anew; all else
    /// stays known, so what is counted and listed here is added a second time. A host that wants to start from nothing
    /// resets its analyzer first.
    void requestReanalysis();

    /// The known nodes, ascending.
    QVector<InMemory::Node> nodes() const;
    /// The node with \a nodeId; nothing when it is not known.
    std::optional<InMemory::Node> node(quint8 nodeId) const;
    /// Every NMT command, oldest first.
    QVector<InMemory::NmtCommand> nmtCommands() const;
    /// The object values of every known node; the nodes' values are copied one node after the other.
    InMemory::ObjectValues objectValues() const;
    /// Frames by 11-bit identifier, without those that did not occur. While frames are added, the numbers may be some
    /// frames apart from each other and from traffic().
    QMap<quint16, quint64> pdoCounts() const;
    /// While frames are added, the numbers may be some frames apart from each other.
    InMemory::Traffic traffic() const;

Q_SIGNALS:
    // Emitted by the thread that calls the operation, with no lock held, as the last step of the operation and at most once
    // in it: a slot may call anything, also reset().

    /// \a node has become known. Once a node until reset().
    void nodeAdded(quint8 node);
    /// \a node, known before, announced another \a state (a CANopen::NmtEventCode) than the one before, or its first.
    void nodeStateChanged(quint8 node, quint8 state);
    /// \a node, known before, is presumed to be \a count devices; emitted when the number changes.
    void presumedNodeCountChanged(quint8 node, quint8 count);

private:
    struct Q_DECL_HIDDEN Private;
    const std::unique_ptr<Private> d;
};

#endif // CANOPENANALYSIS_INMEMORY_INMEMORYCANOPENNETWORK_H
