#include "datachunkhandlercontract.h"

#include "inmemory/inmemorydatachunkhandler.h"

#include <climits>
#include <cstring>

namespace {

class InMemoryStoreUnderTest : public StoreUnderTest
{
public:
    DatachunkHandler &store() override { return mStore; }
    void append(unsigned char line, const CAN::CanRxMessage &msg) override
    {
        QVERIFY(mStore.append(line, msg.mFrame, msg.mTimeStamp));
    }
    void clear(bool isLive) override { mStore.clear(isLive); }

private:
    InMemoryDatachunkHandler mStore;
};

// A frame all of whose fields follow from one number, so that a torn one shows. Each third one is a CAN FD frame.
CAN::CanMessage frameMadeOf(quint32 n)
{
    CAN::CanMessage frame;
    frame.mIdentifier = n % 0x7FF;
    frame.mFlags = n % 3 == 0 ? CAN::CanMessage::FdFormat : 0;
    frame.mDataLength = n % 3 == 0 ? CAN::fdPayloadLengths.at(int(n % 7)) : 8;
    for (int i = 0; i < frame.mDataLength; ++i)
        frame.mPayload[i] = quint8(n >> 8 * (i % 4));
    return frame;
}

CanTimeStamp timeMadeOf(quint32 n)
{
    return CanTimeStamp::fromNSecs(qint64(n));
}

quint32 numberIn(const CAN::CanRxMessage &msg)
{
    return quint32(msg.mTimeStamp.toNSecs());
}

bool isTorn(const CAN::CanRxMessage &msg)
{
    const CAN::CanMessage whole = frameMadeOf(numberIn(msg));
    return msg.mFrame.mIdentifier != whole.mIdentifier || msg.mFrame.mFlags != whole.mFlags
           || msg.mFrame.mDataLength != whole.mDataLength
           || std::memcmp(msg.mFrame.mPayload, whole.mPayload, sizeof(whole.mPayload)) != 0;
}

} // namespace

class tst_InMemoryDatachunkHandler : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void contract_data() { DatachunkHandlerContract::addClauses(); }
    void contract()
    {
        const auto factory = [] { return std::make_unique<InMemoryStoreUnderTest>(); };
        DatachunkHandlerContract(factory).checkClause();
    }
    void longRecordings_data();
    void longRecordings();
    void memoryOfAFrame_data();
    void memoryOfAFrame();
    void memoryAfterAClear();
    void messageNumbers_data();
    void messageNumbers();
    void bytesThatAFrameDoesNotHave();
    void noSuchLine();
    void linesInUse();
    void whatSlotsDoDuringAClear_data();
    void whatSlotsDoDuringAClear();
    void otherThreadsDuringAClear();
    void clearsOfSeveralThreads();
    void endOfLine_data();
    void endOfLine();
    void slotOfTheEndMayCallAnything();
    void endIsAnnouncedOnceToTwoReaders();
    void readersWritersAndClears();
    void recordingsOfOneFrame();
    void countKeepsUpWithTheReader();

private:
    static void readWhileOthersWrite(InMemoryDatachunkHandler &store, unsigned char line,
                                     const std::atomic<bool> &isOver, QString &fault);
};

// Memory comes in pieces of 4096 frames, of which a table lists 8, then 16 and so on.
void tst_InMemoryDatachunkHandler::longRecordings_data()
{
    QTest::addColumn<int>("count");
    QTest::newRow("one piece, but for a frame") << 4095;
    QTest::newRow("one piece") << 4096;
    QTest::newRow("a frame in the second piece") << 4097;
    QTest::newRow("a full table of pieces") << 8 * 4096;
    QTest::newRow("the second table") << 8 * 4096 + 1;
    QTest::newRow("the third table") << 17 * 4096;
}

void tst_InMemoryDatachunkHandler::longRecordings()
{
    QFETCH(int, count);
    InMemoryDatachunkHandler store;
    for (int n = 0; n < count; ++n)
        store.append(quint8(n % 2), frameMadeOf(quint32(n)), timeMadeOf(quint32(n)));
    QCOMPARE(store.getMessageCount(), count);
    CAN::CanRxMessage msg;
    for (int n = 0; n < count; ++n) {
        unsigned int position = unsigned(n) / 2;
        QVERIFY(store.getMessageOfLine(msg, quint8(n % 2), position));
        QCOMPARE(numberIn(msg), quint32(n));
        QVERIFY(!isTorn(msg));
        QCOMPARE(numberIn(store.messageAt(n)), quint32(n));
        QCOMPARE(store.lineAt(n), n % 2);
    }
    QCOMPARE(store.lineAt(count), -1);
}

