#include "sdo/sdomessagehandler.h"

#include "sdowitness.h"

#include <QtTest>

/// Block transfers in the SDO message handler. Behind "=>" stands the node's record after the frame (SdoWitness::showsBlocks), and
/// "listed" for a listed acknowledgement. Of block transfers nothing is ever signalled.
class TestBlockInHandler : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void conversation_data();
    void conversation();
    void counterIsModulo256();
};

static const QByteArray threeSegments = R"(
        605  C2 00 20 00 0F 00 00 00                           => 1d 2000:00 0/0 size 15
        585  A0 00 20 00 7F 00 00 00                           => 3d 2000:00 0/127 size 15
        605  05 41 42 43 44 45 46 47 | out of sequence         => 3d 2000:00 1/127 size 15
        585  A2 00 7F 00 00 00 00 00                           => 3d 2000:00 0/127 size 15, listed
        605  01 41 42 43 44 45 46 47                           => 3d 2000:00 1/127 size 15 ABCDEFG
        605  02 48 49 4A 4B 4C 4D 4E                           => 3d 2000:00 2/127 size 15 ABCDEFGHIJKLMN
        605  83 4F 50 51 52 53 54 55 | counted, dropped        => 4d 2000:00 3/127 size 15 ABCDEFGHIJKLMN
        )";

