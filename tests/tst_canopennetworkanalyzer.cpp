#include "network/canopennetworkanalyzer.h"

#include "inmemory/inmemorycanopennetwork.h"
#include "recordingnetwork.h"
#include "scriptedstore.h"
#include "sdo/sdomessagehandler.h"

#include <QElapsedTimer>
#include <QtTest>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

/// The analyzer in its thread: what the host's thread and the store's thread may do to it meanwhile.
class TestAnalyzer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { CAN::CanRxMessage::mLiveMode = false; }

    void destroyedAtAnyMoment();
    void destroyedWhilePausedOrAfterStop_data();
    void destroyedWhilePausedOrAfterStop();
    void analysisRunsInItsOwnThread();
    void modelServesASecondAnalyzer();
    void reanalyzeOnTheModelsSignal();

    void resetHasItsWholeEffectWhenItReturns();
    void modelMayCallBackInReset();
    void guestWaitsForAFrameNotForABatch();
    void guestsAndLoopTakeTurns();
    void countersAreReadFromOneState();
    void copiesWhileFramesFlow();
    void deferredCountCheckBesideAReset();
    void clearsWhileFramesFlow();

    void missingModelAndStore();
};

using Network = std::unique_ptr<RecordingNetwork>;

/// Sets \a stopped when the store announces the end of line 0.
static void stopAtTheEnd(InMemoryDatachunkHandler &store, CANopenNetworkAnalyzer &analyzer, std::atomic<bool> &ended)
{
    QObject::connect(
        &store, &InMemoryDatachunkHandler::endOfLineReached, &analyzer,
        [&] {
            analyzer.stop();
            ended = true;
        },
        Qt::DirectConnection);
}

void TestAnalyzer::destroyedAtAnyMoment()
{
    // Before its thread runs, in the loop's start, between frames: the destructor returns, though the analysis never paused.
    CAN::CanRxMessage::mLiveMode = true;
    ScriptedStore store;
    store.appendPdos(20000);
    for (int i = 0; i < 200; ++i) {
        RecordingNetwork network;
        CANopenNetworkAnalyzer analyzer(&network, &store);
        analyzer.setAnalyzing(true);
        for (int spin = 0; spin < i * 50; ++spin)
            std::atomic_signal_fence(std::memory_order_seq_cst);
    }
}

void TestAnalyzer::destroyedWhilePausedOrAfterStop_data()
{
    QTest::addColumn<bool>("stopFirst");
    QTest::newRow("while paused: within one pause sleep") << false;
    QTest::newRow("after stop()") << true;
}

void TestAnalyzer::destroyedWhilePausedOrAfterStop()
{
    QFETCH(bool, stopFirst);
    ScriptedStore store;
    RecordingNetwork network;
    auto analyzer = std::make_unique<CANopenNetworkAnalyzer>(&network, &store);
    if (stopFirst)
        analyzer->stop();
    QElapsedTimer timer;
    timer.start();
    analyzer.reset();
    QVERIFY2(timer.elapsed() < 1500, "one pause sleep is 500 ms");
}

void TestAnalyzer::analysisRunsInItsOwnThread()
{
    ScriptedStore store;
    store.appendPdos(1);
    RecordingNetwork network;
    std::atomic<bool> ended{false};
    std::atomic<Qt::HANDLE> modelThread{nullptr};
    network.inCall = [&](const QString &) { modelThread = QThread::currentThreadId(); };

    QTest::ignoreMessage(QtDebugMsg, "void CANopenNetworkAnalyzer::networkUpdateFinished() Line: 44");
    {
        CANopenNetworkAnalyzer analyzer(&network, &store);
        stopAtTheEnd(store, analyzer, ended);
        const auto *const descriptions = &analyzer.getCANopenMessageDescriptions();
        QVERIFY(network.thread() != thread());
        analyzer.setAnalyzing(true);
        QTRY_VERIFY(ended);
        QCOMPARE(&analyzer.getCANopenMessageDescriptions(), descriptions);
        QVERIFY(descriptions->isEmpty());
        QThread *const analysisThread = network.thread();
        analysisThread->quit();
        QTRY_VERIFY(analysisThread->isFinished());
        QCoreApplication::processEvents(); // delivers its finished signal
    }
    QVERIFY(modelThread != nullptr && modelThread != QThread::currentThreadId());
}

