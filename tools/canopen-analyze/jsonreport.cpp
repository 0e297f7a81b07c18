#include "jsonreport.h"

#include "rating.h"
#include "words.h"

#include <QDateTime>

namespace {

QString isoTime(CanTimeStamp time)
{
    return QDateTime::fromMSecsSinceEpoch(time.toMsecs(), Qt::UTC).toString(Qt::ISODateWithMs);
}

} // namespace

template<typename Findings, typename Writer>
void JsonReport::list(const char *key, const Findings &findings, Writer write)
{
    mJson.key(key).beginList();
    for (const auto &finding : findings) {
        mJson.beginObject();
        write(finding);
        mJson.endObject();
    }
    mJson.endList();
}

void JsonReport::frame(quint32 frameNumber, CanTimeStamp time)
{
    number("frame", frameNumber);
    mJson.key("time").raw(Format::seconds(time.toNSecs() - mRecording.first.toNSecs()));
}

void JsonReport::object(quint8 node, quint16 index, quint8 subindex)
{
    number("node", node);
    number("index", index);
    number("subindex", subindex);
}

void JsonReport::hex(const char *key, quint32 value, int digits)
{
    mJson.key(key).value(QString::fromStdString("0x" + Format::hex(value, digits)));
}

void JsonReport::begin()
{
    mJson.beginObject();
    mJson.key("file").value(mRecording.name);
    number("frames", mRecording.frames);
    number("badLines", qint64(mRecording.badPieces));
    mJson.key("startTime").raw(Format::seconds(mRecording.first.toNSecs()));
    mJson.key("startTimeUtc").value(isoTime(mRecording.first));
    mJson.key("duration").raw(Format::seconds(mRecording.last.toNSecs() - mRecording.first.toNSecs()));
    mJson.key("interfaces").beginList();
}

void JsonReport::end()
{
    mJson.endList();
    mJson.endObject();
}

void JsonReport::line(const LineFindings &findings)
{
    beginLine(findings);
    rating(findings);
    classes(findings);
    nodes(findings);
    accesses(findings);
    aborts(findings);
    faults(findings);
    openRequests(findings);
    blockTransfers(findings);
    emergencies(findings);
    nmtCommands(findings);
    mJson.endObject();
}

void JsonReport::sdoOnly(const LineFindings &findings)
{
    beginLine(findings);
    accesses(findings);
    faults(findings);
    mJson.endObject();
}

void JsonReport::beginLine(const LineFindings &findings)
{
    mJson.beginObject();
    mJson.key("interface").value(QString::fromStdString(findings.interface));
    number("line", findings.line);
    number("frames", findings.frames);
    mJson.key("duration").raw(Format::seconds(findings.last.toNSecs() - findings.first.toNSecs()));
}

void JsonReport::rating(const LineFindings &findings)
{
    const auto cost = [&findings](quint32 count, int weight) { return Rating::cost(count, weight, findings.frames); };
    mJson.key("rating").beginObject();
    number("value", findings.rating);
    penalty("protocolErrors", findings.protocolErrors, cost(findings.protocolErrors, Rating::pointsPerProtocolError));
    penalty("sdoAborts", findings.sdoAborts, cost(findings.sdoAborts, Rating::pointsPerSdoAbort));
    penalty("unhandledFrames", findings.unhandledFrames,
            cost(findings.unhandledFrames, Rating::pointsPerUnhandledFrame));
    mJson.endObject();
}

void JsonReport::penalty(const char *key, quint32 count, int points)
{
    mJson.key(key).beginObject();
    number("count", count);
    number("points", points);
    mJson.endObject();
}

void JsonReport::classes(const LineFindings &findings)
{
    mJson.key("messageClasses").beginObject();
    for (auto type = findings.classes.cbegin(); type != findings.classes.cend(); ++type)
        number(qPrintable(Words::messageClass(type.key())), *type);
    mJson.endObject();
}

void JsonReport::nodes(const LineFindings &findings)
{
    list("nodes", findings.nodes, [&](const InMemory::Node &node) {
        number("node", node.nodeId);
        text("state", Words::nmtState(node.state()));
        mJson.key("stateChanges").beginList();
        for (const InMemory::StateChange &change : node.stateChanges) {
            mJson.beginObject();
            frame(change.since.messageNumber, change.since.time);
            text("state", Words::nmtState(change.state));
            mJson.endObject();
        }
        mJson.endList();
        number("bootUps", node.bootUps.size());
        number("emergencies", node.emergencies.size());
        number("heartbeats", qint64(node.heartbeats));
        number("objects", findings.objectsOfNode.value(node.nodeId));
        number("devices", node.presumedDevices);
    });
}

