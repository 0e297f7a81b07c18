// What does a frame cost? Each figure stands beside a bare walk over the same store in the same run, since absolute times
// depend on the machine and its mood. `scripts/benchmark` makes a table of it, and counts instructions, which do not.
//
//     cmake --preset benchmark && cmake --build --preset benchmark && build/benchmark/bin/bench_analysis

#include "candumpreader.h"
#include "countingnetwork.h"
#include "traffic.h"

#include "network/canopennetworkanalyzerworker.h"
#include "parser/sdoparserworker.h"
#include "sdo/sdomessagehandler.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <tuple>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_TOGGLE_COLLECT
#endif

namespace {

constexpr int million = 1000000;

/// What is inside is what `scripts/benchmark --instructions` counts.
class Measured
{
public:
    explicit Measured(benchmark::State &state, qint64 framesPerRound) : mState(state), mFrames(framesPerRound)
    {
        CALLGRIND_TOGGLE_COLLECT;
    }
    ~Measured()
    {
        CALLGRIND_TOGGLE_COLLECT;
        using benchmark::Counter;
        mState.counters["ns/frame"] = Counter(double(mFrames), Counter::kIsIterationInvariantRate | Counter::kInvert);
        mState.counters["frames"] = double(mFrames * mState.iterations());
        mState.SetItemsProcessed(mState.iterations() * mFrames);
    }
    Measured(const Measured &) = delete;
    Measured &operator=(const Measured &) = delete;

private:
    benchmark::State &mState;
    const qint64 mFrames;
};

InMemoryDatachunkHandler &recording(Traffic::Kind kind, int frames = million, const Traffic::Extent &extent = {})
{
    static std::map<std::tuple<Traffic::Kind, int, int, int>, std::unique_ptr<InMemoryDatachunkHandler>> recordings;
    auto &store = recordings[{kind, frames, extent.nodes, extent.objects}];
    if (!store) {
        store = std::make_unique<InMemoryDatachunkHandler>();
        Traffic::fill(*store, kind, frames, extent);
    }
    return *store;
}

// ---- the store ---------------------------------------------------------------------------------------------------------

void walk(benchmark::State &state, InMemoryDatachunkHandler &store)
{
    const Measured measured(state, store.getMessageCount());
    for (auto _ : state) {
        CAN::CanRxMessage frame;
        unsigned int position = 0;
        while (store.getMessageOfLine(frame, 0, position))
            benchmark::DoNotOptimize(++position);
    }
}

void append(benchmark::State &state)
{
    const auto frames = Traffic::transfer(Traffic::SegmentedUpload, 0, {});
    const Measured measured(state, million);
    for (auto _ : state) {
        InMemoryDatachunkHandler store;
        for (int i = 0; i < million; ++i)
            store.append(0, frames[std::size_t(i) % frames.size()], CanTimeStamp::fromNSecs(i));
        if (store.getMessageCount() != million)
            state.SkipWithError("frames are missing");
    }
}

// ---- analysis ----------------------------------------------------------------------------------------------------------

void analyse(benchmark::State &state, InMemoryDatachunkHandler &store)
{
    QHash<unsigned int, CANopen::CANopenMessageDescription> descriptions;
    const Measured measured(state, store.getMessageCount());
    for (auto _ : state) {
        store.resetLinePositions(); // the end is announced anew
        CountingNetwork network;
        CANopenNetworkAnalyzerWorker worker(&network, &store, descriptions);
        QObject::connect(&store, &InMemoryDatachunkHandler::endOfLineReached, &worker, [&] { worker.stop(); });
        worker.setAnalyzing(true);
        worker.analyze();
        if (network.frames() != quint64(store.getMessageCount()))
            state.SkipWithError("frames are missing");
    }
}

void parse(benchmark::State &state, InMemoryDatachunkHandler &store)
{
    SDOParserWorker parser(nullptr);
    parser.setDatachunkHandler(&store);
    parser.setNetworkLine(0);
    const Measured measured(state, store.getMessageCount());
    for (auto _ : state)
        parser.doWork();
}

/// Whole transfers of one kind, on many nodes and objects by turns.
void handle(benchmark::State &state, Traffic::Transfer kind)
{
    std::vector<CAN::CanRxMessage> frames;
    for (int turn = 0; turn < 10000; ++turn) {
        for (const CAN::CanMessage &frame : Traffic::transfer(kind, turn, {})) {
            CAN::CanRxMessage received;
            received.mFrame = frame;
            received.mMessageNumber = quint32(frames.size());
            received.mTimeStamp = CanTimeStamp::fromNSecs(received.mMessageNumber * 100000LL);
            frames.push_back(received);
        }
    }
    SDOMessageHandler handler(nullptr, nullptr);
    const Measured measured(state, qint64(frames.size()));
    for (auto _ : state) {
        handler.reset();
        for (const CAN::CanRxMessage &frame : frames)
            handler.handleCANMessage(frame);
        if (!handler.protocolErrors().isEmpty())
            state.SkipWithError("the transfers are not clean");
    }
}

// ---- the log reader ----------------------------------------------------------------------------------------------------

class CountingSink : public FrameSink
{
public:
    int frames = 0;
    void frame(quint8, const CAN::CanRxMessage &) override { ++frames; }
    void badPiece(quint64, const char *, std::string_view) override {}
};

QByteArray logOf(InMemoryDatachunkHandler &store)
{
    QByteArray log;
    for (int i = 0; i < store.getMessageCount(); ++i) {
        const CAN::CanRxMessage message = store.messageAt(i);
        log += '(' + QByteArray::number(message.mTimeStamp.toDouble(), 'f', 6) + ") can0 ";
        log += QByteArray::number(message.mFrame.mIdentifier, 16).rightJustified(3, '0').toUpper() + '#';
        log += message.mFrame.dataToByteArray(0, -1, true).toHex().toUpper() + '\n';
    }
    return log;
}

void readLog(benchmark::State &state)
{
    const QByteArray log = logOf(recording(Traffic::Mixed));
    const Measured measured(state, million);
    for (auto _ : state) {
        CountingSink sink;
        CandumpReader reader(sink);
        reader.feed(log.constData(), std::size_t(log.size()));
        reader.finish();
        if (sink.frames != million)
            state.SkipWithError("frames are missing");
    }
}

// ---- what is measured --------------------------------------------------------------------------------------------------

void add(const std::string &name, const std::function<void(benchmark::State &)> &function)
{
    benchmark::RegisterBenchmark(name.c_str(), function)->Unit(benchmark::kMillisecond);
}

void addTraffic(const std::string &name, Traffic::Kind kind, int frames = million, const Traffic::Extent &extent = {})
{
    const auto store = [=]() -> InMemoryDatachunkHandler & { return recording(kind, frames, extent); };
    add(name + "/bare walk", [=](benchmark::State &state) { walk(state, store()); });
    add(name + "/analysis loop", [=](benchmark::State &state) { analyse(state, store()); });
    add(name + "/offline parser", [=](benchmark::State &state) { parse(state, store()); });
}

void addAll()
{
    addTraffic("process data", Traffic::ProcessData);
    addTraffic("mixed", Traffic::Mixed);
    addTraffic("SDO", Traffic::Sdo);

    add("store/append", append);
    add("log reader/mixed", readLog);
    constexpr std::pair<const char *, Traffic::Transfer> transfers[] = {
        {"expedited download", Traffic::ExpeditedDownload}, {"expedited upload", Traffic::ExpeditedUpload},
        {"segmented download", Traffic::SegmentedDownload}, {"segmented upload", Traffic::SegmentedUpload},
        {"block download", Traffic::BlockDownload},         {"block upload", Traffic::BlockUpload},
    };
    for (const auto &[name, kind] : transfers)
        add(std::string("SDO handler/") + name, [kind = kind](benchmark::State &state) { handle(state, kind); });

    for (const int frames : {10000, 100000, 10000000})
        addTraffic("mixed, " + std::to_string(frames) + " frames", Traffic::Mixed, frames);
    for (const int nodes : {1, 127})
        addTraffic("SDO, " + std::to_string(nodes) + " nodes", Traffic::Sdo, million, {nodes, 100});
    for (const int objects : {10, 10000})
        addTraffic("SDO, " + std::to_string(objects) + " objects", Traffic::Sdo, million, {1, objects});
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    addAll();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