void tst_InMemoryDatachunkHandler::memoryOfAFrame_data()
{
    QTest::addColumn<int>("lines");
    QTest::addColumn<int>("dataLength");
    QTest::addColumn<double>("bytesPerFrame");
    QTest::newRow("classic frames of one line") << 1 << 8 << 32.0;
    QTest::newRow("classic frames of four lines") << 4 << 8 << 32.0;
    QTest::newRow("CAN FD frames of 12 bytes") << 1 << 12 << 48.0;
    QTest::newRow("CAN FD frames of 64 bytes") << 1 << 64 << 96.0;
}

void tst_InMemoryDatachunkHandler::memoryOfAFrame()
{
    QFETCH(int, lines);
    QFETCH(int, dataLength);
    QFETCH(double, bytesPerFrame);
    constexpr int count = 200000;
    InMemoryDatachunkHandler store;
    CAN::CanMessage frame = frameMadeOf(1);
    frame.mDataLength = quint8(dataLength);
    for (int n = 0; n < count; ++n)
        store.append(quint8(n % lines), frame, timeMadeOf(quint32(n)));
    const double measured = double(store.memoryUsed()) / count;
    QVERIFY2(measured > bytesPerFrame && measured < bytesPerFrame * 1.04, qPrintable(QString::number(measured)));
}

void tst_InMemoryDatachunkHandler::memoryAfterAClear()
{
    InMemoryDatachunkHandler store;
    const auto record = [&store](quint32 count) {
        for (quint32 n = 0; n < count; ++n)
            store.append(0, frameMadeOf(n), timeMadeOf(n));
    };
    record(50000);
    const qint64 reserved = store.memoryUsed();
    store.clear();
    record(5000);
    QCOMPARE(store.memoryUsed(), reserved);
    store.squeeze();
    QVERIFY2(store.memoryUsed() < reserved / 5, qPrintable(QString::number(store.memoryUsed())));
    const QList<CAN::CanRxMessage> kept = store.getMessagesOfLine(0, 0);
    QCOMPARE(kept.size(), 5000);
    QVERIFY(std::none_of(kept.cbegin(), kept.cend(), isTorn));
    store.clear();
    store.squeeze();
    QCOMPARE(store.memoryUsed(), 0);
    record(50000);
    QCOMPARE(numberIn(store.getMessagesOfLine(0, 49999).value(0)), 49999U);
}

void tst_InMemoryDatachunkHandler::messageNumbers_data()
{
    QTest::addColumn<quint32>("first");
    QTest::addColumn<QList<quint32>>("numbers");
    QTest::newRow("from 1") << 1U << QList<quint32>{1, 2, 3};
    QTest::newRow("from 0") << 0U << QList<quint32>{0, 1, 2};
    QTest::newRow("beyond 32 bits") << 0xFFFFFFFEU << QList<quint32>{0xFFFFFFFE, 0xFFFFFFFF, 0};
}

void tst_InMemoryDatachunkHandler::messageNumbers()
{
    QFETCH(quint32, first);
    QFETCH(QList<quint32>, numbers);
    InMemoryDatachunkHandler store(first);
    for (int recording = 0; recording < 2; ++recording) { // they start again in the second
        QList<quint32> given;
        QList<quint32> fetched;
        for (quint8 line : QList<quint8>{5, 0, 5})
            given << store.append(line, frame("181").mFrame, CanTimeStamp()).value();
        for (int i = 0; i < 3; ++i)
            fetched << store.messageAt(i).mMessageNumber;
        QCOMPARE(given, numbers);
        QCOMPARE(fetched, numbers);
        store.clear();
    }
}

