#include "trace.h"

#include "inmemory/inmemorycanopendevice.h"
#include "inmemory/inmemorycanopennetwork.h"
#include "network/canopennetworkanalyzerworker.h"

#include <QThread>
#include <QtTest>

#include <thread>

namespace {

// Analyses the frames, without the threads of an analysis.
void tell(CANopenNetwork &network, const QByteArray &trace)
{
    QHash<unsigned int, CANopen::CANopenMessageDescription> descriptions;
    CANopenNetworkAnalyzerWorker worker(&network, nullptr, descriptions);
    for (const CAN::CanRxMessage &msg : frames(trace)) {
        network.addCANMessage(msg);
        worker.handleMessage(msg);
    }
}

// Message number and milliseconds.
QString text(const InMemory::Occurrence &seen)
{
    return QStringLiteral("#%1/%2 ").arg(seen.messageNumber).arg(seen.time.toMsecs());
}

QString text(const InMemory::Node &node)
{
    static const char *const states[] = {"none", "boot", "preop", "op", "stop"};
    QString all = QStringLiteral("node %1: ").arg(node.nodeId);
    for (const InMemory::StateChange &change : node.stateChanges)
        all += states[change.state] + text(change.since);
    for (const InMemory::Occurrence &bootUp : node.bootUps)
        all += "boot-up" + text(bootUp);
    if (node.heartbeats > 0)
        all += QStringLiteral("%1 heartbeats to ").arg(node.heartbeats) + text(node.lastHeartbeat);
    for (const InMemory::Emergency &emcy : node.emergencies) {
        const QByteArray own(reinterpret_cast<const char *>(emcy.manufacturerBytes.data()), 5);
        all += QString::asprintf("emcy %04x %02x ", emcy.errorCode, emcy.errorRegister) + own.toHex()
               + QStringLiteral(" of %1 bytes").arg(emcy.length) + text(emcy.seen);
    }
    if (node.presumedDevices != 1)
        all += QStringLiteral("%1 devices, #%2 ").arg(node.presumedDevices).arg(node.lastRepeatedAnswer);
    return all;
}

QString text(const InMemoryCANopenNetwork &network)
{
    QString all;
    for (const InMemory::Node &node : network.nodes())
        all += text(network.node(node.nodeId).value_or(node));
    const InMemory::ObjectValues objects = network.objectValues();
    for (auto object = objects.cbegin(); object != objects.cend(); ++object) {
        all += QString::asprintf("%x:%x", object.key().index, object.key().subindex);
        for (const SDO::SDOEntryValue &value : object.value())
            all += (value.wasSDOWrite ? " write " : " read ") + value.value.toString()
                   + QString::asprintf("#%u/%g-%g", value.canMsgNumber, value.reqTime, value.respTime);
        all += ' ';
    }
    for (const InMemory::NmtCommand &command : network.nmtCommands())
        all += QStringLiteral("%1 to %2").arg(command.command).arg(command.node) + text(command.seen);
    const QMap<quint16, quint64> pdos = network.pdoCounts();
    for (auto pdo = pdos.cbegin(); pdo != pdos.cend(); ++pdo)
        all += QString::asprintf("%03X %llu times ", pdo.key(), *pdo);
    const InMemory::Traffic traffic = network.traffic();
    if (traffic.syncs > 0)
        all += QStringLiteral("%1 SYNCs to #%2 ").arg(traffic.syncs).arg(traffic.lastSync);
    return all + QString::asprintf("%llu frames in ", traffic.frames)
           + QStringLiteral("%1-%2 ms").arg(traffic.first.toMsecs()).arg(traffic.last.toMsecs());
}

} // namespace

class tst_InMemoryCANopenNetwork : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void traces_data();
    void traces();
    void devices();
    void snapshotsWhileFramesCome();
};

void tst_InMemoryCANopenNetwork::traces_data()
{
    QTest::addColumn<QByteArray>("trace");
    QTest::addColumn<QString>("known");
    QTest::addColumn<QString>("log");
    const auto row = [](const char *name, const char *trace, const char *known, const char *log) {
        QTest::newRow(name) << QByteArray(trace) << QString(known) << QString(log);
    };
    row("boot-up, pre-operational, operational", "+5ms 705 00\n 705 7F\n 705 7F\n 705 05\n 705 05",
        "node 5: boot#1/5 preop#2/6 op#4/8 boot-up#1/5 4 heartbeats to #5/9 5 frames in 5-9 ms",
        "added 5, 5 is 2, 5 is 3");
    row("toggle bit of node guarding is no change", "705 05\n 705 85\n 705 04",
        "node 5: op#1/0 stop#3/2 3 heartbeats to #3/2 3 frames in 0-2 ms", "added 5, 5 is 4");
    row("node 0 is in no state, node 127 keeps booting", "700 33\n 77F 00\n +1000ms 77F 00",
        "node 0: none#1/0 1 heartbeats to #1/0 node 127: boot#2/1 boot-up#2/1 boot-up#3/1001 3 frames in 0-1001 ms",
        "added 0, added 127");
    row("emergency, and one cut short", "085 30 81 11 01 02 03 04 05\n 085 10",
        "node 5: emcy 8130 11 0102030405 of 8 bytes#1/0 emcy 0010 00 0000000000 of 1 bytes#2/1 2 frames in 0-1 ms",
        "added 5");
    row("traffic that makes no node known", "000 82 85\n 080\n 181 01 02\n 57F R8\n 00000181 01\n 181 01 02\n 080",
        "130 to 133#1/0 181 2 times 57F 1 times 2 SYNCs to #7 7 frames in 0-6 ms", "");
    row("a value is read and written, then the node is heard",
        "605 40 17 10 02\n 585 4B 17 10 02 E8 03 00 00\n 605 2B 17 10 02 64 00 00 00\n 585 60 17 10 02\n 705 05",
        "node 5: op#5/4 1 heartbeats to #5/4 1017:2 read 1000#2/0-0.001 write 100#4/0.002-0.003 5 frames in 0-4 ms",
        "added 5, 5 is 3");
    row("two devices answer", "605 40 00 10 00\n 585 43 00 10 00 91 01 0F 00\n 585 43 00 10 00 91 01 0F 00",
        "node 5: 2 devices, #3 1000:0 read 983441#2/0-0.001 3 frames in 0-2 ms", "added 5, 5 are 2");
}

