// Any bytes into the reader of candump logs. The first byte tells how long the blocks are in which the rest comes.

#include "candumpreader.h"
#include "fuzzing.h"

#include <QByteArray>
#include <QByteArrayList>

#include <algorithm>
#include <memory>
#include <string>

namespace {

QByteArray seconds(qint64 nsecs)
{
    const QByteArray fraction = QByteArray::number(1000000000 + nsecs % 1000000000);
    return QByteArray::number(nsecs / 1000000000) + '.' + fraction.mid(1);
}

/// A frame as candump writes it.
QByteArray candumpLine(const CAN::CanRxMessage &msg)
{
    const CAN::CanMessage &frame = msg.mFrame;
    const bool isError = (frame.mFlags & CAN::CanMessage::ErrorFrame) != 0;
    const quint32 identifier = frame.mIdentifier | (isError ? 0x20000000 : 0);
    const int digits = isError || (frame.mFlags & CAN::CanMessage::ExtendedId) != 0 ? 8 : 3;
    QByteArray line = '(' + seconds(msg.mTimeStamp.toNSecs()) + ") can0 "
                      + QByteArray::number(identifier, 16).rightJustified(digits, '0') + '#';
    if (frame.mFlags & CAN::CanMessage::RemoteRequest)
        return line + 'R' + QByteArray::number(frame.mDataLength);
    if (frame.mFlags & CAN::CanMessage::FdFormat)
        line += "#0";
    return line + frame.dataToByteArray(0, -1, true).toHex();
}

struct Findings final : FrameSink
{
    void frame(quint8 line, const CAN::CanRxMessage &msg) override
    {
        lines.append(line);
        frames.append(msg);
        frameLines.append(reader.pieceCount());
        text += candumpLine(msg) + char(line) + '\n';
    }
    void badPiece(quint64 lineNumber, const char *problem, std::string_view bad) override
    {
        FUZZ_REQUIRE(lineNumber == reader.pieceCount());
        badLines.append({lineNumber, QByteArray(bad.data(), int(bad.size()))});
        text += QByteArray::number(lineNumber) + problem + '\n';
    }

    CandumpReader reader{*this};
    QList<quint8> lines;
    QList<CAN::CanRxMessage> frames;
    QList<quint64> frameLines;
    QList<QPair<quint64, QByteArray>> badLines;
    QByteArray text; // all of it, to compare
};

std::unique_ptr<Findings> read(const QByteArray &log, int block)
{
    auto found = std::make_unique<Findings>();
    for (int done = 0; done < log.size(); done += block)
        found->reader.feed(log.constData() + done, std::size_t(std::min(block, log.size() - done)));
    found->reader.finish();
    return found;
}

/// The lines of the log, each without its end.
QByteArrayList linesOf(const QByteArray &log)
{
    QByteArrayList lines = log.split('\n');
    if (lines.constLast().isEmpty())
        lines.removeLast();
    for (QByteArray &line : lines) {
        if (line.endsWith('\r'))
            line.chop(1);
    }
    return lines;
}

bool holdsNothing(const QByteArray &line)
{
    const auto first = std::find_if(line.cbegin(), line.cend(), [](char c) { return c != ' ' && c != '\t'; });
    return std::size_t(line.size()) <= CandumpReader::maxLineLength && (first == line.cend() || *first == '#');
}

/// The time in the parentheses, its fraction brought to nine digits.
QByteArray timeIn(const QByteArray &line)
{
    const int open = line.indexOf('(');
    const QByteArray time = line.mid(open + 1, line.indexOf(')') - open - 1);
    const int point = time.indexOf('.');
    QByteArray whole = point < 0 ? time : time.left(point);
    while (whole.size() > 1 && whole.startsWith('0'))
        whole.remove(0, 1);
    return whole + '.' + (point < 0 ? QByteArray() : time.mid(point + 1)).leftJustified(9, '0');
}

QByteArray withoutSpacesAhead(const QByteArray &text)
{
    const auto isSpace = [](char c) { return c == ' ' || c == '\t'; };
    return text.mid(int(std::find_if_not(text.cbegin(), text.cend(), isSpace) - text.cbegin()));
}

/// The frame against the text that it came from.
void checkFrame(const CAN::CanRxMessage &msg, const QByteArray &line, const std::string &interface)
{
    const CAN::CanMessage &frame = msg.mFrame;
    const bool isRemote = (frame.mFlags & CAN::CanMessage::RemoteRequest) != 0;
    const bool isFd = (frame.mFlags & CAN::CanMessage::FdFormat) != 0;
    const int stored = isRemote ? 0 : frame.mDataLength;
    FUZZ_REQUIRE(frame.mDataLength <= (isFd ? CAN::CanMessage::maxPayload : 8));
    FUZZ_REQUIRE(std::all_of(frame.mPayload + stored, std::end(frame.mPayload), [](quint8 byte) { return byte == 0; }));
    FUZZ_REQUIRE(seconds(msg.mTimeStamp.toNSecs()) == timeIn(line));

    const QByteArray behindTime = withoutSpacesAhead(line.mid(line.indexOf(')') + 1));
    FUZZ_REQUIRE(behindTime.startsWith(QByteArray::fromStdString(interface)));
    const QByteArray text = withoutSpacesAhead(behindTime.mid(int(interface.size())));
    QByteArray written = candumpLine(msg);
    written = written.mid(written.lastIndexOf(' ') + 1);
    if (isFd)
        written[written.indexOf('#') + 2] = text.at(written.indexOf('#') + 2); // flags that nobody asks for
    if (isRemote && frame.mDataLength == 0)
        written.chop(1); // may be missing
    FUZZ_REQUIRE(text.toLower().startsWith(written.toLower()));

    const auto again = read(candumpLine(msg), 1 << 20);
    FUZZ_REQUIRE(again->text == candumpLine(msg) + '\0' + '\n');
}

/// Every line is a frame, bad, or holds nothing; the reader says which line is which.
void checkLines(const Findings &found, const QByteArrayList &lines)
{
    const CandumpReader &reader = found.reader;
    QList<quint64> named = found.frameLines;
    for (int i = 0; i < found.frames.size(); ++i) {
        FUZZ_REQUIRE(found.frames.at(i).mMessageNumber == quint32(i + 1));
        checkFrame(found.frames.at(i), lines.value(int(found.frameLines.at(i) - 1)),
                   reader.interfaces().at(found.lines.at(i)));
    }
    for (const auto &bad : found.badLines) {
        FUZZ_REQUIRE(bad.second == lines.value(int(bad.first - 1)).left(int(CandumpReader::maxLineLength)));
        named.append(bad.first);
    }
    for (int i = 0; i < lines.size(); ++i)
        FUZZ_REQUIRE(named.count(quint64(i + 1)) == (holdsNothing(lines.at(i)) ? 0 : 1));
    FUZZ_REQUIRE(reader.pieceCount() == quint64(lines.size()));
    FUZZ_REQUIRE(reader.frameCount() == quint32(found.frames.size()));
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray log(reinterpret_cast<const char *>(data + 1), int(size - 1));
    const auto found = read(log, 1 + data[0]);
    checkLines(*found, linesOf(log));
    FUZZ_REQUIRE(read(log, 1 << 20)->text == found->text);
    return 0;
}
