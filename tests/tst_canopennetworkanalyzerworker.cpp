#include "network/canopennetworkanalyzerworker.h"

#include "recordingnetwork.h"
#include "scriptedstore.h"
#include "sdo/sdomessagehandler.h"

#include <QTimer>
#include <QtTest>

#include <functional>
#include <future>
#include <memory>
#include <vector>

using Worker = CANopenNetworkAnalyzerWorker;
using namespace std::chrono_literals;

/// Dispatch, NMT error control, rating, and the loop. The loop runs in the test's own thread; the store and the model act at the
/// right call, so each interleaving is forced. What needs the analysis thread is in tst_canopennetworkanalyzer.
class TestWorker : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void dispatch_data();
    void dispatch();
    void nodeOfIdentifier();
    void rating_data();
    void rating();
    void story_data();
    void story();
    void guestsWaitForTheFrameInHand();
    void reanalyzeForgetsWhatWasLearnt();
    void missingModelStoreOrHandler();
    void whoTakesAValue();

private:
    /// Runs the loop while a story takes place, see story_data().
    void play(const QString &script);
    void runUntilStopped();
    /// Whether anything is told for \a moment.
    bool now(const QString &moment);
    void act(const QString &actions);
    void act(const QString &verb, int count);
    void receive(const std::function<void()> &visit);
    void receiveGuests();
    void nothingIsKnown();

    QHash<unsigned int, CANopen::CANopenMessageDescription> mDescriptions;
    std::unique_ptr<RecordingNetwork> mNetwork;
    std::unique_ptr<ScriptedStore> mStore;
    std::unique_ptr<Worker> mWorker;
    std::unique_ptr<QObject> mScene; // of the story: what has not happened at its end does not happen any more
    QHash<QString, QString> mTold;   // actions by moment
    int mEventSteps = 0;             // of the loop
    QList<quint32> mRecorded;        // by a model that is gone
    std::vector<std::future<void>> mGuests;
};

void TestWorker::init()
{
    mRecorded.clear();
    mTold.clear();
    mNetwork = std::make_unique<RecordingNetwork>();
    mStore = std::make_unique<ScriptedStore>();
    mWorker = std::make_unique<Worker>(mNetwork.get(), mStore.get(), mDescriptions);
}

void TestWorker::cleanup()
{
    mGuests.clear();
    mWorker.reset();
    CAN::CanRxMessage::mLiveMode = false;
}

// ---- dispatch ----------------------------------------------------------------------------------------------------------

