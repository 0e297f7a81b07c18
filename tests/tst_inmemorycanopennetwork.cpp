#include "trace.h"

#include "inmemory/inmemorycanopendevice.h"
#include "inmemory/inmemorycanopennetwork.h"

#include <QThread>
#include <QtTest>

#include <thread>

namespace {

quint8 eventCodeOf(quint8 stateByte)
{
    switch (stateByte & 0x7F) {
    case 0x00:
        return CANopen::NE_BootUp;
    case 0x04:
        return CANopen::NE_Stopped;
    case 0x05:
        return CANopen::NE_Operational;
    case 0x7F:
        return CANopen::NE_PreOperational;
    default:
        return CANopen::NE_None;
    }
}

// Tells the model of a frame what an analysis would.
void tell(CANopenNetwork &network, const CAN::CanRxMessage &msg)
{
    const quint32 identifier = msg.mFrame.mIdentifier;
    const auto node = static_cast<signed char>(identifier & 0x7F);
    network.addCANMessage(msg);
    if (identifier == 0x000)
        network.addNMTRequest(msg.mFrame.mPayload[1], NmtCommands(msg.mFrame.mPayload[0]), msg.mTimeStamp,
                              msg.mMessageNumber);
    else if (identifier == 0x080)
        network.addSYNC(msg.mMessageNumber);
    else if (identifier < 0x100)
        network.addEMCYMsg(node, msg);
    else if (identifier < 0x580 || identifier > 0x7FF)
        network.addPDOCanMessage(msg);
    else if (identifier < 0x600)
        network.addNode(node, QString());
    else
        network.addNodeState(identifier & 0x7F,
                             {msg.mTimeStamp, eventCodeOf(msg.mFrame.mPayload[0]), msg.mMessageNumber}, msg);
}

void tell(CANopenNetwork &network, const QByteArray &trace)
{
    for (const CAN::CanRxMessage &msg : frames(trace))
        tell(network, msg);
}

// Message number and milliseconds.
QString text(const InMemory::Occurrence &seen)
{
    return QStringLiteral("#%1/%2ms").arg(seen.messageNumber).arg(seen.time.toMsecs());
}

QString text(const InMemory::Node &node)
{
    static const char *const states[] = {"none", "boot", "preop", "op", "stop"};
    QStringList parts = {QStringLiteral("node %1:").arg(node.nodeId)};
    for (const InMemory::StateChange &change : node.stateChanges)
        parts << states[change.state] << text(change.since);
    for (const InMemory::Occurrence &bootUp : node.bootUps)
        parts << "boot-up" << text(bootUp);
    if (node.heartbeats > 0)
        parts << QStringLiteral("%1 heartbeats, last").arg(node.heartbeats) << text(node.lastHeartbeat);
    for (const InMemory::Emergency &emergency : node.emergencies) {
        QByteArray bytes(reinterpret_cast<const char *>(emergency.manufacturerBytes.data()), 5);
        parts << QStringLiteral("emcy %1/%2/%3 of %4 bytes")
                     .arg(emergency.errorCode, 4, 16, QLatin1Char('0'))
                     .arg(emergency.errorRegister, 2, 16, QLatin1Char('0'))
                     .arg(QString::fromLatin1(bytes.toHex()))
                     .arg(emergency.length)
              << text(emergency.seen);
    }
    if (node.presumedDevices != 1)
        parts << QStringLiteral("%1 devices, #%2").arg(node.presumedDevices).arg(node.lastRepeatedAnswer);
    return parts.join(' ');
}

QStringList nodesIn(const InMemoryCANopenNetwork &network)
{
    QStringList texts;
    for (const InMemory::Node &node : network.nodes())
        texts << text(node);
    return texts;
}

// All values of an object, "w" for written ones: "w17@5 18@9".
QString valuesOf(const InMemory::ObjectValues &values, quint8 node, quint16 index, quint8 subindex)
{
    QStringList texts;
    for (const SDO::SDOEntryValue &value : values.value({node, index, subindex}))
        texts << (value.wasSDOWrite ? "w" : "") + value.value.toString() + '@' + QString::number(value.canMsgNumber);
    return texts.join(' ');
}

QList<int> devicesOf(CANNetwork &network)
{
    QList<int> nodes;
    for (const QPointer<GenericCANDevice> &device : network.getDeviceList())
        nodes << qobject_cast<InMemoryCANopenDevice *>(device)->nodeId();
    return nodes;
}

} // namespace

