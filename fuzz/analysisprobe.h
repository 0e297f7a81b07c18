#ifndef CANOPENANALYSIS_FUZZ_ANALYSISPROBE_H
#define CANOPENANALYSIS_FUZZ_ANALYSISPROBE_H

#include "fuzzing.h"
#include "inmemory/inmemorycanopennetwork.h"
#include "network/canopennetworkanalyzerworker.h"
#include "sdofindings.h"
#include "support/cohelper.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <vector>

/// A network model that keeps what it was told since the analysis started over last.
class NetworkProbe : public InMemoryCANopenNetwork
{
public:
    NetworkProbe() : InMemoryCANopenNetwork(0) {}

    /// Called at the end of each call below; set before the analysis starts.
    std::function<void()> inCall;

    // The analysis writes them under the library's lock; read after any operation of the analysis, while it has nothing to do.
    std::vector<CAN::CanRxMessage> seen;
    std::vector<SdoFinding> values;

    std::atomic<int> reanalyses{0};

    void reset() override
    {
        startOver();
        InMemoryCANopenNetwork::reset();
    }
    /// Only a reanalysis asks for the devices.
    QList<QPointer<GenericCANDevice>> getDeviceList() override
    {
        startOver();
        ++reanalyses;
        return InMemoryCANopenNetwork::getDeviceList();
    }
    void addCANMessage(const CAN::CanRxMessage &msg) override
    {
        seen.push_back(msg);
        InMemoryCANopenNetwork::addCANMessage(msg);
        inCall();
    }
    void addNode(signed char node, const QString &name) override
    {
        FUZZ_REQUIRE(node >= 1 && name.isEmpty());
        InMemoryCANopenNetwork::addNode(node, name);
        inCall();
    }
    void addNewSubIndexValue(unsigned char node, unsigned short index, unsigned char subindex, QVariant value,
                             double reqTime, double respTime, unsigned int canMsgNumber, bool wasSDOWrite) override
    {
        FUZZ_REQUIRE(!seen.empty() && seen.back().mMessageNumber == canMsgNumber);
        values.push_back(valueFinding(node, index, subindex, value, reqTime, respTime, canMsgNumber, wasSDOWrite));
        InMemoryCANopenNetwork::addNewSubIndexValue(node, index, subindex, value, reqTime, respTime, canMsgNumber,
                                                    wasSDOWrite);
        inCall();
    }

private:
    void startOver()
    {
        seen.clear();
        values.clear();
    }
};

/// An analysis (worker or analyzer) of the frames that its model has seen: each is counted once, and its SDO part is what a
/// handler finds that is fed with these frames alone.
template<typename Analysis>
void checkAnalysis(const NetworkProbe &network, const Analysis &analysis)
{
    using Worker = CANopenNetworkAnalyzerWorker;
    std::vector<SdoFinding> values;
    uint errors = 0;
    ObservedSdoHandler alone;
    alone.report([&](const SdoFinding &finding) {
        if (finding.kind == SdoFinding::Value)
            values.push_back(finding);
        errors += finding.kind == SdoFinding::Error ? 1 : 0;
    });
    QMap<CANopen::MessageType, uint> classes;
    for (const CAN::CanRxMessage &frame : network.seen) {
        bool isAbort = false;
        const CANopen::MessageType type = COHelper::getMessageType(frame.mFrame, isAbort);
        ++classes[isAbort ? CANopen::SDO_ABORT : type];
        if ((type == CANopen::NMT_EC || type == CANopen::NMT_EC_BOOTUP) && frame.mFrame.mDataLength != 1)
            errors += 2;
        alone.handler.handleCANMessage(frame);
    }
    uint unhandled = uint(network.seen.size());
    for (const auto type : {CANopen::SDO_REQ, CANopen::SDO_RES, CANopen::SDO_ABORT, CANopen::SYNC, CANopen::PDO,
                            CANopen::NMT, CANopen::EMCY, CANopen::NMT_EC, CANopen::NMT_EC_BOOTUP})
        unhandled -= classes.value(type);

    const auto counts = analysis.ratingCounts();
    FUZZ_REQUIRE(analysis.messageTypeDistribution() == classes);
    FUZZ_REQUIRE(network.values == values);
    FUZZ_REQUIRE(counts.value(Worker::RMT_SdoAbort) == classes.value(CANopen::SDO_ABORT));
    FUZZ_REQUIRE(counts.value(Worker::RMT_Unhandled) == unhandled);
    FUZZ_REQUIRE(counts.value(Worker::RMT_ProtocolError) == errors);
    FUZZ_REQUIRE(analysis.protocolErrors() == alone.handler.protocolErrors());
    FUZZ_REQUIRE(analysis.pendingSDOEntryList() == alone.handler.pendingSDOEntryList());
    FUZZ_REQUIRE(sameBlocks(analysis.blockTransfers(), alone.handler.blockTransfers()));
}

#endif // CANOPENANALYSIS_FUZZ_ANALYSISPROBE_H
