#include "network/canopennetworkanalyzer.h"

#include "recordingnetwork.h"
#include "scriptedstore.h"
#include "sdo/sdomessagehandler.h"

#include <QElapsedTimer>
#include <QtTest>

#include <algorithm>
#include <array>
#include <atomic>
#include <thread>
#include <vector>

/// The analyzer in its thread: what the host's thread may do to it meanwhile. Many threads at random are in tst_stress.
class TestAnalyzer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { CAN::CanRxMessage::mLiveMode = false; }

    void destroyedAtAnyMoment();
    void analysesOfOneModel();
    void resetHasItsWholeEffectWhenItReturns();
    void guestsAndLoopTakeTurns_data();
    void guestsAndLoopTakeTurns();
    void missingModelOrStore();
    void missingWorker();
};

/// An analysis with all that belongs to it; paused.
template<typename Network>
struct AnalysisOf
{
    ScriptedStore store;
    Network network;
    CANopenNetworkAnalyzer analyzer{&network, &store};
};
using Analysis = AnalysisOf<RecordingNetwork>;

/// Of what an analysis learns: how many kinds it has anything of.
static int kindsKnown(const CANopenNetworkAnalyzer &analyzer)
{
    return !analyzer.ratingCounts().isEmpty() + !analyzer.messageTypeDistribution().isEmpty()
           + !analyzer.protocolErrors().isEmpty() + !analyzer.pendingSDOEntryList().isEmpty()
           + !analyzer.blockTransfers().isEmpty() + (analyzer.calculateRating() > 0);
}

void TestAnalyzer::destroyedAtAnyMoment()
{
    // Before its thread runs, in the loop's start, between frames, paused: the destructor returns within a pause sleep.
    CAN::CanRxMessage::mLiveMode = true;
    ScriptedStore store;
    store.appendPdos(20000);
    for (int i = 0; i < 200; ++i) {
        QElapsedTimer timer;
        {
            RecordingNetwork network;
            CANopenNetworkAnalyzer analyzer(&network, &store);
            analyzer.setAnalyzing(i % 100 > 0);
            for (int spin = 0; spin < i * 50; ++spin)
                std::atomic_signal_fence(std::memory_order_seq_cst);
            timer.start();
        }
        QVERIFY2(timer.elapsed() < 1500, "one pause sleep is 500 ms");
    }
}

void TestAnalyzer::analysesOfOneModel()
{
    ScriptedStore store;
    store.appendPdos(3);
    RecordingNetwork network;
    std::atomic<Qt::HANDLE> modelThread{nullptr};
    network.inCall = [&](const QString &) { modelThread = QThread::currentThreadId(); };
    for (const QString &start : QStringList{"resume", "reset and resume", "reanalyze"}) {
        std::atomic<bool> ended{false};
        QTest::ignoreMessage(QtDebugMsg, "void CANopenNetworkAnalyzer::networkUpdateFinished() Line: 44");
        {
            CANopenNetworkAnalyzer analyzer(&network, &store);
            const auto *const descriptions = &analyzer.getCANopenMessageDescriptions();
            const auto end = [&] { analyzer.stop(), ended = true; };
            connect(&store, &InMemoryDatachunkHandler::endOfLineReached, &analyzer, end, Qt::DirectConnection);
            if (start.startsWith("reset"))
                analyzer.reset();
            analyzer.setAnalyzing(start != "reanalyze");
            if (start == "reanalyze")
                Q_EMIT network.sigReanalyze(); // from the host's thread; resumes the paused analysis
            QTRY_VERIFY(ended);
            QCOMPARE(&analyzer.getCANopenMessageDescriptions(), descriptions);
            QVERIFY(descriptions->isEmpty());
            QThread *const analysisThread = network.thread();
            QVERIFY(analysisThread != thread());
            analysisThread->quit();
            QTRY_VERIFY(analysisThread->isFinished());
            QCoreApplication::processEvents(); // delivers its finished signal
        }
        QVERIFY(modelThread != nullptr && modelThread != QThread::currentThreadId());
        QCOMPARE(network.takeFrames(), numbers(1, 3));
        network.moveToThread(thread());
        QCOMPARE(network.thread(), thread());
    }
}

// ---- reset and copies from other threads -------------------------------------------------------------------------------

