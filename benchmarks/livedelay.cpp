// How long after it was appended does a frame reach the model, on a full 1 Mbit/s bus followed live?
//
//     livedelay [SECONDS]      prints the delay of the median frame, of the slowest in a hundred and in a thousand, and the worst
//
// Built with the preset "benchmark".

#include "countingnetwork.h"
#include "traffic.h"

#include "network/canopennetworkanalyzer.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int framesPerSecond = 8500; // eight data bytes and stuff bits: about 118 µs a frame

/// Notes when each frame arrives.
class ArrivalNetwork final : public CountingNetwork
{
public:
    explicit ArrivalNetwork(int frames) : mArrivals(std::size_t(frames)) {}

    void addCANMessage(const CAN::CanRxMessage &msg) override
    {
        mArrivals[msg.mMessageNumber] = Clock::now();
        mSeen.store(msg.mMessageNumber + 1, std::memory_order_release);
    }
    /// The frames below this number may be asked for.
    quint32 seen() const { return mSeen.load(std::memory_order_acquire); }
    Clock::time_point arrival(std::size_t number) const { return mArrivals[number]; }

private:
    std::vector<Clock::time_point> mArrivals;
    std::atomic<quint32> mSeen{0};
};

/// Appends each frame at its time, as an adapter's thread would; returns when each was appended.
std::vector<Clock::time_point> appendInTime(InMemoryDatachunkHandler &store, const InMemoryDatachunkHandler &traffic,
                                            int frames)
{
    std::vector<Clock::time_point> appended;
    appended.reserve(std::size_t(frames));
    const auto start = Clock::now();
    for (int i = 0; i < frames; ++i) {
        std::this_thread::sleep_until(start + std::chrono::nanoseconds(1000000000LL / framesPerSecond) * i);
        const CAN::CanRxMessage frame = traffic.messageAt(i);
        appended.push_back(Clock::now());
        store.append(0, frame.mFrame, frame.mTimeStamp);
    }
    return appended;
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    const int seconds =
        argc > 1 ? std::max(1, std::atoi(argv[1])) : 10; // NOLINT(cert-err34-c): anything else is one second
    const int frames = seconds * framesPerSecond;

    InMemoryDatachunkHandler traffic;
    Traffic::fill(traffic, Traffic::Mixed, frames);
    InMemoryDatachunkHandler store(0); // message numbers count from 0, as the arrivals do
    ArrivalNetwork network(frames);
    std::vector<double> delays; // µs
    {
        CAN::CanRxMessage::mLiveMode = true;
        CANopenNetworkAnalyzer analyzer(&network, &store);
        analyzer.setAnalyzing(true);
        const auto appended = appendInTime(store, traffic, frames);
        while (network.seen() < quint32(frames))
            std::this_thread::yield();
        for (std::size_t i = 0; i < appended.size(); ++i)
            delays.push_back(std::chrono::duration<double, std::micro>(network.arrival(i) - appended[i]).count());
    }

    std::sort(delays.begin(), delays.end());
    const auto slowest = [&](std::size_t in) { return delays[delays.size() - 1 - delays.size() / in]; };
    std::printf("from append to model, %d frames in %d s: median %.0f µs, 1 %% above %.0f µs, 0.1 %% above %.0f µs, "
                "worst %.0f µs\n",
                frames, seconds, slowest(2), slowest(100), slowest(1000), delays.back());
    return 0;
}
