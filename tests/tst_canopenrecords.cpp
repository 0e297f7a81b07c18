#include "support/canopenrecords.h"

#include "trace.h"

#include <QtTest>

/// The CAN and CANopen records: time stamps, payload extraction, entry keys, name tables.
class TestCanopenRecords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void wholeMillisecondsAreRoundedDown_data();
    void wholeMillisecondsAreRoundedDown();
    void payloadBytes_data();
    void payloadBytes();
    void entryKeysPackIntoTheHash_data();
    void entryKeysPackIntoTheHash();
    void entriesAreFoundByTheirObject();
    void startingValues();
    void nameTables();
};

void TestCanopenRecords::wholeMillisecondsAreRoundedDown_data()
{
    QTest::addColumn<qint64>("nsecs");
    QTest::addColumn<qint64>("msecs");
    QTest::newRow("unknown time") << qint64(0) << qint64(0);
    QTest::newRow("just before a millisecond") << qint64(20999999) << qint64(20);
    QTest::newRow("a millisecond") << qint64(21000000) << qint64(21);
    QTest::newRow("just before the epoch") << qint64(-1) << qint64(-1);
    QTest::newRow("a millisecond before the epoch") << qint64(-1000000) << qint64(-1);
    QTest::newRow("present date") << qint64(1710000000123999999) << qint64(1710000000123);
}

void TestCanopenRecords::wholeMillisecondsAreRoundedDown()
{
    QFETCH(qint64, nsecs);
    QTEST(CanTimeStamp::fromNSecs(nsecs).toMsecs(), "msecs");
}

void TestCanopenRecords::payloadBytes_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("count");
    QTest::addColumn<bool>("inOrder");
    QTest::addColumn<QByteArray>("hex");

    const QByteArray size12 = "585 41 00 10 00 0C 00 00 00";
    QTest::newRow("size, most significant first") << size12 << 4 << -1 << false << QByteArray("0000000c");
    QTest::newRow("value of one byte") << size12 << 4 << 1 << false << QByteArray("0c");
    const QByteArray segment = "605 07 41 42 43 44 45 46 47";
    QTest::newRow("segment with n = 3") << segment << 1 << 4 << true << QByteArray("41424344");
    QTest::newRow("whole segment") << segment << 1 << 7 << true << QByteArray("41424344454647");
    QTest::newRow("count past the end") << QByteArray("605 07 41 42") << 1 << 7 << true << QByteArray("4142");
    QTest::newRow("count past the end, reversed")
        << QByteArray("605 07 41 42") << 1 << 7 << false << QByteArray("4241");
    QTest::newRow("nothing there") << QByteArray("605 40 00 10 00") << 4 << -1 << false << QByteArray();
    QTest::newRow("first beyond the record") << segment << 100 << -1 << true << QByteArray();
    QTest::newRow("negative first") << segment << -1 << 3 << true << QByteArray();
    QTest::newRow("end of an FD frame") << QByteArray("205 00 01 02 03 04 05 06 07 08 09 0A 0B") << 7 << -1 << true
                                        << QByteArray("0708090a0b");
    QTest::newRow("count 0") << segment << 1 << 0 << true << QByteArray();
}

void TestCanopenRecords::payloadBytes()
{
    QFETCH(QByteArray, line);
    QFETCH(int, first);
    QFETCH(int, count);
    QFETCH(bool, inOrder);
    QTEST(frame(line.constData()).mFrame.dataToByteArray(first, count, inOrder).toHex(), "hex");

    CAN::CanMessage damaged = frame(line.constData()).mFrame;
    damaged.mDataLength = 255;
    QVERIFY(damaged.dataToByteArray(first, -1, inOrder).size() <= CAN::CanMessage::maxPayload);
}

void TestCanopenRecords::entryKeysPackIntoTheHash_data()
{
    QTest::addColumn<SDO::SDOEntryKey>("key");
    QTest::addColumn<uint>("seed");
    QTest::addColumn<uint>("hash");
    QTest::newRow("identity object") << SDO::SDOEntryKey(0x12, 0x1018, 0x01) << 0u << 0x12101801u;
    QTest::newRow("seed") << SDO::SDOEntryKey(0x12, 0x1018, 0x01) << 0xFFFF0000u << 0xEDEF1801u;
    QTest::newRow("no object") << SDO::SDOEntryKey() << 0u << 0u;
    QTest::newRow("largest") << SDO::SDOEntryKey(0xFF, 0xFFFF, 0xFF) << 0u << 0xFFFFFFFFu;
}

void TestCanopenRecords::entryKeysPackIntoTheHash()
{
    QFETCH(SDO::SDOEntryKey, key);
    QFETCH(uint, seed);
    QTEST(qHash(key, seed), "hash");
}

void TestCanopenRecords::entriesAreFoundByTheirObject()
{
    const SDO::SDOEntryKey object(5, 0x1000, 1);
    SDO::SDOEntry entry(object);
    QVERIFY(entry.value.isNull());
    entry.values.append(SDO::SDOEntryValue());

    QHash<SDO::SDOEntryKey, SDO::SDOEntry> entries;
    entries.insert(entry, entry);
    for (const SDO::SDOEntryKey &other :
         {SDO::SDOEntryKey(5, 0x1000, 2), SDO::SDOEntryKey(5, 0x1001, 1), SDO::SDOEntryKey(6, 0x1000, 1)})
        QVERIFY(other != object && !entries.contains(other));
    QVERIFY(entries.value(object) == entry);
    QVERIFY(entries.value(object) != SDO::SDOEntry(object)); // a key compares as a key, an entry over all its fields

    const SDO::SDOEntry missing = entries.value(SDO::SDOEntryKey(5, 0x1000, 2));
    QCOMPARE(missing.value, QVariant(195948557));
    QVERIFY(static_cast<const SDO::SDOEntryKey &>(missing) == SDO::SDOEntryKey(0, 0, 0));
}

void TestCanopenRecords::startingValues()
{
    QCOMPARE(CANopen::CANopenNMTEvent().mMessageNumber, 0xFFFFFFFFu);
    const CAN::CanRxMessage empty;
    const CAN::CanRxMessage zeroed = frame("000");
    QCOMPARE(memcmp(empty.mFrame.mPayload, zeroed.mFrame.mPayload, sizeof empty.mFrame.mPayload), 0);
    QCOMPARE(empty.mFrame.mDataLength + empty.mFrame.mFlags + int(empty.mMessageNumber), 0);
}

void TestCanopenRecords::nameTables()
{
    QCOMPARE(CANopen::messageTypeNames.size(), 20);
    QCOMPARE(CANopen::messageTypeNames.lastKey(), CANopen::GFC);
    QCOMPARE(CANopen::messageTypeNames.value(static_cast<CANopen::MessageType>(9)), QStringLiteral("EMCY"));
    QCOMPARE(CANopen::messageTypeNames.value(static_cast<CANopen::MessageType>(18)), QStringLiteral("Sleep"));
    QCOMPARE(CAN::errorNames.size(), 8);
    QCOMPARE(CAN::errorNames.value(5), QStringLiteral("Fast data bit error"));
    QCOMPARE(CAN::fdPayloadLengths, (QList<unsigned char>{12, 16, 20, 24, 32, 48, 64}));
}

QTEST_APPLESS_MAIN(TestCanopenRecords)
#include "tst_canopenrecords.moc"