class tst_InMemoryCANopenNetwork : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void nodes_data();
    void nodes();
    void commandsAndCounts();
    void presumedDevices();
    void objectValues();
    void nodeIdsOutOfRange();
    void devices();
    void resetInAnotherThread();
    void signalsOfAnOperation_data();
    void signalsOfAnOperation();
    void slotResets_data() { signalsOfAnOperation_data(); }
    void slotResets();
    void snapshotsWhileFramesCome();
};

void tst_InMemoryCANopenNetwork::nodes_data()
{
    QTest::addColumn<QByteArray>("trace");
    QTest::addColumn<QStringList>("nodes");
    QTest::newRow("boot-up, pre-operational, operational")
        << QByteArray(R"(
              705  00
        +5ms  705  7F
        +5ms  705  7F
        +5ms  705  05
        +5ms  705  05)")
        << QStringList{"node 5: boot #1/0ms preop #2/5ms op #4/15ms boot-up #1/0ms 4 heartbeats, last #5/20ms"};
    QTest::newRow("toggle bit of node guarding is no change") << QByteArray(R"(
        705  05
        705  85
        705  05)") << QStringList{"node 5: op #1/0ms 3 heartbeats, last #3/2ms"};
    QTest::newRow("a node that keeps booting") << QByteArray(R"(
              70A  00
        +1s   70A  00)")
                                                      .replace("1s", "1000ms")
                                               << QStringList{"node 10: boot #1/0ms boot-up #1/0ms boot-up #2/1000ms"};
    QTest::newRow("a state that is none") << QByteArray(R"(
        701  05
        701  33
        701  05)") << QStringList{"node 1: op #1/0ms none #2/1ms op #3/2ms 3 heartbeats, last #3/2ms"};
    QTest::newRow("identifier 700 is node 0, 77F node 127")
        << QByteArray(R"(
        77F  04
        700  05)")
        << QStringList{"node 0: op #2/1ms 1 heartbeats, last #2/1ms",
                       "node 127: stop #1/0ms 1 heartbeats, last #1/0ms"};
    QTest::newRow("emergency, and its end")
        << QByteArray(R"(
        085  30 81 11 01 02 03 04 05  | CAN controller in error passive mode... of node 5
        085  00 00 00 00 00 00 00 00)")
        << QStringList{"node 5: emcy 8130/11/0102030405 of 8 bytes #1/0ms emcy 0000/00/0000000000 of 8 bytes #2/1ms"};
    QTest::newRow("emergencies cut short")
        << QByteArray(R"(
        0FF  10 82 01 AA
        0FF  10
        0FF)")
        << QStringList{"node 127: emcy 8210/01/aa00000000 of 4 bytes #1/0ms emcy 0010/00/0000000000 of 1 bytes #2/1ms "
                       "emcy 0000/00/0000000000 of 0 bytes #3/2ms"};
    QTest::newRow("SDO answers make a node known, commands do not") << QByteArray(R"(
        000  01 07
        585  4F 00 10 00 2A 00 00 00
        585  4F 00 10 00 2A 00 00 00)") << QStringList{"node 5:"};
}

void tst_InMemoryCANopenNetwork::nodes()
{
    QFETCH(QByteArray, trace);
    InMemoryCANopenNetwork network(0);
    for (int run = 0; run < 2; ++run) { // a reset leaves nothing that the second could meet
        tell(network, trace);
        QTEST(nodesIn(network), "nodes");
        network.reset();
        QCOMPARE(nodesIn(network), QStringList());
    }
}