void TestWorker::dispatch_data()
{
    // Behind "=>": the class counted, the calls of the model, the rise of the rating's counters
    QTest::addColumn<QByteArray>("trace");

    QTest::newRow("answers discover nodes, but node 0") << QByteArray(R"(
        5A3  43 00 10 00 91 01 03 00 => SDO_RES, node 35, errors +1
        580  43 00 10 00 91 01 03 00 => SDO_RES, errors +1)");
    QTest::newRow("read and written values") << QByteArray(R"(
        605  40 00 10 01 00 00 00 00 => SDO_REQ
        585  43 00 10 01 2A 00 00 00 => SDO_RES, node 5, value 5 1000:01 = 42 read 0ms-1ms by 2
        605  23 00 10 01 2B 00 00 00 => SDO_REQ
        585  60 00 10 01 00 00 00 00 => SDO_RES, node 5, value 5 1000:01 = 43 written 2ms-3ms by 4)");
    QTest::newRow("two devices under one node-ID") << QByteArray(R"(
        605  40 00 10 01 00 00 00 00 => SDO_REQ
        585  43 00 10 01 2A 00 00 00 => SDO_RES, node 5, value 5 1000:01 = 42 read 0ms-1ms by 2
        585  43 00 10 01 2A 00 00 00 => SDO_RES, node 5, devices 5 x2 last 3)");
    QTest::newRow("an abort ends the waiting request") << QByteArray(R"(
        605  40 00 10 01 00 00 00 00 => SDO_REQ
        585  80 00 10 01 00 00 02 06 => SDO_ABORT, aborts +1
        585  43 00 10 01 2A 00 00 00 => SDO_RES, node 5, errors +1)");
    QTest::newRow("aborts are no answers of a node") << QByteArray(R"(
        605  80 00 10 01 00 00 04 05 => SDO_ABORT, aborts +1
        585  80 00 10 01 00 00 04 05 => SDO_ABORT, aborts +1)");
    QTest::newRow("SYNC, with and without a counter") << QByteArray(R"(
        080                          => SYNC, sync by 1
        080  05                      => SYNC, sync by 2)");
    QTest::newRow("process data") << QByteArray(R"(
        185  01 02                   => PDO, pdo 185
        185  R2                      => PDO, pdo 185)");
    QTest::newRow("NMT commands") << QByteArray(R"(
        000  01 05                   => NMT, nmt 1 to 5 by 1 at 0ms
        +7ms 000  82 00              => NMT, nmt 130 to 0 by 2 at 7ms
        000  07 FF                   | no command, no node       => NMT, nmt 7 to 255 by 3 at 8ms
        000  80                      | too short                 => NMT, nmt 128 to 0 by 4 at 9ms)");
    QTest::newRow("emergencies") << QByteArray(R"(
        081  10 81 11 00 00 00 00 00 => EMCY, emcy 1 by 1
        0FF  00 00 00                => EMCY, emcy 127 by 2)");
    QTest::newRow("NMT states") << QByteArray(R"(
        705  00                      => NMT_EC_BOOTUP, state 5 = 1 by 1
        705  7F                      => NMT_EC, state 5 = 2 by 2
        705  05                      => NMT_EC, state 5 = 3 by 3
        705  04                      => NMT_EC, state 5 = 4 by 4
        705  FF                      => NMT_EC, state 5 = 2 by 5
        705  85                      => NMT_EC, state 5 = 3 by 6
        705  84                      => NMT_EC, state 5 = 4 by 7
        705  02                      | no state                  => NMT_EC, state 5 = 0 by 8
        705  80                      | toggled, state 0          => NMT_EC, state 5 = 0 by 9
        700  05                      | node-ID 0 is recorded     => NMT_EC, state 0 = 3 by 10
        77F  00                      => NMT_EC_BOOTUP, state 127 = 1 by 11)");
    QTest::newRow("error control of the wrong length counts twice") << QByteArray(R"(
        705                          => NMT_EC, errors +2
        705  05 00                   => NMT_EC, errors +2)");
    QTest::newRow("node guarding request") << QByteArray(R"(
        705  R1                      => UNKNOWN, unhandled +1)");
    QTest::newRow("classes that nobody follows") << QByteArray(R"(
        100  00 00 00 00 00 00       => TIME, unhandled +1
        101  00                      => SRDO, unhandled +1
        7E5  04 01                   => LSS_REQ, unhandled +1
        7E4  44 00                   => LSS_RES, unhandled +1
        6E0                          => SDO_DYN_REQ, unhandled +1
        071                          => FLYMA, unhandled +1
        691                          => Sleep, unhandled +1
        001                          => GFC, unhandled +1
        00012345 00                  => UNKNOWN, unhandled +1)");
}

void TestWorker::dispatch()
{
    QFETCH(QByteArray, trace);
    const QMap<Worker::RatingMessageTypes, QString> names = {
        {Worker::RMT_SdoAbort, "aborts"}, {Worker::RMT_ProtocolError, "errors"}, {Worker::RMT_Unhandled, "unhandled"}};
    for (const TraceLine &line : parseTrace(trace)) {
        const auto before = mWorker->ratingCounts();
        mNetwork->distribution.clear();
        mWorker->handleMessage(line.message);
        QCOMPARE(mNetwork->distribution.values(), QList<unsigned int>{1});
        QStringList found = mNetwork->takeCalls();
        found.prepend(CANopen::messageTypeNames.value(mNetwork->distribution.firstKey()));
        const auto counts = mWorker->ratingCounts();
        for (auto it = counts.cbegin(); it != counts.cend(); ++it) {
            if (it.value() != before.value(it.key()))
                found += QStringLiteral("%1 +%2").arg(names.value(it.key())).arg(it.value() - before.value(it.key()));
        }
        QVERIFY2(found.join(", ") == line.expected, qPrintable(line.text + "\n  found: " + found.join(", ")));
    }
}

