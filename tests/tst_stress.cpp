#include "bookingstore.h"
#include "recordingnetwork.h"
#include "scriptedstore.h"
#include "sdo/sdomessagehandler.h"
#include "watchdog.h"

#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QtTest>

#include <mutex>
#include <random>
#include <shared_mutex>
#include <thread>

using Analyzer = CANopenNetworkAnalyzer;
using Random = std::mt19937;

namespace {

constexpr int lineCount = 4;        // lines under all commands, with books
constexpr int shortLivedLine = 4;   // of analyzers that come and go
constexpr int enoughFrames = 30000; // in the store: appenders wait for a clear then

quint32 upTo(Random &random, quint32 largest)
{
    return std::uniform_int_distribution<quint32>(0, largest)(random);
}

/// Busy, since a thread that yields among so many comes back after milliseconds.
void idle(Random &random)
{
    for (quint32 turns = 1u << upTo(random, 17); turns > 0; --turns)
        std::atomic_signal_fence(std::memory_order_seq_cst);
}

/// Threads that do as they like with one store and its analyzers, for a moment.
class Turmoil
{
public:
    explicit Turmoil(quint32 seed) : mSeed(seed)
    {
        CAN::CanRxMessage::mLiveMode = seed % 4 != 1;
        const auto clearAtTimes = [this](int line) {
            const std::shared_lock<std::shared_mutex> lock(mComingAndGoing, std::try_to_lock);
            if (line < lineCount && ++mEnds % 64 == 0 && lock && !mComesOrGoes && !mOver)
                mStore.clear(true);
        };
        QObject::connect(&mStore, &InMemoryDatachunkHandler::endOfLineReached, &mStore, clearAtTimes,
                         Qt::DirectConnection);
        for (Line &line : mStore.lines) {
            // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): it believes the old pointer, null, to be called
            line.analyzer = std::make_unique<Analyzer>(&line, &mStore);
            const auto resetAtTimes = [this, &line] {
                if (++mValues % 512 == 0 && !mOver)
                    line.analyzer->reset();
            };
            QObject::connect(line.analyzer->sdoMessageHandler(), &SDOMessageHandler::newValue, &line, resetAtTimes,
                             Qt::DirectConnection);
            line.analyzer->setAnalyzing(true);
        }
    }

    void run()
    {
        std::vector<std::thread> threads;
        const auto begin = [&](const char *name, void (Turmoil::*act)(Random &)) {
            threads.emplace_back([this, name, act, number = threads.size() + 1] {
                Watchdog::doing[number] = name;
                for (Random random(mSeed + quint32(number)); !mOver;)
                    (this->*act)(random);
                Watchdog::doing[number] = nullptr;
            });
        };
        begin("appending", &Turmoil::append);
        begin("appending", &Turmoil::append);
        begin("clearing", &Turmoil::clear);
        begin("commanding", &Turmoil::command);
        begin("commanding", &Turmoil::command);
        begin("reading", &Turmoil::read);
        Random random(mSeed);
        for (int turns = 0; turns < 4; ++turns)
            comeAndGo(random);
        mOver = true;
        for (std::thread &thread : threads)
            thread.join();
    }

