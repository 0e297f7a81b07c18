#include "textreport.h"

#include "rating.h"
#include "words.h"

#include <QDateTime>

#include <algorithm>

namespace {

constexpr const char *bold = "\033[1m";
constexpr const char *red = "\033[1;31m";
constexpr const char *dim = "\033[2m";
constexpr const char *plain = "\033[0m";

// Rows of a list when not everything is asked for; so what matters stays on one screen.
constexpr std::size_t rowsShown = 5;
constexpr std::size_t accessesShown = 6;
constexpr int classesInRow = 3;
// What of a segmented value fits into the line.
constexpr int textShown = 26;
constexpr int hexShown = 8;

std::string right(const std::string &text, int width)
{
    return std::string(std::size_t(std::max(0, width - int(text.size()))), ' ') + text;
}

std::string left(const std::string &text, int width)
{
    return text + std::string(std::size_t(std::max(0, width - int(text.size()))), ' ');
}

std::string right(qint64 number, int width)
{
    return right(Format::number(number), width);
}

std::string counted(std::size_t count, const char *what)
{
    return Format::number(qint64(count)) + ' ' + what + (count == 1 ? "" : "s");
}

std::string objectText(quint16 index, quint8 subindex)
{
    return Format::hex(index, 4) + ':' + Format::hex(subindex, 2);
}

std::string objectText(const ObjectRef &object)
{
    return objectText(object.index, object.subindex);
}

bool isText(const QByteArray &bytes)
{
    return !bytes.isEmpty() && std::all_of(bytes.cbegin(), bytes.cend(), [](char c) { return c >= ' ' && c <= '~'; });
}

std::string valueText(const SdoAccess &access)
{
    if (access.isExpedited())
        return left(Format::number(access.number), 12) + Format::bytes(Format::expeditedBytes(access), " ");
    const QByteArray &bytes = access.bytes;
    const std::string size = left(counted(std::size_t(bytes.size()), "byte"), 12);
    if (isText(bytes))
        return size + '"' + bytes.left(textShown).toStdString() + (bytes.size() > textShown ? "\"..." : "\"");
    return size + Format::bytes(bytes.left(hexShown), " ") + (bytes.size() > hexShown ? " ..." : "");
}

std::vector<ProtocolFault> withoutHarmless(const std::vector<ProtocolFault> &faults)
{
    std::vector<ProtocolFault> rest;
    std::copy_if(faults.begin(), faults.end(), std::back_inserter(rest),
                 [](const ProtocolFault &fault) { return !fault.isHarmless(); });
    return rest;
}

std::string answerTime(const SdoAccess &access)
{
    return access.answerNSecs() < 0 ? "-" : Format::fixed(double(access.answerNSecs()) / 1e6, 2);
}

std::string durationText(CanTimeStamp first, CanTimeStamp last)
{
    return Format::fixed(double(last.toNSecs() - first.toNSecs()) / 1e9, 3) + " s";
}

// The date of the first frame, when its time stamp is one: tools can write times since the start instead.
std::string startText(CanTimeStamp first)
{
    constexpr qint64 nsecsPerSec = 1000000000;
    constexpr qint64 year2000 = 946684800;
    if (first.toNSecs() / nsecsPerSec < year2000)
        return "begins at " + Format::seconds(first.toNSecs()) + " s";
    const QDateTime begin = QDateTime::fromMSecsSinceEpoch(first.toMsecs(), Qt::UTC);
    const std::string fraction = Format::seconds(first.toNSecs());
    return "begins " + begin.toString(QStringLiteral("yyyy-MM-dd hh:mm:ss")).toStdString()
           + fraction.substr(fraction.find('.')) + " UTC";
}

} // namespace

TextReport::TextReport(Output &output, const RecordingFacts &recording, Style style)
    : mOutput(output),
      mRecording(recording),
      mStyle(style),
      mFrameWidth(std::max(5, int(Format::number(recording.frames).size()))),
      mTimeWidth(std::max(8, int(time(recording.last).size())))
{
}

