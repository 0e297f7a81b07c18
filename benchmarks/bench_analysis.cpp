// What does a frame cost? Each figure stands beside a bare walk over the same store in the same run, since absolute times
// depend on the machine and its mood.
//
//     cmake --preset benchmark && cmake --build --preset benchmark && build/benchmark/bin/bench_analysis

#include "inmemory/inmemorydatachunkhandler.h"
#include "network/canopennetworkanalyzerworker.h"
#include "parser/sdoparserworker.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <benchmark/benchmark.h>

namespace {

constexpr int frameCount = 1000000;

/// A model that only counts.
class CountingNetwork : public CANopenNetwork
{
public:
    quint64 calls = 0;

    int networkID() const override { return 0; }
    QList<QPointer<GenericCANDevice>> getDeviceList() override { return {}; }
    void reset() override {}
    void addCANMessage(const CAN::CanRxMessage &) override { ++calls; }
    void addPDOCanMessage(const CAN::CanRxMessage &) override { ++calls; }
    void addSYNC(unsigned int) override { ++calls; }
    void addEMCYMsg(signed char, CAN::CanRxMessage) override { ++calls; }
    void addNode(signed char, const QString &) override { ++calls; }
    void addNodeState(unsigned int, CANopen::CANopenNMTEvent, const CAN::CanRxMessage &) override { ++calls; }
    void addNMTRequest(unsigned int, NmtCommands, CanTimeStamp, unsigned int) override { ++calls; }
    void addNewSubIndexValue(unsigned char, unsigned short, unsigned char, QVariant, double, double, unsigned int,
                             bool) override
    {
        ++calls;
    }
    void setPresumedNodeCount(signed char, unsigned char, unsigned int) override { ++calls; }
    QMap<CANopen::MessageType, unsigned int> *getMessageTypeDistribution() override { return &mClasses; }

private:
    QMap<CANopen::MessageType, unsigned int> mClasses;
};

void append(InMemoryDatachunkHandler &store, quint32 identifier, std::initializer_list<int> bytes)
{
    CAN::CanMessage frame;
    frame.mIdentifier = identifier;
    for (const int byte : bytes)
        frame.mPayload[frame.mDataLength++] = static_cast<quint8>(byte);
    store.append(0, frame, CanTimeStamp::fromNSecs(store.getMessageCount() * 100000ll));
}

void fillWithProcessData(InMemoryDatachunkHandler &store)
{
    for (int i = 0; i < frameCount; ++i)
        append(store, quint32(0x181 + i % 120), {1, 2, 3, 4, 5, 6, 7, i & 0xFF});
}

/// Ten frames: an expedited write, an expedited read and a segmented read, on 30 nodes and 100 objects by turns.
void appendSdo(InMemoryDatachunkHandler &store, int turn)
{
    const auto node = quint32(1 + turn % 30);
    const int object = turn % 100;
    const int value = turn & 0xFF;
    append(store, 0x600 + node, {0x23, object, 0x20, 0, value, 0, 0, 0});
    append(store, 0x580 + node, {0x60, object, 0x20, 0, 0, 0, 0, 0});
    append(store, 0x600 + node, {0x40, object, 0x20, 1, 0, 0, 0, 0});
    append(store, 0x580 + node, {0x4F, object, 0x20, 1, value, 0, 0, 0});
    append(store, 0x600 + node, {0x40, object, 0x30, 0, 0, 0, 0, 0});
    append(store, 0x580 + node, {0x41, object, 0x30, 0, 14, 0, 0, 0});
    append(store, 0x600 + node, {0x60, 0, 0, 0, 0, 0, 0, 0});
    append(store, 0x580 + node, {0x00, 1, 2, 3, 4, 5, 6, 7});
    append(store, 0x600 + node, {0x70, 0, 0, 0, 0, 0, 0, 0});
    append(store, 0x580 + node, {0x11, 1, 2, 3, 4, 5, 6, 7});
}

void fillWithSdo(InMemoryDatachunkHandler &store)
{
    for (int turn = 0; store.getMessageCount() < frameCount; ++turn)
        appendSdo(store, turn);
}

/// Of fifty frames 35 process data, 5 SYNCs and heartbeats, 10 SDO.
void fillWithMixedTraffic(InMemoryDatachunkHandler &store)
{
    for (int turn = 0; store.getMessageCount() < frameCount; ++turn) {
        for (int i = 0; i < 35; ++i)
            append(store, quint32(0x181 + i * 3), {1, 2, 3, 4, 5, 6, 7, turn & 0xFF});
        append(store, 0x080, {});
        for (quint32 node = 1; node < 5; ++node)
            append(store, 0x700 + node, {0x05});
        appendSdo(store, turn);
    }
}

template<void (*fill)(InMemoryDatachunkHandler &)>
InMemoryDatachunkHandler &recording()
{
    static InMemoryDatachunkHandler store;
    if (store.getMessageCount() == 0)
        fill(store);
    return store;
}

void report(benchmark::State &state, int frames)
{
    state.counters["ns/frame"] =
        benchmark::Counter(frames, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.SetItemsProcessed(state.iterations() * frames);
}

template<void (*fill)(InMemoryDatachunkHandler &)>
void bareWalk(benchmark::State &state)
{
    InMemoryDatachunkHandler &store = recording<fill>();
    for (auto _ : state) {
        CAN::CanRxMessage frame;
        unsigned int position = 0;
        while (store.getMessageOfLine(frame, 0, position))
            benchmark::DoNotOptimize(++position);
    }
    report(state, store.getMessageCount());
}

template<void (*fill)(InMemoryDatachunkHandler &)>
void analysisLoop(benchmark::State &state)
{
    InMemoryDatachunkHandler &store = recording<fill>();
    QHash<unsigned int, CANopen::CANopenMessageDescription> descriptions;
    for (auto _ : state) {
        store.resetLinePositions(); // the end is announced anew
        CountingNetwork network;
        CANopenNetworkAnalyzerWorker worker(&network, &store, descriptions);
        QObject::connect(&store, &InMemoryDatachunkHandler::endOfLineReached, &worker, [&] { worker.stop(); });
        worker.setAnalyzing(true);
        worker.analyze();
        if (network.calls < quint64(store.getMessageCount()))
            state.SkipWithError("frames are missing");
    }
    report(state, store.getMessageCount());
}

template<void (*fill)(InMemoryDatachunkHandler &)>
void offlineParser(benchmark::State &state)
{
    InMemoryDatachunkHandler &store = recording<fill>();
    SDOParserWorker parser(nullptr);
    parser.setDatachunkHandler(&store);
    parser.setNetworkLine(0);
    for (auto _ : state)
        parser.doWork();
    report(state, store.getMessageCount());
}

} // namespace

BENCHMARK(bareWalk<fillWithProcessData>)->Name("processData/bare walk")->Unit(benchmark::kMillisecond);
BENCHMARK(analysisLoop<fillWithProcessData>)->Name("processData/analysis loop")->Unit(benchmark::kMillisecond);
BENCHMARK(offlineParser<fillWithProcessData>)->Name("processData/offline parser")->Unit(benchmark::kMillisecond);
BENCHMARK(bareWalk<fillWithMixedTraffic>)->Name("mixed/bare walk")->Unit(benchmark::kMillisecond);
BENCHMARK(analysisLoop<fillWithMixedTraffic>)->Name("mixed/analysis loop")->Unit(benchmark::kMillisecond);
BENCHMARK(offlineParser<fillWithMixedTraffic>)->Name("mixed/offline parser")->Unit(benchmark::kMillisecond);
BENCHMARK(bareWalk<fillWithSdo>)->Name("SDO/bare walk")->Unit(benchmark::kMillisecond);
BENCHMARK(analysisLoop<fillWithSdo>)->Name("SDO/analysis loop")->Unit(benchmark::kMillisecond);
BENCHMARK(offlineParser<fillWithSdo>)->Name("SDO/offline parser")->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