// A receiver that reuses its buffer leaves bytes of the frame before behind the data length.
void tst_InMemoryDatachunkHandler::bytesThatAFrameDoesNotHave()
{
    InMemoryDatachunkHandler store;
    CAN::CanMessage used;
    std::fill(std::begin(used.mPayload), std::end(used.mPayload), quint8(0xEE));
    for (int length : {0, 3, 8, 12, 61}) {
        used.mDataLength = quint8(length);
        store.append(0, used, CanTimeStamp());
        const QByteArray expected =
            QByteArray(length, char(0xEE)) + QByteArray(CAN::CanMessage::maxPayload - length, 0);
        const CAN::CanRxMessage msg = store.messageAt(store.getMessageCount() - 1);
        QCOMPARE(QByteArray(reinterpret_cast<const char *>(msg.mFrame.mPayload), expected.size()), expected);
    }
    used.mFlags = CAN::CanMessage::RemoteRequest;
    used.mDataLength = 5;
    store.append(0, used, CanTimeStamp());
    QCOMPARE(DatachunkHandlerContract::describe(store.messageAt(5)),
             QStringLiteral("0 flags 2 length 5 at 0: 00 00 00 00 00"));
}

void tst_InMemoryDatachunkHandler::noSuchLine()
{
    InMemoryDatachunkHandler store;
    QStringList ends;
    connect(&store, &InMemoryDatachunkHandler::endOfLineReached, this,
            [&](int line) { ends << QString::number(line); });
    QVERIFY(store.append(254, frame("181").mFrame, CanTimeStamp()));
    QVERIFY(!store.append(255, frame("182").mFrame, CanTimeStamp()));
    CAN::CanRxMessage msg;
    unsigned int position = 0;
    QVERIFY(!store.getMessageOfLine(msg, 255, position));
    QVERIFY(!store.nextMessageForLine(msg, 255));
    QVERIFY(store.getMessagesOfLine(255, 0).isEmpty());
    QCOMPARE(store.getMessageCount(), 1);
    QVERIFY(store.getMessageOfLine(msg, 254, position));
    QCOMPARE(ends, QStringList());
    position = UINT_MAX; // far behind the end: whoever asks has not read the line
    QVERIFY(!store.getMessageOfLine(msg, 254, position));
    QCOMPARE(ends, QStringList());
    for (int index : {INT_MIN, -1, 1, INT_MAX})
        QCOMPARE(store.messageAt(index).mMessageNumber, 0U);
}

void tst_InMemoryDatachunkHandler::linesInUse()
{
    InMemoryDatachunkHandler store;
    for (quint8 line : QList<quint8>{9, 0, 9, 254})
        store.append(line, frame("181").mFrame, CanTimeStamp());
    QCOMPARE(store.linesInUse(), (QList<unsigned char>{0, 9, 254}));
    QCOMPARE(store.messageCountOfLine(9), 2);
    QCOMPARE(store.messageCountOfLine(1), 0);
    store.clear();
    QCOMPARE(store.linesInUse(), QList<unsigned char>());
}

// What the slots of the first clear do: "a" appends a frame (the frames are 1, 2, 3 …; 1 was there before), "c" clears. The log
// has the frames that can be fetched when a signal comes.
void tst_InMemoryDatachunkHandler::whatSlotsDoDuringAClear_data()
{
    QTest::addColumn<QByteArray>("atStart");
    QTest::addColumn<QByteArray>("whenCleared");
    QTest::addColumn<QString>("log");
    QTest::addColumn<QString>("after");
    QTest::newRow("nothing") << QByteArray() << QByteArray() << "start(1) cleared()"
                             << "";
    QTest::newRow("append at the start") << QByteArray("a") << QByteArray() << "start(1) cleared()"
                                         << "2";
    QTest::newRow("append in both") << QByteArray("aa") << QByteArray("a") << "start(1) cleared()"
                                    << "2 3 4";
    QTest::newRow("clear when cleared") << QByteArray() << QByteArray("c") << "start(1) cleared() start() cleared()"
                                        << "";
    QTest::newRow("append, clear, append at the start")
        << QByteArray("aca") << QByteArray() << "start(1) cleared() start(2) cleared()"
        << "3";
    QTest::newRow("both in both") << QByteArray("aca") << QByteArray("aca")
                                  << "start(1) cleared() start(2) cleared() start(3 4) cleared()"
                                  << "5";
}

