#include "lineanalysis.h"

#include "framescan.h"
#include "inmemory/inmemorycanopennetwork.h"
#include "linewatcher.h"
#include "network/canopennetworkanalyzer.h"
#include "sdoaccesses.h"

#include <algorithm>
#include <iterator>

namespace {

// The command specifier of an SDO frame: the upper three bits of byte 0.
constexpr quint8 specifierMask = 0xE0;

template<typename Finding>
void sortByFrame(std::vector<Finding> &findings)
{
    std::stable_sort(findings.begin(), findings.end(),
                     [](const Finding &a, const Finding &b) { return a.frame.number < b.frame.number; });
}

// Runs the analysis of one line and collects its results.
class LineAnalysis
{
public:
    LineAnalysis(Recording &recording, quint8 line, Progress &progress);

    LineFindings run();

private:
    void waitForEnd(LineWatcher &watcher, const InMemoryCANopenNetwork &network);
    void takeRating(const CANopenNetworkAnalyzer &analyzer);
    void takeNodes(const InMemoryCANopenNetwork &network, const LineWatcher &watcher);
    QMap<quint8, quint8> mostDevices(const LineWatcher &watcher) const;
    void takeAccesses(const InMemoryCANopenNetwork &network);
    void takeFaults(const QList<unsigned int> &listed, const LineWatcher &watcher);
    void takeOpenRequests(const QHash<SDO::SDOEntryKey, SDO::SDOEntry> &pending);
    void takeBlockTransfers(const QMap<unsigned char, CANopen::SDODef::SDOBlockTransfer> &transfers);
    bool endedLater(const SDO::SDOEntry &request) const;

