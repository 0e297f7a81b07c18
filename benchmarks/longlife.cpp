// Does memory stay flat, and what does an analysis cost that only waits?
//
//     longlife [MINUTES]        an hour (or MINUTES) of a full 1 Mbit/s bus, as fast as it can be analysed. Prints what is in
//                               use every twelfth of it; fails when that grows by more than what is kept by rule.
//     longlife --cpu [SECONDS]  processor time of a paused, an idle and a busy live analysis, each for some seconds
//
// Built with the preset "benchmark". Linux with glibc.

#include "inmemory/inmemorycanopennetwork.h"
#include "inmemory/inmemorydatachunkhandler.h"
#include "network/canopennetworkanalyzer.h"
#include "sdo/sdomessagehandler.h"

#include <QCoreApplication>
#include <QFile>
#include <QLoggingCategory>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <deque>
#include <initializer_list>
#include <malloc.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int framesPerSecond = 8500; // 1 Mbit/s, eight data bytes and stuff bits: about 118 µs a frame
constexpr qint64 frameNSecs = 1000000000 / framesPerSecond;
constexpr quint64 clearEvery = 60 * framesPerSecond; // frames
constexpr quint64 batch = framesPerSecond / 10;
constexpr qint64 mebibyte = 1024 * 1024;

/// A bus without end: of 50 frames 30 process data, a SYNC, 5 heartbeats, 14 SDO.
class Bus
{
public:
    void appendTo(InMemoryDatachunkHandler &store)
    {
        store.append(0, next(), CanTimeStamp::fromNSecs(qint64(mSent) * frameNSecs));
        ++mSent;
    }
    quint64 sent() const { return mSent; }

private:
    static CAN::CanMessage frame(int identifier, std::initializer_list<int> bytes)
    {
        CAN::CanMessage message;
        message.mIdentifier = quint32(identifier);
        for (const int byte : bytes)
            message.mPayload[message.mDataLength++] = static_cast<quint8>(byte);
        return message;
    }
    CAN::CanMessage next()
    {
        const int place = int(mSent % 50);
        const int byte = int(mSent & 0xFF);
        if (place == 0)
            return frame(0x080, {});
        if (place <= 30)
            return frame(0x180 + place * 3, {1, 2, 3, 4, 5, 6, 7, byte});
        if (place <= 35)
            return seldom(place, byte);
        if (mSdo.empty())
            converse();
        const CAN::CanMessage message = mSdo.front();
        mSdo.pop_front();
        return message;
    }
    /// Heartbeats; every minute and a half an emergency, a reset and a boot-up among them.
    CAN::CanMessage seldom(int place, int byte) const
    {
        switch (mSent / 50 % 15000) {
        case 0:
            return place == 31 ? frame(0x083, {0x10, 0x81, 0x11, byte, 0, 0, 0, 0}) : frame(0x700 + place, {5});
        case 1:
            return place == 31 ? frame(0x000, {0x81, 31}) : frame(0x700 + place, {place == 32 ? 0 : 5});
        default:
            return frame(0x700 + place, {5});
        }
    }
    void client(std::initializer_list<int> bytes) { mSdo.push_back(frame(0x600 + mNode, bytes)); }
    void server(std::initializer_list<int> bytes) { mSdo.push_back(frame(0x580 + mNode, bytes)); }

    /// The next conversation: 30 nodes with 100 objects each.
    void converse()
    {
        ++mTurn;
        mNode = 1 + mTurn % 30;
        const int object = mTurn % 100;
        const int byte = mTurn & 0xFF;
        switch (mTurn / 30 % 100) {
        case 0: // refused
            client({0x40, object, 0x20, 9, 0, 0, 0, 0});
            return server({0x80, object, 0x20, 9, 0, 0, 2, 6});
        case 1: // answered twice
            client({0x40, object, 0x20, 2, 0, 0, 0, 0});
            server({0x4F, object, 0x20, 2, byte, 0, 0, 0});
            return server({0x4F, object, 0x20, 2, byte, 0, 0, 0});
        case 2: // answered though nobody asked
            return server({0x60, object, 0x20, 8, 0, 0, 0, 0});
        case 3: // broken off after the first segment
            client({0x21, object, 0x30, 1, 14, 0, 0, 0});
            server({0x60, object, 0x30, 1, 0, 0, 0, 0});
            client({0x00, 1, 2, 3, 4, 5, 6, byte});
            return client({0x80, object, 0x30, 1, 0, 0, 4, 5});
        case 4:
            return blockDownload(object, byte);
        default:
            return mTurn % 3 == 0 ? segmentedUpload(object, byte) : expedited(object, byte);
        }
    }
    void expedited(int object, int byte)
    {
        const bool isWrite = mTurn % 2 == 0;
        client({isWrite ? 0x2F : 0x40, object, 0x20, 0, isWrite ? byte : 0, 0, 0, 0});
        server({isWrite ? 0x60 : 0x4F, object, 0x20, 0, isWrite ? 0 : byte, 0, 0, 0});
    }
    void segmentedUpload(int object, int byte)
    {
        client({0x40, object, 0x31, 0, 0, 0, 0, 0});
        server({0x41, object, 0x31, 0, 14, 0, 0, 0});
        client({0x60, 0, 0, 0, 0, 0, 0, 0});
        server({0x00, 1, 2, 3, 4, 5, 6, byte});
        client({0x70, 0, 0, 0, 0, 0, 0, 0});
        server({0x11, 1, 2, 3, 4, 5, 6, byte});
    }
    void blockDownload(int object, int byte)
    {
        client({0xC2, object, 0x32, 0, 21, 0, 0, 0});
        server({0xA0, object, 0x32, 0, 3, 0, 0, 0});
        client({0x01, 1, 2, 3, 4, 5, 6, byte});
        client({0x02, 1, 2, 3, 4, 5, 6, byte});
        client({0x83, 1, 2, 3, 4, 5, 6, byte});
        server({0xA2, 3, 3, 0, 0, 0, 0, 0});
        client({0xC1, 0, 0, 0, 0, 0, 0, 0});
        server({0xA1, 0, 0, 0, 0, 0, 0, 0});
    }

