#include "inmemory/inmemorycanopennetwork.h"

#include "inmemory/inmemorycanopendevice.h"

#include <atomic>
#include <bitset>
#include <mutex>

namespace {

constexpr unsigned int nodeIds = 128;         // 0 to 127
constexpr std::size_t pdoIdentifiers = 0x800; // 11 bits

// A counter that one thread at a time raises and any thread reads: cheaper than an atomic addition.
class Counter
{
public:
    void raise() { mValue.store(value() + 1, std::memory_order_release); }
    void reset() { mValue.store(0, std::memory_order_release); }
    quint64 value() const { return mValue.load(std::memory_order_acquire); }

private:
    std::atomic<quint64> mValue = 0;
};

// An emergency frame may be cut short; the record's payload reads 0 there.
InMemory::Emergency emergencyFrom(const CAN::CanRxMessage &msg)
{
    const quint8 *payload = msg.mFrame.mPayload;
    InMemory::Emergency emergency;
    emergency.seen = {msg.mTimeStamp, msg.mMessageNumber};
    emergency.errorCode = quint16(payload[0] | payload[1] << 8);
    emergency.errorRegister = payload[2];
    std::copy_n(payload + 3, emergency.manufacturerBytes.size(), emergency.manufacturerBytes.begin());
    emergency.length = msg.mFrame.mDataLength;
    return emergency;
}

// Copies that share nothing with the original, to be made under the lock: Qt's containers look at their reference count
// without ordering, so a snapshot that another thread still reads must not be what the next frame is appended to.
QVector<InMemory::NmtCommand> unshared(QVector<InMemory::NmtCommand> commands)
{
    commands.detach();
    return commands;
}

InMemory::Node unshared(InMemory::Node node)
{
    node.stateChanges.detach();
    node.bootUps.detach();
    node.emergencies.detach();
    return node;
}

} // namespace

struct InMemoryCANopenNetwork::Private
{
    explicit Private(int networkId) : id(networkId) {}

    bool isKnown(unsigned int nodeId) const { return known.test(nodeId); }
    bool makeKnown(unsigned int nodeId);
    bool addState(InMemory::Node &node, const CANopen::CANopenNMTEvent &event);
    void forgetNodes();
    void resetCounters();

    // set once, then only read
    const int id;
    std::array<InMemoryCANopenDevice *, nodeIds> devices = {}; // children of the model

    // Written by the thread that runs the operations, read by all.
    Counter frames;
    std::atomic<qint64> firstNSecs = 0;
    std::atomic<qint64> lastNSecs = 0;
    Counter syncs;
    std::atomic<quint32> lastSync = 0xFFFFFFFF;
    std::array<Counter, pdoIdentifiers> pdos;

    // The analysis writes it through its pointer, under its own lock.
    QMap<CANopen::MessageType, unsigned int> messageTypeDistribution;

    // Guards what follows. The thread that runs the operations is the only one to write, so it may read without.
    mutable std::mutex mutex;
    std::bitset<nodeIds> known;
    std::array<InMemory::Node, nodeIds> nodes;
    QVector<InMemory::NmtCommand> nmtCommands;
};

// True when the node was not known before. Under the lock.
bool InMemoryCANopenNetwork::Private::makeKnown(unsigned int nodeId)
{
    const bool isNew = !known.test(nodeId);
    known.set(nodeId);
    nodes[nodeId].nodeId = quint8(nodeId);
    return isNew;
}

// True when the state differs from the one before. Under the lock.
bool InMemoryCANopenNetwork::Private::addState(InMemory::Node &node, const CANopen::CANopenNMTEvent &event)
{
    const InMemory::Occurrence seen = {event.mTimeStamp, event.mMessageNumber};
    if (event.mEventCode == CANopen::NE_BootUp) {
        node.bootUps.append(seen);
    } else {
        ++node.heartbeats;
        node.lastHeartbeat = seen;
    }
    if (!node.stateChanges.isEmpty() && node.state() == event.mEventCode)
        return false;
    node.stateChanges.append({event.mEventCode, seen});
    return true;
}