void TestWorker::nodeOfIdentifier()
{
    // Of an SDO answer, an emergency, an error control frame: differences in 16 bits, negative ones as they are
    const QMap<quint32, QList<int>> nodes = {
        {0x001, {0x001 - 0x580, 0x001 - 0x080, 0x001 - 0x700}},
        {0x100, {0x100 - 0x580, -1, 0x100 - 0x700}},
        {0x5FF, {127, -1, 0x5FF - 0x700}},
        {0x600, {-1, -1, 0x600 - 0x700}},
        {0x780, {-1, -1, -1}},
        {0x8080, {-1, -32768, -1}},
        {0x10581, {1, -1, 0x581 - 0x700}},
    };
    CAN::CanMessage message = frame("705 05").mFrame;
    CANopen::CANopenNMTEvent event;
    for (auto it = nodes.cbegin(); it != nodes.cend(); ++it) {
        message.mIdentifier = it.key();
        QCOMPARE((QList<int>{Worker::getNodeFromSDO_RES(message), Worker::getNodeFromEMCY(message),
                             mWorker->getNodeFromNMT_EC(message, CANopen::UNKNOWN, event)}),
                 it.value());
    }
}

// ---- rating ------------------------------------------------------------------------------------------------------------

void TestWorker::rating_data()
{
    QTest::addColumn<QString>("frames");
    QTest::addColumn<int>("rating");
    QTest::newRow("no frame") << "wait" << 0;
    QTest::newRow("clean") << "PDO 100" << 100;
    QTest::newRow("one abort in a hundred") << "PDO 99, abort 1" << 98;
    QTest::newRow("one unhandled frame in a hundred") << "PDO 99, TIME 1" << 99;
    QTest::newRow("one error in a hundred") << "PDO 99, surprise 1" << 95;
    QTest::newRow("ten of each in a hundred") << "PDO 70, abort 10, TIME 10, surprise 10" << 20;
    QTest::newRow("each term is cut off by itself") << "PDO 990, abort 4, TIME 6" << 100;
    QTest::newRow("the error term is multiplied before it is cut off") << "PDO 199, surprise 1" << 98;
    QTest::newRow("the abort term is doubled before it is cut off") << "PDO 195, abort 5" << 95;
    QTest::newRow("never below 0") << "PDO 70, surprise 30" << 0;
    QTest::newRow("one point left") << "PDO 1, TIME 99" << 1;
    QTest::newRow("nothing left") << "TIME 100" << 0;
    QTest::newRow("35000 in a hundred, most from before a clear") << "TIME 1400, clear, PDO 4" << 0;
}

void TestWorker::rating()
{
    QFETCH(QString, frames);
    play(frames + ", resume");
    QTEST(int(mWorker->calculateRating()), "rating");
    const QList<unsigned int> counts = mWorker->ratingCounts().values();
    QVERIFY(!counts.contains(0)); // reading adds nothing
}

// ---- the loop ----------------------------------------------------------------------------------------------------------

