#include "sdo/sdomessagehandler.h"

#include "sdowitness.h"

#include <QtTest>

/// Expedited transfers, aborts, entry tables and resets. Segmented transfers, block transfers and responder counts have tests of
/// their own beside this one.
class TestSDOMessageHandler : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void conversation_data();
    void conversation();
    void foundEntries_data();
    void foundEntries();
    void switchingTheHistoryOffKeepsWhatWasGathered();
    void pendingRequestsAreThoseWithoutAnAnswer();
    void resetForgetsTheTraffic();
    void resetInASlotLeavesNoTraceOfTheFrame_data();
    void resetInASlotLeavesNoTraceOfTheFrame();
    void slotsMayReadTheHandler();
    void signalsCanBeConnectedQueued();
    void destructionIsLogged();
};

void TestSDOMessageHandler::conversation_data()
{
    QTest::addColumn<QByteArray>("trace");

    QTest::newRow("write") << QByteArray(R"(
        605  23 00 10 01 2A 00 00 00
        585  60 00 10 01 00 00 00 00 => write 5 1000:01 = 42 asked 0ms)");
    QTest::newRow("read of one byte") << QByteArray(R"(
        603  40 00 10 01 00 00 00 00
        583  4F 00 10 01 07 00 00 00 => read 3 1000:01 = 7 asked 0ms)");
    QTest::newRow("write sent twice") << QByteArray(R"(
        605  23 00 10 01 2A 00 00 00
        605  23 00 10 01 2B 00 00 00 => error 1
        585  60 00 10 01 00 00 00 00 => write 5 1000:01 = 43 asked 1ms)");
    QTest::newRow("read sent twice: no error, the answer belongs to the second") << QByteArray(R"(
        605  40 00 10 01 00 00 00 00
        605  40 00 10 01 00 00 00 00
        585  43 00 10 01 2A 00 00 00 => read 5 1000:01 = 42 asked 1ms)");
    QTest::newRow("write while a read of the object waits") << QByteArray(R"(
        605  40 00 10 01 00 00 00 00
        605  23 00 10 01 2A 00 00 00 => error 1
        585  60 00 10 01 00 00 00 00 => write 5 1000:01 = 42 asked 1ms)");
    QTest::newRow("read replaces a waiting write silently, whose answer then has no value") << QByteArray(R"(
        605  23 00 10 01 2A 00 00 00
        605  40 00 10 01 00 00 00 00
        585  60 00 10 01 00 00 00 00 => write 5 1000:01 = null asked 1ms)");
    QTest::newRow("two nodes, two objects, answers in another order") << QByteArray(R"(
        605  40 00 10 01 00 00 00 00
        605  40 00 10 02 00 00 00 00
        606  40 00 10 01 00 00 00 00
        586  43 00 10 01 01 00 00 00 => read 6 1000:01 = 1 asked 2ms
        585  43 00 10 02 02 00 00 00 => read 5 1000:02 = 2 asked 1ms
        585  43 00 10 01 03 00 00 00 => read 5 1000:01 = 3 asked 0ms)");
    QTest::newRow("write answer without a request") << QByteArray(R"(
        585  60 00 10 01 00 00 00 00 => error 0, listed)");
    QTest::newRow("read answer without a request, expedited") << QByteArray(R"(
        585  43 00 10 01 00 00 00 00 => error 0, listed)");
    QTest::newRow("read answer without a request, segmented") << QByteArray(R"(
        585  41 00 10 01 0A 00 00 00 => error 0, listed)");
    QTest::newRow("answer about another object") << QByteArray(R"(
        605  23 00 10 01 2A 00 00 00
        585  60 00 10 02 00 00 00 00 => error 0, listed
        585  60 01 10 01 00 00 00 00 => error 0, listed
        585  60 00 10 01 00 00 00 00 => write 5 1000:01 = 42 asked 0ms)");
    QTest::newRow("write without a value byte leaves no trace") << QByteArray(R"(
        605  23 00 10 01
        585  60 00 10 01 00 00 00 00 => error 0, listed)");
    QTest::newRow("write without a value byte leaves the waiting request alone") << QByteArray(R"(
        605  23 00 10 01 2A 00 00 00
        605  23 00 10 01
        585  60 00 10 01 00 00 00 00 => write 5 1000:01 = 42 asked 0ms)");
    QTest::newRow("read answer without a value byte ends the transfer silently") << QByteArray(R"(
        605  40 00 10 01 00 00 00 00
        585  43 00 10 01
        +25ms 585  43 00 10 01 2A 00 00 00 => error 0, listed)");
    QTest::newRow("node-ID 0 cannot be read") << QByteArray(R"(
        600  40 00 10 01 00 00 00 00
        580  43 00 10 01 2A 00 00 00 => error 0, listed)");
    QTest::newRow("node-ID 0 can be written: its number is not looked at there") << QByteArray(R"(
        600  23 00 10 01 2A 00 00 00
        580  60 00 10 01 00 00 00 00 => write 0 1000:01 = 42 asked 0ms)");
    QTest::newRow("abort by the server") << QByteArray(R"(
        605  23 00 10 01 2A 00 00 00
        585  80 00 10 01 11 00 09 06
        585  60 00 10 01 00 00 00 00 => error 0, listed)");
    QTest::newRow("abort by the client") << QByteArray(R"(
        605  40 00 10 01 00 00 00 00
        605  80 00 10 01 00 00 04 05
        585  43 00 10 01 2A 00 00 00 => error 0, listed)");
    QTest::newRow("abort of another object") << QByteArray(R"(
        605  40 00 10 01 00 00 00 00
        585  80 00 10 02 11 00 09 06
        586  80 00 10 01 11 00 09 06
        585  43 00 10 01 2A 00 00 00 => read 5 1000:01 = 42 asked 0ms)");
    QTest::newRow("command specifiers that are not defined") << QByteArray(R"(
        605  E0 00 10 01 00 00 00 00
        585  E0 00 10 01 00 00 00 00
        605  81 00 10 01 00 00 00 00
        585  9F 00 10 01 00 00 00 00)");
    QTest::newRow("frames of other classes") << QByteArray(R"(
        705  23 00 10 01 2A 00 00 00
        185  60 00 10 01 00 00 00 00
        00000605  23 00 10 01 2A 00 00 00
        605  R8
        585  60 00 10 01 00 00 00 00 => error 0, listed)");
}

