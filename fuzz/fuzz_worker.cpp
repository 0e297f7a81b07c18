// Any frames into the worker, frame by frame in one thread; it is reset and reanalysed between frames and within the calls
// that it makes into its model.

#include "analysisprobe.h"

#include "inmemory/inmemorydatachunkhandler.h"

#include <QCoreApplication>

namespace {

void run(const std::vector<FuzzStep> &steps)
{
    NetworkProbe network;
    InMemoryDatachunkHandler store;
    QHash<unsigned int, CANopen::CANopenMessageDescription> descriptions;
    CANopenNetworkAnalyzerWorker worker(&network, &store, descriptions);
    enum { Nothing, Reset, Reanalyze } inCall = Nothing;
    int callsUntilThen = 0;
    network.inCall = [&] {
        if (inCall == Nothing || --callsUntilThen > 0)
            return;
        const bool isReset = std::exchange(inCall, Nothing) == Reset;
        isReset ? worker.reset() : worker.reanalyze();
        FUZZ_REQUIRE(network.seen.empty());
    };

    CAN::CanRxMessage msg;
    qint64 msecs = 0;
    for (const FuzzStep &step : steps) {
        msecs += step.msecs;
        if (!step.isAction) {
            msg.mFrame = step.frame;
            msg.mTimeStamp = CanTimeStamp::fromNSecs(msecs * 1000000);
            ++msg.mMessageNumber;
            network.addCANMessage(msg);
            if (!network.seen.empty()) // otherwise a reset came in between: the loop drops the frame
                worker.handleMessage(msg);
        } else if (step.action % 4 == 0) {
            checkAnalysis(network, worker);
            FUZZ_REQUIRE(worker.calculateRating() == 0); // nothing was fetched
        } else if (step.action % 4 == 1) {
            step.argument % 2 ? worker.reset() : worker.reanalyze();
        } else {
            inCall = step.action % 4 == 2 ? Reset : Reanalyze;
            callsUntilThen = step.argument % 8;
        }
    }
    checkAnalysis(network, worker);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    run(fuzzSteps(data, size));
    QCoreApplication::processEvents(); // what is left of deferred checks whose worker is gone
    return 0;
}