    /// However they were left, resumed once they analyse all there is. Returns the longest time that one took to end, in ms.
    qint64 finish()
    {
        Watchdog::doing[0] = "waiting for the analyses to come to their end";
        // A clear that a loop has begun comes to its end first, so that frames it held back are there.
        besideNoClear([] {});
        for (Line &line : mStore.lines)
            line.analyzer->setAnalyzing(true);
        for (Line &line : mStore.lines) {
            while (line.ledger.analysedTo != line.ledger.appended)
                std::this_thread::yield();
        }
        mStore.clear(); // with its checks
        Watchdog::doing[0] = "destroying the analyzers";
        qint64 longest = 0;
        for (Line &line : mStore.lines) {
            QElapsedTimer timer;
            timer.start();
            line.analyzer.reset();
            longest = std::max(longest, timer.elapsed());
        }
        return longest;
    }

private:
    void append(Random &random)
    {
        static const QList<CAN::CanRxMessage> traffic = frames(R"(
            185 01 02
            705 05
            705       | of the wrong length
            100       | not followed
            605 40 00 10 01
            585 43 00 10 01 2A
            586 80 00 10 01
            607 21 00 20 00 0A
            607 00 01 02 03 04 05 06 07
            608 C2 00 20 00 0E)");
        idle(random);
        const std::lock_guard<std::mutex> lock(mAppending); // numbers are given in the order of the recording
        for (quint32 count = 1 + upTo(random, 500); count > 0 && mStore.getMessageCount() < enoughFrames; --count) {
            const auto line = quint8(upTo(random, shortLivedLine));
            const qint64 number = line < lineCount ? qint64(mStore.lines[line].ledger.appended++) : mShortLived++;
            const CAN::CanRxMessage &frame = traffic.at(int(upTo(random, quint32(traffic.size() - 1))));
            mStore.append(line, frame.mFrame, CanTimeStamp::fromNSecs(number));
        }
    }
    void clear(Random &random)
    {
        for (quint32 turns = 1u << mSeed % 10; turns > 0; --turns)
            idle(random);
        if (mComesOrGoes)
            return;
        const std::shared_lock<std::shared_mutex> lock(mComingAndGoing);
        mStore.clear(true);
    }
    void command(Random &random)
    {
        idle(random);
        Line &line = mStore.lines[upTo(random, lineCount - 1)];
        const quint32 kind = upTo(random, 100);
        if (kind == 0)
            line.analyzer->reset();
        else if (kind == 1)
            line.requestReanalysis();
        else // seldom paused, since an analysis takes half a second to notice that it was resumed
            line.analyzer->setAnalyzing(kind != 2 || mSeed % 8 != 0);
    }
    void read(Random &random)
    {
        idle(random); // with copies looked at, and no lock entered since
        const Line &line = mStore.lines[upTo(random, lineCount - 1)];
        const qint16 rating = line.analyzer->calculateRating();
        if (rating < 0 || rating > 100 || line.analyzer->ratingCounts().size() > 3)
            qFatal("a rating of %d", rating);
        line.analyzer->protocolErrors(), line.analyzer->pendingSDOEntryList(), line.analyzer->blockTransfers();
        line.nodes(), line.objectValues(), line.traffic();
        if (qEnvironmentVariableIsSet("CANOPENANALYSIS_STRESS_RACE")) // for the thread sanitizer to find
            mPlanted = line.ledger.readWithoutTheLock();
        const auto classes = line.analyzer->messageTypeDistribution();
        if (std::count(classes.cbegin(), classes.cend(), 0u) > 0)
            qFatal("a class without frames");
    }
    template<typename Act>
    void besideNoClear(const Act &act)
    {
        mComesOrGoes = true; // keeps new clears from getting in first, again and again
        const std::unique_lock<std::shared_mutex> lock(mComingAndGoing);
        act();
        mComesOrGoes = false;
    }
    void comeAndGo(Random &random)
    {
        Watchdog::doing[0] = "letting clears in, or constructing and destroying an analyzer";
        for (int turns = 0; turns < 100; ++turns)
            idle(random);
        InMemoryCANopenNetwork network(shortLivedLine);
        std::unique_ptr<Analyzer> analyzer;
        besideNoClear([&] { analyzer = std::make_unique<Analyzer>(&network, &mStore); });
        analyzer->setAnalyzing(true);
        idle(random);
        if (upTo(random, 1) == 0)
            analyzer->stop();
        besideNoClear([&] { analyzer.reset(); });
        const InMemory::Traffic seen = network.traffic(); // times are numbers
        if (seen.frames > 0 && qint64(seen.frames) != seen.last.toNSecs() - seen.first.toNSecs() + 1)
            qFatal("%llu frames from %lld to %lld", seen.frames, seen.first.toNSecs(), seen.last.toNSecs());
    }