// A story tells what happens when, a line for each moment but the first, each once:
//                     before the loop starts                frame 3   when frame 3 is recorded (its first time)
//   end 2             when the store answers for the second fetch 3   when it is fetched
//                     time that there is no frame           node      at this call of the model (see RecordingNetwork)
//   frame 3, then     in the event step that follows        reported  when the SDO analysis reports a value
//   later             in an event step, some time after the start
// An end for which nothing is told stops the loop. The frames that reach the model are given by their numbers, which start
// again when the store is cleared.
void TestWorker::story_data()
{
    QTest::addColumn<QString>("script");
    QTest::addColumn<QString>("recorded");
    QTest::addColumn<int>("counted"); // process data in the class map at the end

    const auto row = [](const char *name, const char *script, const char *recorded, int counted) {
        QTest::newRow(name) << QString(script) << QString(recorded) << counted;
    };
    row("stopped before the start, and cleared", "PDO 3, resume, stop, clear", "", 0);
    row("starts paused, sleeps, and lets guests in", "PDO 3 \n later: guest, slept, stop", "", 0);
    row("stopped while frames flow", "PDO 3, resume \n frame 2: stop", "1-2", 2);
    row("pauses at the end of a recording", "PDO 3, resume \n end 1: wait \n later: PDO 1, stop", "1-3", 3);
    row("devices are counted in an event step", "read, answer, resume \n end 1: wait \n devices: stop", "1-2", 0);
    row("resumed before it pauses", "PDO 2, resume \n end 1: PDO 1, resume", "1-3", 3);
    row("reanalysed when it has paused", "PDO 3, resume \n end 1: wait \n later: reanalyze", "1-3 1-3", 3);
    row("reanalysed before it pauses", "PDO 2, resume \n end 1: PDO 1 \n end 1, then: reanalyze", "1-2 1-3", 3);
    row("polls on while live, and once more when that ends",
        "live, resume \n end 1: wait \n end 2: wait \n end 3: PDO 1, not live", "1", 1);
    row("live reception begins at the end of a recording", "PDO 1, resume \n end 1: live \n end 2: PDO 1", "1-2", 2);
    row("reset at the end starts over", "PDO 3, resume \n end 1: reset", "1-3 1-3", 3);

    row("a clear neither resumes nor hands on what it has rescued", "PDO 3, clear, PDO 2 \n later: stop", "", 0);
    row("no end of a recording while the store is cleared, and nothing is fetched",
        "PDO 2, resume \n end 1, then: begin clear \n later: end clear", "1-2 1-2", 4);
    row("nothing is fetched from a live line while the store is cleared",
        "live, PDO 2, resume \n end 1, then: begin clear \n later: end clear", "1-2 1-2", 4);
    row("a clear that is announced twice", "PDO 3, begin clear, begin clear, end clear, resume", "1-3 1-3", 6);
    row("cleared while paused, three times", "PDO 3, clear, PDO 2, clear, clear, PDO 1, resume", "1-3 1-2 1", 6);
    row("cleared while rescued frames are handled", "PDO 3, clear, PDO 2, resume \n frame 2: clear, PDO 1", "1-3 1-2 1",
        6);
    row("cleared with a frame in hand", "PDO 5003, resume \n frame 1, then: clear, PDO 2", "1-5003 1-2", 5005);
    row("cleared by another thread between fetch and count", "PDO 5, resume \n fetch 3: clear elsewhere", "1-5", 5);
    row("appended and cleared before it pauses", "resume \n end 1, then: PDO 1, clear", "1", 1);
    row("a clear sets back the frames that are rated, not what speaks against them",
        "TIME 2, PDO 2, resume \n end 1: rated 50 \n end 1, then: clear, rated 0, PDO 4, resume \n end 2: rated 50, "
        "stop",
        "1-4 1-4", 6);
    row("stopped while rescued frames are handled", "PDO 2, clear, PDO 2, resume \n frame 1: stop", "1-2", 2);
    row("paused and reset while rescued frames are handled: nothing new is analysed",
        "PDO 2, clear, PDO 2, resume \n frame 1: pause, reset \n later: stop", "1-2", 1);
    row("reset leaves rescued frames alone, but for the one in hand",
        "PDO 4, clear, PDO 1, reset, resume \n frame 2: reset", "1-4 1", 3);

    row("reset with a frame in hand, in the second event step, 5000 frames after the first",
        "PDO 10002, resume \n frame 5000, then: reset", "1-9999 1-10002", 10002);
    row("reanalysed with a frame in hand", "PDO 5001, resume \n frame 1, then: reanalyze", "1-4999 1-5001", 5001);
    row("reset as a frame is recorded", "PDO 1, resume \n frame 1: pause, reset \n later: empty, stop", "1", 0);
    row("reset as a PDO is recorded", "PDO 1, resume \n pdo: pause, reset \n later: empty, stop", "1", 0);
    row("reset as a node is found", "read, answer, resume \n node: pause, reset \n later: empty, stop", "1-2", 0);
    row("reset as a value is found", "read, answer, resume \n value: pause, reset \n later: empty, stop", "1-2", 0);
    row("reset as a second device is found", "read, answer 2, resume \n devices: pause, reset \n later: empty, stop",
        "1-3", 0);

    row("model gone with a frame in hand", "PDO 5001, resume \n frame 1, then: drop model, shrug", "1-4999", -1);
    row("model gone while a frame is fetched", "PDO 3, resume \n fetch 2: drop model, shrug", "1", -1);
    row("model gone while rescued frames are handled", "read, answer, PDO 1, clear, resume \n reported: drop model",
        "1-2", -1);
    row("store gone with a frame in hand", "PDO 5001, resume \n frame 1, then: drop store", "1-5000", 5000);
    row("store gone while a frame is recorded", "PDO 3, resume \n frame 2: drop store", "1-2", 2);
    row("worker gone in the pause", "PDO 1 \n later: drop worker", "", 0);
    row("worker gone at the end of the line", "PDO 2, resume \n end 1, then: drop worker", "1-2", 2);
    row("worker gone with a frame in hand", "PDO 5001, resume \n frame 1, then: drop worker", "1-4999", 4999);
}