void TestAnalyzer::modelServesASecondAnalyzer()
{
    ScriptedStore store;
    store.appendPdos(3);
    RecordingNetwork network;
    for (int round = 0; round < 2; ++round) {
        std::atomic<bool> ended{false};
        {
            CANopenNetworkAnalyzer analyzer(&network, &store);
            stopAtTheEnd(store, analyzer, ended);
            analyzer.reset();
            analyzer.setAnalyzing(true);
            QTRY_VERIFY(ended);
        }
        QCOMPARE(network.takeFrames(), numbers(1, 3));
        network.moveToThread(thread());
        QCOMPARE(network.thread(), thread());
    }
}

void TestAnalyzer::reanalyzeOnTheModelsSignal()
{
    ScriptedStore store;
    store.appendPdos(3);
    RecordingNetwork network;
    CANopenNetworkAnalyzer analyzer(&network, &store);
    Q_EMIT network.sigReanalyze(); // from the host's thread; resumes the paused analysis
    QList<quint32> analysed;
    QTRY_COMPARE((analysed += network.takeFrames()), numbers(1, 3));
}

// ---- reset and copies from other threads -------------------------------------------------------------------------------

void TestAnalyzer::resetHasItsWholeEffectWhenItReturns()
{
    CAN::CanRxMessage::mLiveMode = true;
    ScriptedStore store;
    for (int i = 0; i < 3000; ++i)
        store.appendTrace("605 40 00 10 01\n585 60 00 20 00\n100\n585 80 00 30 00");
    RecordingNetwork network;
    CANopenNetworkAnalyzer analyzer(&network, &store);
    for (int i = 0; i < 5; ++i) {
        network.takeFrames();
        analyzer.setAnalyzing(true);
        QTRY_VERIFY(!analyzer.messageTypeDistribution().isEmpty());
        analyzer.setAnalyzing(false); // the frame in hand may still come to its end, and is dropped by the reset
        analyzer.reset();
        QVERIFY(analyzer.ratingCounts().isEmpty());
        QVERIFY(analyzer.messageTypeDistribution().isEmpty());
        QVERIFY(analyzer.protocolErrors().isEmpty());
        QVERIFY(analyzer.pendingSDOEntryList().isEmpty());
        QVERIFY(analyzer.blockTransfers().isEmpty());
        QCOMPARE(analyzer.calculateRating(), qint16(0));
    }
}

void TestAnalyzer::modelMayCallBackInReset()
{
    // In the host's thread, under the library's lock, while the analysis thread waits to go on.
    CAN::CanRxMessage::mLiveMode = true;
    ScriptedStore store;
    store.appendPdos(100);
    RecordingNetwork network;
    std::atomic<CANopenNetworkAnalyzer *> back{nullptr};
    std::atomic<int> calls{0};
    network.inCall = [&](const QString &call) {
        if (call == QLatin1String("reset") && back.load()) {
            back.load()->calculateRating();
            back.load()->ratingCounts();
            ++calls;
        }
    };
    CANopenNetworkAnalyzer analyzer(&network, &store);
    back = &analyzer;
    analyzer.setAnalyzing(true);
    for (int i = 0; i < 50; ++i)
        analyzer.reset();
    QCOMPARE(calls.load(), 50);
}

