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

// Rows of a list when not everything is asked for.
constexpr std::size_t rowsShown = 10;
constexpr int classesInRow = 4;
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

TextReport::TextReport(Output &output, const Recording &recording, Style style)
    : mOutput(output),
      mRecording(recording),
      mStyle(style),
      mFrameWidth(std::max(5, int(Format::number(recording.frameCount()).size()))),
      mTimeWidth(std::max(8, int(time(recording.last()).size())))
{
}

std::string TextReport::coloured(const char *colour, const std::string &text) const
{
    return mStyle.colours ? colour + text + plain : text;
}

std::string TextReport::time(CanTimeStamp time) const
{
    return Format::seconds(time.toNSecs() - mRecording.first().toNSecs());
}

std::string TextReport::frameAndTime(quint32 number, CanTimeStamp when) const
{
    return "  " + right(number, mFrameWidth) + "  " + right(time(when), mTimeWidth);
}

void TextReport::heading(const std::string &text)
{
    mOutput << '\n' << coloured(bold, text);
}

std::string TextReport::columnTitles(Columns columns) const
{
    std::string titles = "  " + right("frame", mFrameWidth) + "  " + right("time s", mTimeWidth);
    for (const Column &column : columns)
        titles += "  " + (column.width < 0 ? left(column.title, -column.width) : right(column.title, column.width));
    return titles.erase(titles.find_last_not_of(' ') + 1);
}

// A list of findings with its heading; of a long one the first or the latest rows. Without findings nothing at all.
template<typename Findings, typename Row>
void TextReport::section(const std::string &title, const Findings &findings, Keep keep, Columns columns, Row row)
{
    const auto count = std::size_t(findings.size());
    if (count == 0)
        return;
    const std::size_t shown = mStyle.all ? count : std::min(count, rowsShown);
    heading(title);
    if (shown < count)
        mOutput << coloured(dim, std::string(keep == Keep::First ? ", the first " : ", the latest ")
                                     + Format::number(qint64(shown)) + " (--all lists them all)");
    mOutput << '\n' << coloured(dim, columnTitles(columns)) << '\n';
    const auto first = findings.begin() + std::ptrdiff_t(keep == Keep::First ? 0 : count - shown);
    std::for_each(first, first + std::ptrdiff_t(shown), [&](const auto &finding) { mOutput << row(finding) << '\n'; });
}

void TextReport::head()
{
    mOutput << coloured(bold, mRecording.name().toStdString()) << ": " << counted(mRecording.frameCount(), "frame")
            << ", " << counted(mRecording.interfaces().size(), "interface") << ", " << startText(mRecording.first())
            << '\n';
    if (mRecording.badLines() > 0)
        mOutput << coloured(red, counted(mRecording.badLines(), "line") + " could not be read") << " (of "
                << Format::number(qint64(mRecording.lineCount())) << ")\n";
}

void TextReport::line(const LineFindings &findings)
{
    heading(findings.interface);
    const double seconds = double(findings.last.toNSecs() - findings.first.toNSecs()) / 1e9;
    mOutput << ": " << counted(findings.frames, "frame") << " in " << durationText(findings.first, findings.last);
    if (seconds > 0)
        mOutput << ", " << Format::fixed(double(findings.frames) / seconds, 0) << " frames/s";
    mOutput << '\n';
    rating(findings);
    classes(findings);
    nodes(findings);
    faults(findings);
    aborts(findings);
    openRequests(findings);
    emergencies(findings);
    nmtCommands(findings);
    blockTransfers(findings);
    accesses(findings);
}

void TextReport::rating(const LineFindings &findings)
{
    heading("Rating " + Format::number(findings.rating) + " of 100");
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
    mOutput << right(-Rating::cost(count, weight, frames), 5) << "  " << left(counted(count, what), 24)
            << coloured(dim, "(" + counted(std::size_t(weight), "point") + " for each in a hundred frames)") << '\n';
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
        mOutput << (column++ % classesInRow == 0 ? "\n  " : "   ") << left(Words::messageClass(type).toStdString(), 13)
                << right(count, std::max(4, mFrameWidth - 1)) << right(Format::fixed(share, 1), 6) << '%';
    }
    mOutput << '\n';
}

void TextReport::nodes(const LineFindings &findings)
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
        mOutput << right(node.nodeId, 6) << "  0x" << Format::hex(node.nodeId, 2) << "  "
                << left(hasState ? Words::nmtState(node.state()) : "-", 15)
                << right(hasState ? time(node.stateChanges.last().since.time) : "-", 12)
                << right(node.bootUps.size(), 8) << right(node.emergencies.size(), 11)
                << right(findings.objectsOfNode.value(node.nodeId), 11) << "  " << devices << '\n';
    }
}