/// "1-3 1-2" for 1, 2, 3, 1, 2
static QString ranges(const QList<quint32> &list)
{
    QStringList texts;
    for (int first = 0, i = 0; i < list.size(); ++i) {
        if (i + 1 < list.size() && list.at(i + 1) == list.at(i) + 1)
            continue;
        texts += QString::number(list.at(first)) + (i > first ? '-' + QString::number(list.at(i)) : QString());
        first = i + 1;
    }
    return texts.join(' ');
}

void TestWorker::story()
{
    QFETCH(QString, script);
    mDescriptions.insert(0x185, CANopen::CANopenMessageDescription());
    play(script);
    QCOMPARE(mDescriptions.isEmpty(), mWorker == nullptr);
    if (mNetwork) {
        mRecorded += mNetwork->takeFrames();
        QTEST(int(mNetwork->distribution.value(CANopen::PDO)), "counted");
    } else {
        mWorker->handleMessage(frame("185"));
    }
    QTEST(ranges(mRecorded), "recorded");
}

void TestWorker::play(const QString &script)
{
    for (const QString &line : script.split('\n'))
        mTold.insert(line.contains(':') ? line.section(':', 0, 0).trimmed() : "at first", line.section(':', -1));
    mScene = std::make_unique<QObject>();
    mNetwork->inCall = [&](const QString &call) { now(call.startsWith("frame") ? call : call.section(' ', 0, 0)); };
    int ends = 0;
    mStore->afterFetch = [&](bool found, unsigned int position) {
        if (found)
            now(QStringLiteral("fetch %1").arg(position + 1));
        else if (!now(QStringLiteral("end %1").arg(++ends)))
            mWorker->stop();
    };
    const auto report = [&] { now("reported"); };
    connect(mWorker->sdoMessageHandler(), &SDOMessageHandler::newValue, mScene.get(), report, Qt::DirectConnection);
    QTimer::singleShot(50, mScene.get(), [&] { now("later"); });
    now("at first");
    runUntilStopped();
    mScene.reset();
    QVERIFY2(mTold.isEmpty(), "not all of the story has happened");
}

/// A loop that hangs is ended after two seconds and fails the test.
void TestWorker::runUntilStopped()
{
    bool hung = false;
    QTimer::singleShot(2000, mScene.get(), [&] {
        hung = true;
        mWorker->stop();
    });
    mEventSteps = 0;
    QTimer everyStep;
    connect(&everyStep, &QTimer::timeout, this, [&] { ++mEventSteps; });
    everyStep.start(0);
    mWorker->analyze();
    QVERIFY2(!hung, "the loop had to be ended by the watchdog");
}

bool TestWorker::now(const QString &moment)
{
    const QString then = moment + ", then";
    const bool isTold = mTold.contains(moment) || mTold.contains(then);
    if (mTold.contains(then))
        QTimer::singleShot(0, mScene.get(), [=] { now(then); });
    if (mTold.contains(moment))
        act(mTold.take(moment));
    return isTold;
}

void TestWorker::act(const QString &actions)
{
    for (const QString &action : actions.split(',')) {
        const QString words = action.trimmed();
        bool isCounted = false;
        const int count = words.section(' ', -1).toInt(&isCounted);
        act(words.section(' ', 0, isCounted ? -2 : -1), isCounted ? count : 1);
    }
}