    const quint32 mSeed;
    BookingStore mStore;
    std::mutex mAppending;
    qint64 mShortLived = 0; // frames, under mAppending
    std::atomic<bool> mComesOrGoes{false};
    std::shared_mutex mComingAndGoing; // shared by clears: beside them no analyzer comes or goes
    std::atomic<int> mEnds{0};
    std::atomic<int> mValues{0};
    std::atomic<bool> mOver{false};
    std::atomic<quint32> mPlanted{0};
};

} // namespace

/// Everything that hosts may do, from many threads at random, and a thousand analyzers at a time. By default for some
/// seconds; CANOPENANALYSIS_STRESS_SECONDS and CANOPENANALYSIS_STRESS_SEED change that.
class TestStress : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false")); }
    void turmoil();
    void aThousandAtOnce_data();
    void aThousandAtOnce();
};

void TestStress::turmoil()
{
    bool isGiven = false;
    const int given = qEnvironmentVariableIntValue("CANOPENANALYSIS_STRESS_SEED", &isGiven);
    quint32 seed = isGiven ? quint32(given) : std::random_device()() % 1000000;
    const int seconds = std::max(3, qEnvironmentVariableIntValue("CANOPENANALYSIS_STRESS_SECONDS"));
    qint64 longest = 0;
    QElapsedTimer timer;
    timer.start();
    for (int round = 0; round == 0 || timer.elapsed() < seconds * 1000LL; ++round, ++seed) {
        qSetMessagePattern(QStringLiteral("round %1, seed %2: %{message}").arg(round).arg(seed));
        const Watchdog watchdog;
        Turmoil turmoil(seed);
        turmoil.run();
        longest = std::max(longest, turmoil.finish());
    }
    qInfo("the slowest destructor took %lld ms", longest);
    qSetMessagePattern(QStringLiteral("%{message}"));
    QVERIFY2(longest < 3000, "one pause sleep is 500 ms");
}

void TestStress::aThousandAtOnce_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<bool>("live");
    QTest::addColumn<bool>("resumed");
    QTest::newRow("never resumed, stopped together") << 1000 << false << false;
    QTest::newRow("at the end of a recording, stopped together") << 1000 << false << true;
    // A thousand that poll would take turns of 30 ms on two processors, and so would each destructor.
    QTest::newRow("following a live line, destroyed one by one") << 50 << true << true;
}

void TestStress::aThousandAtOnce()
{
    QFETCH(int, count);
    QFETCH(bool, live);
    QFETCH(bool, resumed);
    const Watchdog watchdog;
    CAN::CanRxMessage::mLiveMode = live;
    ScriptedStore store;
    store.appendPdos(20);
    std::vector<std::unique_ptr<RecordingNetwork>> networks;
    std::vector<std::unique_ptr<Analyzer>> analyzers;
    std::atomic<int> calls{0};
    for (int i = 0; i < count; ++i) {
        networks.push_back(std::make_unique<RecordingNetwork>());
        networks.back()->inCall = [&](const QString &) { ++calls; };
        analyzers.push_back(std::make_unique<Analyzer>(networks.back().get(), &store));
        analyzers.back()->setAnalyzing(resumed);
    }
    while (resumed && calls < count * 20 * 2) // two a frame
        std::this_thread::yield();
    QElapsedTimer timer;
    timer.start();
    for (const auto &analyzer : analyzers) {
        if (!live)
            analyzer->stop();
    }
    qint64 longest = 0;
    for (std::unique_ptr<Analyzer> &analyzer : analyzers) {
        const qint64 start = timer.elapsed();
        analyzer.reset();
        longest = std::max(longest, timer.elapsed() - start);
    }
    qInfo("%lld ms in all, %lld ms for the slowest", timer.elapsed(), longest);
    QVERIFY2(longest < 3000, "one pause sleep is 500 ms");
    QVERIFY2(live || timer.elapsed() < 10000, "those that are stopped together sleep at the same time");
    for (const auto &network : networks)
        QCOMPARE(network->takeFrames(), resumed ? numbers(1, 20) : QList<quint32>());
}

QTEST_GUILESS_MAIN(TestStress)
#include "tst_stress.moc"