std::string TextReport::coloured(const char *colour, const std::string &text) const
{
    return mStyle.colours ? colour + text + plain : text;
}

std::string TextReport::time(CanTimeStamp time) const
{
    return Format::seconds(time.toNSecs() - mRecording.first.toNSecs());
}

std::string TextReport::rowStart(quint32 number, CanTimeStamp when, quint32 node) const
{
    return "  " + right(number, mFrameWidth) + "  " + right(time(when), mTimeWidth) + "  " + right(node, 4) + "  ";
}

void TextReport::heading(const std::string &text)
{
    mOutput << '\n' << coloured(bold, text);
}

std::string TextReport::columnTitles() const
{
    return "  " + right("frame", mFrameWidth) + "  " + right("time s", mTimeWidth) + "  node";
}

// A list of findings under its title; of a long one the first or the latest rows. Without findings nothing at all.
template<typename Findings, typename Row>
void TextReport::list(const std::string &title, const Findings &findings, Keep keep, std::size_t limit, Row row)
{
    const auto count = std::size_t(findings.size());
    if (count == 0)
        return;
    // A list is not cut for the sake of one row: the remark would take its place.
    const std::size_t shown = mStyle.all || count <= limit + 1 ? count : limit;
    mOutput << coloured(bold, title);
    if (shown < count)
        mOutput << (keep == Keep::First ? ", the first " : ", the latest ") << Format::number(qint64(shown))
                << coloured(dim, " (--all lists them all)");
    mOutput << '\n';
    const auto first = findings.begin() + std::ptrdiff_t(keep == Keep::First ? 0 : count - shown);
    std::for_each(first, first + std::ptrdiff_t(shown), [&](const auto &finding) { mOutput << row(finding) << '\n'; });
}

void TextReport::head()
{
    mOutput << coloured(bold, mRecording.name.toStdString()) << ": " << counted(mRecording.frames, "frame") << ", "
            << counted(mRecording.interfaces.size(), "interface") << ", " << startText(mRecording.first);
    mOutput << (mRecording.clock ? std::string(", ") + mRecording.clock : std::string()) << '\n';
    if (mRecording.badPieces > 0)
        mOutput << coloured(red, counted(mRecording.badPieces, mRecording.piece) + " could not be read") << " (of "
                << Format::number(qint64(mRecording.pieces)) << ")\n";
}

void TextReport::line(const LineFindings &findings)
{
    lineHead(findings);
    rating(findings);
    classes(findings);
    nodes(findings, true);
    incidents(findings, Keep::First);
    blockTransfers(findings);
    accesses(findings);
}

void TextReport::overview(const LineFindings &findings)
{
    lineHead(findings);
    rating(findings);
    classes(findings);
    nodes(findings, false);
    incidents(findings, Keep::Latest);
}

void TextReport::sdoOnly(const LineFindings &findings)
{
    lineHead(findings);
    const std::vector<ProtocolFault> broken = withoutHarmless(findings.faults);
    mOutput << coloured(bold, "SDO analysis alone") << ": " << counted(findings.accesses.size(), "value") << ", "
            << counted(broken.size(), "frame") << (broken.size() == 1 ? " that breaks" : " that break")
            << " the SDO protocol\n";
    accesses(findings);
    if (broken.empty())
        return;
    mOutput << '\n' << coloured(dim, columnTitles()) << '\n';
    faults(broken, Keep::First);
}

void TextReport::lineHead(const LineFindings &findings)
{
    heading(findings.interface);
    const double seconds = double(findings.last.toNSecs() - findings.first.toNSecs()) / 1e9;
    mOutput << ": " << counted(findings.frames, "frame") << " in " << durationText(findings.first, findings.last);
    if (seconds > 0)
        mOutput << ", " << Format::fixed(double(findings.frames) / seconds, 0) << " frames/s";
    mOutput << '\n';
}

