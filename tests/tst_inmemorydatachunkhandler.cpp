#include "datachunkhandlercontract.h"

#include "inmemory/inmemorydatachunkhandler.h"

#include <climits>
#include <map>

namespace {

using Contract = DatachunkHandlerContract;

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

const auto factory = [] { return std::make_unique<InMemoryStoreUnderTest>(); };

} // namespace

class tst_InMemoryDatachunkHandler : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void contract_data() { Contract::addClauses(); }
    void contract() { Contract(factory).checkClause(); }
    void memory();
    void memoryOfFramesHeldBack();
    void memoryOfAFrame();
    void messageNumbers();
    void linesInUse();
    void clearsAndEnds_data();
    void clearsAndEnds();
};

// Memory comes in pieces of 4096 frames. A clear keeps it, squeeze() gives back what is not used.
void tst_InMemoryDatachunkHandler::memory()
{
    InMemoryDatachunkHandler store;
    const auto recordAndCount = [&store](int count) { // those that can be read
        for (int n = 0; n < count; ++n)
            store.append(quint8(n % 2), Contract::numbered(quint32(n)).mFrame, CanTimeStamp::fromNSecs(n));
        int read = 0;
        while (Contract::isWhole(store.messageAt(read), quint32(read)) && store.lineAt(read) == read % 2)
            ++read;
        return read;
    };
    QCOMPARE(recordAndCount(50000), 50000);
    const qint64 reserved = store.memoryUsed();
    store.clear();
    QCOMPARE(recordAndCount(5000), 5000);
    QCOMPARE(store.memoryUsed(), reserved);
    store.squeeze();
    QVERIFY2(store.memoryUsed() < reserved / 5, qPrintable(QString::number(store.memoryUsed())));
    QCOMPARE(Contract::numberIn(store.getMessagesOfLine(1, 0).value(2499)), 4999U);
    store.clear();
    store.squeeze();
    QCOMPARE(store.memoryUsed(), 0);
    QCOMPARE(recordAndCount(50000), 50000);
}

// append() gets their memory, or says that there is none. A clear that asked for it in its end could not be finished.
void tst_InMemoryDatachunkHandler::memoryOfFramesHeldBack()
{
    InMemoryDatachunkHandler store;
    const CAN::CanMessage longFrame = frame("181" + QByteArray(" 33").repeated(64)).mFrame;
    const auto fill = [&](InMemoryDatachunkHandler &filled) {
        for (int n = 0; n < 20000; ++n)
            filled.append(quint8(n % 200), longFrame, CanTimeStamp());
        const qint64 used = filled.memoryUsed();
        filled.squeeze(); // nothing that is still needed
        return used;
    };
    qint64 reserved = 0;
    connect(&store, &DatachunkHandler::informAboutCleared, this, [&] { reserved = fill(store); });
    store.clear();
    QCOMPARE(store.getMessageCount(), 20000);
    QCOMPARE(store.memoryUsed(), reserved);
    store.squeeze();
    InMemoryDatachunkHandler plain;
    QCOMPARE(reserved, fill(plain));
}

void tst_InMemoryDatachunkHandler::memoryOfAFrame()
{
    constexpr int count = 200000;
    for (const auto &[length, bytes] : std::map<quint8, double>{{8, 32.0}, {12, 48.0}, {64, 96.0}}) {
        InMemoryDatachunkHandler store;
        CAN::CanMessage frame;
        frame.mDataLength = length;
        for (int n = 0; n < count; ++n)
            store.append(quint8(n % 3), frame, CanTimeStamp());
        const double perFrame = double(store.memoryUsed()) / count;
        QVERIFY2(perFrame > bytes && perFrame < bytes * 1.04, qPrintable(QString::number(perFrame)));
    }
}

void tst_InMemoryDatachunkHandler::messageNumbers()
{
    InMemoryDatachunkHandler store(0xFFFFFFFE);
    QList<quint32> given;
    const auto append = [&] { given << store.append(quint8(given.size() % 2), {}, CanTimeStamp()).value(); };
    append();
    connect(&store, &DatachunkHandler::informAboutCleared, this, append); // held back, and numbered all the same
    store.clear();
    append();
    append();
    QCOMPARE(given, (QList<quint32>{0xFFFFFFFE, 0xFFFFFFFE, 0xFFFFFFFF, 0}));
    for (int place = 0; place < 3; ++place)
        QCOMPARE(store.messageAt(place).mMessageNumber, given.at(1 + place));
}