void TextReport::accesses(const LineFindings &findings)
{
    const auto writes = std::size_t(std::count_if(findings.accesses.begin(), findings.accesses.end(),
                                                  [](const SdoAccess &access) { return access.wasWrite; }));
    const std::size_t reads = findings.accesses.size() - writes;
    section("SDO accesses: " + counted(reads, "read") + " and " + counted(writes, "write"), findings.accesses,
            Keep::Latest, {{"node", 4}, {"object", -7}, {"", -5}, {"ms", 7}, {"value", -1}},
            [this](const SdoAccess &access) {
                return frameAndTime(access.response.number, access.response.time) + "  " + right(access.object.node, 4)
                       + "  " + objectText(access.object) + "  " + (access.wasWrite ? "write" : "read ") + "  "
                       + right(answerTime(access), 7) + "  " + valueText(access);
            });
}

void TextReport::aborts(const LineFindings &findings)
{
    section(counted(findings.aborts.size(), "SDO abort"), findings.aborts, Keep::First,
            {{"node", 4}, {"object", -7}, {"by", -6}, {"code", -8}, {"meaning", -1}}, [this](const SdoAbort &abort) {
                return frameAndTime(abort.frame.number, abort.frame.time) + "  " + right(abort.object.node, 4) + "  "
                       + objectText(abort.object) + "  " + (abort.byClient ? "client" : "server") + "  "
                       + Format::hex(abort.code, 8) + "  " + Words::abortCode(abort.code);
            });
}

void TextReport::faults(const LineFindings &findings)
{
    std::vector<ProtocolFault> faults;
    std::copy_if(findings.faults.begin(), findings.faults.end(), std::back_inserter(faults),
                 [](const ProtocolFault &fault) { return !fault.isHarmless(); });
    section(counted(faults.size(), "protocol error"), faults, Keep::First,
            {{"node", 4}, {"id", -3}, {"data", -23}, {"what is wrong", -1}}, [this](const ProtocolFault &fault) {
                const std::size_t length = std::min<std::size_t>(fault.message.mDataLength, hexShown);
                return frameAndTime(fault.frame.number, fault.frame.time) + "  "
                       + right(fault.message.mIdentifier & 0x7F, 4) + "  " + Format::hex(fault.message.mIdentifier, 3)
                       + "  " + left(Format::bytes(fault.message.mPayload, length, " "), 23) + "  "
                       + Words::protocolFault(fault.kind);
            });
}

void TextReport::openRequests(const LineFindings &findings)
{
    section(counted(findings.openRequests.size(), "SDO request") + " without an end", findings.openRequests,
            Keep::First, {{"node", 4}, {"object", -7}, {"", -5}}, [this](const OpenRequest &request) {
                return frameAndTime(request.frame.number, request.frame.time) + "  " + right(request.object.node, 4)
                       + "  " + objectText(request.object) + "  " + (request.isWrite ? "write" : "read ") + "  "
                       + (request.wasAnswered ? "begun, never finished" : "never answered");
            });
}

void TextReport::emergencies(const LineFindings &findings)
{
    section(findings.emergencies.size() == 1 ? "1 emergency"
                                             : Format::number(qint64(findings.emergencies.size())) + " emergencies",
            findings.emergencies, Keep::Latest, {{"node", 4}, {"code", -4}, {"register", -8}, {"meaning", -1}},
            [this](const NodeEmergency &found) {
                const InMemory::Emergency &emergency = found.emergency;
                return frameAndTime(emergency.seen.messageNumber, emergency.seen.time) + "  " + right(found.node, 4)
                       + "  " + Format::hex(emergency.errorCode, 4) + "  "
                       + left(Format::hex(emergency.errorRegister, 2), 8) + "  "
                       + Words::emergencyCode(emergency.errorCode);
            });
}

void TextReport::nmtCommands(const LineFindings &findings)
{
    section(counted(std::size_t(findings.nmtCommands.size()), "NMT command"), findings.nmtCommands, Keep::Latest,
            {{"node", 4}, {"command", -1}}, [this](const InMemory::NmtCommand &command) {
                return frameAndTime(command.seen.messageNumber, command.seen.time) + "  "
                       + (command.node == 0 ? " all" : right(command.node, 4)) + "  " + Format::hex(command.command, 2)
                       + ' ' + Words::nmtCommand(command.command);
            });
}

void TextReport::blockTransfers(const LineFindings &findings)
{
    if (findings.blockTransfers.isEmpty())
        return;
    heading("Block transfers, the last one of each node");
    mOutput << '\n' << coloured(dim, "  node  object            bytes  announced  state") << '\n';
    for (auto transfer = findings.blockTransfers.cbegin(); transfer != findings.blockTransfers.cend(); ++transfer) {
        mOutput << right(transfer.key(), 6) << "  " << objectText(transfer->mIndex, transfer->mSubindex)
                << (transfer->mDirection ? "  write" : "  read ") << right(transfer->mData.size(), 9)
                << right(transfer->mSize == 0 ? "-" : Format::number(transfer->mSize), 11) << "  "
                << Words::blockState(transfer->mState) << '\n';
    }
}
