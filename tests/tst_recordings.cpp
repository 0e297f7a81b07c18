#include "analyzerun.h"

#include <QFile>
#include <QtTest>

#include <cmath>

namespace {

// What an entry of a report says under these keys; numbers are decimal, whatever they were.
QString said(const QJsonValue &entry, const QString &keys)
{
    QStringList values;
    for (const QString &key : keys.split(' ')) {
        const QString value = entry[key].toVariant().toString().toLower();
        values += value.startsWith("0x") ? QString::number(value.toUInt(nullptr, 16)) : value;
    }
    return values.join(' ');
}

QStringList saidOfAll(const QJsonValue &list, const QString &keys)
{
    QStringList texts;
    for (const QJsonValue entry : list.toArray())
        texts += said(entry, keys);
    return texts;
}

// Times are compared as whole microseconds, the resolution of the recordings.
qint64 usecs(const QJsonValue &seconds)
{
    return std::llround(seconds.toDouble() * 1e6);
}

} // namespace

/// Compares the report on each recording with what the devices and applications themselves told while it was made (the JSON
/// file beside the recording).
class TestRecordings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void frames_data() { recordings(); }
    void frames();
    void commandsAndEmergencies_data() { recordings(); }
    void commandsAndEmergencies();
    void nmtStates_data() { recordings(); }
    void nmtStates();
    void transfers_data() { recordings(); }
    void transfers();
    void blockTransfers();

private:
    static void recordings();
    void load(const QString &name = QTest::currentDataTag());

    QJsonValue mTruth;
    QJsonValue mReport; // on the recording as a whole
    QJsonValue mLine;   // on its only interface
};

void TestRecordings::recordings()
{
    QTest::addColumn<int>("accesses");
    QTest::addColumn<QString>("unanswered"); // frames
    // The abort with which the client gives up names another object, so a request to a node that does not exist stays open.
    QTest::newRow("mixed") << 270 << "2273";
    QTest::newRow("block-transfer") << 120 << "";
    QTest::newRow("duplicate-node") << 33 << "";
    QTest::newRow("guarding-and-states") << 147 << "";
}

void TestRecordings::load(const QString &name)
{
    QFile truth(RECORDINGS "/" + name + ".json");
    QVERIFY2(truth.open(QIODevice::ReadOnly), qPrintable(truth.fileName()));
    mTruth = QJsonDocument::fromJson(truth.readAll()).object();
    const Run run = analyze({"--json", name + ".log"});
    QCOMPARE(run.status, 0);
    mReport = run.json().object();
    mLine = mReport["interfaces"][0];
}

// The applications count aborts among the SDO frames; guarding requests are remote frames outside the PDO range.
void TestRecordings::frames()
{
    load();
    QCOMPARE(said(mReport, "frames badLines"), said(mTruth, "frames") + " 0");
    QCOMPARE(usecs(mReport["startTime"]), usecs(mTruth["first_time"]));
    QCOMPARE(usecs(mReport["duration"]), usecs(mTruth["last_time"]) - usecs(mTruth["first_time"]));
    const QJsonValue sent = mTruth["frames_by_class"];
    const QJsonObject classes = mLine["messageClasses"].toObject();
    QCOMPARE(said(classes, "NMT SYNC EMCY NMT_EC NMT_EC_BOOTUP UNKNOWN"),
             said(sent, "nmt sync emcy heartbeat bootup guard_rtr"));
    QCOMPARE(classes["PDO"].toInt(), sent["rpdo"].toInt() + sent["tpdo"].toInt());
    const int byClient = mTruth["sdo_abort_frames"]["from_client"].toInt();
    const int byServer = mTruth["sdo_abort_frames"]["from_server"].toInt();
    QCOMPARE(classes["SDO_REQ"].toInt(), sent["sdo_req"].toInt() - byClient);
    QCOMPARE(classes["SDO_RES"].toInt(), sent["sdo_res"].toInt() - byServer);
    QCOMPARE(classes["SDO_ABORT"].toInt(), byClient + byServer);
    QCOMPARE(mLine["rating"]["sdoAborts"]["count"].toInt(), byClient + byServer);
    for (const QJsonValue node : mLine["nodes"].toArray())
        QCOMPARE(node["devices"].toInt(), mTruth["devices_with_node_id"][said(node, "node")].toInt(1));
}

