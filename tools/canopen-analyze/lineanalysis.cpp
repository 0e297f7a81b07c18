#include "lineanalysis.h"

#include "framescan.h"
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

} // namespace

LineAnalysis::LineAnalysis(InMemoryDatachunkHandler &store, const std::string &interface, quint8 line)
    : mStore(store), mInterface(interface), mLine(line), mNetwork(line)
{
    mAnalyzer.emplace(&mNetwork, &mStore);
    mWatcher.watch(*mAnalyzer, mStore, line);
}

LineAnalysis::~LineAnalysis() = default;

void LineAnalysis::start()
{
    mAnalyzer->setAnalyzing(true);
}

void LineAnalysis::endWithLine()
{
    mWatcher.setComplete();
    mStore.resetLinePositions(); // so that it tells the end again, should the analysis have come to it before
}

LineFindings LineAnalysis::finish(Progress &progress)
{
    waitForEnd(progress);
    begin();
    takeRating();
    takeNodes();
    takeAccesses();
    takeFaults();
    addAcknowledgements();
    takeOpenRequests(mAnalyzer->pendingSDOEntryList());
    takeBlockTransfers(mAnalyzer->blockTransfers());
    mAnalyzer.reset(); // the store is nobody else's from here on
    scanFrames(mStore, mFindings);
    sortByFrame(mFindings.faults);
    return std::move(mFindings);
}

LineFindings LineAnalysis::overview()
{
    begin();
    if (mFindings.frames > 0) {
        mFindings.first = frameOfNumber(mStore, 1).mTimeStamp;
        mFindings.last = frameOfNumber(mStore, mFindings.frames).mTimeStamp;
    }
    takeRating();
    takeNodes();
    takeFaults();
    return std::move(mFindings);
}

void LineAnalysis::begin()
{
    mFindings = {};
    mFindings.interface = mInterface;
    mFindings.line = mLine;
    mFindings.frames = quint32(mStore.messageCountOfLine(mLine));
}

void LineAnalysis::waitForEnd(Progress &progress)
{
    constexpr int progressMs = 100;
    const std::string what = "Analysing " + mInterface;
    while (!mWatcher.waitForEnd(progressMs))
        progress.show(what, qint64(mNetwork.traffic().frames), mStore.messageCountOfLine(mLine));
    progress.clear();
}

void LineAnalysis::takeRating()
{
    using Worker = CANopenNetworkAnalyzerWorker;
    const auto counts = mAnalyzer->ratingCounts();
    mFindings.rating = mAnalyzer->calculateRating();
    mFindings.sdoAborts = counts.value(Worker::RMT_SdoAbort);
    mFindings.protocolErrors = counts.value(Worker::RMT_ProtocolError);
    mFindings.unhandledFrames = counts.value(Worker::RMT_Unhandled);
    mFindings.classes = mAnalyzer->messageTypeDistribution();
}

void LineAnalysis::takeNodes()
{
    mFindings.nmtCommands = mNetwork.nmtCommands();
    mFindings.nodes = mNetwork.nodes();
    const QMap<quint8, quint8> devices = mostDevices();
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
QMap<quint8, quint8> LineAnalysis::mostDevices() const
{
    constexpr quint8 readAnswer = 0x40;
    QMap<quint8, quint8> most;
    for (const LineWatcher::DeviceCount &told : mWatcher.deviceCounts()) {
        if (told.count < 2)
            continue;
        const CAN::CanRxMessage answer = frameOfNumber(mStore, told.repeatedAnswer);
        const bool isExact = (answer.mFrame.mPayload[0] & specifierMask) == readAnswer;
        most[told.node] = std::max(most.value(told.node), isExact ? told.count : quint8(2));
    }
    return most;
}

void LineAnalysis::takeAccesses()
{
    const InMemory::ObjectValues objects = mNetwork.objectValues();
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

void LineAnalysis::addFault(quint32 messageNumber, ProtocolFault::Kind kind)
{
    const CAN::CanRxMessage msg = frameOfNumber(mStore, messageNumber);
    mFindings.faults.push_back({refOf(msg), msg.mFrame, kind});
}

// What was signalled; frames are handled in order, so the faults ascend.
void LineAnalysis::takeFaults()
{
    for (const LineWatcher::Error &error : mWatcher.errors())
        addFault(error.messageNumber, ProtocolFault::Kind(error.type));
}

// What is listed, in ascending order, without having been signalled are acknowledgements of blocks.
void LineAnalysis::addAcknowledgements()
{
    const QList<unsigned int> listed = mAnalyzer->protocolErrors();
    std::vector<quint32> signalled;
    for (const ProtocolFault &fault : mFindings.faults)
        signalled.push_back(fault.frame.number);
    std::vector<quint32> acknowledgements;
    std::set_difference(listed.cbegin(), listed.cend(), signalled.cbegin(), signalled.cend(),
                        std::back_inserter(acknowledgements));
    for (const quint32 number : acknowledgements)
        addFault(number, ProtocolFault::SegmentsLost); // unless the frames around it say otherwise
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
