#include "network/canopennetworkanalyzerworker.h"

#include "recordingnetwork.h"
#include "scriptedstore.h"
#include "sdo/sdomessagehandler.h"

#include <QTimer>
#include <QtTest>

#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

using Worker = CANopenNetworkAnalyzerWorker;
using Visit = std::function<void(Worker &)>;
Q_DECLARE_METATYPE(Visit)

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
    void nodeOfIdentifier_data();
    void nodeOfIdentifier();
    void rating_data();
    void rating();
    void ratingAfterAClear();

    void story_data();
    void story();
    void eventsEvery5000Frames();

    void guestsWaitForTheFrameInHand_data();
    void guestsWaitForTheFrameInHand();
    void clearBetweenFetchAndCounting();

    void reanalyzeStartsOver();
    void resetInACallDropsTheRestOfTheFrame_data();
    void resetInACallDropsTheRestOfTheFrame();

    void pausedLoopSleepsAndLendsItsLock();
    void analysesItsOwnLine();
    void modelVanishesWhileRescuedFramesAreHandled();
    void missingModelOrStore_data();
    void missingModelOrStore();

private:
    /// Runs the loop until something stops it; a loop that hangs is ended after two seconds and fails the test.
    void run();
    void resumeAndRun();
    /// Resumes, and stops when the store has no further frame.
    void runToTheEnd();
    /// Carries out actions of a story.
    void act(const QString &actions);
    void act(const QString &verb, int count);

    QHash<unsigned int, CANopen::CANopenMessageDescription> mDescriptions;
    std::unique_ptr<RecordingNetwork> mNetwork;
    std::unique_ptr<ScriptedStore> mStore;
    std::unique_ptr<Worker> mWorker;
    QList<quint32> mRecorded; // by a model that is gone
};

void TestWorker::init()
{
    CAN::CanRxMessage::mLiveMode = false;
    mRecorded.clear();
    mNetwork = std::make_unique<RecordingNetwork>();
    mStore = std::make_unique<ScriptedStore>();
    mWorker = std::make_unique<Worker>(mNetwork.get(), mStore.get(), mDescriptions);
}

void TestWorker::cleanup()
{
    mWorker.reset();
    mStore.reset();
    mNetwork.reset();
    CAN::CanRxMessage::mLiveMode = false;
}

void TestWorker::run()
{
    bool hung = false;
    QTimer watchdog;
    connect(&watchdog, &QTimer::timeout, mWorker.get(), [&] {
        hung = true;
        mWorker->stop();
    });
    watchdog.start(2000);
    mWorker->analyze();
    QVERIFY2(!hung, "the loop had to be ended by the watchdog");
}

void TestWorker::resumeAndRun()
{
    mWorker->setAnalyzing(true);
    run();
}

void TestWorker::runToTheEnd()
{
    mStore->afterFetch = [&](bool found, unsigned int) {
        if (!found)
            mWorker->stop();
    };
    resumeAndRun();
}

// ---- dispatch ----------------------------------------------------------------------------------------------------------