void TestWorker::act(const QString &verb, int count)
{
    const auto append = [&](const char *line) { return [=] { mStore->appendTrace(line, count); }; };
    const QHash<QString, std::function<void()>> verbs = {
        {"PDO", append("185 01 02")},
        {"TIME", append("100")},
        {"abort", append("585 80 00 10 00")},
        {"read", append("605 40 00 10 01")},
        {"answer", append("585 43 00 10 01 2A")},
        {"surprise", append("585 60 00 10 00")},
        {"clear", [&] { mStore->clear(); }},
        {"clear elsewhere", [&] { receive([&] { mStore->clear(); }); }},
        {"begin clear", [&] { Q_EMIT mStore->informAboutClearStart(); }}, // of a store that then discards nothing
        {"end clear", [&] { Q_EMIT mStore->informAboutCleared(true); }},
        {"resume", [&] { mWorker->setAnalyzing(true); }},
        {"pause", [&] { mWorker->setPause(true); }},
        {"stop", [&] { mWorker->stop(); }},
        {"reset", [&] { mWorker->reset(); }},
        {"reanalyze", [&] { mWorker->reanalyze(); }},
        {"guest", [&] { std::async(std::launch::async, [&] { mWorker->ratingCounts(); }).get(); }},
        {"slept", [&] { QVERIFY(mEventSteps < 5); }},
        {"rated", [&] { QCOMPARE(int(mWorker->calculateRating()), count); }},
        {"guests", [&] { receiveGuests(); }},
        {"empty", [&] { nothingIsKnown(); }},
        {"live", [] { CAN::CanRxMessage::mLiveMode = true; }},
        {"not live", [] { CAN::CanRxMessage::mLiveMode = false; }},
        {"drop model", [&] { mRecorded = mNetwork->takeFrames(), mNetwork.reset(); }},
        {"shrug",
         [] {
             QTest::ignoreMessage(QtDebugMsg, "void CANopenNetworkAnalyzerWorker::analyze() Line: 171 ¯\\_(ツ)_/¯");
         }},
        {"drop store", [&] { mStore.reset(); }},
        {"drop worker", [&] { mWorker.reset(); }},
        {"wait", [] {}},
    };
    verbs.value(verb)();
}

void TestWorker::nothingIsKnown()
{
    QVERIFY(mNetwork->distribution.isEmpty());
    QVERIFY(mWorker->ratingCounts().isEmpty());
    QVERIFY(mWorker->protocolErrors().isEmpty());
    QVERIFY(mWorker->pendingSDOEntryList().isEmpty());
    QVERIFY(mWorker->blockTransfers().isEmpty());
    QCOMPARE(mWorker->calculateRating(), qint16(0));
    const QStringList calls = mNetwork->takeCalls();
    QVERIFY(calls.isEmpty() || calls.last() == "reset"); // nothing more of the frame reached the model
}

/// Somebody comes from another thread, and waits for the frame in hand.
void TestWorker::receive(const std::function<void()> &visit)
{
    mGuests.push_back(std::async(std::launch::async, visit));
    QVERIFY2(mGuests.back().wait_for(30ms) == std::future_status::timeout, qPrintable(QString::number(mGuests.size())));
}

void TestWorker::receiveGuests()
{
    receive([&] { mWorker->reset(); });
    receive([&] { mWorker->reanalyze(); });
    receive([&] { mWorker->calculateRating(); });
    receive([&] { mWorker->ratingCounts(); });
    receive([&] { mWorker->messageTypeDistribution(); });
    receive([&] { mWorker->protocolErrors(); });
    receive([&] { mWorker->pendingSDOEntryList(); });
    receive([&] { mWorker->blockTransfers(); });
}

void TestWorker::guestsWaitForTheFrameInHand()
{
    play("PDO 2, resume \n frame 1: guests");
    QCOMPARE(mGuests.size(), 8U);
    for (std::future<void> &guest : mGuests)
        guest.get();
}

void TestWorker::reanalyzeForgetsWhatWasLearnt()
{
    CountingDevice first;
    CountingDevice second;
    ForeignDevice foreign;
    mNetwork->devices = {&foreign, &first, nullptr, &second};
    for (const CAN::CanRxMessage &message : frames("605 23 00 10 01 2A\n100\n585 60 00 10 02\n606 A4 00 20 00 7F"))
        mWorker->handleMessage(message);
    QCOMPARE(mWorker->ratingCounts().size(), 2);
    QCOMPARE(mWorker->protocolErrors(), QList<unsigned int>{3});
    QVERIFY(!mWorker->pendingSDOEntryList().isEmpty() && !mWorker->blockTransfers().isEmpty());
    CAN::CanRxMessage message;
    act("PDO 1");
    QVERIFY(mStore->nextMessageForLine(message, ScriptedStore::line));
    mNetwork->takeCalls();
    act("reanalyze");
    nothingIsKnown();
    QCOMPARE(first.cleared, 1);
    QCOMPARE(second.cleared, 1);
    QVERIFY(mNetwork->takeCalls().isEmpty());                          // what else the model knows stays
    QVERIFY(mStore->nextMessageForLine(message, ScriptedStore::line)); // its read positions are set back
}

