#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>

#include <cmath>

namespace {

QJsonArray list(const QJsonObject &object, const char *key)
{
    return object[QLatin1String(key)].toArray();
}

int number(const QJsonObject &object, const char *key)
{
    return object[QLatin1String(key)].toInt();
}

QString text(const QJsonObject &object, const char *key)
{
    return object[QLatin1String(key)].toString();
}

// Microseconds, the resolution of the recordings, so that times can be compared.
qint64 usecs(double seconds)
{
    return std::llround(seconds * 1e6);
}

// Some times were taken where the application calls, others on the bus.
bool isTimeOfCall(const QJsonObject &reported, double seconds)
{
    return std::abs(reported[QLatin1String("time")].toDouble() - seconds) < 0.001;
}

QString objectOf(const QJsonObject &transfer)
{
    return QStringLiteral("%1/%2:%3")
        .arg(number(transfer, "node"))
        .arg(number(transfer, "index"), 4, 16, QLatin1Char('0'))
        .arg(number(transfer, "subindex"));
}

} // namespace

/// Compares the report on each recording with what the devices and applications themselves told while it was made (the JSON
/// file beside the recording).
class TestRecordings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void frames_data() { recordings(); }
    void frames();
    void messageClasses_data() { recordings(); }
    void messageClasses();
    void nmtCommands_data() { recordings(); }
    void nmtCommands();
    void nmtStates_data() { recordings(); }
    void nmtStates();
    void emergencies_data() { recordings(); }
    void emergencies();
    void transfers_data();
    void transfers();
    void aborts_data() { recordings(); }
    void aborts();
    void unansweredRequests_data();
    void unansweredRequests();
    void devicesUnderOneNodeId_data() { recordings(); }
    void devicesUnderOneNodeId();
    void blockTransfers();
    void blockSegmentsLost();

private:
    static void recordings();
    QHash<int, QJsonObject> accessesByFrame(const QString &name, const QString &kind) const;

    QHash<QString, QJsonObject> mTruth;
    QHash<QString, QJsonObject> mReport; // that of the recording as a whole
    QHash<QString, QJsonObject> mLine;   // its only interface
};

void TestRecordings::recordings()
{
    QTest::addColumn<QString>("name");
    for (const char *name : {"mixed", "block-transfer", "duplicate-node", "guarding-and-states"})
        QTest::newRow(name) << name;
}

void TestRecordings::initTestCase()
{
    for (const QString name : {"mixed", "block-transfer", "duplicate-node", "guarding-and-states"}) {
        QFile truth(QStringLiteral(RECORDINGS "/%1.json").arg(name));
        QVERIFY2(truth.open(QIODevice::ReadOnly), qPrintable(truth.fileName()));
        mTruth[name] = QJsonDocument::fromJson(truth.readAll()).object();
        QVERIFY(!mTruth[name].isEmpty());

        QProcess process;
        process.start(QStringLiteral(CANOPEN_ANALYZE), {"--json", QStringLiteral(RECORDINGS "/%1.log").arg(name)});
        QVERIFY(process.waitForFinished());
        QCOMPARE(process.exitCode(), 0);
        mReport[name] = QJsonDocument::fromJson(process.readAllStandardOutput()).object();
        QCOMPARE(list(mReport[name], "interfaces").size(), 1);
        mLine[name] = list(mReport[name], "interfaces").first().toObject();
    }
}

void TestRecordings::frames()
{
    QFETCH(QString, name);
    const QJsonObject truth = mTruth[name];
    QCOMPARE(number(mReport[name], "frames"), number(truth, "frames"));
    QCOMPARE(number(mReport[name], "badLines"), 0);
    QCOMPARE(usecs(mReport[name]["startTime"].toDouble()), usecs(truth["first_time"].toDouble()));
    QCOMPARE(usecs(mReport[name]["duration"].toDouble()),
             usecs(truth["last_time"].toDouble()) - usecs(truth["first_time"].toDouble()));
}

