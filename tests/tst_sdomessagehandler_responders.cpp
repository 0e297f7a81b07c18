#include "sdo/sdomessagehandler.h"

#include "sdowitness.h"

#include <QElapsedTimer>
#include <QtTest>

/// Several devices under one node-ID: repeated answers, and the count check that follows 20 ms of real time later.
class TestResponders : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void conversation_data();
    void conversation();
    void deferredCheckKeepsItsDistance();
    void countOf255Wraps();
    void thousandsOfChecksDoNotFreezeTheEventLoop();
};

static const QByteArray read = R"(
    605  40 00 10 00 00 00 00 00
    +3ms 585  43 00 10 00 01 00 00 00 => read 5 1000:00 = 1 asked 0ms
    )";

void TestResponders::conversation_data()
{
    // The traces are fed at once, so a deferred check comes only where they wait for it.
    QTest::addColumn<QByteArray>("trace");

    QTest::newRow("second answer to a read, and a third") << read + QByteArray(R"(
        +9ms 585  43 00 10 00 02 00 00 00 | 12 ms after the request => devices 5 x2 last 3
        585  43 00 10 00 02 00 00 00 => devices 5 x3 last 4)");
    QTest::newRow("just under 21 ms after the request: whole milliseconds count") << read + QByteArray(R"(
        +17.999999ms 585  43 00 10 00 02 00 00 00 => devices 5 x2 last 3)");
    QTest::newRow("21 ms after the request: no repeat, and the object is forgotten") << read + QByteArray(R"(
        +18ms 585  43 00 10 00 02 00 00 00 => error 0, listed
        +-10ms 585  43 00 10 00 02 00 00 00 => error 0, listed)");
    QTest::newRow("time runs backwards: a repeat") << read + QByteArray(R"(
        +-10ms 585  43 00 10 00 02 00 00 00 => devices 5 x2 last 3)");
    QTest::newRow("writes answered twice: the first repeat of a node without a count gives 1, and on it goes")
        << QByteArray(R"(
        605  23 00 10 00 2A 00 00 00
        585  60 00 10 00 00 00 00 00 => write 5 1000:00 = 42 asked 0ms
        585  60 00 10 00 00 00 00 00 => devices 5 x1 last 3
        +30ms 605  23 00 10 00 2B 00 00 00
        585  60 00 10 00 00 00 00 00 => write 5 1000:00 = 43 asked 32ms
        585  60 00 10 00 00 00 00 00 => devices 5 x2 last 6)");
    QTest::newRow("repeated answer that opens a segmented upload counts as well") << read + QByteArray(R"(
        585  41 00 10 00 0A 00 00 00 => devices 5 x2 last 3)");
    QTest::newRow("an abort ends the request that waits, not what was answered before") << read + QByteArray(R"(
        605  40 00 10 00 00 00 00 00
        605  80 00 10 00 00 00 04 05
        585  43 00 10 00 02 00 00 00 => devices 5 x2 last 5)");
    QTest::newRow("another object was not answered yet") << read + QByteArray(R"(
        585  43 01 10 00 02 00 00 00 => error 0, listed)");
    QTest::newRow("segmented transfers take no part") << QByteArray(R"(
        605  40 08 10 00 00 00 00 00
        585  41 08 10 00 01 00 00 00
        605  60 00 00 00 00 00 00 00
        585  0D 41 00 00 00 00 00 00 => read 5 1008:00 = 41 asked 1ms
        605  80 08 10 00 00 00 00 00 | ends the waiting request
        585  43 08 10 00 01 00 00 00 => error 0, listed
        605  21 00 20 00 01 00 00 00
        585  60 00 20 00 00 00 00 00
        605  0D 41 00 00 00 00 00 00
        585  20 00 00 00 00 00 00 00 => write 5 2000:00 = 41 asked 6ms
        585  60 00 20 00 00 00 00 00 => error 0, listed)");
    QTest::newRow("read of the next object sets the count back, silently for now") << read + QByteArray(R"(
        585  43 00 10 00 02 00 00 00 => devices 5 x2 last 3
        605  40 01 10 00 00 00 00 00
        585  43 01 10 00 02 00 00 00 => read 5 1001:00 = 2 asked 5ms
        585  43 01 10 00 02 00 00 00 | 2 again: nothing changed since the report)");
    QTest::newRow("answer without a value byte can be repeated, too") << QByteArray(R"(
        605  40 00 10 00 00 00 00 00
        585  43 00 10 00
        585  43 00 10 00 => devices 5 x2 last 3)");
    QTest::newRow("deferred check: once, and then when a count was set back") << read + QByteArray(R"(
        wait                         => devices 5 x1 last 0
        605  40 00 10 00 00 00 00 00
        585  43 00 10 00 01 00 00 00 => read 5 1000:00 = 1 asked 4ms
        wait | the count is 1 already
        605  40 00 10 00 00 00 00 00
        585  43 00 10 00 01 00 00 00 => read 5 1000:00 = 1 asked 6ms
        585  43 00 10 00 02 00 00 00 => devices 5 x2 last 7
        605  40 00 10 00 00 00 00 00
        585  43 00 10 00 01 00 00 00 => read 5 1000:00 = 1 asked 9ms
        wait                         => devices 5 x1 last 7)");
    QTest::newRow("deferred check: a late answer sets the count back, too; one check reports every node") << read + R"(
        585  43 00 10 00 02 00 00 00       => devices 5 x2 last 3
        +30ms 585  43 00 10 00 02 00 00 00 => error 0, listed
        606  40 00 10 00 00 00 00 00
        586  43 00 10 00 01 00 00 00       => read 6 1000:00 = 1 asked 35ms
        wait                               => devices 5 x1 last 3, devices 6 x1 last 3)";
    QTest::newRow("reset: the reported counts start again, the last repeat's number stays") << QByteArray(R"(
        605  23 00 10 00 2A 00 00 00
        585  60 00 10 00 00 00 00 00 => write 5 1000:00 = 42 asked 0ms
        585  60 00 10 00 00 00 00 00 => devices 5 x1 last 3
        reset
        wait
        585  43 00 10 00 02 00 00 00 => error 0, listed
        605  40 00 10 00 00 00 00 00
        585  43 00 10 00 01 00 00 00 => read 5 1000:00 = 1 asked 4ms
        wait                         => devices 5 x1 last 3)");
}

