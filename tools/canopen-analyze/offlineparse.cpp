#include "offlineparse.h"

#include "framescan.h"
#include "parser/sdoparserworker.h"
#include "sdoaccesses.h"
#include "support/cohelper.h"

#include <algorithm>

static_assert(allLines == SDOParserWorker::allLines);

namespace {

std::string nameOf(const RecordingFacts &facts, quint8 line)
{
    if (line != allLines)
        return facts.interfaces[line];
    std::string names;
    for (const std::string &name : facts.interfaces)
        names += (names.empty() ? "" : ", ") + name;
    return names;
}

// The parser tells which frames it lists, not why. But each kind of listed frame has one reason.
ProtocolFault::Kind kindOf(const CAN::CanMessage &frame)
{
    constexpr quint8 specifierMask = 0xE0;
    constexpr quint8 clientInitiateDownload = 0x20;
    constexpr quint8 serverBlockDownload = 0xA0;
    bool isAbort = false;
    const quint8 specifier = frame.mPayload[0] & specifierMask;
    if (COHelper::getMessageType(frame, isAbort) == CANopen::SDO_REQ)
        return specifier == clientInitiateDownload ? ProtocolFault::DownloadRunning : ProtocolFault::NoTransfer;
    return specifier == serverBlockDownload ? ProtocolFault::SegmentsLost : ProtocolFault::UnexpectedResponse;
}

void takeAccesses(SDOParserWorker &parser, LineFindings &findings)
{
    const QHash<SDO::SDOEntryKey, SDO::SDOEntry> result = parser.getResultList();
    for (const SDO::SDOEntry &entry : result) {
        for (const SDO::SDOEntryValue &value : entry.values)
            findings.accesses.push_back(accessOf(entry, value));
    }
    sortByResponse(findings.accesses);
}

void takeFaults(const SDOParserWorker &parser, const InMemoryDatachunkHandler &store, LineFindings &findings)
{
    const QList<unsigned int> listed = parser.sdoProtocolErrors(); // frames are handled in order, so they ascend
    for (const unsigned int number : listed) {
        const CAN::CanRxMessage msg = frameOfNumber(store, number);
        findings.faults.push_back({refOf(msg), msg.mFrame, kindOf(msg.mFrame)});
    }
}

// The walk over the frames finds these, too, but they are none of the SDO protocol.
void dropErrorControlFaults(std::vector<ProtocolFault> &faults)
{
    const auto isErrorControl = [](const ProtocolFault &fault) {
        return fault.kind == ProtocolFault::ErrorControlLength;
    };
    faults.erase(std::remove_if(faults.begin(), faults.end(), isErrorControl), faults.end());
}

} // namespace

LineFindings parseOffline(Recording &recording, quint8 line)
{
    InMemoryDatachunkHandler &store = recording.store();
    LineFindings findings;
    findings.interface = nameOf(recording.facts(), line);
    findings.line = line;
    findings.frames = line == allLines ? recording.facts().frames : quint32(store.messageCountOfLine(line));
    {
        SDOParserWorker parser(nullptr);
        parser.setDatachunkHandler(&store);
        parser.setNetworkLine(line);
        parser.doWork();
        takeAccesses(parser, findings);
        takeFaults(parser, store, findings);
    }
    scanFrames(store, findings);
    dropErrorControlFaults(findings.faults);
    return findings;
}