/// A model that only counts, so that frames flow at full speed.
class CountingNetwork : public RecordingNetwork
{
public:
    void addCANMessage(const CAN::CanRxMessage &) override { frames.fetch_add(1, std::memory_order_relaxed); }
    void addPDOCanMessage(const CAN::CanRxMessage &) override {}
    std::atomic<quint32> frames{0};
};

void TestAnalyzer::guestWaitsForAFrameNotForABatch()
{
    ScriptedStore store;
    store.appendPdos(4000000);
    CountingNetwork network;
    CANopenNetworkAnalyzer analyzer(&network, &store);
    analyzer.setAnalyzing(true);
    QTRY_VERIFY(network.frames > 0);

    std::vector<quint32> waited; // in frames
    while (waited.size() < 51 && network.frames < 3900000) {
        const quint32 before = network.frames;
        analyzer.ratingCounts();
        waited.push_back(network.frames - before);
    }
    QVERIFY(waited.size() == 51);
    // The median, since the scheduler may take this thread away between two statements.
    std::nth_element(waited.begin(), waited.begin() + 25, waited.end());
    QVERIFY2(waited[25] < 1000, qPrintable(QString::number(waited[25]) + QStringLiteral(" frames passed")));
}

void TestAnalyzer::guestsAndLoopTakeTurns()
{
    // Four threads that do nothing but read: neither the loop nor one of them is left behind by the others.
    ScriptedStore store;
    store.appendPdos(3000);
    CountingNetwork network;
    CANopenNetworkAnalyzer analyzer(&network, &store);
    std::array<std::atomic<quint32>, 4> readings{};
    std::vector<std::thread> readers;
    for (std::atomic<quint32> &own : readings)
        readers.emplace_back([&] {
            while (network.frames < 3000) {
                analyzer.ratingCounts();
                ++own;
            }
        });
    for (std::atomic<quint32> &own : readings) {
        while (own == 0)
            std::this_thread::yield();
        own = 0;
    }
    analyzer.setAnalyzing(true);
    for (std::thread &reader : readers)
        reader.join();
    for (const std::atomic<quint32> &own : readings)
        QVERIFY2(own > 10, qPrintable(QString::number(own)));
}

void TestAnalyzer::countersAreReadFromOneState()
{
    // An error control frame of the wrong length counts twice, so between two frames the counter is always even.
    ScriptedStore store;
    for (int i = 0; i < 20000; ++i)
        store.append(0, frame("705").mFrame, CanTimeStamp());
    CountingNetwork network;
    CANopenNetworkAnalyzer analyzer(&network, &store);
    analyzer.setAnalyzing(true);
    int readings = 0;
    while (network.frames < 20000) {
        QCOMPARE(analyzer.ratingCounts().value(CANopenNetworkAnalyzerWorker::RMT_ProtocolError) % 2, 0u);
        ++readings;
    }
    QVERIFY(readings > 10);
}

void TestAnalyzer::copiesWhileFramesFlow()
{
    CAN::CanRxMessage::mLiveMode = true;
    ScriptedStore store;
    InMemoryCANopenNetwork network(0);
    CANopenNetworkAnalyzer analyzer(&network, &store);
    analyzer.setAnalyzing(true);
    std::atomic<bool> done{false};
    std::thread appender([&] {
        for (int i = 0; i < 500; ++i)
            store.appendTrace(R"(
                605  40 00 10 01 00 00 00 00
                605  40 00 10 02 00 00 00 00
                585  43 00 10 02 2A 00 00 00
                606  21 00 20 00 0A 00 00 00
                607  A4 00 20 00 7F 00 00 00
                585  60 00 30 00 00 00 00 00)");
        done = true;
    });
    std::thread reader([&] {
        while (!done) {
            analyzer.ratingCounts();
            analyzer.protocolErrors();
            analyzer.pendingSDOEntryList();
            analyzer.blockTransfers();
        }
    });
    int listed = 0;
    while (!done) {
        const int now = analyzer.protocolErrors().size();
        QVERIFY(now >= listed);
        listed = now;
        analyzer.calculateRating();
        network.nodes();
    }
    appender.join();
    reader.join();
    QTRY_COMPARE(analyzer.messageTypeDistribution().value(CANopen::SDO_REQ), 2000u);
    QTRY_COMPARE(analyzer.messageTypeDistribution().value(CANopen::SDO_RES), 1000u);
    QCOMPARE(analyzer.protocolErrors().size(), 999); // each unmatched answer, and each further initiate but the first
    QCOMPARE(analyzer.pendingSDOEntryList().size(), 1);
}

