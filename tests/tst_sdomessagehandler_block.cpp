#include "sdo/sdomessagehandler.h"

#include "sdowitness.h"

#include <QtTest>

/// Block transfers in the SDO message handler. Behind "=>" stands node 5's record after the frame: state, direction (d or u),
/// counter/blksize, bytes collected; and "listed" for a listed acknowledgement. Nothing here is ever signalled.
class TestBlockInHandler : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void record_data();
    void record();
    void collectedData_data();
    void collectedData();
    void segmentsAreNotDispatched();
    void nodesHaveRecordsOfTheirOwn();
    void counterIsModulo256();
    void collectedBytesAreBounded();
};

static QString describe(const CANopen::SDODef::SDOBlockTransfer &record)
{
    return QStringLiteral("%1%2 %3/%4 %5")
        .arg(record.mState)
        .arg(record.mDirection == 1 ? QLatin1Char('d') : QLatin1Char('u'))
        .arg(record.mSequence)
        .arg(record.mBlockSize)
        .arg(record.mData.size());
}

void TestBlockInHandler::record_data()
{
    QTest::addColumn<QByteArray>("trace");

    QTest::newRow("download of 12 bytes") << QByteArray(R"(
        605  C6 00 20 00 0C 00 00 00 | CRC, 12 bytes           => 1d 0/0 0
        585  A4 00 20 00 7F 00 00 00 | blksize 127             => 3d 0/127 0
        605  01 41 42 43 44 45 46 47                           => 3d 1/127 7
        605  82 48 49 4A 4B 4C 00 00 | last                    => 4d 2/127 14
        585  A2 02 7F 00 00 00 00 00 | ackseq 2                => 4d 0/127 14 listed
        605  C9 12 34 00 00 00 00 00 | n = 2                   => 5d 0/127 12
        585  A1 00 00 00 00 00 00 00                           => 5d 0/127 12)");
    QTest::newRow("download, sub-block of exactly blksize segments") << QByteArray(R"(
        605  C2 00 20 00 0F 00 00 00                           => 1d 0/0 0
        585  A0 00 20 00 02 00 00 00 | blksize 2               => 3d 0/2 0
        605  01 41 42 43 44 45 46 47                           => 3d 1/2 7
        605  02 48 49 4A 4B 4C 4D 4E                           => 3d 2/2 14
        585  A2 02 04 00 00 00 00 00 | blksize 4 from now on   => 3d 0/4 14
        605  81 4F 00 00 00 00 00 00                           => 4d 1/4 21
        585  A2 01 04 00 00 00 00 00                           => 4d 0/4 21 listed
        605  D9 12 34 00 00 00 00 00                           => 5d 0/4 15)");
    QTest::newRow("upload") << QByteArray(R"(
        605  A4 00 20 00 7F 00 00 00 | blksize 127             => 1u 0/127 0
        585  C6 00 20 00 12 00 00 00                           => 2u 0/127 0
        605  A3 00 00 00 00 00 00 00 | start                   => 3u 0/127 0
        585  01 41 42 43 44 45 46 47                           => 3u 1/127 7
        585  02 48 49 4A 4B 4C 4D 4E                           => 3u 2/127 14
        585  83 4F 50 51 52 00 00 00 | last                    => 4u 3/127 21
        605  A2 03 7F 00 00 00 00 00 | ackseq is not compared  => 4u 0/127 21
        585  CD 12 34 00 00 00 00 00 | n = 3                   => 4u 0/127 18
        605  A1 00 00 00 00 00 00 00                           => 5u 0/127 18)");
    QTest::newRow("repeated segment: it and all that follow are dropped") << QByteArray(R"(
        605  C2 00 20 00 0F 00 00 00                           => 1d 0/0 0
        585  A0 00 20 00 03 00 00 00                           => 3d 0/3 0
        605  01 41 42 43 44 45 46 47                           => 3d 1/3 7
        605  01 41 42 43 44 45 46 47                           => 3d 2/3 7
        605  02 48 49 4A 4B 4C 4D 4E                           => 3d 3/3 7
        585  A2 01 03 00 00 00 00 00 | only the first arrived  => 3d 0/3 7 listed
        605  01 48 49 4A 4B 4C 4D 4E | sent again              => 3d 1/3 14)");
    QTest::newRow("initiate frames reset neither counter nor data") << QByteArray(R"(
        605  C2 00 20 00 0F 00 00 00                           => 1d 0/0 0
        585  A0 00 20 00 7F 00 00 00                           => 3d 0/127 0
        605  81 41 42 43 44 45 46 47                           => 4d 1/127 7
        605  C0 00 21 00 00 00 00 00 | no size                 => 1d 1/127 7
        585  A0 00 21 00 10 00 00 00                           => 3d 1/16 7
        605  01 58 58 58 58 58 58 58 | counter is 2 by now     => 3d 2/16 7)");
    QTest::newRow("frames that do not fit the state") << QByteArray(R"(
        605  A3 00 00 00 00 00 00 00 | start without initiate  => 0u 0/0 0
        585  C6 00 20 00 12 00 00 00                           => 0u 0/0 0
        605  C1 00 00 00 00 00 00 00 | end without segments    => 0u 0/0 0
        585  A3 00 00 00 00 00 00 00 | not defined             => 0u 0/0 0
        605  A4 00 20 00 7F 00 00 00                           => 1u 0/127 0
        605  A3 00 00 00 00 00 00 00 | start before the answer => 1u 0/127 0
        585  C6 00 20 00 12 00 00 00                           => 2u 0/127 0
        585  C6 00 20 00 12 00 00 00                           => 2u 0/127 0
        605  A1 00 00 00 00 00 00 00 | end in any state        => 5u 0/127 0
        605  A3 00 00 00 00 00 00 00                           => 5u 0/127 0
        605  E4 00 20 00 10 00 00 00 | not defined             => 5u 0/127 0
        605  A4 00 20 00 7F 00 00 00                           => 1u 0/127 0
        585  C6 00 20 00 12 00 00 00                           => 2u 0/127 0
        605  A3 00 00 00 00 00 00 00                           => 3u 0/127 0
        585  80 00 20 00 00 00 04 05 | abort of the sender     => 3u 0/127 0)");
    QTest::newRow("download answered without a request: takes server frames, direction 0") << QByteArray(R"(
        585  A0 00 20 00 02 00 00 00                           => 3u 0/2 0
        585  60 00 20 00 00 00 00 00 | a segment of number 96  => 3u 1/2 0)");
    QTest::newRow("abandoned: frames are taken until one has bit 7 set") << QByteArray(R"(
        605  C2 00 20 00 0F 00 00 00                           => 1d 0/0 0
        585  A0 00 20 00 7F 00 00 00                           => 3d 0/127 0
        585  80 00 20 00 00 00 04 05 | abort                   => 3d 0/127 0
        605  80 00 20 00 00 00 04 05 | abort of the sender     => 3d 0/127 0
        605  23 00 10 00 2A 00 00 00 | segment number 35       => 3d 1/127 0
        605  A4 00 20 00 7F 00 00 00 | last segment            => 4d 2/127 0
        605  A4 00 20 00 10 00 00 00 | initiate upload         => 1u 2/16 0)");
    QTest::newRow("end cuts off no more than there is") << QByteArray(R"(
        605  C2 00 20 00 0F 00 00 00                           => 1d 0/0 0
        585  A0 00 20 00 7F 00 00 00                           => 3d 0/127 0
        605  81 41                                             => 4d 1/127 1
        605  DD 00 00 00 00 00 00 00 | n = 7                   => 5d 1/127 0)");
}

