#include "support/canopenrecords.h"

#include "trace.h"

#include <QtTest>

#include <functional>

/// The CAN and CANopen records: time stamps, payload extraction, entry keys, name tables.
class TestCanopenRecords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void wholeMillisecondsAreRoundedDown();
    void payloadBytes_data();
    void payloadBytes();
    void entriesAreFoundByTheirObject();
    void entriesCompareOverAllTheirFields();
    void startingValues();
    void nameTables();
};

void TestCanopenRecords::wholeMillisecondsAreRoundedDown()
{
    QCOMPARE(CanTimeStamp::fromNSecs(20999999).toMsecs(), qint64(20));
    QCOMPARE(CanTimeStamp::fromNSecs(21000000).toMsecs(), qint64(21));
    QCOMPARE(CanTimeStamp::fromNSecs(-1).toMsecs(), qint64(-1));
    QCOMPARE(CanTimeStamp::fromNSecs(-1000000).toMsecs(), qint64(-1));
    QCOMPARE(CanTimeStamp::fromNSecs(1710000000123999999).toMsecs(), qint64(1710000000123));
}

void TestCanopenRecords::payloadBytes_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("count");
    QTest::addColumn<bool>("inOrder");
    QTest::addColumn<QByteArray>("hex");

    const auto row = [](const char *name, const char *line, int first, int count, bool inOrder, const char *hex) {
        QTest::newRow(name) << QByteArray(line) << first << count << inOrder << QByteArray(hex);
    };
    row("size, most significant first", "585 41 00 10 00 0C 00 00 00", 4, -1, false, "0000000c");
    row("segment with n = 3", "605 07 41 42 43 44 45 46 47", 1, 4, true, "41424344");
    row("count past the end, reversed", "605 07 41 42", 1, 7, false, "4241");
    row("count past the end", "605 07 41 42", 1, 7, true, "4142");
    row("nothing there", "605 40 00 10 00", 4, -1, false, "");
    row("first beyond the record", "605 07 41 42 43 44 45 46 47", 100, -1, true, "");
    row("negative first", "605 07 41 42 43 44 45 46 47", -1, 3, true, "");
    row("count 0", "605 07 41 42 43 44 45 46 47", 1, 0, true, "");
    row("end of an FD frame", "205 00 01 02 03 04 05 06 07 08 09 0A 0B", 7, -1, true, "0708090a0b");
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

void TestCanopenRecords::entriesAreFoundByTheirObject()
{
    QCOMPARE(qHash(SDO::SDOEntryKey(0x12, 0x1018, 0x01), 0), 0x12101801u);
    QCOMPARE(qHash(SDO::SDOEntryKey(0xFF, 0xFFFF, 0xFF), 0xFFFF0000), 0xFFFFu);

    const SDO::SDOEntryKey object(5, 0x1000, 1);
    QHash<SDO::SDOEntryKey, SDO::SDOEntry> entries;
    entries.insert(object, SDO::SDOEntry(object));
    for (const SDO::SDOEntryKey &other :
         {SDO::SDOEntryKey(5, 0x1000, 2), SDO::SDOEntryKey(5, 0x1001, 1), SDO::SDOEntryKey(6, 0x1000, 1)})
        QVERIFY(other != object && !entries.contains(other));
    QVERIFY(entries.value(object).value.isNull());

    const SDO::SDOEntry missing = entries.value(SDO::SDOEntryKey(5, 0x1000, 2));
    QCOMPARE(missing.value, QVariant(195948557));
    QVERIFY(static_cast<const SDO::SDOEntryKey &>(missing) == SDO::SDOEntryKey(0, 0, 0));
}

void TestCanopenRecords::entriesCompareOverAllTheirFields()
{
    SDO::SDOEntry entry(SDO::SDOEntryKey(5, 0x1000, 1));
    entry.value = QVariant(42LL);
    entry.values.append(SDO::SDOEntryValue());
    entry.values[0].value = QVariant(42LL);
    QVERIFY(entry == SDO::SDOEntry(entry));

    using Entry = SDO::SDOEntry;
    const QList<std::function<void(Entry &)>> changes = {
        [](Entry &other) { other.node = 6; },
        [](Entry &other) { other.index = 0x1001; },
        [](Entry &other) { other.subindex = 2; },
        [](Entry &other) { other.text = "?"; },
        [](Entry &other) { other.number = 1; },
        [](Entry &other) { other.flag = true; },
        [](Entry &other) { other.requestTime = CanTimeStamp::fromNSecs(1); },
        [](Entry &other) { other.requestMsgNumber = 1; },
        [](Entry &other) { other.value = QVariant(43LL); },
        [](Entry &other) { other.value = QByteArray("42"); }, // although QVariant says that it equals the number
        [](Entry &other) { other.values.clear(); },
        [](Entry &other) { other.values[0].value = QByteArray("42"); },
        [](Entry &other) { other.values[0].reqTime = 0.5; },
        [](Entry &other) { other.values[0].respTime = 0.5; },
        [](Entry &other) { other.values[0].canMsgNumber = 1; },
        [](Entry &other) { other.values[0].reqMsgNumber = 1; },
        [](Entry &other) { other.values[0].wasSDOWrite = true; },
    };
    for (int i = 0; i < changes.size(); ++i) {
        Entry other = entry;
        changes[i](other);
        QVERIFY2(!(other == entry) && other != entry, qPrintable(QString::number(i)));
    }
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