void TestBlockInHandler::conversation_data()
{
    QTest::addColumn<QByteArray>("trace");

    QTest::newRow("download of 12 bytes") << QByteArray(R"(
        605  C6 00 20 00 0C 00 00 00 | CRC, 12 bytes           => 1d 2000:00 0/0 size 12 crc 4
        585  A4 00 20 00 7F 00 00 00 | blksize 127             => 3d 2000:00 0/127 size 12 crc 4
        605  01 41 42 43 44 45 46 47                           => 3d 2000:00 1/127 size 12 crc 4 ABCDEFG
        605  82 48 49 4A 4B 4C 00 00 | last                    => 4d 2000:00 2/127 size 12 crc 4 ABCDEFGHIJKL..
        585  A2 02 7F 00 00 00 00 00 | ackseq 2                => 4d 2000:00 0/127 size 12 crc 4 ABCDEFGHIJKL.., listed
        605  C9 12 34 00 00 00 00 00 | n = 2                   => 5d 2000:00 0/127 size 12 crc 4 ABCDEFGHIJKL
        585  A1 00 00 00 00 00 00 00                           => 5d 2000:00 0/127 size 12 crc 4 ABCDEFGHIJKL)");
    QTest::newRow("download, sub-block of exactly blksize segments") << QByteArray(R"(
        605  C2 00 20 00 0F 00 00 00                           => 1d 2000:00 0/0 size 15
        585  A0 00 20 00 02 00 00 00 | blksize 2               => 3d 2000:00 0/2 size 15
        605  01 41 42 43 44 45 46 47                           => 3d 2000:00 1/2 size 15 ABCDEFG
        605  02 48 49 4A 4B 4C 4D 4E                           => 3d 2000:00 2/2 size 15 ABCDEFGHIJKLMN
        585  A2 02 04 00 00 00 00 00 | blksize 4 from now on   => 3d 2000:00 0/4 size 15 ABCDEFGHIJKLMN
        605  81 4F 00 00 00 00 00 00                           => 4d 2000:00 1/4 size 15 ABCDEFGHIJKLMNO......
        585  A2 01 04 00 00 00 00 00                           => 4d 2000:00 0/4 size 15 ABCDEFGHIJKLMNO......, listed
        605  D9 12 34 00 00 00 00 00                           => 5d 2000:00 0/4 size 15 ABCDEFGHIJKLMNO)");
    QTest::newRow("upload") << QByteArray(R"(
        605  A4 00 20 00 7F 00 00 00 | blksize 127             => 1u 2000:00 0/127
        585  C6 00 20 00 12 00 00 00                           => 2u 2000:00 0/127
        605  A3 00 00 00 00 00 00 00 | start                   => 3u 2000:00 0/127
        585  01 41 42 43 44 45 46 47                           => 3u 2000:00 1/127 ABCDEFG
        585  02 48 49 4A 4B 4C 4D 4E                           => 3u 2000:00 2/127 ABCDEFGHIJKLMN
        585  83 4F 50 51 52 00 00 00 | last                    => 4u 2000:00 3/127 ABCDEFGHIJKLMNOPQR...
        605  A2 03 7F 00 00 00 00 00 | ackseq is not compared  => 4u 2000:00 0/127 ABCDEFGHIJKLMNOPQR...
        585  CD 12 34 00 00 00 00 00 | n = 3                   => 4u 2000:00 0/127 ABCDEFGHIJKLMNOPQR
        605  A1 00 00 00 00 00 00 00                           => 5u 2000:00 0/127 ABCDEFGHIJKLMNOPQR)");
    QTest::newRow("repeated segment: it and all that follow are dropped") << QByteArray(R"(
        605  C2 00 20 00 0F 00 00 00                           => 1d 2000:00 0/0 size 15
        585  A0 00 20 00 03 00 00 00                           => 3d 2000:00 0/3 size 15
        605  01 41 42 43 44 45 46 47                           => 3d 2000:00 1/3 size 15 ABCDEFG
        605  01 41 42 43 44 45 46 47                           => 3d 2000:00 2/3 size 15 ABCDEFG
        605  02 48 49 4A 4B 4C 4D 4E                           => 3d 2000:00 3/3 size 15 ABCDEFG
        585  A2 01 03 00 00 00 00 00 | only the first arrived  => 3d 2000:00 0/3 size 15 ABCDEFG, listed
        605  01 48 49 4A 4B 4C 4D 4E | sent again              => 3d 2000:00 1/3 size 15 ABCDEFGHIJKLMN)");
    QTest::newRow("initiate frames reset neither counter nor data") << QByteArray(R"(
        605  C2 00 20 00 0F 00 00 00                           => 1d 2000:00 0/0 size 15
        585  A0 00 20 00 7F 00 00 00                           => 3d 2000:00 0/127 size 15
        605  81 41 42 43 44 45 46 47                           => 4d 2000:00 1/127 size 15 ABCDEFG
        605  C0 00 21 00 00 00 00 00 | no size                 => 1d 2100:00 1/127 ABCDEFG
        585  A0 00 21 00 10 00 00 00                           => 3d 2100:00 1/16 ABCDEFG
        605  01 58 58 58 58 58 58 58 | counter is 2 by now     => 3d 2100:00 2/16 ABCDEFG)");
    QTest::newRow("frames that do not fit the state") << QByteArray(R"(
        605  A3 00 00 00 00 00 00 00 | start without initiate  => 0u 0000:00 0/0
        585  C6 00 20 00 12 00 00 00                           => 0u 0000:00 0/0
        605  C1 00 00 00 00 00 00 00 | end without segments    => 0u 0000:00 0/0
        585  A3 00 00 00 00 00 00 00 | not defined             => 0u 0000:00 0/0
        605  A4 00 20 00 7F 00 00 00                           => 1u 2000:00 0/127
        605  A3 00 00 00 00 00 00 00 | start before the answer => 1u 2000:00 0/127
        585  C6 00 20 00 12 00 00 00                           => 2u 2000:00 0/127
        585  C6 00 20 00 12 00 00 00                           => 2u 2000:00 0/127
        605  A1 00 00 00 00 00 00 00 | end in any state        => 5u 2000:00 0/127
        605  A3 00 00 00 00 00 00 00                           => 5u 2000:00 0/127
        605  E4 00 20 00 10 00 00 00 | not defined             => 5u 2000:00 0/127
        605  A4 00 20 00 7F 00 00 00                           => 1u 2000:00 0/127
        585  C6 00 20 00 12 00 00 00                           => 2u 2000:00 0/127
        605  A3 00 00 00 00 00 00 00                           => 3u 2000:00 0/127
        585  80 00 20 00 00 00 04 05 | abort of the sender     => 3u 2000:00 0/127)");
    QTest::newRow("download answered without a request: takes server frames, direction 0") << QByteArray(R"(
        585  A0 00 20 00 02 00 00 00                           => 3u 0000:00 0/2
        585  60 00 20 00 00 00 00 00 | a segment of number 96  => 3u 0000:00 1/2)");
    QTest::newRow("abandoned: frames are taken until one has bit 7 set") << QByteArray(R"(
        605  C2 00 20 00 0F 00 00 00                           => 1d 2000:00 0/0 size 15
        585  A0 00 20 00 7F 00 00 00                           => 3d 2000:00 0/127 size 15
        585  80 00 20 00 00 00 04 05 | abort                   => 3d 2000:00 0/127 size 15
        605  80 00 20 00 00 00 04 05 | abort of the sender     => 3d 2000:00 0/127 size 15
        605  23 00 10 00 2A 00 00 00 | segment number 35       => 3d 2000:00 1/127 size 15
        605  A4 00 20 00 7F 00 00 00 | last segment            => 4d 2000:00 2/127 size 15
        605  A4 00 20 00 10 00 00 00 | initiate upload         => 1u 2000:00 2/16 size 15)");
    QTest::newRow("size and CRC support: as the last download had them; an upload leaves both as they were")
        << QByteArray(R"(
        605  C6 00 20 00 0C 00 00 80                           => 1d 2000:00 0/0 size 2147483660 crc 4
        605  C0 02 20 03 0C 00 00 00                           => 1d 2002:03 0/0
        605  C6 00 20 00 0C 00 00 00                           => 1d 2000:00 0/0 size 12 crc 4
        605  A4 02 20 03 7F 00 00 00                           => 1u 2002:03 0/127 size 12 crc 4
        585  C2 02 20 03 07 00 00 00                           => 2u 2002:03 0/127 size 12 crc 4)");
    QTest::newRow("segments are not dispatched, frames of the other direction and of other nodes are") << QByteArray(R"(
        605  C2 00 20 00 0F 00 00 00                           => 1d 2000:00 0/0 size 15
        585  A0 00 20 00 7F 00 00 00                           => 3d 2000:00 0/127 size 15
        605  23 00 10 00 2A 00 00 00 | a segment, not a write  => 3d 2000:00 1/127 size 15
        585  60 00 10 00 00 00 00 00                           => 3d 2000:00 1/127 size 15, error 0, listed
        605  05 00 10 00 2A 00 00 00 | a segment, not a download segment => 3d 2000:00 2/127 size 15
        606  05 00 10 00 2A 00 00 00                           => 0u 0000:00 0/0, error 3, listed
        pending
        606  A4 00 21 00 10 00 00 00                           => 1u 2100:00 0/16
        586  C6 00 21 00 12 00 00 00                           => 2u 2100:00 0/16
        606  A3 00 00 00 00 00 00 00                           => 3u 2100:00 0/16
        586  01 41 42 43 44 45 46 47 | a segment, not an upload segment => 3u 2100:00 1/16 ABCDEFG
        586  43 00 10 00 2A 00 00 00 | a segment, not an answer => 3u 2100:00 2/16 ABCDEFG
        606  00 41 42 43 44 45 46 47                           => 3u 2100:00 2/16 ABCDEFG, error 3, listed)");
    QTest::newRow("collected bytes are bounded: half of 28 for blocks, until a reset or the end of a transfer")
        << QByteArray(R"(
        limit 28
        )") + threeSegments
               + "reset\n" + threeSegments + R"(
        606  40 08 10 00 00 00 00 00 | segmented transfers have a half of their own => 0u 0000:00 0/0
        586  41 08 10 00 03 00 00 00                           => 0u 0000:00 0/0
        606  60 00 00 00 00 00 00 00                           => 0u 0000:00 0/0
        586  09 41 42 43 00 00 00 00                           => 0u 0000:00 0/0, read 6 1008:00 = 41 42 43 asked 15ms
        605  DD 00 00 00 00 00 00 00                           => 5d 2000:00 3/127 size 15 ABCDEFG
        605  DD 00 00 00 00 00 00 00                           => 5d 2000:00 3/127 size 15
        605  DD 00 00 00 00 00 00 00 | nothing left: all is free again => 5d 2000:00 3/127 size 15
        606  C2 00 20 00 0F 00 00 00                           => 1d 2000:00 0/0 size 15
        586  A0 00 20 00 7F 00 00 00                           => 3d 2000:00 0/127 size 15
        606  01 41 42 43 44 45 46 47                           => 3d 2000:00 1/127 size 15 ABCDEFG
        606  02 48 49 4A 4B 4C 4D 4E                           => 3d 2000:00 2/127 size 15 ABCDEFGHIJKLMN
        606  83 4F 50 51 52 53 54 55                           => 4d 2000:00 3/127 size 15 ABCDEFGHIJKLMN)";
}

void TestBlockInHandler::conversation()
{
    QFETCH(QByteArray, trace);
    SdoWitness sdo;
    sdo.showsBlocks = true;
    const QString differences = sdo.follow(trace);
    QVERIFY2(differences.isEmpty(), qPrintable(differences));
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
    const auto record = sdo.handler.blockTransfers().value(5);
    QCOMPARE(record.mSequence, quint8(1));
    QCOMPARE(record.mData, QByteArray("ABCDEFG").repeated(129));
}

QTEST_GUILESS_MAIN(TestBlockInHandler)
#include "tst_sdomessagehandler_block.moc"