void tst_InMemoryCANopenNetwork::commandsAndCounts()
{
    InMemoryCANopenNetwork network(0x105);
    tell(network, R"(
        +7ms  000  01 00             | start all nodes
              000  82 85             | a node-ID that is none
              000  33 05             | a command that is none
              080
              181  01 02
              181  01 02
              57F  R8
              00000181  01           | 29 bits: another identifier
              080)");
    QStringList commands;
    for (const InMemory::NmtCommand &command : network.nmtCommands())
        commands << QStringLiteral("%1 to %2 %3").arg(command.command).arg(command.node).arg(text(command.seen));
    QCOMPARE(commands, (QStringList{"1 to 0 #1/7ms", "130 to 133 #2/8ms", "51 to 5 #3/9ms"}));
    QCOMPARE(network.pdoCounts(), (QMap<quint16, quint64>{{0x181, 2}, {0x57F, 1}}));
    const InMemory::Traffic traffic = network.traffic();
    QCOMPARE(traffic.frames, 9U);
    QCOMPARE(traffic.first.toMsecs(), 7);
    QCOMPARE(traffic.last.toMsecs(), 15);
    QCOMPARE(traffic.syncs, 2U);
    QCOMPARE(traffic.lastSync, 9U);

    *network.getMessageTypeDistribution() = {{CANopen::SYNC, 2}};
    network.reset();
    QVERIFY(network.nmtCommands().isEmpty());
    QVERIFY(network.pdoCounts().isEmpty());
    QVERIFY(network.getMessageTypeDistribution()->isEmpty());
    QCOMPARE(network.traffic().syncs, 0U);
    tell(network, "+30ms 701 05");
    QCOMPARE(network.traffic().frames, 1U);
    QCOMPARE(network.traffic().first.toMsecs(), 30);
}

void tst_InMemoryCANopenNetwork::presumedDevices()
{
    InMemoryCANopenNetwork network(0);
    network.setPresumedNodeCount(5, 2, 17);
    network.setPresumedNodeCount(6, 3, 20);
    network.setPresumedNodeCount(6, 1, 31);
    QCOMPARE(nodesIn(network), (QStringList{"node 5: 2 devices, #17", "node 6:"}));
    QCOMPARE(network.node(6)->lastRepeatedAnswer, 31U);
    QVERIFY(!network.node(7));
}

void tst_InMemoryCANopenNetwork::objectValues()
{
    InMemoryCANopenNetwork network(0);
    network.addNewSubIndexValue(5, 0x1017, 0, 1000, 0.5, 0.75, 4, true);
    network.addNewSubIndexValue(5, 0x1017, 0, 1000, 1.5, 1.75, 8, false);
    network.addNewSubIndexValue(5, 0x1018, 1, QByteArray("abc"), 2.5, 2.75, 12, false);
    network.addNewSubIndexValue(6, 0x1017, 0, 500, 3.5, 3.75, 16, false);
    const InMemory::ObjectValues values = network.objectValues();
    QCOMPARE(values.size(), 3);
    QCOMPARE(valuesOf(values, 5, 0x1017, 0), QStringLiteral("w1000@4 1000@8"));
    QCOMPARE(valuesOf(values, 5, 0x1018, 1), QStringLiteral("abc@12"));
    QCOMPARE(values.value({5, 0x1017, 0}).value(1), (SDO::SDOEntryValue{1000, 1.5, 1.75, 8, 0, false}));

    // An analysis that starts over: the values go, the nodes stay.
    for (const QPointer<GenericCANDevice> &device : network.getDeviceList()) {
        if (auto *canOpenDevice = qobject_cast<CANopenDevice *>(device))
            canOpenDevice->clearObjectValues();
    }
    QVERIFY(network.objectValues().isEmpty());
    QCOMPARE(nodesIn(network), (QStringList{"node 5:", "node 6:"}));
    QCOMPARE(valuesOf(values, 6, 0x1017, 0), QStringLiteral("500@16")); // the copy is a copy
    network.addNewSubIndexValue(6, 0x1017, 0, 501, 4.5, 4.75, 20, false);
    network.reset();
    QVERIFY(network.objectValues().isEmpty());
}