void TestSDOMessageHandler::conversation()
{
    QFETCH(QByteArray, trace);
    SdoWitness sdo;
    QCOMPARE(sdo.follow(trace), QString());
    QVERIFY(sdo.handler.foundSDOEntryList().isEmpty()); // the history is off by default
}

// Words for one found entry: its own value, the number of the request that made it, then each value as
// value(request number: reqTime-respTime by response number, w or r)
static QString describe(const SDO::SDOEntry &entry)
{
    const auto value = [](const QVariant &v) { return v.isNull() ? QStringLiteral("null") : v.toString(); };
    QStringList values;
    for (const SDO::SDOEntryValue &v : entry.values)
        values.append(QStringLiteral("%1(%2: %3-%4 by %5 %6)")
                          .arg(value(v.value))
                          .arg(v.reqMsgNumber)
                          .arg(qRound64(v.reqTime * 1000.0))
                          .arg(qRound64(v.respTime * 1000.0))
                          .arg(v.canMsgNumber)
                          .arg(v.wasSDOWrite ? QLatin1Char('w') : QLatin1Char('r')));
    return QStringLiteral("%1 of %2: %3")
        .arg(value(entry.value))
        .arg(entry.requestMsgNumber)
        .arg(values.join(QLatin1Char(' ')));
}