void InMemoryCANopenNetwork::Private::forgetNodes()
{
    const std::lock_guard<std::mutex> lock(mutex);
    known.reset();
    nodes.fill(InMemory::Node());
    nmtCommands.clear();
}

void InMemoryCANopenNetwork::Private::resetCounters()
{
    frames.reset();
    firstNSecs = 0;
    lastNSecs = 0;
    syncs.reset();
    lastSync = 0xFFFFFFFF;
    for (Counter &pdo : pdos)
        pdo.reset();
}

// All devices are made here, although few nodes will be heard: so no operation creates a child, and each may run in any thread,
// whichever the model belongs to.
InMemoryCANopenNetwork::InMemoryCANopenNetwork(int networkId, QObject *parent)
    : CANopenNetwork(parent), d(std::make_unique<Private>(networkId))
{
    for (unsigned int nodeId = 0; nodeId < nodeIds; ++nodeId)
        d->devices[nodeId] = new InMemoryCANopenDevice(quint8(nodeId), this);
}

InMemoryCANopenNetwork::~InMemoryCANopenNetwork() = default;

int InMemoryCANopenNetwork::networkID() const
{
    return d->id;
}

QList<QPointer<GenericCANDevice>> InMemoryCANopenNetwork::getDeviceList()
{
    QList<QPointer<GenericCANDevice>> list;
    const std::lock_guard<std::mutex> lock(d->mutex);
    for (InMemoryCANopenDevice *device : d->devices) {
        if (d->isKnown(device->nodeId()))
            list.append(device);
    }
    return list;
}

void InMemoryCANopenNetwork::reset()
{
    d->forgetNodes();
    d->resetCounters();
    d->messageTypeDistribution.clear();
    for (InMemoryCANopenDevice *device : d->devices)
        device->clearObjectValues();
}

void InMemoryCANopenNetwork::addCANMessage(const CAN::CanRxMessage &msg)
{
    const qint64 time = msg.mTimeStamp.toNSecs();
    if (d->frames.value() == 0)
        d->firstNSecs.store(time, std::memory_order_relaxed);
    d->lastNSecs.store(time, std::memory_order_relaxed);
    d->frames.raise();
}

void InMemoryCANopenNetwork::addPDOCanMessage(const CAN::CanRxMessage &msg)
{
    if (msg.mFrame.mIdentifier < pdoIdentifiers && !(msg.mFrame.mFlags & CAN::CanMessage::ExtendedId))
        d->pdos[msg.mFrame.mIdentifier].raise();
}

void InMemoryCANopenNetwork::addSYNC(unsigned int msgNumber)
{
    d->lastSync.store(msgNumber, std::memory_order_relaxed);
    d->syncs.raise();
}

void InMemoryCANopenNetwork::addEMCYMsg(signed char node, CAN::CanRxMessage msg)
{
    if (node < 0)
        return;
    std::unique_lock<std::mutex> lock(d->mutex);
    const bool isNew = d->makeKnown(quint8(node));
    d->nodes[quint8(node)].emergencies.append(emergencyFrom(msg));
    lock.unlock();
    if (isNew)
        Q_EMIT nodeAdded(quint8(node));
}

void InMemoryCANopenNetwork::addNode(signed char node, const QString &name)
{
    if (node < 0 || (d->isKnown(quint8(node)) && name.isEmpty()))
        return; // nothing new: so it is for almost every SDO answer
    std::unique_lock<std::mutex> lock(d->mutex);
    const bool isNew = d->makeKnown(quint8(node));
    if (!name.isEmpty())
        d->nodes[quint8(node)].name = name;
    lock.unlock();
    if (isNew)
        Q_EMIT nodeAdded(quint8(node));
}

void InMemoryCANopenNetwork::addNodeState(unsigned int node, CANopen::CANopenNMTEvent event, const CAN::CanRxMessage &)
{
    if (node >= nodeIds)
        return;
    std::unique_lock<std::mutex> lock(d->mutex);
    const bool isNew = d->makeKnown(node);
    const bool isChange = d->addState(d->nodes[node], event);
    lock.unlock();
    if (isNew)
        Q_EMIT nodeAdded(quint8(node));
    else if (isChange)
        Q_EMIT nodeStateChanged(quint8(node), event.mEventCode);
}

