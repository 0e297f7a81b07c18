#include "candumpreader.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr quint32 maxStandardId = 0x7FF;
constexpr quint32 maxExtendedId = 0x1FFFFFFF;
constexpr quint32 errorFrameBit = 0x20000000;
constexpr int maxClassicLength = 8;
constexpr int maxFractionDigits = 9;
// The largest time that nanoseconds in 64 bits can hold is a little beyond this; 292 years are enough for any clock.
constexpr quint64 maxSeconds = 9223372035;
constexpr quint8 notHex = 0xFF;

constexpr std::array<quint8, 256> makeHexTable()
{
    std::array<quint8, 256> table{};
    for (auto &entry : table)
        entry = notHex;
    for (quint8 digit = 0; digit < 10; ++digit)
        table[std::size_t('0') + digit] = digit;
    for (quint8 digit = 0; digit < 6; ++digit) {
        table[std::size_t('A') + digit] = quint8(10 + digit);
        table[std::size_t('a') + digit] = quint8(10 + digit);
    }
    return table;
}

constexpr std::array<quint8, 256> hexTable = makeHexTable();

quint8 hexValue(char c)
{
    return hexTable[static_cast<unsigned char>(c)];
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isSpace(char c)
{
    return c == ' ' || c == '\t';
}

const char *skipSpaces(const char *pos, const char *end)
{
    while (pos != end && isSpace(*pos))
        ++pos;
    return pos;
}

// Reads one field of a line after the other. Each function moves the position behind its field and returns null, or
// returns what is wrong.
class FieldReader
{
public:
    FieldReader(const char *pos, const char *end) : mPos(pos), mEnd(end) {}

    const char *time(CanTimeStamp &time);
    const char *interfaceName(std::string_view &name);
    const char *identifier(CAN::CanMessage &frame);
    const char *payload(CAN::CanMessage &frame);
    const char *lineEnd();

private:
    bool accept(char c);
    const char *fraction(quint64 &nsecs);
    const char *remoteLength(CAN::CanMessage &frame);
    const char *dataBytes(CAN::CanMessage &frame, int maxLength);
    const char *fdBytes(CAN::CanMessage &frame);

    const char *mPos;
    const char *const mEnd;
};

bool FieldReader::accept(char c)
{
    if (mPos == mEnd || *mPos != c)
        return false;
    ++mPos;
    return true;
}

const char *FieldReader::time(CanTimeStamp &time)
{
    if (!accept('('))
        return "no time stamp in parentheses at the beginning";
    quint64 seconds = 0;
    const char *const first = mPos;
    for (; mPos != mEnd && isDigit(*mPos); ++mPos) {
        seconds = seconds * 10 + quint64(*mPos - '0');
        if (seconds > maxSeconds)
            return "the time stamp is out of range";
    }
    if (mPos == first)
        return "the time stamp is not a number of seconds";
    quint64 nsecs = 0;
    if (const char *problem = fraction(nsecs))
        return problem;
    if (!accept(')'))
        return "the time stamp is not a number of seconds";
    time = CanTimeStamp::fromNSecs(qint64(seconds * 1000000000 + nsecs));
    return nullptr;
}

const char *FieldReader::fraction(quint64 &nsecs)
{
    if (!accept('.'))
        return nullptr;
    int digits = 0;
    for (; mPos != mEnd && isDigit(*mPos); ++mPos) {
        if (++digits > maxFractionDigits)
            return "the time stamp is finer than a nanosecond";
        nsecs = nsecs * 10 + quint64(*mPos - '0');
    }
    for (; digits < maxFractionDigits; ++digits)
        nsecs *= 10;
    return nullptr;
}

const char *FieldReader::interfaceName(std::string_view &name)
{
    const char *const first = skipSpaces(mPos, mEnd);
    mPos = std::find_if(first, mEnd, isSpace);
    name = std::string_view(first, std::size_t(mPos - first));
    if (name.empty())
        return "the line ends behind the time stamp";
    mPos = skipSpaces(mPos, mEnd);
    return nullptr;
}

const char *FieldReader::identifier(CAN::CanMessage &frame)
{
    quint32 id = 0;
    const char *const first = mPos;
    for (; mPos != mEnd && hexValue(*mPos) != notHex; ++mPos)
        id =
            (id << 4) | hexValue(*mPos); // of an identifier with too many digits the upper ones are lost: refused below
    const auto digits = mPos - first;
    if (!accept('#'))
        return "no identifier followed by '#'";
    if (digits == 3 && id <= maxStandardId) {
        frame.mIdentifier = id;
    } else if (digits == 8 && id <= maxExtendedId) {
        frame.mIdentifier = id;
        frame.mFlags = CAN::CanMessage::ExtendedId;
    } else if (digits == 8 && (id & ~maxExtendedId) == errorFrameBit) {
        frame.mIdentifier = id & maxExtendedId;
        frame.mFlags = CAN::CanMessage::ErrorFrame;
    } else {
        return digits == 3 || digits == 8 ? "the identifier is out of range"
                                          : "the identifier has neither three nor eight digits";
    }
    return nullptr;
}

const char *FieldReader::payload(CAN::CanMessage &frame)
{
    if (accept('#'))
        return fdBytes(frame);
    if (accept('R'))
        return remoteLength(frame);
    return dataBytes(frame, maxClassicLength);
}

const char *FieldReader::remoteLength(CAN::CanMessage &frame)
{
    frame.mFlags |= CAN::CanMessage::RemoteRequest;
    if (mPos == mEnd || isSpace(*mPos))
        return nullptr;
    if (*mPos < '0' || *mPos > '8')
        return "the data length of the remote frame is not 0 to 8";
    frame.mDataLength = quint8(*mPos++ - '0');
    return nullptr;
}

const char *FieldReader::dataBytes(CAN::CanMessage &frame, int maxLength)
{
    int length = 0;
    while (mEnd - mPos >= 2) {
        const quint8 high = hexValue(mPos[0]);
        const quint8 low = hexValue(mPos[1]);
        if ((high | low) == notHex)
            break;
        if (length == maxLength)
            return maxLength == maxClassicLength ? "more than 8 data bytes" : "more than 64 data bytes";
        frame.mPayload[length++] = quint8((high << 4) | low);
        mPos += 2;
    }
    if (mPos != mEnd && hexValue(*mPos) != notHex)
        return "odd number of data digits";
    frame.mDataLength = quint8(length);
    return nullptr;
}

const char *FieldReader::fdBytes(CAN::CanMessage &frame)
{
    if (frame.mFlags & CAN::CanMessage::ErrorFrame)
        return "an error frame in CAN FD format";
    frame.mFlags |= CAN::CanMessage::FdFormat;
    if (mPos == mEnd || hexValue(*mPos) == notHex)
        return "no flags digit behind '##'";
    ++mPos; // bit rate switch and error state indicator: nothing asks for them
    if (const char *problem = dataBytes(frame, CAN::CanMessage::maxPayload))
        return problem;
    if (frame.mDataLength > maxClassicLength && !CAN::fdPayloadLengths.contains(frame.mDataLength))
        return "no CAN FD frame has this many data bytes";
    return nullptr;
}

// What may stand behind the data: `_` and a digit (a data length code above 8 of a classic frame), a direction.
const char *FieldReader::lineEnd()
{
    if (mEnd - mPos >= 2 && mPos[0] == '_' && hexValue(mPos[1]) > maxClassicLength && hexValue(mPos[1]) != notHex)
        mPos += 2;
    if (mPos != mEnd && !isSpace(*mPos))
        return "something that is no hexadecimal digit in the data";
    mPos = skipSpaces(mPos, mEnd);
    if (accept('R') || accept('T'))
        mPos = skipSpaces(mPos, mEnd);
    return mPos == mEnd ? nullptr : "something behind the data";
}

} // namespace