void TestWorker::dispatch_data()
{
    // Behind "=>": the class counted, the calls of the model, the rise of the rating's counters
    QTest::addColumn<QByteArray>("trace");

    QTest::newRow("node discovered by an SDO answer") << QByteArray(R"(
        5A3  43 00 10 00 91 01 03 00 => SDO_RES, node 35, errors +1)");
    QTest::newRow("SDO answer of no node") << QByteArray(R"(
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

static QString risenCounters(Worker &worker, QMap<Worker::RatingMessageTypes, unsigned int> before)
{
    const QMap<Worker::RatingMessageTypes, QString> names = {{Worker::RMT_SdoAbort, QStringLiteral("aborts")},
                                                             {Worker::RMT_ProtocolError, QStringLiteral("errors")},
                                                             {Worker::RMT_Unhandled, QStringLiteral("unhandled")}};
    QString risen;
    const auto counts = worker.ratingCounts();
    for (auto it = counts.cbegin(); it != counts.cend(); ++it) {
        if (it.value() != before.value(it.key()))
            risen += QStringLiteral(", %1 +%2").arg(names.value(it.key())).arg(it.value() - before.value(it.key()));
    }
    return risen;
}

void TestWorker::dispatch()
{
    QFETCH(QByteArray, trace);
    for (const TraceLine &line : parseTrace(trace)) {
        const auto before = mWorker->ratingCounts();
        mNetwork->distribution.clear();
        mWorker->handleMessage(line.message);
        QCOMPARE(mNetwork->distribution.size(), 1);
        QCOMPARE(mNetwork->distribution.first(), 1u);
        QString found = CANopen::messageTypeNames.value(mNetwork->distribution.firstKey());
        for (const QString &call : mNetwork->takeCalls())
            found += QStringLiteral(", ") + call;
        found += risenCounters(*mWorker, before);
        QVERIFY2(found == line.expected, qPrintable(QStringLiteral("%1\n  found: %2").arg(line.text, found)));
    }
}

void TestWorker::nodeOfIdentifier_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<quint32>("identifier");
    QTest::addColumn<int>("node");
    QTest::newRow("last SDO server") << "SDO" << 0x5FFu << 127;
    QTest::newRow("SDO, too large") << "SDO" << 0x600u << -1;
    QTest::newRow("SDO, below the base: returned as it is") << "SDO" << 0x001u << 1 - 0x580;
    QTest::newRow("only 16 bits count") << "SDO" << 0x10581u << 1;
    QTest::newRow("emergency, too large") << "EMCY" << 0x100u << -1;
    QTest::newRow("16-bit difference that wraps to negative") << "EMCY" << 0x8080u << -32768;
    QTest::newRow("error control, too large") << "EC" << 0x780u << -1;
}

void TestWorker::nodeOfIdentifier()
{
    QFETCH(QString, kind);
    QFETCH(quint32, identifier);
    CAN::CanMessage message = frame("705 05").mFrame;
    message.mIdentifier = identifier;
    CANopen::CANopenNMTEvent event;
    const int found = kind == QLatin1String("SDO")    ? mWorker->getNodeFromSDO_RES(message)
                      : kind == QLatin1String("EMCY") ? mWorker->getNodeFromEMCY(message)
                                                      : mWorker->getNodeFromNMT_EC(message, CANopen::NMT_EC, event);
    QTEST(found, "node");
}

// ---- rating ------------------------------------------------------------------------------------------------------------

void TestWorker::rating_data()
{
    QTest::addColumn<int>("clean"); // frames
    QTest::addColumn<int>("aborts");
    QTest::addColumn<int>("unhandled");
    QTest::addColumn<int>("errors");
    QTest::addColumn<int>("rating");
    QTest::newRow("no frame") << 0 << 0 << 0 << 0 << 0;
    QTest::newRow("clean") << 100 << 0 << 0 << 0 << 100;
    QTest::newRow("one abort in a hundred") << 99 << 1 << 0 << 0 << 98;
    QTest::newRow("one unhandled frame in a hundred") << 99 << 0 << 1 << 0 << 99;
    QTest::newRow("one error in a hundred") << 99 << 0 << 0 << 1 << 95;
    QTest::newRow("ten of each in a hundred") << 70 << 10 << 10 << 10 << 20;
    QTest::newRow("each term is cut off by itself") << 990 << 4 << 6 << 0 << 100;
    QTest::newRow("the error term is multiplied before it is cut off") << 199 << 0 << 0 << 1 << 98;
    QTest::newRow("the abort term is doubled before it is cut off") << 195 << 5 << 0 << 0 << 95;
    QTest::newRow("never below 0") << 70 << 0 << 0 << 30 << 0;
    QTest::newRow("one point left") << 1 << 0 << 99 << 0 << 1;
    QTest::newRow("nothing left") << 0 << 0 << 100 << 0 << 0;
}

void TestWorker::rating()
{
    QFETCH(int, clean);
    QFETCH(int, aborts);
    QFETCH(int, unhandled);
    QFETCH(int, errors);
    const auto append = [&](const char *line, int count) {
        for (int i = 0; i < count; ++i)
            mStore->append(0, frame(line).mFrame, CanTimeStamp());
    };
    append("185 00", clean);
    append("585 80 00 10 00", aborts);
    append("100", unhandled);
    append("585 60 00 10 00", errors);
    runToTheEnd();
    QTEST(int(mWorker->calculateRating()), "rating");
    QCOMPARE(mWorker->ratingCounts().size(), (aborts > 0) + (unhandled > 0) + (errors > 0)); // reading adds nothing
}

void TestWorker::ratingAfterAClear()
{
    mStore->appendTrace("100\n100\n185 00\n185 00");
    int ends = 0;
    QList<int> ratings;
    mStore->afterFetch = [&](bool found, unsigned int) {
        if (found)
            return;
        ratings << mWorker->calculateRating();
        if (++ends > 2)
            mWorker->stop();
        else
            QTimer::singleShot(0, mWorker.get(), [&, ends] {
                if (ends == 1)
                    mStore->clear();
                else
                    mStore->appendTrace("185 00\n185 00\n185 00\n185 00");
                mWorker->setPause(false);
            });
    };
    resumeAndRun();
    // 2 unhandled of 4; cleared: no frame; then the 2 from before against 4 new ones
    QCOMPARE(ratings, (QList<int>{50, 0, 50}));
    for (int i = 0; i < 1400; ++i) // 35000 in a hundred
        mWorker->handleMessage(frame("100"));
    QCOMPARE(mWorker->calculateRating(), qint16(0));
}

// ---- the loop ----------------------------------------------------------------------------------------------------------

// A story tells what happens when, one line for each moment, each once:
//   at first          before the loop starts                 frame 3      when frame 3 is recorded (its first time)
//   end 2             when the store answers for the second  end 2, then  in the event step after that
//                     time that there is no frame            later        some time after the start
//   event point       between fetch and analysis of the 5000th frame
// An end for which nothing is told stops the loop. The frames that reach the model are given by their numbers, which start
// again when the store is cleared.
void TestWorker::story_data()
{
    QTest::addColumn<QString>("script");
    QTest::addColumn<QString>("recorded");
    QTest::addColumn<int>("counted"); // process data in the class map at the end

    const auto row = [](const char *name, const char *script, const char *recorded, int counted) {
        QTest::newRow(name) << QString::fromLatin1(script) << QString::fromLatin1(recorded) << counted;
    };
    row("stopped before the start", "at first: append 3, resume, stop", "", 0);
    row("starts paused, and serves events meanwhile", "at first: append 3 \n later: stop", "", 0);
    row("stopped while frames flow", "at first: append 3, resume \n frame 2: stop", "1-2", 2);
    row("pauses at the end of a recording", "at first: append 3, resume \n end 1: wait \n later: append 1, stop", "1-3",
        3);
    row("resumed before it pauses", "at first: append 2, resume \n end 1: append 1, resume", "1-3", 3);
    row("reanalysed in the event step before it pauses",
        "at first: append 2, resume \n end 1: append 1 \n end 1, then: reanalyze", "1-2 1-3", 3);
    row("polls on while live, and once more when that ends",
        "at first: live, resume \n end 1: wait \n end 2: wait \n end 3: append 1, not live", "1", 1);
    row("reset at the end starts over", "at first: append 3, resume \n end 1: reset", "1-3 1-3", 3);

    row("a clear neither resumes nor hands on what it has rescued",
        "at first: append 3, clear, append 2 \n later: stop", "", 0);
    row("live reception begins at the end of a recording",
        "at first: append 1, resume \n end 1: live \n end 2: append 1", "1-2", 2);
    row("no end of a recording while the store is cleared, and nothing is fetched",
        "at first: append 2, resume \n end 1, then: begin clear \n later: end clear", "1-2 1-2", 4);
    row("nothing is fetched from a live line while the store is cleared",
        "at first: live, append 2, resume \n end 1, then: begin clear \n later: end clear", "1-2 1-2", 4);
    row("a clear that is announced twice", "at first: append 3, begin clear, begin clear, end clear, resume", "1-3 1-3",
        6);
    row("cleared while paused, three times", "at first: append 3, clear, append 2, clear, clear, append 1, resume",
        "1-3 1-2 1", 6);
    row("cleared while rescued frames are handled",
        "at first: append 3, clear, append 2, resume \n frame 2: clear, append 1", "1-3 1-2 1", 6);
    row("cleared with a frame in hand", "at first: append 5003, resume \n event point: clear, append 2", "1-5003 1-2",
        5005);
    row("appended and cleared before it pauses", "at first: resume \n end 1, then: append 1, clear", "1", 1);
    row("paused and reset while rescued frames are handled: nothing new is analysed",
        "at first: append 2, clear, append 2, resume \n frame 1: pause, reset \n later: stop", "1-2", 1);
    row("stopped while rescued frames are handled", "at first: append 2, clear, append 2, resume \n frame 1: stop",
        "1-2", 2);
    row("reset leaves rescued frames alone, but for the one in hand",
        "at first: append 4, clear, append 1, reset, resume \n frame 2: reset", "1-4 1", 3);

    row("reset with a frame in hand", "at first: append 5001, resume \n event point: reset", "1-4999 1-5001", 5001);
    row("reanalysed with a frame in hand", "at first: append 5001, resume \n event point: reanalyze", "1-4999 1-5001",
        5001);

    row("model gone with a frame in hand", "at first: append 5001, resume \n event point: drop model", "1-4999", -1);
    row("store gone with a frame in hand", "at first: append 5001, resume \n event point: drop store", "1-5000", 5000);
    row("store gone while a frame is recorded", "at first: append 3, resume \n frame 2: drop store", "1-2", 2);
    row("worker gone in the pause", "at first: append 1 \n later: drop worker", "", 0);
    row("worker gone at the end of the line", "at first: append 2, resume \n end 1, then: drop worker", "1-2", 2);
    row("worker gone with a frame in hand", "at first: append 5001, resume \n event point: drop worker", "1-4999",
        4999);
}

/// "1-3 1-2" for 1, 2, 3, 1, 2
static QString ranges(const QList<quint32> &list)
{
    QStringList texts;
    for (int first = 0, i = 0; i < list.size(); ++i) {
        if (i + 1 < list.size() && list.at(i + 1) == list.at(i) + 1)
            continue;
        texts +=
            QString::number(list.at(first)) + (i > first ? QLatin1Char('-') + QString::number(list.at(i)) : QString());
        first = i + 1;
    }
    return texts.join(QLatin1Char(' '));
}

void TestWorker::act(const QString &actions)
{
    for (const QString &action : actions.split(QLatin1Char(','))) {
        const bool appends = action.trimmed().startsWith(QLatin1String("append"));
        act(action.trimmed().section(QLatin1Char(' '), 0, appends ? 0 : -1),
            action.section(QLatin1Char(' '), -1).toInt());
    }
}

void TestWorker::story()
{
    QFETCH(QString, script);
    QHash<QString, QString> told;
    for (const QString &line : script.split(QLatin1Char('\n')))
        told.insert(line.section(QLatin1Char(':'), 0, 0).trimmed(), line.section(QLatin1Char(':'), 1).trimmed());
    const auto now = [&](const QString &moment) {
        const bool isTold = told.contains(moment);
        if (isTold)
            act(told.take(moment));
        return isTold;
    };
    QObject scene; // what has not happened at the end does not happen any more
    int ends = 0;
    mNetwork->inCall = [&](const QString &call) {
        now(call);
        if (call == QLatin1String("frame 4999"))
            QTimer::singleShot(0, &scene, [&] { now(QStringLiteral("event point")); });
    };
    mStore->afterFetch = [&](bool found, unsigned int) {
        if (found)
            return;
        const QString end = QStringLiteral("end %1").arg(++ends);
        const QString then = end + QStringLiteral(", then");
        if (told.contains(then))
            QTimer::singleShot(0, &scene, [&now, then] { now(then); });
        if (!now(end) && !told.contains(then))
            mWorker->stop();
    };
    if (script.contains(QLatin1String("drop model")))
        QTest::ignoreMessage(QtDebugMsg, "void CANopenNetworkAnalyzerWorker::analyze() Line: 171 ¯\\_(ツ)_/¯");
    QTimer::singleShot(50, &scene, [&] { now(QStringLiteral("later")); });
    now(QStringLiteral("at first"));
    mDescriptions.insert(0x185, CANopen::CANopenMessageDescription());
    run();
    QCOMPARE(mDescriptions.isEmpty(), mWorker == nullptr);
    if (mWorker && !mNetwork)
        mWorker->handleMessage(frame("185"));
    told.remove(QStringLiteral("later"));
    QVERIFY2(told.isEmpty(), "not all of the story has happened");
    if (mNetwork) {
        mRecorded += mNetwork->takeFrames();
        QTEST(int(mNetwork->distribution.value(CANopen::PDO)), "counted");
    }
    QTEST(ranges(mRecorded), "recorded");
}

void TestWorker::act(const QString &verb, int count)
{
    const QHash<QString, std::function<void()>> verbs = {
        {"append", [&] { mStore->appendPdos(count); }},
        {"clear", [&] { mStore->clear(); }},
        {"begin clear", [&] { Q_EMIT mStore->informAboutClearStart(); }}, // of a store that then discards nothing
        {"end clear", [&] { Q_EMIT mStore->informAboutCleared(true); }},
        {"resume", [&] { mWorker->setAnalyzing(true); }},
        {"pause", [&] { mWorker->setPause(true); }},
        {"stop", [&] { mWorker->stop(); }},
        {"reset", [&] { mWorker->reset(); }},
        {"reanalyze", [&] { mWorker->reanalyze(); }},
        {"live", [] { CAN::CanRxMessage::mLiveMode = true; }},
        {"not live", [] { CAN::CanRxMessage::mLiveMode = false; }},
        {"drop model", [&] { mRecorded = mNetwork->takeFrames(), mNetwork.reset(); }},
        {"drop store", [&] { mStore.reset(); }},
        {"drop worker", [&] { mWorker.reset(); }},
        {"wait", [] {}},
    };
    verbs.value(verb)();
}

void TestWorker::eventsEvery5000Frames()
{
    mStore->appendPdos(10001);
    QList<quint32> analysedWhenServed;
    quint32 analysed = 0;
    mNetwork->inCall = [&](const QString &call) {
        if (!call.startsWith(QLatin1String("frame")))
            return;
        ++analysed;
        if (analysed == 1 || analysed == 5001)
            QTimer::singleShot(0, mWorker.get(), [&] { analysedWhenServed << analysed; });
    };
    runToTheEnd();
    // The event point of the 5000th frame lies between its fetch and its analysis.
    QCOMPARE(analysedWhenServed, (QList<quint32>{4999, 9999}));
    QCOMPARE(mNetwork->takeFrames().size(), 10001);
}

void TestWorker::guestsWaitForTheFrameInHand_data()
{
    QTest::addColumn<Visit>("visit");
    QTest::newRow("reset()") << Visit([](Worker &w) { w.reset(); });
    QTest::newRow("reanalyze()") << Visit([](Worker &w) { w.reanalyze(); });
    QTest::newRow("calculateRating()") << Visit([](Worker &w) { w.calculateRating(); });
    QTest::newRow("ratingCounts()") << Visit([](Worker &w) { w.ratingCounts(); });
    QTest::newRow("messageTypeDistribution()") << Visit([](Worker &w) { w.messageTypeDistribution(); });
    QTest::newRow("protocolErrors()") << Visit([](Worker &w) { w.protocolErrors(); });
    QTest::newRow("pendingSDOEntryList()") << Visit([](Worker &w) { w.pendingSDOEntryList(); });
    QTest::newRow("blockTransfers()") << Visit([](Worker &w) { w.blockTransfers(); });
}

void TestWorker::guestsWaitForTheFrameInHand()
{
    QFETCH(Visit, visit);
    mStore->appendPdos(2);
    std::promise<void> served;
    std::future<void> service = served.get_future();
    std::thread guest;
    mNetwork->inCall = [&](const QString &call) {
        if (call != QLatin1String("frame 1") || guest.joinable())
            return;
        guest = std::thread([&] {
            visit(*mWorker);
            served.set_value();
        });
        QVERIFY(service.wait_for(std::chrono::milliseconds(20)) == std::future_status::timeout);
    };
    runToTheEnd();
    guest.join();
}

void TestWorker::clearBetweenFetchAndCounting()
{
    mStore->appendPdos(5);
    std::mutex mutex;
    std::condition_variable changed;
    bool rescued = false;
    std::thread store;
    mStore->afterRescue = [&] {
        const std::lock_guard<std::mutex> lock(mutex);
        rescued = true;
        changed.notify_all();
    };
    mStore->afterFetch = [&](bool found, unsigned int position) {
        if (found && position == 2) {
            // Frame 3 is fetched and not yet counted. The store's thread must not get in between.
            store = std::thread([&] { mStore->clear(); });
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait_for(lock, std::chrono::milliseconds(100), [&] { return rescued; });
            QVERIFY(!rescued);
        }
        if (!found && rescued)
            mWorker->stop();
    };
    resumeAndRun();
    store.join();
    QCOMPARE(mNetwork->takeFrames(), numbers(1, 5));
}

// ---- reset and reanalyze -----------------------------------------------------------------------------------------------

void TestWorker::reanalyzeStartsOver()
{
    CountingDevice canopen;
    CountingDevice second;
    ForeignDevice foreign;
    mNetwork->devices = {&foreign, &canopen, nullptr, &second};
    mStore->appendTrace(R"(
        605  23 00 10 01 2A 00 00 00
        100
        585  60 00 10 02)");
    int ends = 0;
    mStore->afterFetch = [&](bool found, unsigned int) {
        if (found)
            return;
        QCOMPARE(mWorker->ratingCounts().value(Worker::RMT_Unhandled), 1u);
        QCOMPARE(mNetwork->distribution.value(CANopen::TIME), 1u);
        QCOMPARE(mWorker->protocolErrors(), QList<unsigned int>{3});
        QCOMPARE(mWorker->pendingSDOEntryList().size(), 1);
        if (++ends == 1)
            // The loop is paused by then: reanalyze() resumes it.
            QTimer::singleShot(100, mWorker.get(), &Worker::reanalyze);
        else
            mWorker->stop();
    };
    resumeAndRun();
    QCOMPARE(ends, 2);
    QCOMPARE(mNetwork->takeFrames(), numbers(1, 3) + numbers(1, 3));
    QCOMPARE(canopen.cleared + second.cleared, 2);
    QVERIFY(!mNetwork->takeCalls().contains(QStringLiteral("reset"))); // what else the model knows stays
}

void TestWorker::resetInACallDropsTheRestOfTheFrame_data()
{
    QTest::addColumn<QByteArray>("trace");
    QTest::addColumn<QString>("call"); // of the model, in which the analysis is reset
    const QByteArray read = "605 40 00 10 01\n585 43 00 10 01 2A";
    QTest::newRow("when the frame is recorded") << QByteArray("185 00") << "frame 1";
    QTest::newRow("when a node is discovered") << read << "node 5";
    QTest::newRow("when a value is reported") << read << "value 5 1000:01 = 42 read 0ms-1ms by 2";
    QTest::newRow("when a second device is reported") << read + "\n585 43 00 10 01 2A"
                                                      << "devices 5 x2 last 3";
    QTest::newRow("when process data are recorded") << QByteArray("185 00") << "pdo 185";
}

void TestWorker::resetInACallDropsTheRestOfTheFrame()
{
    QFETCH(QByteArray, trace);
    QFETCH(QString, call);
    mStore->appendTrace(trace);
    bool hasReset = false;
    bool emptyAfterwards = false;
    mNetwork->inCall = [&](const QString &current) {
        if (current != call || hasReset)
            return;
        hasReset = true;
        mWorker->setPause(true);
        mWorker->reset();
    };
    // Served in the pause that the reset frame runs into
    QTimer::singleShot(50, mWorker.get(), [&] {
        emptyAfterwards = mNetwork->distribution.isEmpty() && mWorker->ratingCounts().isEmpty()
                          && mWorker->pendingSDOEntryList().isEmpty() && mWorker->blockTransfers().isEmpty()
                          && mWorker->calculateRating() == 0;
        mWorker->stop();
    });
    resumeAndRun();
    QVERIFY(hasReset);
    QVERIFY(emptyAfterwards);
    QCOMPARE(mNetwork->takeCalls().constLast(), QStringLiteral("reset")); // nothing more of the frame reached the model
}

void TestWorker::pausedLoopSleepsAndLendsItsLock()
{
    int passes = 0;
    QTimer everyPass;
    connect(&everyPass, &QTimer::timeout, mWorker.get(), [&] { ++passes; });
    everyPass.start(0);
    QTimer::singleShot(300, mWorker.get(), [&] {
        std::thread([&] { mWorker->ratingCounts(); }).join(); // a guest gets in while events are served
        mWorker->stop();
    });
    run();
    QVERIFY(passes < 5);
}

void TestWorker::analysesItsOwnLine()
{
    mNetwork = std::make_unique<RecordingNetwork>(3);
    mWorker = std::make_unique<Worker>(mNetwork.get(), mStore.get(), mDescriptions);
    for (const int line : {0, 3, 0})
        mStore->append(static_cast<unsigned char>(line), frame("185 00").mFrame, CanTimeStamp());
    mStore->clear();
    for (const int line : {0, 0, 3, 3})
        mStore->append(static_cast<unsigned char>(line), frame("185 00").mFrame, CanTimeStamp());
    runToTheEnd();
    QCOMPARE(mNetwork->takeFrames().size(), 3);
}

void TestWorker::modelVanishesWhileRescuedFramesAreHandled()
{
    mStore->appendTrace("605 40 00 10 01\n585 43 00 10 01 2A\n185 00");
    mStore->clear();
    connect(
        mWorker->sdoMessageHandler(), &SDOMessageHandler::newValue, this, [&] { mNetwork.reset(); },
        Qt::DirectConnection);
    resumeAndRun(); // ends by itself
    QVERIFY(!mNetwork);
}

// ---- model, store or worker missing ------------------------------------------------------------------------------------

void TestWorker::missingModelOrStore_data()
{
    QTest::addColumn<bool>("network");
    QTest::addColumn<bool>("store");
    QTest::newRow("no model") << false << true;
    QTest::newRow("no store") << true << false;
    QTest::newRow("neither") << false << false;
}

void TestWorker::missingModelOrStore()
{
    QFETCH(bool, network);
    QFETCH(bool, store);
    mWorker =
        std::make_unique<Worker>(network ? mNetwork.get() : nullptr, store ? mStore.get() : nullptr, mDescriptions);
    mStore->appendPdos(2);
    mStore->clear();
    mWorker->reset();
    mWorker->reanalyze();
    for (const CAN::CanRxMessage &message :
         frames("000 01 05\n080\n081\n185\n705 05\n100\n605 40 00 10\n585 43 00 10 00 01\n585 43 00 10 00 01"))
        mWorker->handleMessage(message);
    QCOMPARE(mWorker->ratingCounts().value(Worker::RMT_Unhandled), 1u);
    QCOMPARE(mWorker->messageTypeDistribution().size(), network ? 8 : 0);
    QCOMPARE(mWorker->calculateRating(), qint16(0));
    resumeAndRun(); // returns at once
}

QTEST_GUILESS_MAIN(TestWorker)
#include "tst_canopennetworkanalyzerworker.moc"