void JsonReport::accesses(const LineFindings &findings)
{
    list("sdoAccesses", findings.accesses, [&](const SdoAccess &access) {
        frame(access.response.number, access.response.time);
        number("requestFrame", access.request.number);
        object(access.object.node, access.object.index, access.object.subindex);
        text("access", access.wasWrite ? "write" : "read");
        value(access);
        mJson.key("answerMs");
        if (access.answerNSecs() < 0)
            mJson.null();
        else
            mJson.raw(Format::fixed(double(access.answerNSecs()) / 1e6, 3));
    });
}

void JsonReport::value(const SdoAccess &access)
{
    const QByteArray bytes = access.isExpedited() ? Format::expeditedBytes(access) : access.bytes;
    text("kind", access.isExpedited() ? "expedited" : "segmented");
    number("size", bytes.size());
    mJson.key("bytes").value(QString::fromStdString(Format::bytes(bytes, "")));
    if (access.isExpedited())
        number("value", access.number);
}

void JsonReport::aborts(const LineFindings &findings)
{
    list("sdoAborts", findings.aborts, [&](const SdoAbort &abort) {
        frame(abort.frame.number, abort.frame.time);
        object(abort.object.node, abort.object.index, abort.object.subindex);
        hex("code", abort.code, 8);
        text("meaning", Words::abortCode(abort.code));
        text("by", abort.byClient ? "client" : "server");
    });
}

void JsonReport::faults(const LineFindings &findings)
{
    list("protocolErrors", findings.faults, [&](const ProtocolFault &fault) {
        frame(fault.frame.number, fault.frame.time);
        hex("id", fault.message.mIdentifier, 3);
        mJson.key("data").value(
            QString::fromStdString(Format::bytes(fault.message.mPayload, fault.message.mDataLength, "")));
        text("kind", Words::protocolFaultKey(fault.kind));
        text("meaning", Words::protocolFault(fault.kind));
    });
}

void JsonReport::openRequests(const LineFindings &findings)
{
    list("unansweredRequests", findings.openRequests, [&](const OpenRequest &request) {
        frame(request.frame.number, request.frame.time);
        object(request.object.node, request.object.index, request.object.subindex);
        text("access", request.isWrite ? "write" : "read");
        mJson.key("begun").value(request.wasAnswered);
    });
}

void JsonReport::blockTransfers(const LineFindings &findings)
{
    mJson.key("blockTransfers").beginList();
    for (auto transfer = findings.blockTransfers.cbegin(); transfer != findings.blockTransfers.cend(); ++transfer) {
        mJson.beginObject();
        object(transfer.key(), transfer->mIndex, transfer->mSubindex);
        text("access", transfer->mDirection ? "write" : "read");
        number("state", transfer->mState);
        text("stateText", Words::blockState(transfer->mState));
        number("collectedSize", transfer->mData.size());
        mJson.key("collected").value(QString::fromStdString(Format::bytes(transfer->mData, "")));
        mJson.endObject();
    }
    mJson.endList();
}

void JsonReport::emergencies(const LineFindings &findings)
{
    list("emergencies", findings.emergencies, [&](const NodeEmergency &found) {
        const InMemory::Emergency &emergency = found.emergency;
        const auto &own = emergency.manufacturerBytes;
        frame(emergency.seen.messageNumber, emergency.seen.time);
        number("node", found.node);
        hex("code", emergency.errorCode, 4);
        text("meaning", Words::emergencyCode(emergency.errorCode));
        hex("register", emergency.errorRegister, 2);
        mJson.key("manufacturer").value(QString::fromStdString(Format::bytes(own.data(), own.size(), "")));
    });
}

void JsonReport::nmtCommands(const LineFindings &findings)
{
    list("nmtCommands", findings.nmtCommands, [&](const InMemory::NmtCommand &command) {
        frame(command.seen.messageNumber, command.seen.time);
        number("command", command.command);
        text("meaning", Words::nmtCommand(command.command));
        number("node", command.node);
    });
}