void tst_InMemoryDatachunkHandler::whatSlotsDoDuringAClear()
{
    QFETCH(QByteArray, atStart);
    QFETCH(QByteArray, whenCleared);
    InMemoryDatachunkHandler store;
    QStringList log;
    quint32 appended = 0;
    const auto append = [&] {
        ++appended;
        return store.append(0, frameMadeOf(appended), timeMadeOf(appended)).value();
    };
    const auto contents = [&] {
        QStringList numbers;
        for (const CAN::CanRxMessage &msg : store.getMessagesOfLine(0, 0))
            numbers << QString::number(numberIn(msg));
        return numbers.join(' ');
    };
    QMap<quint32, quint32> promised; // message number by frame
    const auto act = [&](QByteArray &actions) {
        for (char action : std::exchange(actions, {})) {
            if (action == 'c')
                QVERIFY(!store.clear());
            else
                promised[appended] = append();
        }
    };
    connect(&store, &DatachunkHandler::informAboutClearStart, this, [&] {
        log << "start(" + contents() + ')';
        act(atStart);
    });
    connect(&store, &DatachunkHandler::informAboutCleared, this, [&] {
        log << "cleared(" + contents() + ')';
        act(whenCleared);
    });
    append();
    QVERIFY(store.clear());
    QTEST(log.join(' '), "log");
    QTEST(contents(), "after");
    for (const CAN::CanRxMessage &msg : store.getMessagesOfLine(0, 0))
        QCOMPARE(msg.mMessageNumber, promised.value(numberIn(msg)));
}

// A lock held while the store emits would keep the other threads, and so the slots that wait for them, for ever.
void tst_InMemoryDatachunkHandler::otherThreadsDuringAClear()
{
    InMemoryDatachunkHandler store;
    int fetched = 0;
    const auto useInAnotherThread = [&] {
        std::thread([&] {
            CAN::CanRxMessage msg;
            unsigned int position = 0;
            fetched += store.getMessageOfLine(msg, 0, position) ? 1 : 0;
            store.append(0, frame("182").mFrame, CanTimeStamp());
            store.clear();
            store.append(0, frame("183").mFrame, CanTimeStamp());
        }).join();
    };
    connect(&store, &DatachunkHandler::informAboutClearStart, this, useInAnotherThread);
    store.append(0, frame("181").mFrame, CanTimeStamp());
    connect(&store, &DatachunkHandler::informAboutCleared, this,
            [&] { disconnect(&store, &DatachunkHandler::informAboutClearStart, this, nullptr); });
    store.clear();
    QCOMPARE(fetched, 1);
    QCOMPARE(store.getMessageCount(), 1);
    QCOMPARE(store.messageAt(0).mFrame.mIdentifier, 0x183U);
}

void tst_InMemoryDatachunkHandler::clearsOfSeveralThreads()
{
    constexpr int clearsOfEach = 300;
    InMemoryDatachunkHandler store;
    std::atomic<int> running = 0;
    std::atomic<int> started = 0;
    std::atomic<int> ended = 0;
    std::atomic<int> overlaps = 0;
    connect(
        &store, &DatachunkHandler::informAboutClearStart, this,
        [&] {
            overlaps += ++running > 1 ? 1 : 0;
            ++started;
        },
        Qt::DirectConnection);
    connect(
        &store, &DatachunkHandler::informAboutCleared, this,
        [&] {
            --running;
            ++ended;
        },
        Qt::DirectConnection);
    const auto clearOften = [&] {
        for (int i = 0; i < clearsOfEach; ++i)
            store.clear();
    };
    std::thread other(clearOften);
    clearOften();
    other.join();
    QCOMPARE(started.load(), 2 * clearsOfEach);
    QCOMPARE(ended.load(), 2 * clearsOfEach);
    QCOMPARE(overlaps.load(), 0);
}