void TestSDOMessageHandler::foundEntries_data()
{
    QTest::addColumn<QByteArray>("trace");
    QTest::addColumn<QString>("entry");

    QTest::newRow("write, then read") << QByteArray(R"(
        605  23 00 10 01 2A 00 00 00
        585  60 00 10 01 00 00 00 00
        605  40 00 10 01 00 00 00 00
        585  43 00 10 01 2B 00 00 00)")
                                      << "42 of 1: 42(1: 0-1 by 2 w) 43(1: 2-3 by 4 r)";
    QTest::newRow("read, then write") << QByteArray(R"(
        605  40 00 10 01 00 00 00 00
        585  43 00 10 01 2B 00 00 00
        605  23 00 10 01 2A 00 00 00
        585  60 00 10 01 00 00 00 00)")
                                      << "null of 1: 43(1: 0-1 by 2 r) 42(3: 2-3 by 4 w)";
    QTest::newRow("two reads: the second keeps the first request's number") << QByteArray(R"(
        605  40 00 10 01 00 00 00 00
        585  43 00 10 01 01 00 00 00
        605  40 00 10 01 00 00 00 00
        585  43 00 10 01 02 00 00 00)") << "null of 1: 1(1: 0-1 by 2 r) 2(1: 2-3 by 4 r)";
    QTest::newRow("read answer without a value byte: found without a value") << QByteArray(R"(
        605  40 00 10 01 00 00 00 00
        585  43 00 10 01)") << "null of 1: ";
    QTest::newRow("expedited read, then a segmented one: the number of the request that made the entry")
        << QByteArray(R"(
        605  40 00 10 01 00 00 00 00
        585  43 00 10 01 2B 00 00 00
        605  40 00 10 01 00 00 00 00
        585  41 00 10 01 01 00 00 00
        605  60 00 00 00 00 00 00 00
        585  0D 41 00 00 00 00 00 00)")
        << "null of 1: 43(1: 0-1 by 2 r) A(1: 3-5 by 6 r)";
}

void TestSDOMessageHandler::foundEntries()
{
    QFETCH(QByteArray, trace);
    QFETCH(QString, entry);
    SdoWitness sdo;
    sdo.handler.setKeepFinishedTransfers(true);
    for (const CAN::CanRxMessage &message : frames(trace))
        sdo.feed(message);
    QCOMPARE(sdo.handler.foundSDOEntryList().size(), 1);
    QCOMPARE(describe(sdo.handler.foundSDOEntryList().value(SDO::SDOEntryKey(5, 0x1000, 1))), entry);
}

void TestSDOMessageHandler::switchingTheHistoryOffKeepsWhatWasGathered()
{
    const QByteArray read = R"(
        605  40 00 10 01 00 00 00 00
        585  43 00 10 01 2B 00 00 00 => read 5 1000:01 = 43 asked 0ms)";
    SdoWitness sdo;
    sdo.handler.setKeepFinishedTransfers(true);
    QCOMPARE(sdo.follow(read), QString());
    sdo.handler.setKeepFinishedTransfers(false);
    QCOMPARE(sdo.follow(read), QString());
    QCOMPARE(sdo.handler.foundSDOEntryList().value(SDO::SDOEntryKey(5, 0x1000, 1)).values.size(), 1);

    sdo.handler.setKeepFinishedTransfers(true);
    sdo.handler.reset();
    QVERIFY(sdo.handler.foundSDOEntryList().isEmpty());
    QCOMPARE(sdo.follow(read), QString());
    QCOMPARE(sdo.handler.foundSDOEntryList().size(), 1); // reset() leaves the switch on
}

