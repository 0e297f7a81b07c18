#include "sdo/sdomessagehandler.h"

#include "sdowitness.h"

#include <QtTest>

/// Segmented transfers in the SDO message handler: each row of its table, and the bound on collected bytes.
class TestSegmentedInHandler : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void conversation_data();
    void conversation();
    void keptValues();
    void uploadRequestStaysPending();
    void collectedBytesAreBounded();
};

static const QByteArray download = R"(
    605  21 00 20 00 0A 00 00 00 | 10 bytes announced
    585  60 00 20 00 00 00 00 00
    605  00 41 42 43 44 45 46 47
    585  20 00 00 00 00 00 00 00
    605  19 48 49 4A 00 00 00 00
    585  30 00 00 00 00 00 00 00 => write 5 2000:00 = 41 42 43 44 45 46 47 48 49 4A asked 0ms
    )";

static const QByteArray upload = R"(
    605  40 08 10 00 00 00 00 00
    585  41 08 10 00 03 00 00 00 | the transfer's time is that of this answer
    605  60 00 00 00 00 00 00 00
    585  09 41 42 43 00 00 00 00 => read 5 1008:00 = 41 42 43 asked 1ms
    )";

void TestSegmentedInHandler::conversation_data()
{
    QTest::addColumn<QByteArray>("trace");

    QTest::newRow("download") << download;
    QTest::newRow("upload") << upload;
    QTest::newRow("download to node-ID 0: its number is not looked at there") << QByteArray(R"(
        600  21 00 20 00 01 00 00 00
        580  60 00 20 00 00 00 00 00
        600  0D 41 00 00 00 00 00 00
        580  20 00 00 00 00 00 00 00 => write 0 2000:00 = 41 asked 0ms)");
    QTest::newRow("download and upload of one node at the same time") << QByteArray(R"(
        605  21 00 20 00 03 00 00 00
        605  40 08 10 00 00 00 00 00
        585  60 00 20 00 00 00 00 00
        585  41 08 10 00 03 00 00 00
        605  60 00 00 00 00 00 00 00
        605  09 41 42 43 00 00 00 00
        585  09 44 45 46 00 00 00 00 => read 5 1008:00 = 44 45 46 asked 3ms
        585  20 00 00 00 00 00 00 00 => write 5 2000:00 = 41 42 43 asked 0ms)");
    QTest::newRow("download: second segment with the toggle of the first") << QByteArray(R"(
        605  21 00 20 00 0A 00 00 00
        585  60 00 20 00 00 00 00 00
        605  00 41 42 43 44 45 46 47
        585  20 00 00 00 00 00 00 00
        605  09 48 49 4A 00 00 00 00 => error 5
        585  20 00 00 00 00 00 00 00 => error 0, listed
        605  19 48 49 4A 00 00 00 00 => error 3, listed)");
    QTest::newRow("download without an announced size") << QByteArray(R"(
        605  20 00 20 00 00 00 00 00
        585  60 00 20 00 00 00 00 00
        605  09 41 42 43 00 00 00 00
        585  20 00 00 00 00 00 00 00 => error 5)");
    QTest::newRow("download initiated while one runs: the running one goes on") << QByteArray(R"(
        605  21 00 20 00 03 00 00 00
        585  60 00 20 00 00 00 00 00
        605  21 00 30 00 05 00 00 00 => error 2, listed
        605  09 41 42 43 00 00 00 00
        585  20 00 00 00 00 00 00 00 => write 5 2000:00 = 41 42 43 asked 0ms)");
    QTest::newRow("download refused: it takes the next one with it") << QByteArray(R"(
        605  21 00 20 00 03 00 00 00
        585  80 00 20 00 02 00 01 06 | abort: attempt to write a read-only object
        605  21 00 21 00 03 00 00 00 => error 2, listed
        585  60 00 21 00 00 00 00 00 => error 5
        605  09 41 42 43 00 00 00 00 => error 3, listed
        585  20 00 00 00 00 00 00 00 => error 0, listed)");
    QTest::newRow("answer of an expedited download during a segmented one") << QByteArray(R"(
        605  21 00 20 00 03 00 00 00
        585  60 00 20 00 00 00 00 00
        605  23 00 10 00 2A 00 00 00
        585  60 00 10 00 00 00 00 00 | goes to the segmented download => error 5)");
    QTest::newRow("second upload while one runs: the running one goes on") << QByteArray(R"(
        605  40 08 10 00 00 00 00 00
        585  41 08 10 00 03 00 00 00
        605  40 09 10 00 00 00 00 00
        585  41 09 10 00 05 00 00 00 => error 0, listed
        605  60 00 00 00 00 00 00 00
        585  09 41 42 43 00 00 00 00 => read 5 1008:00 = 41 42 43 asked 1ms)");
    QTest::newRow("upload: two answers to one request") << QByteArray(R"(
        605  40 08 10 00 00 00 00 00
        585  41 08 10 00 0A 00 00 00
        605  60 00 00 00 00 00 00 00
        585  00 41 42 43 44 45 46 47
        585  00 41 42 43 44 45 46 47 => error 4
        605  70 00 00 00 00 00 00 00 => error 3, listed)");
    QTest::newRow("abort does not end an upload") << QByteArray(R"(
        605  40 08 10 00 00 00 00 00
        585  41 08 10 00 03 00 00 00
        605  80 08 10 00 00 00 04 05
        605  60 00 00 00 00 00 00 00
        585  09 41 42 43 00 00 00 00 => read 5 1008:00 = 41 42 43 asked 1ms)");
    QTest::newRow("segments without a transfer") << QByteArray(R"(
        605  00 41 42 43 44 45 46 47 => error 3, listed
        585  20 00 00 00 00 00 00 00 => error 0, listed
        605  60 00 00 00 00 00 00 00 => error 3, listed
        585  00 41 42 43 44 45 46 47 => error 0, listed)");
    QTest::newRow("a node's second transfer starts afresh") << download + QByteArray(R"(
        605  21 00 20 00 03 00 00 00
        585  60 00 20 00 00 00 00 00
        605  09 41 42 43 00 00 00 00
        585  20 00 00 00 00 00 00 00 => write 5 2000:00 = 41 42 43 asked 6ms)");
}