// The applications count aborts among the SDO frames; guarding requests are remote frames outside the PDO range.
void TestRecordings::messageClasses()
{
    QFETCH(QString, name);
    const QJsonObject sent = mTruth[name]["frames_by_class"].toObject();
    const QJsonObject abort = mTruth[name]["sdo_abort_frames"].toObject();
    const int byClient = number(abort, "from_client");
    const int byServer = number(abort, "from_server");
    const QMap<QString, int> expected = {
        {"SDO_REQ", number(sent, "sdo_req") - byClient},
        {"SDO_RES", number(sent, "sdo_res") - byServer},
        {"SDO_ABORT", byClient + byServer},
        {"SYNC", number(sent, "sync")},
        {"PDO", number(sent, "rpdo") + number(sent, "tpdo")},
        {"NMT", number(sent, "nmt")},
        {"EMCY", number(sent, "emcy")},
        {"NMT_EC", number(sent, "heartbeat")},
        {"NMT_EC_BOOTUP", number(sent, "bootup")},
        {"UNKNOWN", number(sent, "guard_rtr")},
    };
    const QJsonObject classes = mLine[name]["messageClasses"].toObject();
    for (auto type = expected.cbegin(); type != expected.cend(); ++type)
        QVERIFY2(classes[type.key()].toInt() == *type, qPrintable(type.key()));
    for (const QString &type : classes.keys())
        QVERIFY2(expected.contains(type), qPrintable(type));
}

void TestRecordings::nmtCommands()
{
    QFETCH(QString, name);
    const QJsonArray expected = list(mTruth[name], "nmt_commands");
    const QJsonArray found = list(mLine[name], "nmtCommands");
    QCOMPARE(found.size(), expected.size());
    const double begin = mTruth[name]["first_time"].toDouble();
    for (int i = 0; i < expected.size(); ++i) {
        const QJsonObject command = expected.at(i).toObject();
        const QJsonObject reported = found.at(i).toObject();
        QCOMPARE(number(reported, "command"), number(command, "command"));
        QCOMPARE(number(reported, "node"), number(command, "node"));
        QVERIFY(isTimeOfCall(reported, command["t"].toDouble() - begin));
    }
}

// The devices say each state that they enter; on the bus stand only those in which they sent a heartbeat. So what is
// reported follows in the same order, with gaps, and never before it happened.
void TestRecordings::nmtStates()
{
    QFETCH(QString, name);
    const QHash<QString, QString> stateOnBus = {{"reset-communication", "boot-up"},
                                                {"pre-operational", "pre-operational"},
                                                {"operational", "operational"},
                                                {"stopped", "stopped"}};
    const QJsonObject entered = mTruth[name]["nmt_states_entered"].toObject();
    const double begin = mTruth[name]["first_time"].toDouble();
    for (const auto &entry : list(mLine[name], "nodes")) {
        const QJsonObject node = entry.toObject();
        const QJsonArray states = list(entered, qPrintable(QString::number(number(node, "node"))));
        int next = 0;
        for (const auto &change : list(node, "stateChanges")) {
            const QString state = text(change.toObject(), "state");
            while (next < states.size() && stateOnBus.value(text(states.at(next).toObject(), "state")) != state)
                ++next;
            if (states.isEmpty())
                break; // devices that did not tell
            QVERIFY2(next < states.size(),
                     qPrintable(QStringLiteral("node %1: %2").arg(number(node, "node")).arg(state)));
            const double when = states.at(next).toObject()["t"].toDouble() - begin;
            QVERIFY(change.toObject()["time"].toDouble() > when - 0.001);
        }
        if (!states.isEmpty())
            QCOMPARE(text(node, "state"), stateOnBus.value(text(states.last().toObject(), "state")));
    }
}