void TextReport::rating(const LineFindings &findings)
{
    mOutput << coloured(bold, "Rating " + Format::number(findings.rating) + " of 100");
    if (findings.protocolErrors + findings.sdoAborts + findings.unhandledFrames == 0)
        mOutput << ": no protocol errors, no SDO aborts, no unhandled frames";
    mOutput << '\n';
    penalty("protocol error", findings.protocolErrors, Rating::pointsPerProtocolError, findings.frames);
    penalty("SDO abort", findings.sdoAborts, Rating::pointsPerSdoAbort, findings.frames);
    penalty("unhandled frame", findings.unhandledFrames, Rating::pointsPerUnhandledFrame, findings.frames);
}

void TextReport::penalty(const char *what, quint32 count, int weight, quint32 frames)
{
    if (count == 0)
        return;
    const auto cost = std::size_t(Rating::cost(count, weight, frames));
    mOutput << "  " << left(counted(count, what), 24) << "costs " << left(counted(cost, "point"), 12)
            << coloured(dim, "(" + Format::number(weight) + " for each in a hundred frames)") << '\n';
}

void TextReport::classes(const LineFindings &findings)
{
    std::vector<std::pair<quint32, CANopen::MessageType>> byCount;
    for (auto type = findings.classes.cbegin(); type != findings.classes.cend(); ++type)
        byCount.emplace_back(*type, type.key());
    std::stable_sort(byCount.begin(), byCount.end(), [](const auto &a, const auto &b) { return a.first > b.first; });
    heading("Message classes");
    int column = 0;
    for (const auto &[count, type] : byCount) {
        const double share = 100.0 * count / std::max(1U, findings.frames);
        mOutput << (column++ % classesInRow == 0 ? "\n  " : "    ") << left(Words::messageClass(type).toStdString(), 13)
                << right(count, std::max(4, mFrameWidth - 1)) << right(Format::fixed(share, 1), 6) << '%';
    }
    mOutput << '\n';
}

void TextReport::nodes(const LineFindings &findings, bool withObjects)
{
    if (findings.nodes.isEmpty())
        return;
    heading("Nodes");
    mOutput << '\n'
            << coloured(dim, "  node        state            since s  boot-ups  emergencies  objects  devices") << '\n';
    for (const InMemory::Node &node : findings.nodes) {
        const bool hasState = !node.stateChanges.isEmpty();
        const std::string devices = node.presumedDevices > 1
                                        ? coloured(red, counted(node.presumedDevices, "device") + '!')
                                        : Format::number(node.presumedDevices);
        const std::string objects =
            withObjects ? Format::number(findings.objectsOfNode.value(node.nodeId)) : std::string("-");
        mOutput << right(node.nodeId, 6) << "  0x" << Format::hex(node.nodeId, 2) << "  "
                << left(hasState ? Words::nmtState(node.state()) : "-", 15)
                << right(hasState ? time(node.stateChanges.last().since.time) : "-", 12)
                << right(node.bootUps.size(), 8) << right(node.emergencies.size(), 11) << right(objects, 11) << "  "
                << devices << '\n';
    }
}

void TextReport::faults(const std::vector<ProtocolFault> &faults, Keep keep)
{
    list(counted(faults.size(), "frame") + (faults.size() == 1 ? " that breaks" : " that break") + " the protocol",
         faults, keep, rowsShown, [this](const ProtocolFault &fault) { return row(fault); });
}

// What went wrong or was ordered: lists whose rows begin alike, so that one line of titles does for all.
void TextReport::incidents(const LineFindings &findings, Keep keep)
{
    const std::vector<ProtocolFault> broken = withoutHarmless(findings.faults);
    if (broken.empty() && findings.aborts.empty() && findings.openRequests.empty() && findings.emergencies.empty()
        && findings.nmtCommands.isEmpty())
        return;
    mOutput << '\n' << coloured(dim, columnTitles()) << '\n';
    faults(broken, keep);
    list(counted(findings.aborts.size(), "SDO abort"), findings.aborts, Keep::First, rowsShown,
         [this](const SdoAbort &abort) { return row(abort); });
    list(counted(findings.openRequests.size(), "SDO request") + " without an end", findings.openRequests, Keep::First,
         rowsShown, [this](const OpenRequest &request) { return row(request); });
    list(counted(findings.emergencies.size(), "emergency message"), findings.emergencies, Keep::Latest, rowsShown,
         [this](const NodeEmergency &found) { return row(found); });
    list(counted(std::size_t(findings.nmtCommands.size()), "NMT command"), findings.nmtCommands, Keep::Latest,
         rowsShown, [this](const InMemory::NmtCommand &command) { return row(command); });
}