void TestAnalyzer::resetHasItsWholeEffectWhenItReturns()
{
    CAN::CanRxMessage::mLiveMode = true;
    Analysis host;
    host.store.appendTrace("605 40 00 10 01\n585 60 00 20 00\n607 A4 00 20 00 7F" + QByteArray("\n185 00").repeated(9),
                           3000);
    int calls = 0;
    host.network.inCall = [&](const QString &call) {
        if (call != "reset")
            return;
        host.analyzer.calculateRating(); // in the host's thread, under the library's lock
        ++calls;
    };
    for (int i = 1; i <= 5; ++i) {
        host.network.takeFrames();
        host.analyzer.setAnalyzing(true);
        QTRY_COMPARE(kindsKnown(host.analyzer), 6);
        host.analyzer.setAnalyzing(false); // the frame in hand may still come to its end, and is dropped by the reset
        host.analyzer.reset();
        QCOMPARE(kindsKnown(host.analyzer), 0);
        QCOMPARE(calls, i);
    }
}

/// A model that only counts, and leaves the processor to who wants to come in.
class CountingNetwork : public RecordingNetwork
{
public:
    void addCANMessage(const CAN::CanRxMessage &) override
    {
        frames.fetch_add(1, std::memory_order_relaxed);
        std::this_thread::yield();
    }
    std::atomic<quint32> frames{0};
};

void TestAnalyzer::guestsAndLoopTakeTurns_data()
{
    QTest::addColumn<bool>("cleared");
    QTest::newRow("frames of the store") << false;
    QTest::newRow("frames rescued from a cleared store") << true;
}

void TestAnalyzer::guestsAndLoopTakeTurns()
{
    // Four threads that do nothing but read: neither the loop nor one of them is left behind by the others. A turn is a reading
    // that waited for some frames, not for the batch up to an event point, where everybody gets in anyway.
    QFETCH(bool, cleared);
    AnalysisOf<CountingNetwork> host;
    constexpr quint32 count = 50000;
    host.store.appendTrace("705", count); // error control of the wrong length: counts twice
    if (cleared)
        host.store.clear();
    std::array<std::atomic<quint32>, 4> turns{};
    std::atomic<quint32> odd{0};
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    readers.reserve(turns.size());
    for (std::atomic<quint32> &own : turns)
        readers.emplace_back([&] {
            while (!done) {
                const quint32 before = host.network.frames;
                odd += host.analyzer.ratingCounts().value(CANopenNetworkAnalyzerWorker::RMT_ProtocolError) % 2;
                const quint32 passed = host.network.frames - before;
                own += passed > 0 && passed < 100 ? 1 : 0;
            }
        });
    host.analyzer.setAnalyzing(true);
    const auto isServed = [](const std::atomic<quint32> &own) { return own > 30; };
    const auto areServed = [&] { return std::all_of(turns.cbegin(), turns.cend(), isServed); };
    while (host.network.frames < count && !(host.network.frames > 1000 && areServed()))
        std::this_thread::yield();
    const bool wereServed = areServed();
    done = true;
    for (std::thread &reader : readers)
        reader.join();
    QVERIFY(wereServed);
    QCOMPARE(odd.load(), 0u);
}

// ---- something is missing ----------------------------------------------------------------------------------------------

void TestAnalyzer::missingModelOrStore()
{
    for (const bool withModel : {true, false}) {
        RecordingNetwork network;
        ScriptedStore store;
        CANopenNetworkAnalyzer analyzer(withModel ? &network : nullptr, withModel ? nullptr : &store);
        analyzer.setAnalyzing(true);
        analyzer.reset();
        store.clear();
        QCOMPARE(kindsKnown(analyzer), 0);
        analyzer.stop();
    }
}

void TestAnalyzer::missingWorker()
{
    // Deleted by somebody else, after the loop has ended: without a store that is at once.
    RecordingNetwork network;
    CANopenNetworkAnalyzer analyzer(&network, nullptr);
    QObject *const worker = analyzer.sdoMessageHandler()->parent();
    worker->deleteLater(); // served by the analysis thread's event loop
    QTRY_VERIFY(!analyzer.sdoMessageHandler());
    analyzer.setAnalyzing(true);
    analyzer.reset();
    analyzer.stop();
    QCOMPARE(kindsKnown(analyzer), 0);
}

QTEST_GUILESS_MAIN(TestAnalyzer)
#include "tst_canopennetworkanalyzer.moc"