    quint64 mSent = 0;
    int mTurn = 0;
    int mNode = 1;
    std::deque<CAN::CanMessage> mSdo; // not yet sent
};

/// What is kept by rule until a reset, in bytes.
class Kept
{
public:
    void addValue(const QVariant &value)
    {
        ++mValues;
        mPayload += value.type() == QVariant::ByteArray ? 48 : 0; // a short array with its head
    }
    qint64 bytes(const CANopenNetworkAnalyzer &analyzer, const InMemoryCANopenNetwork &network) const
    {
        qint64 sum = mValues * 64 + mPayload + analyzer.protocolErrors().size() * qint64(sizeof(void *));
        for (const auto &transfer : analyzer.blockTransfers())
            sum += transfer.mData.size();
        for (const InMemory::Node &node : network.nodes())
            sum += node.stateChanges.size() * 24 + node.bootUps.size() * 16 + node.emergencies.size() * 32;
        return sum + network.nmtCommands().size() * 24;
    }
    qint64 values() const { return mValues; }

private:
    std::atomic<qint64> mValues{0};
    std::atomic<qint64> mPayload{0};
};

qint64 residentBytes()
{
    QFile file(QStringLiteral("/proc/self/statm"));
    return file.open(QIODevice::ReadOnly) ? file.readAll().split(' ').value(1).toLongLong() * sysconf(_SC_PAGESIZE) : 0;
}

qint64 heapBytes()
{
    const struct mallinfo2 info = mallinfo2();
    return qint64(info.uordblks) + qint64(info.hblkhd);
}

/// Lets the analysis catch up with the bus.
void awaitFrames(const InMemoryCANopenNetwork &network, quint64 frames)
{
    while (network.traffic().frames < frames)
        std::this_thread::sleep_for(std::chrono::microseconds(20));
}

struct Sample
{
    qint64 heap = 0;
    qint64 resident = 0;
    qint64 kept = 0;
};

/// One life. A host that \a forgets resets the analysis before each sample, so nothing is kept by rule.
class Life
{
public:
    explicit Life(bool forgets) : mForgets(forgets)
    {
        const auto count = [this](uchar, ushort, uchar, const QVariant &value) { mKept.addValue(value); };
        QObject::connect(mAnalyzer.sdoMessageHandler(), &SDOMessageHandler::newValue, mAnalyzer.sdoMessageHandler(),
                         count, Qt::DirectConnection);
        mAnalyzer.setAnalyzing(true);
    }

    /// Whether memory stayed within its bound.
    bool run(int minutes)
    {
        std::printf("%s\n%10s %11s %12s %8s %10s %10s %10s\n",
                    mForgets ? "A host that resets the analysis before each line" : "A host that never resets it",
                    "bus time", "frames", "values found", "rating", "heap MiB", "kept MiB", "RSS MiB");
        const quint64 all = quint64(minutes) * 60 * framesPerSecond;
        Sample first;
        Sample last;
        for (int part = 1; part <= 12; ++part) {
            liveUntil(all * quint64(part) / 12);
            last = sample();
            // The tables that have one entry an object are filled by then.
            if (part == 2)
                first = last;
        }
        const qint64 allowed = 2 * (last.kept - first.kept) + mebibyte; // growing arrays have twice the room at most
        const qint64 grown = last.heap - first.heap;
        const qint64 resident = last.resident - first.resident;
        std::printf(
            "grown since the second line: heap %.2f MiB, RSS %.2f MiB; kept by rule %.2f MiB; allowed %.2f MiB\n\n",
            inMebibytes(grown), inMebibytes(resident), inMebibytes(last.kept - first.kept), inMebibytes(allowed));
        return grown <= allowed && resident <= allowed + 16 * mebibyte; // the allocator's own slack
    }

private:
    static double inMebibytes(qint64 bytes) { return double(bytes) / double(mebibyte); }