void TestSDOMessageHandler::pendingRequestsAreThoseWithoutAnAnswer()
{
    SdoWitness sdo;
    QCOMPARE(sdo.follow(R"(
        605  40 00 10 01 00 00 00 00
        605  23 00 10 02 2A 00 00 00
        605  40 00 10 03 00 00 00 00
        585  43 00 10 01 2B 00 00 00 => read 5 1000:01 = 43 asked 0ms)"),
             QString());
    const auto pending = sdo.handler.pendingSDOEntryList();
    QCOMPARE(pending.size(), 2);
    const SDO::SDOEntry write = pending.value(SDO::SDOEntryKey(5, 0x1000, 2));
    QCOMPARE(write.requestMsgNumber, 2u);
    QCOMPARE(write.requestTime.toMsecs(), qint64(1));
    QCOMPARE(write.value, QVariant(42ll));
    QVERIFY(pending.value(SDO::SDOEntryKey(5, 0x1000, 3)).value.isNull());
}

void TestSDOMessageHandler::resetForgetsTheTraffic()
{
    SdoWitness sdo;
    sdo.handler.setKeepFinishedTransfers(true);
    for (const CAN::CanRxMessage &message : frames(R"(
            585  60 00 10 09 00 00 00 00 | unmatched
            605  23 00 10 01 2A 00 00 00 | finished write
            585  60 00 10 01 00 00 00 00
            605  40 00 10 02 00 00 00 00 | waiting
            605  21 00 20 00 0A 00 00 00 | segmented download
            606  A4 00 20 00 7F 00 00 00 | block upload)"))
        sdo.feed(message);
    sdo.handler.reset();
    QVERIFY(sdo.handler.protocolErrors().isEmpty());
    QVERIFY(sdo.handler.foundSDOEntryList().isEmpty());
    QVERIFY(sdo.handler.pendingSDOEntryList().isEmpty());
    QVERIFY(sdo.handler.blockTransfers().isEmpty());
    QCOMPARE(sdo.follow(R"(
        585  60 00 10 01 00 00 00 00 | would repeat the finished write        => error 0, listed
        585  43 00 10 02 2A 00 00 00 | would answer the waiting read          => error 0, listed
        605  00 41 42 43 44 45 46 47 | would belong to the segmented download => error 3, listed)"),
             QString());
}

void TestSDOMessageHandler::resetInASlotLeavesNoTraceOfTheFrame_data()
{
    QTest::addColumn<QByteArray>("trace"); // its last frame is the one whose finding resets the handler
    const QByteArray write = "605  23 00 10 01 2A 00 00 00\n";
    const QByteArray written = "585  60 00 10 01 00 00 00 00\n";
    const QByteArray download = R"(
        605  21 00 20 00 03 00 00 00
        585  60 00 20 00 00 00 00 00
        605  09 41 42 43 00 00 00 00
        )";
    const QByteArray upload = R"(
        605  40 00 20 00 00 00 00 00
        585  41 00 20 00 03 00 00 00
        605  60 00 00 00 00 00 00 00
        )";
    QTest::newRow("value of a write") << write + written;
    QTest::newRow("value of a read") << QByteArray("605  40 00 10 01\n585  43 00 10 01 2A 00 00 00");
    QTest::newRow("error of a repeated write") << write + write;
    QTest::newRow("error of an unmatched answer") << written;
    QTest::newRow("devices under one node-ID") << write + written + written;
    QTest::newRow("value of a segmented download") << download + "585  20 00 00 00 00 00 00 00";
    QTest::newRow("failed segmented download") << download + "585  30 00 00 00 00 00 00 00";
    QTest::newRow("value of a segmented upload") << upload + "585  09 41 42 43 00 00 00 00";
    QTest::newRow("failed segmented upload") << upload + "585  19 41 42 43 00 00 00 00";
    QTest::newRow("download initiated twice") << download + "605  21 00 20 00 03 00 00 00";
}