void InMemoryCANopenNetwork::addNMTRequest(unsigned int node, NmtCommands command, CanTimeStamp time,
                                           unsigned int msgNumber)
{
    const std::lock_guard<std::mutex> lock(d->mutex);
    d->nmtCommands.append({{time, msgNumber}, command, quint8(node)});
}

void InMemoryCANopenNetwork::addNewSubIndexValue(unsigned char node, unsigned short index, unsigned char subindex,
                                                 QVariant value, double reqTime, double respTime,
                                                 unsigned int canMsgNumber, bool wasSDOWrite)
{
    if (node >= nodeIds)
        return;
    d->devices[node]->addObjectValue(index, subindex, {value, reqTime, respTime, canMsgNumber, 0, wasSDOWrite});
    addNode(static_cast<signed char>(node), QString());
}

void InMemoryCANopenNetwork::setPresumedNodeCount(signed char nodeId, unsigned char count, unsigned int lastMsgNumber)
{
    if (nodeId < 0)
        return;
    std::unique_lock<std::mutex> lock(d->mutex);
    const bool isNew = d->makeKnown(quint8(nodeId));
    InMemory::Node &node = d->nodes[quint8(nodeId)];
    const bool isChange = node.presumedDevices != count;
    node.presumedDevices = count;
    node.lastRepeatedAnswer = lastMsgNumber;
    lock.unlock();
    if (isNew)
        Q_EMIT nodeAdded(quint8(nodeId));
    else if (isChange)
        Q_EMIT presumedNodeCountChanged(quint8(nodeId), count);
}

QMap<CANopen::MessageType, unsigned int> *InMemoryCANopenNetwork::getMessageTypeDistribution()
{
    return &d->messageTypeDistribution;
}

void InMemoryCANopenNetwork::requestReanalysis()
{
    Q_EMIT sigReanalyze();
}

QVector<InMemory::Node> InMemoryCANopenNetwork::nodes() const
{
    QVector<InMemory::Node> nodes;
    const std::lock_guard<std::mutex> lock(d->mutex);
    for (unsigned int nodeId = 0; nodeId < nodeIds; ++nodeId) {
        if (d->isKnown(nodeId))
            nodes.append(unshared(d->nodes[nodeId]));
    }
    return nodes;
}

std::optional<InMemory::Node> InMemoryCANopenNetwork::node(quint8 nodeId) const
{
    const std::lock_guard<std::mutex> lock(d->mutex);
    if (nodeId >= nodeIds || !d->isKnown(nodeId))
        return std::nullopt;
    return unshared(d->nodes[nodeId]);
}

QVector<InMemory::NmtCommand> InMemoryCANopenNetwork::nmtCommands() const
{
    const std::lock_guard<std::mutex> lock(d->mutex);
    return unshared(d->nmtCommands);
}

InMemory::ObjectValues InMemoryCANopenNetwork::objectValues() const
{
    InMemory::ObjectValues all;
    for (const InMemoryCANopenDevice *device : d->devices) {
        const InMemory::ObjectValues ofNode = device->objectValues();
        for (auto object = ofNode.cbegin(); object != ofNode.cend(); ++object)
            all.insert(object.key(), object.value());
    }
    return all;
}

QMap<quint16, quint64> InMemoryCANopenNetwork::pdoCounts() const
{
    QMap<quint16, quint64> counts;
    for (std::size_t identifier = 0; identifier < pdoIdentifiers; ++identifier) {
        const quint64 count = d->pdos[identifier].value();
        if (count > 0)
            counts.insert(quint16(identifier), count);
    }
    return counts;
}

InMemory::Traffic InMemoryCANopenNetwork::traffic() const
{
    InMemory::Traffic traffic;
    traffic.frames = d->frames.value();
    traffic.first = CanTimeStamp::fromNSecs(d->firstNSecs.load(std::memory_order_relaxed));
    traffic.last = CanTimeStamp::fromNSecs(d->lastNSecs.load(std::memory_order_relaxed));
    traffic.syncs = d->syncs.value();
    traffic.lastSync = d->lastSync.load(std::memory_order_relaxed);
    return traffic;
}