    void liveUntil(quint64 frames)
    {
        while (mBus.sent() < frames) {
            for (quint64 i = 0; i < batch; ++i)
                mBus.appendTo(mStore);
            if (quint64(mStore.getMessageCount()) >= clearEvery)
                mStore.clear(true); // with the last batch hardly analysed
            awaitFrames(mNetwork, mBus.sent() - mForgotten - std::min(mBus.sent() - mForgotten, batch));
        }
    }

    Sample sample()
    {
        awaitFrames(mNetwork, mBus.sent() - mForgotten);
        const Sample full{heapBytes(), residentBytes(), mKept.bytes(mAnalyzer, mNetwork)};
        std::printf("%8.1f m %11llu %12lld %8d", double(mBus.sent()) / framesPerSecond / 60,
                    static_cast<unsigned long long>(mBus.sent()), static_cast<long long>(mKept.values()),
                    mAnalyzer.calculateRating());
        if (mForgets)
            forget();
        const Sample now{heapBytes(), residentBytes(), mForgets ? 0 : full.kept};
        std::printf(" %10.2f %10.2f %10.2f\n", inMebibytes(now.heap), inMebibytes(now.kept), inMebibytes(now.resident));
        std::fflush(stdout);
        return now;
    }

    /// After a clear, so that the reset does not bring the recording back.
    void forget()
    {
        mStore.clear(true);
        mAnalyzer.reset();
        mForgotten = mBus.sent();
    }

    const bool mForgets;
    Bus mBus;
    quint64 mForgotten = 0; // frames before the last reset
    Kept mKept;
    InMemoryDatachunkHandler mStore;
    InMemoryCANopenNetwork mNetwork{0};
    CANopenNetworkAnalyzer mAnalyzer{&mNetwork, &mStore};
};

double processorSeconds(clockid_t clock)
{
    timespec time = {};
    clock_gettime(clock, &time);
    return double(time.tv_sec) + double(time.tv_nsec) / 1e9;
}

/// Processor time of all threads but this one, as a share of the time in which \a live runs.
template<typename Live>
void printLoad(const char *what, const Live &live)
{
    const auto others = [] {
        return processorSeconds(CLOCK_PROCESS_CPUTIME_ID) - processorSeconds(CLOCK_THREAD_CPUTIME_ID);
    };
    const auto start = std::chrono::steady_clock::now();
    const double before = others();
    live();
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
    std::printf("%-52s %7.3f %% of a processor\n", what, 100 * (others() - before) / wall.count());
}

void measureProcessorTime(std::chrono::seconds seconds)
{
    Bus bus;
    InMemoryDatachunkHandler store;
    InMemoryCANopenNetwork network(0);
    CANopenNetworkAnalyzer analyzer(&network, &store);
    const auto wait = [&] { std::this_thread::sleep_for(seconds); };
    printLoad("paused", wait);
    analyzer.setAnalyzing(true);
    std::this_thread::sleep_for(std::chrono::milliseconds(600)); // one pause sleep
    printLoad("live, no traffic", wait);
    printLoad("live, 8,500 frames a second, appended every ms", [&] {
        const auto start = std::chrono::steady_clock::now();
        for (auto next = start; next < start + seconds; next += std::chrono::milliseconds(1)) {
            const std::chrono::duration<double> wall = next - start;
            while (double(bus.sent()) < wall.count() * framesPerSecond)
                bus.appendTo(store);
            std::this_thread::sleep_until(next);
        }
    });
    awaitFrames(network, bus.sent());
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    CAN::CanRxMessage::mLiveMode = true;
    QStringList arguments = QCoreApplication::arguments().mid(1);
    const bool isAboutProcessor = arguments.removeOne(QStringLiteral("--cpu"));
    const int number = arguments.value(0, isAboutProcessor ? QStringLiteral("10") : QStringLiteral("60")).toInt();
    if (number <= 0 || arguments.size() > 1) {
        std::fprintf(stderr, "usage: longlife [MINUTES] | longlife --cpu [SECONDS]\n");
        return 2;
    }
    if (isAboutProcessor) {
        measureProcessorTime(std::chrono::seconds(number));
        return 0;
    }
    const bool isFlat = Life(true).run(number);
    return Life(false).run(number) && isFlat ? 0 : 1;
}