void tst_InMemoryCANopenNetwork::traces()
{
    QFETCH(QByteArray, trace);
    InMemoryCANopenNetwork network(0);
    QStringList log;
    connect(&network, &InMemoryCANopenNetwork::nodeAdded, this, [&](int node) {
        log << QStringLiteral("added %1").arg(node);
        std::thread([&] { QVERIFY(network.node(quint8(node))); }).join(); // the lock is free
    });
    const auto note = [&](const char *verb) {
        return [&log, verb](int node, int what) { log << QStringLiteral("%1 %2 %3").arg(node).arg(verb).arg(what); };
    };
    connect(&network, &InMemoryCANopenNetwork::nodeStateChanged, this, note("is"));
    connect(&network, &InMemoryCANopenNetwork::presumedNodeCountChanged, this, note("are"));
    for (int run = 0; run < 2; ++run) { // a reset leaves nothing that the second could meet
        tell(network, trace);
        QTEST(text(network), "known");
        QTEST(log.join(", "), "log");
        log.clear();
        network.reset();
        QVERIFY(network.getMessageTypeDistribution()->isEmpty());
    }
    // A slot that resets is the last to act on its frame.
    connect(&network, &InMemoryCANopenNetwork::nodeAdded, &network, &CANopenNetwork::reset);
    tell(network, trace);
    QVERIFY(network.nodes().isEmpty() && network.objectValues().isEmpty());
}

// The model belongs to an analysis thread, whose event loop does not run; the host's thread resets it.
void tst_InMemoryCANopenNetwork::devices()
{
    QThread analysisThread;
    InMemoryCANopenNetwork network(0);
    network.moveToThread(&analysisThread);
    std::thread([&] { tell(network, "77F 00\n 085 00 10 01"); }).join();
    network.addNode(5, QStringLiteral("pump"));
    network.addNewSubIndexValue(5, 0x1000, 0, 1, 0, 0, 1, false);
    network.addNode(-1, QStringLiteral("no node, as all that follow"));
    network.addEMCYMsg(-128, frame("080 00 10 01"));
    network.addNodeState(128, {CanTimeStamp(), CANopen::NE_Operational, 1}, frame("780 05"));
    network.addNewSubIndexValue(128, 0x1000, 0, 1, 0, 0, 1, false);
    network.setPresumedNodeCount(-1, 2, 1);
    const QSignalSpy changes(&network, &InMemoryCANopenNetwork::presumedNodeCountChanged);
    for (unsigned int repeatedAnswer : {30U, 31U})
        network.setPresumedNodeCount(5, 2, repeatedAnswer);
    QCOMPARE(changes.size(), 1);
    network.addPDOCanMessage(frame("00000181 01")); // 29 bits: none of the process data
    const QList<QPointer<GenericCANDevice>> devices = network.getDeviceList();
    QCOMPARE(devices.size(), 2);
    QCOMPARE(qobject_cast<InMemoryCANopenDevice *>(devices.last())->nodeId(), quint8(127));
    qobject_cast<CANopenDevice *>(devices.first())->clearObjectValues();
    QVERIFY(network.objectValues().isEmpty() && network.pdoCounts().isEmpty());
    QCOMPARE(network.node(5)->name, QStringLiteral("pump"));
    network.reset();
    QVERIFY(network.getDeviceList().isEmpty());
    network.addNode(5, QString());
    QCOMPARE(network.getDeviceList(), devices.mid(0, 1)); // a node heard again has its device again
    QCOMPARE(network.node(5)->name, QString());
}

// The thread sanitizer sees what a snapshot shares with the frames that follow.
void tst_InMemoryCANopenNetwork::snapshotsWhileFramesCome()
{
    InMemoryCANopenNetwork network(0);
    std::atomic<bool> isOver = false;
    std::thread analysis([&] {
        const auto round = QByteArray("705 00\n 181 01\n 080\n 085 00 10 01\n 705 05\n 000 01 05\n");
        tell(network, round.repeated(500));
        network.reset();
        for (int n = 0; n < 500; ++n)
            network.addNewSubIndexValue(5, 0x6000, 1, n, 0, 0, 1, false);
        tell(network, round.repeated(500));
        isOver = true;
    });
    while (!isOver)
        text(network);
    analysis.join();
    QCOMPARE(network.traffic().frames, 6U * 500);
}

QTEST_GUILESS_MAIN(tst_InMemoryCANopenNetwork)
#include "tst_inmemorycanopennetwork.moc"
