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

static const QByteArray twoSegments = R"(
    605  21 00 20 00 15 00 00 00 | 21 bytes announced, 14 of them sent
    585  60 00 20 00 00 00 00 00
    605  00 41 42 43 44 45 46 47
    585  20 00 00 00 00 00 00 00
    605  10 41 42 43 44 45 46 47
    585  30 00 00 00 00 00 00 00
    )";

void TestSegmentedInHandler::conversation_data()
{
    QTest::addColumn<QByteArray>("trace");

    QTest::newRow("kept values: of a download with its own request's number, of an upload with that of the entry")
        << "keep on\n" + download + R"(
        605  21 00 20 00 03 00 00 00 | a node's second transfer starts afresh
        585  60 00 20 00 00 00 00 00
        605  09 41 42 43 00 00 00 00
        585  20 00 00 00 00 00 00 00 => write 5 2000:00 = 41 42 43 asked 6ms
        605  40 00 20 00 00 00 00 00
        585  41 00 20 00 01 00 00 00
        605  60 00 00 00 00 00 00 00
        585  0D 44 00 00 00 00 00 00 => read 5 2000:00 = 44 asked 11ms
        values => 5 2000:00 = null of 0: )"
               + QByteArray(
                   "41 42 43 44 45 46 47 48 49 4A(1: 0-5 by 6 w) 41 42 43(7: 6-9 by 10 w) 44(0: 11-13 by 14 r)");
    QTest::newRow("upload: its request stays pending") << upload + QByteArray(R"(
        values | the history is off by default
        pending                      => 5 1008:00 = null of 1
        605  23 08 10 00 01 00 00 00 => error 1)");
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
    QTest::newRow("upload of no bytes: a value, too") << QByteArray(R"(
        605  40 00 20 00 00 00 00 00
        585  40 00 20 00 00 00 00 00
        605  60 00 00 00 00 00 00 00
        585  0F 00 00 00 00 00 00 00 => read 5 2000:00 =  asked 1ms
        605  40 00 20 00 00 00 00 00
        585  40 00 20 00 00 00 00 00
        605  60 00 00 00 00 00 00 00
        585  01 => read 5 2000:00 =  asked 5ms)");
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
    QTest::newRow("abort and a second upload while one runs: the running one goes on") << QByteArray(R"(
        605  40 08 10 00 00 00 00 00
        585  41 08 10 00 03 00 00 00
        605  80 08 10 00 00 00 04 05
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
    QTest::newRow("segments without a transfer") << QByteArray(R"(
        605  00 41 42 43 44 45 46 47 => error 3, listed
        585  20 00 00 00 00 00 00 00 => error 0, listed
        605  60 00 00 00 00 00 00 00 => error 3, listed
        585  00 41 42 43 44 45 46 47 => error 0, listed)");
    QTest::newRow("collected bytes are bounded: half of 28 for the segments of all nodes") << QByteArray(R"(
        limit 28
        )") + twoSegments + R"(
        605  01 41 42 43 44 45 46 47 => error 5)" + twoSegments + R"(
        606  40 00 20 00 00 00 00 00
        586  41 00 20 00 01 00 00 00
        606  60 00 00 00 00 00 00 00
        586  0D 41 00 00 00 00 00 00 => error 4
        reset
        )" + twoSegments + R"(
        limit 2000
        605  01 41 42 43 44 45 46 47
        585  20 00 00 00 00 00 00 00 => write 5 2000:00 = )" + QByteArray("41 42 43 44 45 46 47 ").repeated(3)
                                                                                                  + "asked 17ms";
}

void TestSegmentedInHandler::conversation()
{
    QFETCH(QByteArray, trace);
    SdoWitness sdo;
    const QString differences = sdo.follow(trace);
    QVERIFY2(differences.isEmpty(), qPrintable(differences));
}

QTEST_GUILESS_MAIN(TestSegmentedInHandler)
#include "tst_sdomessagehandler_segmented.moc"