void TestBlockInHandler::record()
{
    QFETCH(QByteArray, trace);
    SdoWitness sdo;
    for (const TraceLine &line : parseTrace(trace)) {
        const QString reported = sdo.feed(line.message);
        const auto record = sdo.handler.blockTransfers().value(5);
        const QString found = describe(record) + (reported.isEmpty() ? QString() : QLatin1Char(' ') + reported);
        QVERIFY2(found == line.expected, qPrintable(line.text + QStringLiteral("\n  found: ") + found));
    }
}

void TestBlockInHandler::collectedData_data()
{
    QTest::addColumn<QByteArray>("trace");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<quint32>("size");
    QTest::addColumn<int>("crc");
    QTest::newRow("download, CRC and size") << QByteArray(R"(
        605  C6 02 20 03 0C 00 00 00
        585  A4 02 20 03 7F 00 00 00
        605  01 41 42 43 44 45 46 47
        605  82 48 49 4A 4B 4C 00 00
        605  C9 12 34 00 00 00 00 00)") << QByteArray("ABCDEFGHIJKL")
                                            << 12u << 4;
    QTest::newRow("download, neither, though the one before had both") << QByteArray(R"(
        605  C6 00 20 00 0C 00 00 00
        605  C0 02 20 03 0C 00 00 00
        585  A0 02 20 03 7F 00 00 00
        605  81 41 42 43 44 45 46 47)") << QByteArray("ABCDEFG") << 0u << 0;
    QTest::newRow("upload: leaves both as they were") << QByteArray(R"(
        605  C6 00 20 00 0C 00 00 00
        605  A4 02 20 03 7F 00 00 00
        585  C6 02 20 03 07 00 00 00
        605  A3
        585  81 41 42 43 44 45 46 47)") << QByteArray("ABCDEFG")
                                                      << 12u << 4;
}

void TestBlockInHandler::collectedData()
{
    QFETCH(QByteArray, trace);
    SdoWitness sdo;
    for (const CAN::CanRxMessage &message : frames(trace))
        sdo.feed(message);
    const auto record = sdo.handler.blockTransfers().value(5);
    QTEST(record.mData, "data");
    QTEST(record.mSize, "size");
    QTEST(int(record.mCrcSupport), "crc");
    QCOMPARE(record.mIndex, quint16(0x2002));
    QCOMPARE(record.mSubindex, quint8(3));
}