void TestAnalyzer::deferredCountCheckBesideAReset()
{
    CAN::CanRxMessage::mLiveMode = true;
    ScriptedStore store;
    RecordingNetwork network;
    CANopenNetworkAnalyzer analyzer(&network, &store);
    analyzer.setAnalyzing(true);
    // Each read sets the node's count to 1 and asks for a check 20 ms later; resets come all the while.
    int reports = 0;
    for (int round = 0; round < 60; ++round) {
        store.appendTrace("605 40 00 10 01\n585 43 00 10 01 2A");
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < 5 + round % 20)
            analyzer.reset();
        reports += network.takeCalls().filter(QStringLiteral("devices")).size();
    }
    store.appendTrace("605 40 00 10 01\n585 43 00 10 01 2A");
    QTRY_VERIFY((reports += network.takeCalls().filter(QStringLiteral("devices 5 x1 last 0")).size()) > 0);
}

void TestAnalyzer::clearsWhileFramesFlow()
{
    CAN::CanRxMessage::mLiveMode = true;
    ScriptedStore store;
    RecordingNetwork network;
    CANopenNetworkAnalyzer analyzer(&network, &store);
    analyzer.setAnalyzing(true);
    QList<quint32> expected;
    QList<quint32> analysed;
    for (int round = 0; round < 100; ++round) {
        const int count = (round * 37) % 300;
        store.appendPdos(count);
        expected += numbers(1, static_cast<quint32>(count));
        if (round % 3 == 0)
            std::this_thread::yield();
        store.clear(true);
    }
    QTRY_COMPARE((analysed += network.takeFrames()).size(), expected.size());
    QCOMPARE(analysed, expected);
}

void TestAnalyzer::missingModelAndStore()
{
    for (const bool withModel : {true, false}) {
        RecordingNetwork network;
        ScriptedStore store;
        CANopenNetworkAnalyzer analyzer(withModel ? &network : nullptr, withModel ? nullptr : &store);
        analyzer.setAnalyzing(true);
        analyzer.reset();
        QCOMPARE(analyzer.calculateRating(), qint16(0));
        QVERIFY(analyzer.messageTypeDistribution().isEmpty());
        QVERIFY(analyzer.protocolErrors().isEmpty());
        store.clear();
        analyzer.stop();
    }

    // The worker deleted by somebody else, after the loop has ended: without a store that is at once.
    RecordingNetwork network;
    CANopenNetworkAnalyzer analyzer(&network, nullptr);
    QObject *const worker = analyzer.sdoMessageHandler()->parent();
    worker->deleteLater(); // served by the analysis thread's event loop
    QTRY_VERIFY(!analyzer.sdoMessageHandler());
    analyzer.setAnalyzing(true);
    analyzer.reset();
    analyzer.stop();
    QCOMPARE(analyzer.calculateRating(), qint16(0));
    QVERIFY(analyzer.ratingCounts().isEmpty());
    QVERIFY(analyzer.messageTypeDistribution().isEmpty());
    QVERIFY(analyzer.protocolErrors().isEmpty());
    QVERIFY(analyzer.pendingSDOEntryList().isEmpty());
    QVERIFY(analyzer.blockTransfers().isEmpty());
}

QTEST_GUILESS_MAIN(TestAnalyzer)
#include "tst_canopennetworkanalyzer.moc"