void TestRecordings::emergencies()
{
    QFETCH(QString, name);
    const QJsonArray expected = list(mTruth[name], "emcy");
    const QJsonArray found = list(mLine[name], "emergencies");
    QCOMPARE(found.size(), expected.size());
    const double begin = mTruth[name]["first_time"].toDouble();
    for (int i = 0; i < expected.size(); ++i) {
        const QJsonObject emergency = expected.at(i).toObject();
        const QJsonObject reported = found.at(i).toObject();
        QCOMPARE(number(reported, "node"), number(emergency, "node"));
        QCOMPARE(text(reported, "code").toInt(nullptr, 16), number(emergency, "code"));
        QCOMPARE(text(reported, "register").toInt(nullptr, 16), number(emergency, "register"));
        QVERIFY(isTimeOfCall(reported, emergency["t"].toDouble() - begin));
    }
}

QHash<int, QJsonObject> TestRecordings::accessesByFrame(const QString &name, const QString &kind) const
{
    QHash<int, QJsonObject> result;
    for (const auto &access : list(mLine[name], "sdoAccesses")) {
        if (text(access.toObject(), "kind") == kind)
            result.insert(number(access.toObject(), "frame"), access.toObject());
    }
    return result;
}

void TestRecordings::transfers_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<int>("count");

    QTest::newRow("mixed, expedited") << "mixed"
                                      << "expedited" << 239;
    QTest::newRow("mixed, segmented") << "mixed"
                                      << "segmented" << 32;
    QTest::newRow("beside block transfers, expedited") << "block-transfer"
                                                       << "expedited" << 99;
    QTest::newRow("beside block transfers, segmented") << "block-transfer"
                                                       << "segmented" << 21;
    QTest::newRow("two devices with one id, expedited") << "duplicate-node"
                                                        << "expedited" << 33;
    QTest::newRow("guarding, expedited") << "guarding-and-states"
                                         << "expedited" << 109;
    QTest::newRow("guarding, segmented") << "guarding-and-states"
                                         << "segmented" << 38;
}

// Every transfer that ended well is reported, with its bytes and its frames, and no other one.
void TestRecordings::transfers()
{
    QFETCH(QString, name);
    QFETCH(QString, kind);
    QFETCH(int, count);
    QHash<int, QJsonObject> reported = accessesByFrame(name, kind);
    int seen = 0;
    for (const auto &entry : list(mTruth[name], "sdo")) {
        const QJsonObject transfer = entry.toObject();
        if (text(transfer, "kind") != kind || !transfer["ok"].toBool())
            continue;
        ++seen;
        const QString what = QStringLiteral("transfer %1").arg(number(transfer, "order"));
        const QJsonObject access = reported.take(number(transfer, "last_frame"));
        if (transfer.contains("size_indicated") && !transfer["size_indicated"].toBool() && kind == "segmented") {
            // A write whose size was not announced, ended by an empty segment: given up as broken.
            QVERIFY2(access.isEmpty(), qPrintable(what));
            continue;
        }
        QVERIFY2(!access.isEmpty(), qPrintable(what));
        QVERIFY2(objectOf(access) == objectOf(transfer), qPrintable(what));
        QVERIFY2(text(access, "access") == text(transfer, "dir"), qPrintable(what));
        QVERIFY2(text(access, "bytes").toLower() == text(transfer, "value"), qPrintable(what));
        QVERIFY2(number(access, "requestFrame") == number(transfer, "request_frame"), qPrintable(what));
    }
    QCOMPARE(seen, count);
    QVERIFY2(reported.isEmpty(), qPrintable(QString::number(reported.isEmpty() ? 0 : reported.cbegin().key())));
}