void tst_InMemoryDatachunkHandler::linesInUse()
{
    InMemoryDatachunkHandler store;
    CAN::CanRxMessage msg;
    for (quint8 line : QList<quint8>{9, 0, 9, 254})
        QVERIFY(store.append(line, msg.mFrame, CanTimeStamp()));
    QVERIFY(!store.append(255, msg.mFrame, CanTimeStamp()));
    QCOMPARE(store.linesInUse(), (QList<unsigned char>{0, 9, 254}));
    connect(&store, &InMemoryDatachunkHandler::endOfLineReached, this, [] { QFAIL("nobody has read to an end"); });
    unsigned int position = UINT_MAX;
    for (quint8 line : QList<quint8>{254, 255})
        QVERIFY(!store.getMessageOfLine(msg, line, position));
    QVERIFY(!store.nextMessageForLine(msg, 255) && store.getMessagesOfLine(255, 0).isEmpty());
    for (int index : {INT_MIN, -1, 4, INT_MAX})
        QCOMPARE(store.messageAt(index).mMessageNumber, 0U);
}

// "end0" is the announced end of line 0. The slots of a clear play steps of their own, once each; what they append is held back.
void tst_InMemoryDatachunkHandler::clearsAndEnds_data()
{
    QTest::addColumn<QByteArray>("steps");
    QTest::addColumn<QByteArray>("atStart");
    QTest::addColumn<QByteArray>("whenCleared");
    QTest::addColumn<QString>("answers");
    const auto row = [](const char *name, const char *steps, const char *answers, const char *atStart = "",
                        const char *whenCleared = "") {
        QTest::newRow(name) << QByteArray(steps) << QByteArray(atStart) << QByteArray(whenCleared) << QString(answers);
    };
    row("a line without frames", "0> 0> 0>", "end0 - - -");
    row("more frames after the end", "0+181 0> 0> 0> 0+182 0> 0> 0>", "181 end0 - - 182 end0 - -");
    row("frames of the other line are no reason", "0+181 0> 0> 1+281 0>", "181 end0 - -");
    row("each line has its end", "0+181 1+281 0> 1> 0> 1> 0> 1>", "181 281 end0 - end1 - - -");
    row("as many frames after a clear", "0+181 0> 0> clear 0+182 0> 0> 0>",
        "181 end0 - start[181] cleared[] 182 end0 - -");
    row("analysed again", "0+181 0> 0> rewind 0> 0> 0>", "181 end0 - 181 end0 - -");
    row("cleared and analysed again", "0> clear rewind 0> rewind 0>", "end0 - start[] cleared[] end0 - end0 -");
    row("slots fetch and append", "0+181 clear all", "start[181] 181 cleared[] end0 - [182 183 184]", "0> 0+182 0+183",
        "0> 0+184");
    row("slots append and clear", "0+181 clear all",
        "start[181] cleared[] start[182] cleared[] start[183 184] live[] [185]", "0+182 clear 0+183",
        "0+184 live 0+185");
}

void tst_InMemoryDatachunkHandler::clearsAndEnds()
{
    QFETCH(QByteArray, steps);
    for (const bool inOtherThread : {false, true}) { // a lock held while the store emits would keep it out for ever
        QFETCH(QByteArray, atStart);
        QFETCH(QByteArray, whenCleared);
        Contract story(factory);
        auto &store = static_cast<InMemoryDatachunkHandler &>(story.store());
        const auto playOnce = [&](QByteArray &slot) {
            const QByteArray now = std::exchange(slot, QByteArray());
            inOtherThread ? std::thread([&] { story.play(now); }).join() : story.play(now);
        };
        connect(
            &store, &DatachunkHandler::informAboutClearStart, this, [&] { playOnce(atStart); }, Qt::DirectConnection);
        connect(
            &store, &DatachunkHandler::informAboutCleared, this, [&] { playOnce(whenCleared); }, Qt::DirectConnection);
        const auto atEnd = [&](int line) {
            std::thread([&] { store.squeeze(); }).join(); // as everything else it may be called
            story.log << "end" + QString::number(line);
        };
        connect(&store, &InMemoryDatachunkHandler::endOfLineReached, this, atEnd, Qt::DirectConnection);
        story.play(steps);
        QTEST(story.log.join(' '), "answers");
    }
}

QTEST_APPLESS_MAIN(tst_InMemoryDatachunkHandler)
#include "tst_inmemorydatachunkhandler.moc"
