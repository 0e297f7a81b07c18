#include "network/canopennetworkanalyzerworker.h"

#include "recordingnetwork.h"
#include "scriptedstore.h"

#include <QTimer>
#include <QtTest>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

using Worker = CANopenNetworkAnalyzerWorker;

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

    void stopBeforeTheStartEndsTheLoop();
    void startsPausedAndServesEvents();
    void recordingIsAnalysedToItsEnd();
    void endOfLiveReceptionLeavesNoFrameBehind();
    void eventsEvery5000Frames();
    void resumeAtTheEndOfTheRecordingIsNotLost_data();
    void resumeAtTheEndOfTheRecordingIsNotLost();
    void stopEndsTheLoopAfterTheFrameInHand();

    void clearBetweenFetchAndCounting();
    void clearsWhilePaused();
    void clearWhileRescuedFramesAreHandled();
    void clearAtTheEventPoint();
    void clearLeavesNoFrameToTheSelfPause();
    void nothingIsFetchedWhileTheStoreIsCleared();

    void reanalyzeStartsOver();
    void restartAtTheEventPointDropsTheFrameInHand_data();
    void restartAtTheEventPointDropsTheFrameInHand();
    void resetInACallDropsTheRestOfTheFrame_data();
    void resetInACallDropsTheRestOfTheFrame();
    void rescuedFramesSurviveAReset();
    void resetAtTheEndOfTheLineStartsOver();
    void pauseAndStopWhileRescuedFramesAreHandled_data();
    void pauseAndStopWhileRescuedFramesAreHandled();

    void missingModelOrStore_data();
    void missingModelOrStore();
    void modelOrStoreVanishes_data();
    void modelOrStoreVanishes();
    void workerDeletedAtAnEventPoint();

private:
    /// Runs the loop until something stops it; a loop that hangs is ended after two seconds and fails the test.
    void run();
    void resumeAndRun();
    /// Resumes, and stops when the store has no further frame.
    void runToTheEnd();
    /// Has \a action run once at the event point of the 5000th frame, between its fetch and its analysis.
    void atTheEventPoint(std::function<void()> action);

    QHash<unsigned int, CANopen::CANopenMessageDescription> mDescriptions;
    std::unique_ptr<RecordingNetwork> mNetwork;
    std::unique_ptr<ScriptedStore> mStore;
    std::unique_ptr<Worker> mWorker;
};

