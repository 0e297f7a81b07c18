#ifndef CANOPENANALYSIS_INMEMORY_INMEMORYRECORDS_H
#define CANOPENANALYSIS_INMEMORY_INMEMORYRECORDS_H

#include "support/canopenrecords.h"

#include <QHash>
#include <QString>
#include <QVector>

#include <array>

/// What the in-memory network model tells of a network: plain values, copies of what was known when they were asked for.
namespace InMemory {

/// Where and when something was seen: time stamp and message number of the frame.
struct Occurrence
{
    /// Reception time.
    CanTimeStamp time;
    /// All ones until it is filled in.
    quint32 messageNumber = 0xFFFFFFFF;
};

/// A node announced another NMT state than before.
struct StateChange
{
    /// A CANopen::NmtEventCode.
    quint8 state = CANopen::NE_None;
    /// The first frame that announced the state.
    Occurrence since;
};

/// An emergency object (CiA 301): error code (2 bytes, low byte first), error register, 5 manufacturer-specific bytes.
struct Emergency
{
    /// The frame that carried it.
    Occurrence seen;
    /// 0 means that an error was reset, or that none is left.
    quint16 errorCode = 0;
    /// Object 1001:00 of the node, as it was then.
    quint8 errorRegister = 0;
    /// Bytes 3 to 7 of the frame.
    std::array<quint8, 5> manufacturerBytes = {};
    /// Data length of the frame; bytes that a frame of less than 8 did not have read 0 above.
    quint8 length = 0;
};

/// A node that was heard: it announced a state, answered an SDO request or sent an emergency.
struct Node
{
    /// 0 to 127; 0 only for error control frames on identifier 0x700, and SDO on 0x580.
    quint8 nodeId = 0;
    /// As given to InMemoryCANopenNetwork::addNode(); the analysis gives none.
    QString name;
    /// The NMT states that the node announced, without repetitions, oldest first; the last one is the present state.
    /// Empty while the node has announced none.
    QVector<StateChange> stateChanges;
    /// Every boot-up message, oldest first.
    QVector<Occurrence> bootUps;
    /// Error control frames but boot-ups (heartbeats and answers to node guarding), whatever state they announced.
    quint64 heartbeats = 0;
    /// The last one of them.
    Occurrence lastHeartbeat;
    /// Every emergency, oldest first.
    QVector<Emergency> emergencies;
    /// How many devices are presumed to answer under this node-ID.
    quint8 presumedDevices = 1;
    /// Message number of the last repeated answer; 0: none yet.
    quint32 lastRepeatedAnswer = 0;

    /// The present state, a CANopen::NmtEventCode; NE_None also while the node has announced none.
    quint8 state() const { return stateChanges.isEmpty() ? quint8(CANopen::NE_None) : stateChanges.last().state; }
};

/// An NMT command as it was on the bus.
struct NmtCommand
{
    /// The frame that carried it.
    Occurrence seen;
    /// Byte 0; not always a command of CiA 301.
    quint8 command = 0;
    /// Byte 1; 0 addresses all nodes.
    quint8 node = 0;
};

/// The traffic as a whole.
struct Traffic
{
    /// Frames of every class.
    quint64 frames = 0;
    /// Time stamp of the first frame; unknown (0) while there is none.
    CanTimeStamp first;
    /// Time stamp of the last frame; unknown (0) while there is none.
    CanTimeStamp last;
    /// SYNC frames among them.
    quint64 syncs = 0;
    /// Message number of the last SYNC.
    quint32 lastSync = 0xFFFFFFFF;
};

/// Values by node, index and subindex, each list oldest first. reqMsgNumber of the values is 0: the model is not told it.
using ObjectValues = QHash<SDO::SDOEntryKey, QVector<SDO::SDOEntryValue>>;

} // namespace InMemory

Q_DECLARE_TYPEINFO(InMemory::Occurrence, Q_MOVABLE_TYPE);
Q_DECLARE_TYPEINFO(InMemory::StateChange, Q_MOVABLE_TYPE);
Q_DECLARE_TYPEINFO(InMemory::Emergency, Q_MOVABLE_TYPE);
Q_DECLARE_TYPEINFO(InMemory::Node, Q_MOVABLE_TYPE);
Q_DECLARE_TYPEINFO(InMemory::NmtCommand, Q_MOVABLE_TYPE);

#endif // CANOPENANALYSIS_INMEMORY_INMEMORYRECORDS_H