    InMemoryDatachunkHandler &mStore;
    Progress &mProgress;
    LineFindings mFindings;
    QHash<SDO::SDOEntryKey, quint32> mLastResponse; // of each object that was read or written
};

LineAnalysis::LineAnalysis(Recording &recording, quint8 line, Progress &progress)
    : mStore(recording.store()), mProgress(progress)
{
    mFindings.interface = recording.facts().interfaces[line];
    mFindings.line = line;
    mFindings.frames = quint32(mStore.messageCountOfLine(line));
}

LineFindings LineAnalysis::run()
{
    {
        InMemoryCANopenNetwork network(mFindings.line);
        LineWatcher watcher;
        CANopenNetworkAnalyzer analyzer(&network, &mStore);
        watcher.watch(analyzer, mStore, mFindings.line);
        analyzer.setAnalyzing(true);
        waitForEnd(watcher, network);

        takeRating(analyzer);
        takeNodes(network, watcher);
        takeAccesses(network);
        takeFaults(analyzer.protocolErrors(), watcher);
        takeOpenRequests(analyzer.pendingSDOEntryList());
        takeBlockTransfers(analyzer.blockTransfers());
    } // the store is nobody else's from here on
    scanFrames(mStore, mFindings);
    sortByFrame(mFindings.faults);
    return std::move(mFindings);
}

void LineAnalysis::waitForEnd(LineWatcher &watcher, const InMemoryCANopenNetwork &network)
{
    constexpr int progressMs = 100;
    const std::string what = "Analysing " + mFindings.interface;
    while (!watcher.waitForEnd(progressMs))
        mProgress.show(what, qint64(network.traffic().frames), mFindings.frames);
    mProgress.clear();
}

void LineAnalysis::takeRating(const CANopenNetworkAnalyzer &analyzer)
{
    using Worker = CANopenNetworkAnalyzerWorker;
    const auto counts = analyzer.ratingCounts();
    mFindings.rating = analyzer.calculateRating();
    mFindings.sdoAborts = counts.value(Worker::RMT_SdoAbort);
    mFindings.protocolErrors = counts.value(Worker::RMT_ProtocolError);
    mFindings.unhandledFrames = counts.value(Worker::RMT_Unhandled);
    mFindings.classes = analyzer.messageTypeDistribution();
}

void LineAnalysis::takeNodes(const InMemoryCANopenNetwork &network, const LineWatcher &watcher)
{
    mFindings.nmtCommands = network.nmtCommands();
    mFindings.nodes = network.nodes();
    const QMap<quint8, quint8> devices = mostDevices(watcher);
    for (InMemory::Node &node : mFindings.nodes) {
        node.presumedDevices = devices.value(node.nodeId, 1);
        for (const InMemory::Emergency &emergency : std::as_const(node.emergencies))
            mFindings.emergencies.push_back({node.nodeId, emergency});
    }
    std::sort(mFindings.emergencies.begin(), mFindings.emergencies.end(), [](const auto &a, const auto &b) {
        return a.emergency.seen.messageNumber < b.emergency.seen.messageNumber;
    });
}

// How many devices answered under each node-ID. The model knows the latest number only, which falls back to one with the next
// request. Told after a repeated answer to a read, a number is exact; answers to writes are added to what was before, so from
// them follows only that there is more than one device.
QMap<quint8, quint8> LineAnalysis::mostDevices(const LineWatcher &watcher) const
{
    constexpr quint8 readAnswer = 0x40;
    QMap<quint8, quint8> most;
    for (const LineWatcher::DeviceCount &told : watcher.deviceCounts()) {
        if (told.count < 2)
            continue;
        const CAN::CanRxMessage answer = frameOfNumber(mStore, told.repeatedAnswer);
        const bool isExact = (answer.mFrame.mPayload[0] & specifierMask) == readAnswer;
        most[told.node] = std::max(most.value(told.node), isExact ? told.count : quint8(2));
    }
    return most;
}

void LineAnalysis::takeAccesses(const InMemoryCANopenNetwork &network)
{
    const InMemory::ObjectValues objects = network.objectValues();
    for (auto object = objects.cbegin(); object != objects.cend(); ++object) {
        const SDO::SDOEntryKey &key = object.key();
        ++mFindings.objectsOfNode[key.node];
        for (const SDO::SDOEntryValue &value : object.value()) {
            mFindings.accesses.push_back(accessOf(key, value));
            mLastResponse[key] = std::max(mLastResponse.value(key), value.canMsgNumber);
        }
    }
    sortByResponse(mFindings.accesses);
}

void LineAnalysis::takeFaults(const QList<unsigned int> &listed, const LineWatcher &watcher)
{
    const auto add = [this](quint32 number, ProtocolFault::Kind kind) {
        const CAN::CanRxMessage msg = frameOfNumber(mStore, number);
        mFindings.faults.push_back({refOf(msg), msg.mFrame, kind});
    };
    std::vector<quint32> signalled;
    for (const LineWatcher::Error &error : watcher.errors()) {
        add(error.messageNumber, ProtocolFault::Kind(error.type));
        signalled.push_back(error.messageNumber);
    }
    // What is listed without having been signalled are acknowledgements of blocks. Frames are handled in order, so both
    // ascend.
    std::vector<quint32> acknowledgements;
    std::set_difference(listed.cbegin(), listed.cend(), signalled.cbegin(), signalled.cend(),
                        std::back_inserter(acknowledgements));
    for (const quint32 number : acknowledgements)
        add(number, ProtocolFault::SegmentsLost); // unless the frames around it say otherwise
    sortByFrame(mFindings.faults);
}

// The request that opened a segmented upload stays pending after the upload's end.
bool LineAnalysis::endedLater(const SDO::SDOEntry &request) const
{
    const auto last = mLastResponse.constFind(request);
    return last != mLastResponse.cend() && *last > request.requestMsgNumber;
}

void LineAnalysis::takeOpenRequests(const QHash<SDO::SDOEntryKey, SDO::SDOEntry> &pending)
{
    constexpr quint8 initiateDownload = 0x20;
    for (const SDO::SDOEntry &entry : pending) {
        if (endedLater(entry))
            continue;
        const CAN::CanRxMessage msg = frameOfNumber(mStore, entry.requestMsgNumber);
        OpenRequest request;
        request.frame = refOf(msg);
        request.object = {entry.node, entry.index, entry.subindex};
        request.isWrite = (msg.mFrame.mPayload[0] & specifierMask) == initiateDownload;
        mFindings.openRequests.push_back(request);
    }
    sortByFrame(mFindings.openRequests);
}

void LineAnalysis::takeBlockTransfers(const QMap<unsigned char, CANopen::SDODef::SDOBlockTransfer> &transfers)
{
    for (auto transfer = transfers.cbegin(); transfer != transfers.cend(); ++transfer) {
        if (transfer->mState != 0)
            mFindings.blockTransfers.insert(transfer.key(), *transfer);
    }
}

} // namespace

LineFindings analyseLine(Recording &recording, quint8 line, Progress &progress)
{
    return LineAnalysis(recording, line, progress).run();
}