void TestSegmentedInHandler::conversation()
{
    QFETCH(QByteArray, trace);
    SdoWitness sdo;
    QCOMPARE(sdo.follow(trace), QString());
    QVERIFY(sdo.handler.foundSDOEntryList().isEmpty()); // the history is off by default
}

void TestSegmentedInHandler::keptValues()
{
    SdoWitness sdo;
    sdo.handler.setKeepFinishedTransfers(true);
    QCOMPARE(sdo.follow(upload), QString());
    QCOMPARE(sdo.follow(download), QString());
    QCOMPARE(sdo.follow(download), QString());
    const auto found = sdo.handler.foundSDOEntryList();
    QCOMPARE(found.size(), 2);

    const SDO::SDOEntry written = found.value(SDO::SDOEntryKey(5, 0x2000, 0));
    QVERIFY(written.value.isNull());
    QCOMPARE(written.requestMsgNumber, 0u); // the entry was made when the transfer ended
    QCOMPARE(written.values.size(), 2);
    SDO::SDOEntryValue expected;
    expected.value = QByteArray("ABCDEFGHIJ");
    expected.reqTime = 0.0;
    expected.respTime = 0.005;
    expected.canMsgNumber = 6;
    expected.reqMsgNumber = 1;
    expected.wasSDOWrite = true;
    QVERIFY(written.values.constFirst() == expected);

    const SDO::SDOEntryValue read = found.value(SDO::SDOEntryKey(5, 0x1008, 0)).values.constFirst();
    QCOMPARE(read.reqMsgNumber, 0u); // that of the found entry, not of the request
    QCOMPARE(read.reqTime, 0.001);
    QVERIFY(!read.wasSDOWrite);
}

void TestSegmentedInHandler::uploadRequestStaysPending()
{
    SdoWitness sdo;
    QCOMPARE(sdo.follow(upload), QString());
    QCOMPARE(sdo.handler.pendingSDOEntryList().size(), 1);
    QCOMPARE(sdo.follow("605 23 08 10 00 01 00 00 00 => error 1"), QString());
}

void TestSegmentedInHandler::collectedBytesAreBounded()
{
    SdoWitness sdo;
    sdo.handler.setCollectedBytesLimit(28); // 14 for segments, 14 for blocks
    const QByteArray twoSegments = R"(
        605  21 00 20 00 15 00 00 00
        585  60 00 20 00 00 00 00 00
        605  00 41 42 43 44 45 46 47
        585  20 00 00 00 00 00 00 00
        605  10 41 42 43 44 45 46 47
        585  30 00 00 00 00 00 00 00
        )";
    QCOMPARE(sdo.follow(twoSegments + "605  01 41 42 43 44 45 46 47 => error 5"), QString());
    // What the failed transfer held is free again, and one node's bytes count against another's.
    QCOMPARE(sdo.follow(twoSegments + QByteArray(R"(
        606  40 00 20 00 00 00 00 00
        586  41 00 20 00 01 00 00 00
        606  60 00 00 00 00 00 00 00
        586  0D 41 00 00 00 00 00 00 => error 4)")),
             QString());
    sdo.handler.reset();
    QCOMPARE(sdo.follow(twoSegments), QString());
    sdo.handler.setCollectedBytesLimit(SDOMessageHandler::maxCollectedBytes);
    QVERIFY(
        sdo.follow("605 01 41 42 43 44 45 46 47\n585 20").startsWith(QLatin1String("2: 585 20\n    found: write 5")));
}

QTEST_GUILESS_MAIN(TestSegmentedInHandler)
#include "tst_sdomessagehandler_segmented.moc"