std::string TextReport::row(const ProtocolFault &fault) const
{
    constexpr quint32 nodeMask = 0x7F;
    const std::size_t length = std::min<std::size_t>(fault.message.mDataLength, hexShown);
    return rowStart(fault.frame.number, fault.frame.time, fault.message.mIdentifier & nodeMask)
           + Format::hex(fault.message.mIdentifier, 3) + "  "
           + left(Format::bytes(fault.message.mPayload, length, " "), 23) + "  " + Words::protocolFault(fault.kind);
}

std::string TextReport::row(const SdoAbort &abort) const
{
    return rowStart(abort.frame.number, abort.frame.time, abort.object.node) + objectText(abort.object) + "  by "
           + (abort.byClient ? "client" : "server") + ": " + Format::hex(abort.code, 8) + "  "
           + Words::abortCode(abort.code);
}

std::string TextReport::row(const OpenRequest &request) const
{
    return rowStart(request.frame.number, request.frame.time, request.object.node) + objectText(request.object)
           + (request.isWrite ? "  write " : "  read ")
           + (request.wasAnswered ? "begun, never finished" : "never answered");
}

std::string TextReport::row(const NodeEmergency &found) const
{
    const InMemory::Emergency &emergency = found.emergency;
    return rowStart(emergency.seen.messageNumber, emergency.seen.time, found.node) + Format::hex(emergency.errorCode, 4)
           + "  register " + Format::hex(emergency.errorRegister, 2) + "  " + Words::emergencyCode(emergency.errorCode);
}

std::string TextReport::row(const InMemory::NmtCommand &command) const
{
    std::string start = rowStart(command.seen.messageNumber, command.seen.time, command.node);
    if (command.node == 0)
        start.replace(start.size() - 5, 3, "all");
    return start + Words::nmtCommand(command.command) + " (" + Format::hex(command.command, 2) + ')';
}

std::string TextReport::row(const SdoAccess &access) const
{
    return rowStart(access.response.number, access.response.time, access.object.node) + objectText(access.object)
           + (access.wasWrite ? "  write   " : "  read    ") + right(answerTime(access), 7) + "  " + valueText(access);
}

void TextReport::accesses(const LineFindings &findings)
{
    if (findings.accesses.empty())
        return;
    const auto writes = std::size_t(std::count_if(findings.accesses.begin(), findings.accesses.end(),
                                                  [](const SdoAccess &access) { return access.wasWrite; }));
    const std::size_t reads = findings.accesses.size() - writes;
    mOutput << '\n' << coloured(dim, columnTitles() + "  object   access       ms  value") << '\n';
    list(counted(reads, "SDO read") + " and " + counted(writes, "write"), findings.accesses, Keep::Latest,
         accessesShown, [this](const SdoAccess &access) { return row(access); });
}

void TextReport::blockTransfers(const LineFindings &findings)
{
    if (findings.blockTransfers.isEmpty())
        return;
    heading("Block transfers: the last one of each node, and how many bytes all of them carried");
    mOutput << '\n' << coloured(dim, "  node  object   access      bytes  state") << '\n';
    for (auto transfer = findings.blockTransfers.cbegin(); transfer != findings.blockTransfers.cend(); ++transfer) {
        mOutput << right(transfer.key(), 6) << "  " << objectText(transfer->mIndex, transfer->mSubindex)
                << (transfer->mDirection ? "  write " : "  read  ") << right(transfer->mData.size(), 9) << "  "
                << Words::blockState(transfer->mState) << '\n';
    }
}