void tst_InMemoryCANopenNetwork::nodeIdsOutOfRange()
{
    InMemoryCANopenNetwork network(0);
    CAN::CanRxMessage msg = frame("080 00 10 01");
    network.addNode(-1, QStringLiteral("no node"));
    network.addEMCYMsg(-128, msg);
    network.addNodeState(128, {msg.mTimeStamp, CANopen::NE_Operational, 1}, msg);
    network.addNodeState(0xFFFFFFFF, {msg.mTimeStamp, CANopen::NE_Operational, 1}, msg);
    network.addNewSubIndexValue(128, 0x1000, 0, 1, 0, 0, 1, false);
    network.setPresumedNodeCount(-1, 2, 1);
    QCOMPARE(nodesIn(network), QStringList());
    QVERIFY(!network.node(128));
    QVERIFY(network.objectValues().isEmpty());
}

void tst_InMemoryCANopenNetwork::devices()
{
    InMemoryCANopenNetwork network(0);
    QCOMPARE(devicesOf(network), QList<int>());
    tell(network, "77F 05\n 585 60 00 10 00 00 00 00 00");
    network.addNode(5, QStringLiteral("pump"));
    QCOMPARE(devicesOf(network), (QList<int>{5, 127}));
    QCOMPARE(network.node(5)->name, QStringLiteral("pump"));
    const QPointer<GenericCANDevice> pump = network.getDeviceList().constFirst();
    network.reset();
    QCOMPARE(devicesOf(network), QList<int>());
    network.addNode(5, QString());
    QCOMPARE(network.getDeviceList().constFirst(), pump);
    QCOMPARE(network.node(5)->name, QString());
}

// The model belongs to an analysis thread, whose event loop does not run; the host's thread resets it.
void tst_InMemoryCANopenNetwork::resetInAnotherThread()
{
    QTest::ignoreMessage(QtDebugMsg, "the only message"); // Qt warns of objects that are created in a wrong thread
    QThread analysisThread;
    auto network = std::make_unique<InMemoryCANopenNetwork>(0);
    network->moveToThread(&analysisThread);
    std::thread([&] { tell(*network, "705 00\n 085 00 10 01"); }).join();
    network->addNewSubIndexValue(6, 0x1000, 0, 1, 0, 0, 3, false);
    const QList<QPointer<GenericCANDevice>> devices = network->getDeviceList();
    QCOMPARE(devices.size(), 2);
    QCOMPARE(devices.constFirst()->thread(), &analysisThread);
    network->reset();
    QVERIFY(network->objectValues().isEmpty());
    QVERIFY2(devices.constFirst() && devices.constLast(), "a reset must not delete objects of another thread");
    network.reset();
    QVERIFY(!devices.constFirst());
    qDebug("the only message");
}

void tst_InMemoryCANopenNetwork::signalsOfAnOperation_data()
{
    QTest::addColumn<QByteArray>("trace");
    QTest::addColumn<QStringList>("log");
    QTest::newRow("a node boots and starts")
        << QByteArray("705 00\n 705 7F\n 705 7F\n 705 05\n 705 05") << QStringList{"added 5", "5 is 2", "5 is 3"};
    QTest::newRow("known from an SDO answer, then heard")
        << QByteArray("585 60\n 585 60\n 705 05\n 705 85") << QStringList{"added 5", "5 is 3"};
    QTest::newRow("known from an emergency")
        << QByteArray("085 00 10 01\n 085 00 10 01\n 705 04") << QStringList{"added 5", "5 is 4"};
    QTest::newRow("nothing but traffic") << QByteArray("181 00\n 080\n 000 01 05\n 181 00") << QStringList();
}