void TestWorker::init()
{
    CAN::CanRxMessage::mLiveMode = false;
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

void TestWorker::atTheEventPoint(std::function<void()> action)
{
    mNetwork->inCall = [this, action, posted = false](const QString &call) mutable {
        if (call == QLatin1String("frame 4999") && !posted) {
            posted = true;
            QTimer::singleShot(0, this, action);
        }
    };
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
    QTest::newRow("each term is cut off by itself") << 994 << 3 << 3 << 0 << 100;
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
}

// ---- the loop ----------------------------------------------------------------------------------------------------------

void TestWorker::stopBeforeTheStartEndsTheLoop()
{
    mStore->appendPdos(3);
    mWorker->setAnalyzing(true);
    mWorker->stop();
    run();
    QCOMPARE(mNetwork->takeFrames(), QList<quint32>());
}

void TestWorker::startsPausedAndServesEvents()
{
    mStore->appendPdos(3);
    QTimer::singleShot(0, mWorker.get(), [&] { mWorker->stop(); });
    run();
    QCOMPARE(mNetwork->takeFrames(), QList<quint32>());
}

void TestWorker::recordingIsAnalysedToItsEnd()
{
    mStore->appendPdos(3);
    int ends = 0;
    mStore->afterFetch = [&](bool found, unsigned int position) {
        if (found)
            return;
        QCOMPARE(position, 3u);
        ++ends;
        // Served after the pause that follows: frames appended without a resume stay unread.
        QTimer::singleShot(100, mWorker.get(), [&] {
            mStore->appendPdos(1);
            QTimer::singleShot(0, mWorker.get(), [&] { mWorker->stop(); });
        });
    };
    resumeAndRun();
    QCOMPARE(ends, 1);
    QCOMPARE(mNetwork->takeFrames(), numbers(1, 3));
    QCOMPARE(mNetwork->takeCalls().size(), 3);
}

void TestWorker::endOfLiveReceptionLeavesNoFrameBehind()
{
    CAN::CanRxMessage::mLiveMode = true;
    int polls = 0;
    mStore->afterFetch = [&](bool found, unsigned int) {
        if (!found && ++polls == 3) {
            // The loop has found nothing and not yet looked whether it may pause.
            mStore->appendPdos(1);
            CAN::CanRxMessage::mLiveMode = false;
        }
        if (polls == 4)
            mWorker->stop();
    };
    resumeAndRun();
    QCOMPARE(mNetwork->takeFrames(), numbers(1, 1));
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

void TestWorker::resumeAtTheEndOfTheRecordingIsNotLost_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("setAnalyzing(true)") << "setAnalyzing";
    QTest::newRow("setPause(false)") << "setPause";
    QTest::newRow("reanalyze() delivered in the idle step") << "reanalyze";
}

void TestWorker::resumeAtTheEndOfTheRecordingIsNotLost()
{
    QFETCH(QString, command);
    mStore->appendPdos(2);
    int ends = 0;
    mStore->afterFetch = [&](bool found, unsigned int) {
        if (found)
            return;
        if (++ends == 2)
            mWorker->stop();
        if (ends != 1)
            return;
        // The loop has seen the end and not yet paused itself.
        mStore->appendPdos(1);
        if (command == QLatin1String("setAnalyzing"))
            mWorker->setAnalyzing(true);
        else if (command == QLatin1String("setPause"))
            mWorker->setPause(false);
        else
            QMetaObject::invokeMethod(mWorker.get(), "reanalyze", Qt::QueuedConnection);
    };
    resumeAndRun();
    const bool again = command == QLatin1String("reanalyze");
    QCOMPARE(mNetwork->takeFrames(), again ? numbers(1, 2) + numbers(1, 3) : numbers(1, 3));
}

void TestWorker::stopEndsTheLoopAfterTheFrameInHand()
{
    mStore->appendPdos(3);
    mNetwork->inCall = [&](const QString &call) {
        if (call == QLatin1String("frame 2"))
            mWorker->stop();
    };
    resumeAndRun();
    QCOMPARE(mNetwork->takeFrames(), numbers(1, 2));
    QCOMPARE(mNetwork->takeCalls().size(), 2); // the second one was dispatched
    mWorker->setAnalyzing(true);
    run();
    QCOMPARE(mNetwork->takeFrames(), QList<quint32>()); // ended for good
}

// ---- the store is cleared ----------------------------------------------------------------------------------------------

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

void TestWorker::clearsWhilePaused()
{
    mStore->appendTrace("185 01\n185 02\n185 03");
    mStore->clear();
    mStore->appendTrace("285 01\n285 02");
    mStore->clear(); // the first three are still not analysed
    mStore->clear(); // nothing new
    mStore->appendTrace("385 01");
    runToTheEnd();
    QCOMPARE(mNetwork->takeCalls().join(QLatin1Char(' ')),
             QStringLiteral("pdo 185 pdo 185 pdo 185 pdo 285 pdo 285 pdo 385"));
    QCOMPARE(mNetwork->takeFrames(), numbers(1, 3) + numbers(1, 2) + numbers(1, 1));
}

void TestWorker::clearWhileRescuedFramesAreHandled()
{
    mStore->appendTrace("185 01\n185 02\n185 03");
    mStore->clear();
    mStore->appendTrace("285 01\n285 02");
    bool cleared = false;
    mNetwork->inCall = [&](const QString &call) {
        if (call != QLatin1String("frame 2") || cleared)
            return;
        cleared = true;
        mStore->clear();
        mStore->appendTrace("385 01");
    };
    runToTheEnd();
    QCOMPARE(mNetwork->takeCalls().join(QLatin1Char(' ')),
             QStringLiteral("pdo 185 pdo 185 pdo 185 pdo 285 pdo 285 pdo 385"));
}

void TestWorker::clearAtTheEventPoint()
{
    mStore->appendPdos(5003);
    atTheEventPoint([&] {
        mStore->clear();
        mStore->appendPdos(2);
    });
    runToTheEnd();
    QCOMPARE(mNetwork->takeFrames(), numbers(1, 5003) + numbers(1, 2));
}

void TestWorker::clearLeavesNoFrameToTheSelfPause()
{
    // Appended and cleared while the loop is about to pause itself: the frame has to be analysed without a resume.
    int ends = 0;
    mStore->afterFetch = [&](bool found, unsigned int) {
        if (!found && ++ends == 1)
            QTimer::singleShot(0, mWorker.get(), [&] {
                mStore->appendPdos(1);
                mStore->clear();
            });
        if (ends == 2)
            mWorker->stop();
    };
    resumeAndRun();
    QCOMPARE(mNetwork->takeFrames(), numbers(1, 1));
}

void TestWorker::nothingIsFetchedWhileTheStoreIsCleared()
{
    CAN::CanRxMessage::mLiveMode = true;
    mStore->appendPdos(2);
    bool clearing = false;
    int fetchesWhileClearing = 0;
    bool done = false;
    connect(mStore.get(), &DatachunkHandler::informAboutClearStart, mWorker.get(), [&] { clearing = true; });
    connect(mStore.get(), &DatachunkHandler::informAboutCleared, mWorker.get(), [&] { clearing = false; });
    mStore->afterFetch = [&](bool found, unsigned int) {
        fetchesWhileClearing += clearing;
        if (done && !found)
            mWorker->stop();
        if (!found && !done)
            QTimer::singleShot(0, mWorker.get(), [&] {
                done = true;
                Q_EMIT mStore->informAboutClearStart();
                // The loop goes on polling meanwhile; the end of the clear comes some passes later.
                QTimer::singleShot(20, mWorker.get(), [&] { Q_EMIT mStore->informAboutCleared(true); });
            });
    };
    resumeAndRun();
    QCOMPARE(fetchesWhileClearing, 0);
    // This store discarded nothing, so position 0 holds the old frames.
    QCOMPARE(mNetwork->takeFrames(), numbers(1, 2) + numbers(1, 2));
}

// ---- reset and reanalyze -----------------------------------------------------------------------------------------------

void TestWorker::reanalyzeStartsOver()
{
    CountingDevice canopen;
    ForeignDevice foreign;
    mNetwork->devices = {&foreign, &canopen, nullptr};
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
    QCOMPARE(canopen.cleared, 1);
    QVERIFY(!mNetwork->takeCalls().contains(QStringLiteral("reset"))); // what else the model knows stays
}

void TestWorker::restartAtTheEventPointDropsTheFrameInHand_data()
{
    QTest::addColumn<bool>("reanalyze");
    QTest::newRow("reanalyze()") << true;
    QTest::newRow("reset()") << false;
}

void TestWorker::restartAtTheEventPointDropsTheFrameInHand()
{
    QFETCH(bool, reanalyze);
    mStore->appendPdos(5001);
    atTheEventPoint([&] { reanalyze ? mWorker->reanalyze() : mWorker->reset(); });
    runToTheEnd();
    QCOMPARE(mNetwork->takeFrames(), numbers(1, 4999) + numbers(1, 5001));
    QCOMPARE(mNetwork->distribution.value(CANopen::PDO), 5001u);
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

void TestWorker::rescuedFramesSurviveAReset()
{
    mStore->appendPdos(4);
    mStore->clear();
    mStore->appendPdos(1);
    mWorker->reset();
    mNetwork->inCall = [&](const QString &call) {
        if (call == QLatin1String("frame 2"))
            mWorker->reset(); // drops the rest of the rescued frame in hand, and no other
    };
    runToTheEnd();
    QCOMPARE(mNetwork->takeFrames(), numbers(1, 4) + numbers(1, 1));
    QCOMPARE(mNetwork->distribution.value(CANopen::PDO), 3u); // frames 3 and 4, and the new one
}

void TestWorker::resetAtTheEndOfTheLineStartsOver()
{
    mStore->appendPdos(3);
    int ends = 0;
    mStore->afterFetch = [&](bool found, unsigned int) {
        if (found)
            return;
        if (++ends == 1)
            mWorker->reset(); // not paused, so it goes on with the first frame
        else
            mWorker->stop();
    };
    resumeAndRun();
    QCOMPARE(mNetwork->takeFrames(), numbers(1, 3) + numbers(1, 3));
}

void TestWorker::pauseAndStopWhileRescuedFramesAreHandled_data()
{
    QTest::addColumn<bool>("stop");
    QTest::newRow("pause and reset: nothing new is analysed") << false;
    QTest::newRow("stop") << true;
}

void TestWorker::pauseAndStopWhileRescuedFramesAreHandled()
{
    QFETCH(bool, stop);
    mStore->appendTrace("185 01\n185 02");
    mStore->clear();
    mStore->appendTrace("285 01\n285 02");
    mNetwork->inCall = [&](const QString &call) {
        if (call != QLatin1String("pdo 185"))
            return;
        if (stop)
            mWorker->stop();
        mWorker->setPause(true);
        mWorker->reset();
    };
    QTimer::singleShot(50, mWorker.get(), [&] { mWorker->stop(); }); // served in the pause
    resumeAndRun();
    QVERIFY(!mNetwork->takeCalls().contains(QStringLiteral("pdo 285")));
    QCOMPARE(mNetwork->takeFrames(), numbers(1, 2));
    QCOMPARE(mWorker->calculateRating(), qint16(0));
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
         frames("000 01 05\n080\n081\n185\n585 43 00 10 00\n705 05\n100\n605 40 00 10"))
        mWorker->handleMessage(message);
    QCOMPARE(mWorker->ratingCounts().value(Worker::RMT_Unhandled), 1u);
    QCOMPARE(mWorker->messageTypeDistribution().size(), network ? 8 : 0);
    QCOMPARE(mWorker->calculateRating(), qint16(0));
    resumeAndRun(); // returns at once
}

void TestWorker::modelOrStoreVanishes_data()
{
    QTest::addColumn<QString>("what");
    QTest::addColumn<int>("recorded");
    QTest::newRow("model, at the event point: the frame in hand must not reach it") << "model" << 4999;
    QTest::newRow("store, at the event point") << "store" << 5000;
    QTest::newRow("store, while a frame is recorded") << "store in a call" << 4999;
}

void TestWorker::modelOrStoreVanishes()
{
    QFETCH(QString, what);
    mStore->appendPdos(5001);
    QList<quint32> recorded;
    if (what == QLatin1String("model")) {
        QTest::ignoreMessage(QtDebugMsg, "void CANopenNetworkAnalyzerWorker::analyze() Line: 171 ¯\\_(ツ)_/¯");
        atTheEventPoint([&] {
            recorded = mNetwork->takeFrames();
            mNetwork.reset();
        });
    } else if (what == QLatin1String("store")) {
        atTheEventPoint([&] { mStore.reset(); });
    } else {
        mNetwork->inCall = [&](const QString &call) {
            if (call == QLatin1String("frame 4999"))
                mStore.reset();
        };
    }
    resumeAndRun(); // ends by itself
    if (mNetwork)
        recorded = mNetwork->takeFrames();
    QTEST(recorded.size(), "recorded");
    mWorker->reset();
    mWorker->reanalyze();
    QCOMPARE(mWorker->calculateRating(), qint16(0));
}

void TestWorker::workerDeletedAtAnEventPoint()
{
    mStore->appendPdos(5001);
    atTheEventPoint([&] { mWorker.reset(); });
    mWorker->setAnalyzing(true);
    mWorker->analyze(); // must return and touch nothing of the worker
    QVERIFY(!mWorker);
    QCOMPARE(mNetwork->takeFrames().size(), 4999);
}

QTEST_GUILESS_MAIN(TestWorker)
#include "tst_canopennetworkanalyzerworker.moc"