// Some times were taken where the application calls, others on the bus.
void TestRecordings::commandsAndEmergencies()
{
    load();
    QCOMPARE(saidOfAll(mLine["nmtCommands"], "command node"), saidOfAll(mTruth["nmt_commands"], "command node"));
    QCOMPARE(saidOfAll(mLine["emergencies"], "node code register"), saidOfAll(mTruth["emcy"], "node code register"));
    for (const auto &[told, found] : {std::pair("nmt_commands", "nmtCommands"), {"emcy", "emergencies"}}) {
        for (int i = 0; i < mTruth[told].toArray().size(); ++i) {
            const qint64 time = usecs(mTruth[told][i]["t"]) - usecs(mTruth["first_time"]);
            QVERIFY2(std::abs(usecs(mLine[found][i]["time"]) - time) < 1000, found);
        }
    }
}

// The devices say each state that they enter; on the bus stand only those in which they sent a heartbeat. So what is
// reported follows in the same order, with gaps, and never before it happened.
void TestRecordings::nmtStates()
{
    load();
    for (const QJsonValue node : mLine["nodes"].toArray()) {
        const QJsonArray entered = mTruth["nmt_states_entered"][said(node, "node")].toArray();
        if (entered.isEmpty())
            continue; // a device that did not tell
        const auto stateOnBus = [&](int i) {
            return said(entered.at(i), "state").replace("reset-communication", "boot-up");
        };
        int next = 0;
        for (const QJsonValue change : node["stateChanges"].toArray()) {
            while (next < entered.size() && stateOnBus(next) != said(change, "state"))
                ++next;
            QVERIFY2(next < entered.size(), qPrintable(said(change, "frame state")));
            const qint64 when = usecs(entered.at(next)["t"]) - usecs(mTruth["first_time"]);
            QVERIFY(usecs(change["time"]) > when - 1000);
        }
        QCOMPARE(said(node, "state"), stateOnBus(entered.size() - 1));
    }
}

// Every transfer that ended well is reported, with its bytes and its frames, and every abort; nothing else.
void TestRecordings::transfers()
{
    load();
    QMap<int, QString> accesses; // by frame
    QMap<int, QString> aborts;
    for (const QJsonValue transfer : mTruth["sdo"].toArray()) {
        const int frame = transfer["last_frame"].toInt();
        // A write whose size was not announced, ended by an empty segment, is given up as broken.
        const bool isBroken = said(transfer, "kind size_indicated") == "segmented false";
        if (transfer["abort"].isString())
            aborts[frame] = said(transfer, "last_frame node abort aborted_by");
        else if (said(transfer, "kind") != "block" && transfer["ok"].toBool() && !isBroken)
            accesses[frame] = said(transfer, "last_frame request_frame node index subindex kind dir value");
    }
    QTEST(accesses.size(), "accesses");
    QCOMPARE(saidOfAll(mLine["sdoAccesses"], "frame requestFrame node index subindex kind access bytes"),
             QStringList(accesses.values()));
    QCOMPARE(saidOfAll(mLine["sdoAborts"], "frame node code by"), QStringList(aborts.values()));
    QTEST(saidOfAll(mLine["unansweredRequests"], "frame").join(' '), "unanswered");
}

// Nodes 7 and 12 each had one block download and one block upload of the same value, node 40 many; its last one must stand at
// the end of what was collected.
void TestRecordings::blockTransfers()
{
    load("block-transfer");
    QMap<int, QJsonObject> last;
    QMap<int, QString> bytes;
    for (const QJsonValue transfer : mTruth["sdo"].toArray()) {
        const int node = transfer["node"].toInt();
        if (said(transfer, "kind ok") == "block true") {
            last[node] = transfer.toObject();
            bytes[node] += said(transfer, "value");
        }
    }
    QCOMPARE(mLine["blockTransfers"].toArray().size(), 3);
    for (const QJsonValue record : mLine["blockTransfers"].toArray()) {
        const int node = record["node"].toInt();
        QCOMPARE(said(record, "index subindex access stateText"), said(last[node], "index subindex dir") + " ended");
        QVERIFY(said(record, "collected").endsWith(said(last[node], "value")));
        QVERIFY(node == 40 || said(record, "collected") == bytes[node]);
    }
    // Acknowledgements of fewer segments than the client sent: after segment 40 of the first download that lost one, and
    // for the whole second block of the second.
    const QStringList faults = saidOfAll(mLine["protocolErrors"], "kind data");
    QCOMPARE(faults.filter("segmentslost"),
             QStringList({"segmentslost a2277f0000000000", "segmentslost a2007f0000000000"}));
    QCOMPARE(faults.filter("lastacknowledge").size(), faults.size() - 2);
}

QTEST_GUILESS_MAIN(TestRecordings)
#include "tst_recordings.moc"