// Steps: a, b append a frame to line 0, 1; f, g fetch from it; r sets the positions back; c clears. The answers of the
// fetches: . a frame, - none, E none, and the end is announced.
void tst_InMemoryDatachunkHandler::endOfLine_data()
{
    QTest::addColumn<QByteArray>("steps");
    QTest::addColumn<QByteArray>("answers");
    QTest::newRow("a line without frames") << QByteArray("fff") << QByteArray("E--");
    QTest::newRow("read to the end") << QByteArray("aafffff") << QByteArray("..E--");
    QTest::newRow("more frames after the end") << QByteArray("afffafff") << QByteArray(".E-.E-");
    QTest::newRow("more frames before the end was met") << QByteArray("afaff") << QByteArray("..E");
    QTest::newRow("frames of the other line are no reason") << QByteArray("affbf") << QByteArray(".E-");
    QTest::newRow("each line has its end") << QByteArray("abfgfgfg") << QByteArray("..EE--");
    QTest::newRow("after a clear") << QByteArray("affcff") << QByteArray(".EE-");
    QTest::newRow("as many frames after a clear") << QByteArray("affcafff") << QByteArray(".E.E-");
    QTest::newRow("cleared before the end") << QByteArray("aafcff") << QByteArray(".E-");
    QTest::newRow("analysed again") << QByteArray("afffrfff") << QByteArray(".E-.E-");
    QTest::newRow("cleared and analysed again") << QByteArray("affcrfrf") << QByteArray(".EEE");
}

void tst_InMemoryDatachunkHandler::endOfLine()
{
    QFETCH(QByteArray, steps);
    InMemoryDatachunkHandler store;
    int announced = -1;
    connect(&store, &InMemoryDatachunkHandler::endOfLineReached, this, [&](unsigned char line) { announced = line; });
    unsigned int positions[2] = {};
    const auto fetch = [&](quint8 line) {
        CAN::CanRxMessage msg;
        announced = -1;
        const bool isThere = store.getMessageOfLine(msg, line, positions[line]);
        positions[line] += isThere ? 1 : 0;
        return announced == -1 ? (isThere ? '.' : '-') : (announced == line && !isThere ? 'E' : '?');
    };
    QByteArray answers;
    for (char step : steps) {
        if (step == 'a' || step == 'b')
            store.append(quint8(step - 'a'), frame("181").mFrame, CanTimeStamp());
        else if (step == 'f' || step == 'g')
            answers += fetch(quint8(step - 'f'));
        else
            step == 'c' ? void(store.clear()) : store.resetLinePositions();
        if (step == 'c' || step == 'r')
            positions[0] = positions[1] = 0;
    }
    QTEST(answers, "answers");
}

void tst_InMemoryDatachunkHandler::slotOfTheEndMayCallAnything()
{
    InMemoryDatachunkHandler store;
    QList<int> counts;
    connect(&store, &InMemoryDatachunkHandler::endOfLineReached, this, [&] {
        std::thread([&] { store.append(0, frame("182").mFrame, CanTimeStamp()); }).join();
        counts << store.getMessageCount();
        store.clear();
    });
    store.append(0, frame("181").mFrame, CanTimeStamp());
    CAN::CanRxMessage msg;
    unsigned int position = 1;
    QVERIFY(!store.getMessageOfLine(msg, 0, position));
    QCOMPARE(counts, QList<int>{2});
    QCOMPARE(store.getMessageCount(), 0);
}

void tst_InMemoryDatachunkHandler::endIsAnnouncedOnceToTwoReaders()
{
    constexpr int rounds = 2000;
    InMemoryDatachunkHandler store;
    std::atomic<int> announced = 0;
    connect(
        &store, &InMemoryDatachunkHandler::endOfLineReached, this, [&] { ++announced; }, Qt::DirectConnection);
    std::atomic<int> allowed = 0;
    const auto readToEachEnd = [&](std::atomic<int> &done) {
        CAN::CanRxMessage msg;
        for (unsigned int round = 1; round <= rounds; ++round) {
            while (allowed < int(round))
                std::this_thread::yield();
            store.getMessageOfLine(msg, 0, round);
            done = int(round);
        }
    };
    std::atomic<int> doneHere = 0;
    std::atomic<int> doneThere = 0;
    std::thread here([&] { readToEachEnd(doneHere); });
    std::thread there([&] { readToEachEnd(doneThere); });
    for (int round = 1; round <= rounds; ++round) {
        store.append(0, frame("181").mFrame, CanTimeStamp());
        allowed = round;
        while (doneHere < round || doneThere < round)
            std::this_thread::yield();
    }
    here.join();
    there.join();
    QCOMPARE(announced.load(), rounds);
}