void CandumpReader::feed(const char *data, std::size_t size)
{
    const char *const end = data + size;
    const char *begin = data;
    while (begin != end) {
        const auto *lineEnd = static_cast<const char *>(std::memchr(begin, '\n', std::size_t(end - begin)));
        if (!lineEnd)
            return keepPart(begin, end);
        takeLine(begin, lineEnd);
        begin = lineEnd + 1;
    }
}

void CandumpReader::finish()
{
    if (!mPart.empty())
        takeLine(nullptr, nullptr);
}

// A line has come to its end: what was kept of it, then the bytes from begin to end.
void CandumpReader::takeLine(const char *begin, const char *end)
{
    if (mPart.empty())
        return readLine(begin, end);
    keepPart(begin, end);
    readLine(mPart.data(), mPart.data() + mPart.size());
    mPart.clear();
}

void CandumpReader::keepPart(const char *begin, const char *end)
{
    // One byte more than allowed is kept (and one for the CR): that is how readLine() sees that the line is too long.
    const std::size_t room = maxLineLength + 2 - mPart.size();
    mPart.append(begin, std::min(room, std::size_t(end - begin)));
}

void CandumpReader::readLine(const char *begin, const char *end)
{
    ++mLineCount;
    if (begin != end && end[-1] == '\r')
        --end;
    const char *problem = nullptr;
    if (std::size_t(end - begin) > maxLineLength) {
        end = begin + maxLineLength;
        problem = "the line is too long";
    } else {
        const char *const pos = skipSpaces(begin, end);
        if (pos == end || *pos == '#')
            return;
        problem = readFrame(pos, end);
    }
    if (problem)
        mSink.badPiece(mLineCount, problem, std::string_view(begin, std::size_t(end - begin)));
}

const char *CandumpReader::readFrame(const char *pos, const char *end)
{
    FieldReader fields(pos, end);
    CAN::CanRxMessage msg;
    std::string_view name;
    const char *problem = fields.time(msg.mTimeStamp);
    if (!problem)
        problem = fields.interfaceName(name);
    if (!problem)
        problem = fields.identifier(msg.mFrame);
    if (!problem)
        problem = fields.payload(msg.mFrame);
    if (!problem)
        problem = fields.lineEnd();
    if (problem)
        return problem;
    const int line = lineOfInterface(name);
    if (line < 0)
        return "more than 255 interfaces";
    msg.mMessageNumber = ++mFrameCount;
    mSink.frame(quint8(line), msg);
    return nullptr;
}

int CandumpReader::lineOfInterface(std::string_view name)
{
    if (mLastInterface < mInterfaces.size() && mInterfaces[mLastInterface] == name)
        return int(mLastInterface);
    const auto found = std::find(mInterfaces.cbegin(), mInterfaces.cend(), name);
    if (found == mInterfaces.cend()) {
        if (mInterfaces.size() == maxInterfaces)
            return -1;
        mInterfaces.emplace_back(name);
        mLastInterface = mInterfaces.size() - 1;
    } else {
        mLastInterface = std::size_t(found - mInterfaces.cbegin());
    }
    return int(mLastInterface);
}