void TestRecordings::aborts()
{
    QFETCH(QString, name);
    QMap<int, QJsonObject> expected;
    for (const auto &entry : list(mTruth[name], "sdo")) {
        if (entry.toObject().contains("abort"))
            expected.insert(number(entry.toObject(), "last_frame"), entry.toObject());
    }
    const QJsonArray found = list(mLine[name], "sdoAborts");
    QCOMPARE(found.size(), expected.size());
    for (const auto &entry : found) {
        const QJsonObject abort = entry.toObject();
        const QJsonObject transfer = expected.value(number(abort, "frame"));
        QCOMPARE(text(abort, "code"), text(transfer, "abort"));
        QCOMPARE(text(abort, "by"), text(transfer, "aborted_by"));
        QCOMPARE(number(abort, "node"), number(transfer, "node"));
        QVERIFY(!text(abort, "meaning").isEmpty());
    }
    QCOMPARE(number(mLine[name]["rating"].toObject()["sdoAborts"].toObject(), "count"), expected.size());
}

void TestRecordings::unansweredRequests_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QList<int>>("frames");

    // The abort with which the client gives up in "mixed" names another object, so the request stays open.
    QTest::newRow("mixed: a node that does not exist") << "mixed" << QList<int>{2273};
    QTest::newRow("guarding: the clients took back what was not answered") << "guarding-and-states" << QList<int>();
    QTest::newRow("block transfers") << "block-transfer" << QList<int>();
    QTest::newRow("two devices with one id") << "duplicate-node" << QList<int>();
}

void TestRecordings::unansweredRequests()
{
    QFETCH(QString, name);
    QFETCH(QList<int>, frames);
    QList<int> found;
    for (const auto &request : list(mLine[name], "unansweredRequests"))
        found += number(request.toObject(), "frame");
    QCOMPARE(found, frames);
}

void TestRecordings::devicesUnderOneNodeId()
{
    QFETCH(QString, name);
    const QJsonObject devices = mTruth[name]["devices_with_node_id"].toObject();
    for (const auto &entry : list(mLine[name], "nodes")) {
        const QString node = QString::number(number(entry.toObject(), "node"));
        QVERIFY2(number(entry.toObject(), "devices") == devices[node].toInt(1), qPrintable(node));
    }
}

// Nodes 7 and 12 each had one block download and one block upload of the same value, node 40 many; its last one must stand at
// the end of what was collected.
void TestRecordings::blockTransfers()
{
    QHash<int, QJsonObject> last;
    QHash<int, QString> bytes;
    for (const auto &entry : list(mTruth["block-transfer"], "sdo")) {
        const QJsonObject transfer = entry.toObject();
        if (text(transfer, "kind") != "block" || !transfer["ok"].toBool())
            continue;
        last.insert(number(transfer, "node"), transfer);
        bytes[number(transfer, "node")] += text(transfer, "value");
    }
    const QJsonArray found = list(mLine["block-transfer"], "blockTransfers");
    QCOMPARE(found.size(), 3);
    for (const auto &entry : found) {
        const QJsonObject record = entry.toObject();
        const int node = number(record, "node");
        QCOMPARE(objectOf(record), objectOf(last[node]));
        QCOMPARE(text(record, "access"), text(last[node], "dir"));
        QCOMPARE(text(record, "stateText"), QStringLiteral("ended"));
        QVERIFY(text(record, "collected").toLower().endsWith(text(last[node], "value")));
        if (node != 40)
            QCOMPARE(text(record, "collected").toLower(), bytes[node]);
    }
}

// Acknowledgements of fewer segments than the client sent: after segment 40 of the first download that lost one, and for the
// whole second block of the second.
void TestRecordings::blockSegmentsLost()
{
    QList<int> acknowledged;
    for (const auto &entry : list(mLine["block-transfer"], "protocolErrors")) {
        const QJsonObject fault = entry.toObject();
        if (text(fault, "kind") == "segmentsLost")
            acknowledged += QByteArray::fromHex(text(fault, "data").toLatin1()).at(1);
        else
            QCOMPARE(text(fault, "kind"), QStringLiteral("lastAcknowledge"));
    }
    QCOMPARE(acknowledged, QList<int>({39, 0}));
}

QTEST_GUILESS_MAIN(TestRecordings)
#include "tst_recordings.moc"