void TestWorker::missingModelStoreOrHandler()
{
    for (const auto &[network, store] : {std::pair(false, true), std::pair(true, false), std::pair(false, false)}) {
        mWorker =
            std::make_unique<Worker>(network ? mNetwork.get() : nullptr, store ? mStore.get() : nullptr, mDescriptions);
        act("PDO 2, clear, reset, reanalyze");
        for (const CAN::CanRxMessage &message :
             frames("000 01 05\n080\n081\n185\n705 05\n100\n605 40 00 10\n585 43 00 10 00 01\n585 43 00 10 00 01"))
            mWorker->handleMessage(message);
        QCOMPARE(mWorker->ratingCounts().value(Worker::RMT_Unhandled), 1u);
        QCOMPARE(mWorker->messageTypeDistribution().size(), network ? 8 : 0);
        QCOMPARE(mWorker->calculateRating(), qint16(0));
        play("resume"); // ends at once
    }
    const QList<CAN::CanRxMessage> everyKind =
        frames("185\n080\n081\n705 05\n000 01 05\n100\n605 40 00 10\n585 43 00 10\n"
               "585 80 00 10");
    init();
    mNetwork.reset(); // and its class map with it
    for (const CAN::CanRxMessage &message : everyKind)
        mWorker->handleMessage(message);
    QVERIFY(mWorker->messageTypeDistribution().isEmpty());

    init();
    delete mWorker->sdoMessageHandler();
    mWorker->handleMessage(frame("605 40 00 10"));
    mWorker->reset();
    QVERIFY(mWorker->protocolErrors().isEmpty() && mWorker->pendingSDOEntryList().isEmpty());
    QVERIFY(mWorker->blockTransfers().isEmpty());

    struct WithoutMap : RecordingNetwork
    {
        QMap<CANopen::MessageType, unsigned int> *getMessageTypeDistribution() override { return nullptr; }
    };
    mNetwork = std::make_unique<WithoutMap>();
    mWorker = std::make_unique<Worker>(mNetwork.get(), mStore.get(), mDescriptions);
    mWorker->handleMessage(frame("185"));
    play("PDO 1, reset, resume");
    QVERIFY(mWorker->messageTypeDistribution().isEmpty());
}

// The worker takes the values past the signal as long as it is the only one connected; nobody may notice.
void TestWorker::whoTakesAValue()
{
    QStringList taken;
    const auto hear = [&] { taken += "listener"; };
    using Connection = QMetaObject::Connection;
    const struct
    {
        const char *name;
        std::function<void(SDOMessageHandler &)> prepare;
        QStringList takers;
    } cases[] = {
        {"the worker alone", [](auto &) {}, {"model"}},
        {"a listener, after the worker",
         [&](auto &handler) { connect(&handler, &SDOMessageHandler::newValue, hear); },
         {"model", "listener"}},
        {"a listener that has gone",
         [&](auto &handler) {
             const Connection listening = connect(&handler, &SDOMessageHandler::newValue, hear);
             disconnect(listening);
         },
         {"model"}},
        {"signals blocked", [](auto &handler) { handler.blockSignals(true); }, {}},
        {"worker disconnected", [&](auto &handler) { disconnect(&handler, nullptr, mWorker.get(), nullptr); }, {}},
        {"everybody disconnected", [](auto &handler) { handler.disconnect(); }, {}},
        {"emitted by somebody else",
         [](auto &handler) {
             handler.newValue(5, 0x1000, 0, QVariant(1), 0.0, 0.0, 0, false);
             handler.blockSignals(true);
         },
         {"model"}},
    };
    for (const auto &[name, prepare, takers] : cases) {
        init();
        taken.clear();
        mNetwork->inCall = [&](const QString &call) {
            if (call.startsWith("value"))
                taken += "model";
        };
        prepare(*mWorker->findChild<SDOMessageHandler *>());
        for (const CAN::CanRxMessage &message : frames("605 40 00 10\n585 43 00 10 00 01"))
            mWorker->handleMessage(message);
        QVERIFY2(taken == takers, qPrintable(name + (": " + taken.join(", "))));
    }
}

QTEST_GUILESS_MAIN(TestWorker)
#include "tst_canopennetworkanalyzerworker.moc"