void tst_InMemoryCANopenNetwork::signalsOfAnOperation()
{
    QFETCH(QByteArray, trace);
    InMemoryCANopenNetwork network(0);
    QStringList log;
    connect(&network, &InMemoryCANopenNetwork::nodeAdded, this, [&](int node) {
        log << QStringLiteral("added %1").arg(node);
        // Who asks in a slot, or in a thread that the slot waits for, finds the frame recorded and the lock free.
        std::thread([&] { QVERIFY(network.node(quint8(node))); }).join();
    });
    connect(&network, &InMemoryCANopenNetwork::nodeStateChanged, this,
            [&](int node, int state) { log << QStringLiteral("%1 is %2").arg(node).arg(state); });
    tell(network, trace);
    QTEST(log, "log");
    log.clear();
    tell(network, "585 60");
    log.clear();
    network.setPresumedNodeCount(5, 1, 0);
    connect(&network, &InMemoryCANopenNetwork::presumedNodeCountChanged, this,
            [&](int node, int count) { log << QStringLiteral("%1 are %2").arg(node).arg(count); });
    network.setPresumedNodeCount(5, 2, 40);
    network.setPresumedNodeCount(5, 2, 41);
    QCOMPARE(log, QStringList{"5 are 2"});
}

// A slot that resets is the last to act on its frame: nothing of it is left behind.
void tst_InMemoryCANopenNetwork::slotResets()
{
    QFETCH(QByteArray, trace);
    InMemoryCANopenNetwork network(0);
    connect(&network, &InMemoryCANopenNetwork::nodeAdded, &network, &CANopenNetwork::reset);
    tell(network, trace);
    QCOMPARE(nodesIn(network), QStringList());
    network.addNewSubIndexValue(5, 0x1000, 0, 1, 0, 0, 3, false);
    network.setPresumedNodeCount(5, 2, 4);
    QCOMPARE(nodesIn(network), QStringList());
    QVERIFY(network.objectValues().isEmpty());
}

void tst_InMemoryCANopenNetwork::snapshotsWhileFramesCome()
{
    constexpr quint32 rounds = 3000;
    InMemoryCANopenNetwork network(0);
    std::atomic<bool> isOver = false;
    std::thread analysis([&] {
        for (quint32 round = 0; round < rounds; ++round) {
            // One change a round: boots with even, operational with odd numbers.
            tell(network,
                 round % 2 == 0 ? "705 00\n 181 01\n 080\n 085 00 10 01" : "705 05\n 181 01\n 080\n 000 01 05");
            network.addNewSubIndexValue(5, 0x6000, 1, round, 0, 0, round, false);
            if (round == rounds / 2)
                network.reset();
        }
        isOver = true;
    });
    QString fault;
    while (!isOver && fault.isEmpty()) {
        const InMemory::Node node = network.node(5).value_or(InMemory::Node());
        for (int i = 1; i < node.stateChanges.size(); ++i) {
            if (node.stateChanges.at(i).state == node.stateChanges.at(i - 1).state)
                fault = QStringLiteral("no change at %1").arg(i);
        }
        if (node.bootUps.size() + int(node.heartbeats) != node.stateChanges.size())
            fault = QStringLiteral("half a heartbeat");
        const auto values = network.objectValues().value({5, 0x6000, 1});
        for (int i = 1; i < values.size(); ++i) {
            if (values.at(i).canMsgNumber != values.at(i - 1).canMsgNumber + 1)
                fault = QStringLiteral("a value lost at %1").arg(i);
        }
        for (const InMemory::NmtCommand &command : network.nmtCommands()) {
            if (command.node != 5)
                fault = QStringLiteral("half a command");
        }
        network.pdoCounts();
        network.traffic();
    }
    analysis.join();
    QCOMPARE(fault, QString());
    QCOMPARE(network.traffic().frames, quint64(4 * (rounds / 2 - 1)));
}

QTEST_GUILESS_MAIN(tst_InMemoryCANopenNetwork)
#include "tst_inmemorycanopennetwork.moc"