void TestBlockInHandler::segmentsAreNotDispatched()
{
    SdoWitness sdo;
    QCOMPARE(sdo.follow(R"(
        605  C2 00 20 00 0F 00 00 00
        585  A0 00 20 00 7F 00 00 00
        605  23 00 10 00 2A 00 00 00 | a segment, not a write
        585  60 00 10 00 00 00 00 00 | the other direction is dispatched   => error 0, listed
        605  05 00 10 00 2A 00 00 00 | a segment, not a download segment
        606  05 00 10 00 2A 00 00 00 | another node is dispatched          => error 3, listed)"),
             QString());
    QVERIFY(sdo.handler.pendingSDOEntryList().isEmpty());

    sdo.handler.reset();
    QCOMPARE(sdo.follow(R"(
        605  A4 00 20 00 7F 00 00 00
        585  C6 00 20 00 12 00 00 00
        605  A3 00 00 00 00 00 00 00
        585  01 41 42 43 44 45 46 47 | a segment, not an upload segment
        585  43 00 10 00 2A 00 00 00 | a segment, not an answer
        605  00 41 42 43 44 45 46 47 | the other direction is dispatched   => error 3, listed)"),
             QString());
}

void TestBlockInHandler::nodesHaveRecordsOfTheirOwn()
{
    SdoWitness sdo;
    for (const CAN::CanRxMessage &message : frames(R"(
            605  C2 00 20 00 0F 00 00 00
            606  A4 00 21 00 10 00 00 00
            585  A0 00 20 00 7F 00 00 00
            586  C6 00 21 00 12 00 00 00
            587  60 00 10 00 00 00 00 00 | any SDO frame makes a record
            605  01 41 42 43 44 45 46 47
            606  A3 00 00 00 00 00 00 00
            586  81 48 49 4A 4B 4C 4D 4E)"))
        sdo.feed(message);
    const auto records = sdo.handler.blockTransfers();
    QCOMPARE(records.keys(), (QList<unsigned char>{5, 6, 7}));
    QCOMPARE(describe(records.value(5)), QStringLiteral("3d 1/127 7"));
    QCOMPARE(describe(records.value(6)), QStringLiteral("4u 1/16 7"));
    QCOMPARE(describe(records.value(7)), QStringLiteral("0u 0/0 0"));
}

void TestBlockInHandler::counterIsModulo256()
{
    SdoWitness sdo;
    for (const CAN::CanRxMessage &message : frames("605 C2 00 20 00 0F\n585 A0 00 20 00 7F"))
        sdo.feed(message);
    for (int segment = 1; segment <= 257; ++segment) {
        CAN::CanRxMessage message = frame("605 00 41 42 43 44 45 46 47");
        message.mFrame.mPayload[0] = quint8(segment & 0x7F);
        sdo.feed(message);
    }
    // Only numbers 1 to 127, and the 257th, fit their count.
    QCOMPARE(describe(sdo.handler.blockTransfers().value(5)), QStringLiteral("3d 1/127 903"));
}

void TestBlockInHandler::collectedBytesAreBounded()
{
    SdoWitness sdo;
    sdo.handler.setCollectedBytesLimit(28); // 14 for blocks, 14 for segments
    const QByteArray twoAndOneTooMany = R"(
        605  C2 00 20 00 0F 00 00 00
        585  A0 00 20 00 7F 00 00 00
        605  05 41 42 43 44 45 46 47 | out of sequence: takes nothing
        585  A2 00 7F 00 00 00 00 00
        605  01 41 42 43 44 45 46 47
        605  02 48 49 4A 4B 4C 4D 4E
        605  83 4F 50 51 52 53 54 55 | counted, dropped)";
    for (int round = 0; round < 2; ++round) { // a reset gives everything back
        sdo.handler.reset();
        for (const CAN::CanRxMessage &message : frames(twoAndOneTooMany))
            sdo.feed(message);
        QCOMPARE(describe(sdo.handler.blockTransfers().value(5)), QStringLiteral("4d 3/127 14"));
    }
    // Block data stay until a reset; segmented transfers have a half of their own.
    QCOMPARE(sdo.follow(R"(
        606  40 08 10 00 00 00 00 00
        586  41 08 10 00 03 00 00 00
        606  60 00 00 00 00 00 00 00
        586  09 41 42 43 00 00 00 00 => read 6 1008:00 = 41 42 43 asked 1ms)"),
             QString());
    // What the end of a transfer cuts off is free again.
    for (const CAN::CanRxMessage &message : frames(R"(
            605  DD 00 00 00 00 00 00 00
            605  DD 00 00 00 00 00 00 00
            605  DD 00 00 00 00 00 00 00 | nothing left
            606  C2 00 20 00 0F 00 00 00
            586  A0 00 20 00 7F 00 00 00
            606  01 41 42 43 44 45 46 47
            606  02 48 49 4A 4B 4C 4D 4E
            606  83 4F 50 51 52 53 54 55)"))
        sdo.feed(message);
    QCOMPARE(describe(sdo.handler.blockTransfers().value(6)), QStringLiteral("4d 3/127 14"));
}

QTEST_GUILESS_MAIN(TestBlockInHandler)
#include "tst_sdomessagehandler_block.moc"