void TestSDOMessageHandler::resetInASlotLeavesNoTraceOfTheFrame()
{
    QFETCH(QByteArray, trace);
    const QList<CAN::CanRxMessage> messages = frames(trace);
    SdoWitness sdo;
    sdo.handler.setKeepFinishedTransfers(true);
    for (int i = 0; i + 1 < messages.size(); ++i)
        sdo.feed(messages.at(i));

    int resets = 0;
    sdo.inSlot = [&] {
        ++resets;
        sdo.handler.reset();
    };
    sdo.feed(messages.constLast());
    sdo.inSlot = nullptr;
    QCOMPARE(resets, 1);
    QVERIFY(sdo.handler.protocolErrors().isEmpty());
    QVERIFY(sdo.handler.foundSDOEntryList().isEmpty());
    QVERIFY(sdo.handler.pendingSDOEntryList().isEmpty());
    QVERIFY(sdo.handler.blockTransfers().isEmpty());
    QCOMPARE(sdo.follow(R"(
        585  60 00 10 01 00 00 00 00 | neither waiting nor finished => error 0, listed
        605  00 41 42 43 44 45 46 47 | no download                  => error 3, listed
        605  60 00 00 00 00 00 00 00 | no upload                    => error 3, listed)"),
             QString());
}

void TestSDOMessageHandler::slotsMayReadTheHandler()
{
    SdoWitness sdo;
    sdo.handler.setKeepFinishedTransfers(true);
    QList<int> sizes;
    sdo.inSlot = [&] {
        sizes << sdo.handler.foundSDOEntryList().size() << sdo.handler.pendingSDOEntryList().size()
              << sdo.handler.protocolErrors().size();
    };
    for (const CAN::CanRxMessage &message : frames(R"(
            605  23 00 10 01 2A 00 00 00
            585  60 00 10 01 00 00 00 00 | the value is kept, the request still waits while it is reported
            585  60 00 10 02 00 00 00 00 | the error is listed before it is reported
            605  23 00 10 03 2A 00 00 00
            605  23 00 10 03 2B 00 00 00 | the earlier request waits no more, the later one not yet
            605  40 08 10 00 00 00 00 00
            585  41 08 10 00 03 00 00 00
            605  60 00 00 00 00 00 00 00
            585  09 41 42 43 00 00 00 00 | kept as well)"))
        sdo.feed(message);
    QCOMPARE(sizes, (QList<int>{1, 1, 0, 1, 0, 1, 1, 0, 1, 2, 2, 1}));
}

void TestSDOMessageHandler::signalsCanBeConnectedQueued()
{
    // Queued connections need the parameter types registered under the spelling that the signals use.
    SDOMessageHandler handler(nullptr, nullptr);
    QVERIFY(QMetaType::type("CANopen::SdoProtocolErrorType") != QMetaType::UnknownType);
    QList<quint32> values;
    QList<CANopen::SdoProtocolErrorType> errors;
    connect(
        &handler, &SDOMessageHandler::newValue, this,
        [&](unsigned char, unsigned short, unsigned char, const QVariant &, double, double, unsigned int number, bool) {
            values.append(number);
        },
        Qt::QueuedConnection);
    connect(
        &handler, &SDOMessageHandler::sigProtocolError, this,
        [&](unsigned int, CANopen::SdoProtocolErrorType type) { errors.append(type); }, Qt::QueuedConnection);
    QSignalSpy spy(&handler, SIGNAL(sigProtocolError(unsigned int, CANopen::SdoProtocolErrorType)));
    for (const CAN::CanRxMessage &message : frames("605 23 00 10 01 2A\n585 60 00 10 01\n585 60 00 10 02"))
        handler.handleCANMessage(message);
    QTRY_COMPARE(values, QList<quint32>{2});
    QTRY_COMPARE(errors, QList<CANopen::SdoProtocolErrorType>{CANopen::PE_UnexpectedResponse});
    QCOMPARE(spy.constFirst().at(1).value<CANopen::SdoProtocolErrorType>(), CANopen::PE_UnexpectedResponse);
}

void TestSDOMessageHandler::destructionIsLogged()
{
    QTest::ignoreMessage(QtDebugMsg, "virtual SDOMessageHandler::~SDOMessageHandler() Line: 23");
    const SDOMessageHandler handler(nullptr, nullptr);
}

QTEST_GUILESS_MAIN(TestSDOMessageHandler)
#include "tst_sdomessagehandler.moc"