void TestResponders::conversation()
{
    QFETCH(QByteArray, trace);
    SdoWitness sdo;
    const QString differences = sdo.follow(trace);
    QVERIFY2(differences.isEmpty(), qPrintable(differences));
}

void TestResponders::deferredCheckKeepsItsDistance()
{
    SdoWitness sdo;
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(sdo.follow(read + "wait => devices 5 x1 last 0"), QString());
    QVERIFY(timer.nsecsElapsed() >= 20000000);
}

void TestResponders::countOf255Wraps()
{
    SdoWitness sdo;
    QCOMPARE(sdo.follow(read), QString());
    const CAN::CanRxMessage repeat = frame("585 43 00 10 00 02");
    for (int count = 2; count <= 255; ++count)
        QCOMPARE(sdo.feed(repeat), QStringLiteral("devices 5 x%1 last 1").arg(count));
    QCOMPARE(sdo.feed(repeat), QStringLiteral("devices 5 x0 last 1"));
}

void TestResponders::thousandsOfChecksDoNotFreezeTheEventLoop()
{
    // A read and its repeated answer by turns: each read asks for a check.
    SdoWitness sdo;
    const QList<CAN::CanRxMessage> messages = frames("605 40 00 10 00\n585 43 00 10 00 01\n585 43 00 10 00 01");
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < 50000; ++i) {
        for (const CAN::CanRxMessage &message : messages)
            sdo.handler.handleCANMessage(message);
    }
    const qint64 feeding = timer.restart();
    sdo.feed(messages.at(0));
    sdo.feed(messages.at(1));
    QCOMPARE(sdo.follow("wait => devices 5 x1 last 3"), QString());
    // With a timer for each call, serving them took many times as long as asking for them.
    QVERIFY2(timer.elapsed() < feeding + 200, qPrintable(QString::number(timer.elapsed())));
}

QTEST_GUILESS_MAIN(TestResponders)
#include "tst_sdomessagehandler_responders.moc"