// One thread writes a line, with ascending numbers: whatever is cleared meanwhile, a reader meets them ascending, and within
// one recording without a gap.
void tst_InMemoryDatachunkHandler::readWhileOthersWrite(InMemoryDatachunkHandler &store, unsigned char line,
                                                        const std::atomic<bool> &isOver, QString &fault)
{
    CAN::CanRxMessage msg;
    unsigned int position = 0;
    qint64 last = -1;
    while (fault.isEmpty() && !isOver) {
        if (store.getMessageOfLine(msg, line, position)) {
            if (isTorn(msg) || numberIn(msg) <= last || msg.mMessageNumber < 1 + position)
                fault = QStringLiteral("frame %1 after %2 at %3").arg(numberIn(msg)).arg(last).arg(position);
            last = numberIn(msg);
            ++position;
        } else if (unsigned(store.messageCountOfLine(line)) < position) {
            position = 0; // cleared
        }
        const CAN::CanRxMessage byPlace = store.messageAt(int(position));
        if (byPlace.mMessageNumber != 0 && (isTorn(byPlace) || byPlace.mMessageNumber != 1 + position))
            fault = QStringLiteral("by place: frame %1 at %2").arg(numberIn(byPlace)).arg(position);
        if (position % 2048 != 0)
            continue;
        const QList<CAN::CanRxMessage> rest = store.getMessagesOfLine(line, position / 2);
        for (int i = 0; i < rest.size(); ++i) {
            if (isTorn(rest.at(i)) || numberIn(rest.at(i)) != numberIn(rest.at(0)) + quint32(i))
                fault = QStringLiteral("rest of the line: frame %1 at %2").arg(numberIn(rest.at(i))).arg(i);
        }
    }
}

void tst_InMemoryDatachunkHandler::readersWritersAndClears()
{
    constexpr quint32 count = 60000;
    constexpr quint32 clearEach = 6000;
    InMemoryDatachunkHandler store;
    std::atomic<bool> isOver = false;
    QString faults[2];
    std::vector<std::thread> readers;
    for (quint8 line : QList<quint8>{0, 1})
        readers.emplace_back([&, line] { readWhileOthersWrite(store, line, isOver, faults[line]); });
    const auto write = [&](unsigned char line) {
        for (quint32 n = 0; n < count; ++n) {
            store.append(line, frameMadeOf(n), timeMadeOf(n));
            if (line == 1 && n % clearEach == clearEach - 1)
                store.clear(true);
        }
    };
    std::thread other([&] { write(0); });
    write(1);
    other.join();
    isOver = true;
    for (std::thread &reader : readers)
        reader.join();
    QCOMPARE(faults[0], QString());
    QCOMPARE(faults[1], QString());
}

// Each recording reuses the words of the one before, while the reader is about to read them.
void tst_InMemoryDatachunkHandler::recordingsOfOneFrame()
{
    constexpr quint32 recordings = 200000;
    InMemoryDatachunkHandler store;
    std::atomic<bool> isOver = false;
    int torn = 0;
    std::thread reader([&] {
        CAN::CanRxMessage msg;
        for (unsigned int start = 0; !isOver;)
            torn += store.getMessageOfLine(msg, 0, start) && isTorn(msg) ? 1 : 0;
    });
    for (quint32 n = 0; n < recordings; ++n) {
        store.append(0, frameMadeOf(n), timeMadeOf(n));
        store.clear();
    }
    isOver = true;
    reader.join();
    QCOMPARE(torn, 0);
}

void tst_InMemoryDatachunkHandler::countKeepsUpWithTheReader()
{
    constexpr unsigned int count = 100000;
    InMemoryDatachunkHandler store;
    int behind = 0;
    std::thread reader([&] {
        CAN::CanRxMessage msg;
        for (unsigned int position = 0; position < count;) {
            position += store.getMessageOfLine(msg, 0, position) ? 1 : 0;
            behind += store.messageCountOfLine(0) < int(position) || store.getMessageCount() < int(position) ? 1 : 0;
        }
    });
    for (quint32 n = 0; n < count; ++n)
        store.append(0, frameMadeOf(n), timeMadeOf(n));
    reader.join();
    QCOMPARE(behind, 0);
}

QTEST_APPLESS_MAIN(tst_InMemoryDatachunkHandler)
#include "tst_inmemorydatachunkhandler.moc"
