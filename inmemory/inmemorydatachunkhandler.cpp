#include "inmemory/inmemorydatachunkhandler.h"

#include "inmemory/appendonlyarray_p.h"

#include <array>
#include <climits>
#include <cstring>
#include <deque>
#include <mutex>

namespace {

constexpr std::size_t cacheLine = 64;
constexpr int wordSize = 8;

// A frame in three words. The third holds the payload; for more than 8 bytes, the place of their first word in the array of
// long payloads.
struct Record
{
    std::atomic<quint64> time;
    std::atomic<quint64> head; // bits 0..31 identifier, 32..39 data length, 40..47 flags, 48..55 line
    std::atomic<quint64> payload;
};

// One line. Words of two halves name in the upper half what they belong to: where that is another recording than the
// present one, the word counts as 0. So a clear has nothing to set back.
struct Line
{
    // Read for each fetch: where the line's frames are in the recording (recording, place).
    alignas(cacheLine) AppendOnlyArray<std::atomic<quint64>> places;
    // Written for each frame, so kept apart from the line above (recording, count).
    alignas(cacheLine) std::atomic<quint64> count = 0;
    std::atomic<quint64> readPosition = 0; // of nextMessageForLine() (start, position)
    std::atomic<quint64> announcedEnd = 0; // the latest (start, count + 1)
};

struct HeldBackFrame
{
    unsigned char line;
    CAN::CanMessage frame;
    CanTimeStamp time;
};

// A clear that has been asked for and is not over, and the frames that were appended since, up to the next such clear. Memory
// for their recording is reserved when they are held back, so that no clear ends half done.
struct PendingClear
{
    bool isLive;
    std::vector<HeldBackFrame> heldBack;
    std::array<quint32, InMemoryDatachunkHandler::lastLine + 1> countOfLine{}; // of the frames held back
    quint64 longPayloadWords = 0;                                              // of the frames held back
};

constexpr quint64 twoHalves(quint32 upper, quint32 lower)
{
    return (quint64(upper) << 32) | lower;
}
constexpr quint32 upperHalf(quint64 word)
{
    return quint32(word >> 32);
}
constexpr quint32 lowerHalf(quint64 word)
{
    return quint32(word);
}

quint64 headOf(const CAN::CanMessage &frame, unsigned char line)
{
    return twoHalves((quint32(line) << 16) | (quint32(frame.mFlags) << 8) | frame.mDataLength, frame.mIdentifier);
}

// Payload bytes that a frame has, whatever its data length says.
int storedBytes(const CAN::CanMessage &frame)
{
    if (frame.mFlags & CAN::CanMessage::RemoteRequest)
        return 0;
    return std::min<int>(frame.mDataLength, CAN::CanMessage::maxPayload);
}

// Words that the payload takes beyond the frame's own record.
int longPayloadWordsOf(const CAN::CanMessage &frame)
{
    const int bytes = storedBytes(frame);
    return bytes > wordSize ? (bytes + wordSize - 1) / wordSize : 0;
}

quint64 wordFrom(const quint8 *bytes, int count)
{
    quint64 word = 0;
    std::memcpy(&word, bytes, std::size_t(std::min(count, wordSize)));
    return word;
}

} // namespace

// How readers get by without a lock
//
// Recordings are numbered; a clear raises the number and touches nothing else. The frames appended next reuse the memory,
// which is never freed. The writer (whoever holds the mutex) writes the words of a frame, then its place in its line
// together with the number of the recording. A reader
//   1. reads the number of the recording, 2. reads a place and stops if it is none of that recording, 3. reads the words of
//   the frame, 4. reads the number again.
// All words are atomics, written with release and read with acquire: a reader that met a single word of a later recording
// in step 3 therefore sees in step 4 that the number was raised before, and starts over. (Fences would do as well, but the
// thread sanitizer does not know them; on x86 neither costs an instruction.)
//
// What a reader reads changes seldom, but for the frames themselves: a count that is read for each fetch and written for
// each frame would have the two processors wait for each other all the time.
struct InMemoryDatachunkHandler::Private
{
    enum class Fetch { Done, NoSuchFrame, Overtaken };

    explicit Private(quint32 first) : firstNumber(first) {}

    quint32 recording() const { return lowerHalf(epoch.load(std::memory_order_acquire)); }
    // Changes whenever reading starts over at position 0.
    static quint32 startOf(quint64 epoch) { return upperHalf(epoch) + lowerHalf(epoch); }
    static quint32 countIn(quint32 recording, const std::atomic<quint64> &counter);
    static bool hasFrame(const Line &line, quint32 position, quint32 recording);
    static quint32 countOfLine(const Line &line, quint32 recording);

    bool readFrame(quint32 place, quint32 since, CAN::CanRxMessage &msg) const;
    bool readLongPayload(quint64 firstWord, quint32 since, CAN::CanMessage &frame) const;
    Fetch fetchOfLine(const Line &line, quint32 position, quint32 since, CAN::CanRxMessage &msg) const;
    bool copyRestOfLine(const Line &line, quint32 position, QList<CAN::CanRxMessage> &frames) const;
    bool isNewEnd(Line &line, quint32 position);

    void reserve(Line &line, quint32 place, quint32 position, quint64 longWords);
    quint32 append(unsigned char lineNumber, const CAN::CanMessage &frame, CanTimeStamp time);
    quint32 holdBack(PendingClear &clear, const HeldBackFrame &held);
    quint32 write(unsigned char lineNumber, const CAN::CanMessage &frame, CanTimeStamp time) noexcept;
    quint64 writePayload(const CAN::CanMessage &frame);
    void discardFrames();

    const quint32 firstNumber;

    // Written by the writer, read by all.
    AppendOnlyArray<Record> records;
    AppendOnlyArray<std::atomic<quint64>> longPayloads;
    std::array<Line, InMemoryDatachunkHandler::lastLine + 1> lines;
    // Lower half: number of the recording, raised by each clear. Upper half: how often the read positions were set back.
    alignas(cacheLine) std::atomic<quint64> epoch = 1;
    alignas(cacheLine) std::atomic<quint64> count = 0; // (recording, count)

    // Makes the writer; guards what follows. Never held while a signal is emitted.
    alignas(cacheLine) mutable std::mutex writing;
    quint64 longPayloadWords = 0;
    std::deque<PendingClear> pendingClears; // the first one is being carried out
};

quint32 InMemoryDatachunkHandler::Private::countIn(quint32 recording, const std::atomic<quint64> &counter)
{
    const quint64 word = counter.load(std::memory_order_acquire);
    return upperHalf(word) == recording ? lowerHalf(word) : 0;
}

bool InMemoryDatachunkHandler::Private::hasFrame(const Line &line, quint32 position, quint32 recording)
{
    return line.places.contains(position)
           && upperHalf(line.places.at(position).load(std::memory_order_acquire)) == recording;
}

// A frame can be fetched a moment before it is counted. Whoever has it must not be told of fewer frames.
quint32 InMemoryDatachunkHandler::Private::countOfLine(const Line &line, quint32 recording)
{
    quint32 count = countIn(recording, line.count);
    while (hasFrame(line, count, recording))
        ++count;
    return count;
}

// Fills msg with the frame at a place of the recording; false when the recording is no longer the given one.
bool InMemoryDatachunkHandler::Private::readFrame(quint32 place, quint32 since, CAN::CanRxMessage &msg) const
{
    const Record &record = records.at(place);
    const quint64 time = record.time.load(std::memory_order_acquire);
    const quint64 head = record.head.load(std::memory_order_acquire);
    const quint64 payload = record.payload.load(std::memory_order_acquire);
    if (recording() != since)
        return false;
    msg.mTimeStamp = CanTimeStamp::fromNSecs(qint64(time));
    msg.mMessageNumber = firstNumber + place;
    msg.mFrame.mIdentifier = lowerHalf(head);
    msg.mFrame.mDataLength = quint8(head >> 32);
    msg.mFrame.mFlags = quint8(head >> 40);
    std::memset(msg.mFrame.mPayload + wordSize, 0, sizeof(msg.mFrame.mPayload) - wordSize);
    if (storedBytes(msg.mFrame) > wordSize)
        return readLongPayload(payload, since, msg.mFrame);
    std::memcpy(msg.mFrame.mPayload, &payload, wordSize);
    return true;
}

bool InMemoryDatachunkHandler::Private::readLongPayload(quint64 firstWord, quint32 since, CAN::CanMessage &frame) const
{
    const int bytes = storedBytes(frame);
    for (int done = 0; done < bytes; done += wordSize, ++firstWord) {
        const quint64 word = longPayloads.at(firstWord).load(std::memory_order_acquire);
        std::memcpy(frame.mPayload + done, &word, wordSize);
    }
    return recording() == since;
}

InMemoryDatachunkHandler::Private::Fetch InMemoryDatachunkHandler::Private::fetchOfLine(const Line &line,
                                                                                        quint32 position, quint32 since,
                                                                                        CAN::CanRxMessage &msg) const
{
    if (!line.places.contains(position))
        return Fetch::NoSuchFrame;
    const quint64 place = line.places.at(position).load(std::memory_order_acquire);
    if (upperHalf(place) != since)
        return Fetch::NoSuchFrame;
    return readFrame(lowerHalf(place), since, msg) ? Fetch::Done : Fetch::Overtaken;
}

// False when the recording was cleared meanwhile; the list then holds frames that are gone.
bool InMemoryDatachunkHandler::Private::copyRestOfLine(const Line &line, quint32 position,
                                                       QList<CAN::CanRxMessage> &frames) const
{
    const quint32 since = recording();
    CAN::CanRxMessage msg;
    for (;; ++position) {
        const Fetch result = fetchOfLine(line, position, since, msg);
        if (result != Fetch::Done)
            return result == Fetch::NoSuchFrame && recording() == since;
        frames.append(msg);
    }
}

// Whether a reader at the position has met an end of the line that was not announced before; it counts as announced from
// now on. What is kept is only ever raised: of two threads that met two ends, the slower one must not bring back the earlier.
bool InMemoryDatachunkHandler::Private::isNewEnd(Line &line, quint32 position)
{
    const quint64 since = epoch.load(std::memory_order_acquire);
    if (countOfLine(line, lowerHalf(since)) != position || recording() != lowerHalf(since))
        return false;
    const quint64 end = twoHalves(startOf(since), position + 1);
    quint64 announced = line.announcedEnd.load(std::memory_order_relaxed);
    while (announced < end) {
        if (line.announcedEnd.compare_exchange_weak(announced, end, std::memory_order_relaxed))
            return true;
    }
    return false;
}

// Provides what write() needs for a frame; longWords is what the long payloads take with it. Throws std::bad_alloc.
void InMemoryDatachunkHandler::Private::reserve(Line &line, quint32 place, quint32 position, quint64 longWords)
{
    records.reserve(quint64(place) + 1);
    line.places.reserve(quint64(position) + 1);
    longPayloads.reserve(longWords);
}

quint32 InMemoryDatachunkHandler::Private::append(unsigned char lineNumber, const CAN::CanMessage &frame,
                                                  CanTimeStamp time)
{
    Line &line = lines[lineNumber];
    const quint32 current = recording();
    reserve(line, countIn(current, count), countIn(current, line.count),
            longPayloadWords + quint64(longPayloadWordsOf(frame)));
    return write(lineNumber, frame, time);
}

// What it takes is reserved here, where the caller may be told that there is no memory.
quint32 InMemoryDatachunkHandler::Private::holdBack(PendingClear &clear, const HeldBackFrame &held)
{
    const auto place = quint32(clear.heldBack.size());
    const quint64 longWords = clear.longPayloadWords + quint64(longPayloadWordsOf(held.frame));
    quint32 &position = clear.countOfLine[held.line];
    reserve(lines[held.line], place, position, longWords);
    clear.heldBack.push_back(held);
    ++position;
    clear.longPayloadWords = longWords;
    return firstNumber + place;
}

// Requires: the memory was reserved.
quint32 InMemoryDatachunkHandler::Private::write(unsigned char lineNumber, const CAN::CanMessage &frame,
                                                 CanTimeStamp time) noexcept
{
    Line &line = lines[lineNumber];
    const quint32 current = recording();
    const quint32 place = countIn(current, count);
    const quint32 position = countIn(current, line.count);
    Record &record = records.at(place);
    record.time.store(quint64(time.toNSecs()), std::memory_order_release);
    record.head.store(headOf(frame, lineNumber), std::memory_order_release);
    record.payload.store(writePayload(frame), std::memory_order_release);
    count.store(twoHalves(current, place + 1), std::memory_order_release);
    line.places.at(position).store(twoHalves(current, place), std::memory_order_release);
    line.count.store(twoHalves(current, position + 1), std::memory_order_release);
    return firstNumber + place;
}

// Stores a long payload and returns where, or returns the payload itself.
quint64 InMemoryDatachunkHandler::Private::writePayload(const CAN::CanMessage &frame)
{
    const int bytes = storedBytes(frame);
    if (bytes <= wordSize)
        return wordFrom(frame.mPayload, bytes);
    const quint64 firstWord = longPayloadWords;
    for (int done = 0; done < bytes; done += wordSize) {
        const quint64 word = wordFrom(frame.mPayload + done, bytes - done);
        longPayloads.at(longPayloadWords++).store(word, std::memory_order_release);
    }
    return firstWord;
}

void InMemoryDatachunkHandler::Private::discardFrames()
{
    longPayloadWords = 0;
    epoch.fetch_add(twoHalves(0, 1), std::memory_order_acq_rel);
}

InMemoryDatachunkHandler::InMemoryDatachunkHandler(quint32 firstMessageNumber, QObject *parent)
    : DatachunkHandler(parent), d(std::make_unique<Private>(firstMessageNumber))
{
}

InMemoryDatachunkHandler::~InMemoryDatachunkHandler() = default;

std::optional<quint32> InMemoryDatachunkHandler::append(unsigned char line, const CAN::CanMessage &frame,
                                                        CanTimeStamp time)
{
    if (line > lastLine)
        return std::nullopt;
    const std::lock_guard<std::mutex> lock(d->writing);
    if (d->pendingClears.empty())
        return getMessageCount() < INT_MAX ? std::make_optional(d->append(line, frame, time)) : std::nullopt;
    PendingClear &clear = d->pendingClears.back();
    return clear.heldBack.size() < INT_MAX ? std::make_optional(d->holdBack(clear, {line, frame, time})) : std::nullopt;
}

bool InMemoryDatachunkHandler::clear(bool isLive)
{
    std::unique_lock<std::mutex> lock(d->writing);
    d->pendingClears.push_back({isLive, {}, {}, 0});
    if (d->pendingClears.size() > 1)
        return false; // left to the thread that carries out the first one: waiting for its slots could be a deadlock
    while (!d->pendingClears.empty()) {
        const bool nextIsLive = d->pendingClears.front().isLive;
        lock.unlock();
        Q_EMIT informAboutClearStart();
        lock.lock();
        d->discardFrames();
        lock.unlock();
        Q_EMIT informAboutCleared(nextIsLive);
        lock.lock();
        const PendingClear done = std::move(d->pendingClears.front());
        d->pendingClears.pop_front();
        for (const HeldBackFrame &held : done.heldBack)
            d->write(held.line, held.frame, held.time);
    }
    return true;
}

void InMemoryDatachunkHandler::squeeze()
{
    const std::lock_guard<std::mutex> lock(d->writing);
    if (!d->pendingClears.empty())
        return; // it would take away what is reserved for the frames held back
    d->records.squeeze(Private::countIn(d->recording(), d->count));
    d->longPayloads.squeeze(d->longPayloadWords);
    for (Line &line : d->lines)
        line.places.squeeze(Private::countIn(d->recording(), line.count));
}

int InMemoryDatachunkHandler::getMessageCount()
{
    return int(Private::countIn(d->recording(), d->count));
}

CAN::CanRxMessage InMemoryDatachunkHandler::messageAt(int index) const
{
    CAN::CanRxMessage msg;
    for (;;) {
        const quint32 since = d->recording();
        if (index < 0 || quint32(index) >= Private::countIn(since, d->count))
            return CAN::CanRxMessage();
        if (d->readFrame(quint32(index), since, msg))
            return msg;
    }
}

void InMemoryDatachunkHandler::resetLinePositions()
{
    d->epoch.fetch_add(twoHalves(1, 0), std::memory_order_acq_rel);
}

bool InMemoryDatachunkHandler::nextMessageForLine(CAN::CanRxMessage &msg, unsigned char line)
{
    if (line > lastLine)
        return false;
    std::atomic<quint64> &readPosition = d->lines[line].readPosition;
    for (;;) {
        const quint64 epoch = d->epoch.load(std::memory_order_acquire);
        const quint32 start = Private::startOf(epoch);
        quint64 seen = readPosition.load(std::memory_order_acquire);
        const quint32 position = upperHalf(seen) == start ? lowerHalf(seen) : 0;
        const Private::Fetch result = d->fetchOfLine(d->lines[line], position, lowerHalf(epoch), msg);
        if (result == Private::Fetch::NoSuchFrame)
            return false;
        // Another user of the position may have taken the frame meanwhile.
        if (result == Private::Fetch::Done
            && readPosition.compare_exchange_strong(seen, twoHalves(start, position + 1), std::memory_order_acq_rel))
            return true;
    }
}

bool InMemoryDatachunkHandler::getMessageOfLine(CAN::CanRxMessage &msg, unsigned char line, unsigned int &position)
{
    if (line > lastLine)
        return false;
    Private::Fetch result = Private::Fetch::Overtaken;
    while (result == Private::Fetch::Overtaken)
        result = d->fetchOfLine(d->lines[line], position, d->recording(), msg);
    if (result == Private::Fetch::NoSuchFrame && d->isNewEnd(d->lines[line], position))
        Q_EMIT endOfLineReached(line);
    return result == Private::Fetch::Done;
}

QList<CAN::CanRxMessage> InMemoryDatachunkHandler::getMessagesOfLine(unsigned char line, unsigned int position)
{
    QList<CAN::CanRxMessage> frames;
    while (line <= lastLine && !d->copyRestOfLine(d->lines[line], position, frames))
        frames.clear();
    return frames;
}

int InMemoryDatachunkHandler::lineAt(int index) const
{
    const quint32 since = d->recording();
    if (index < 0 || quint32(index) >= Private::countIn(since, d->count))
        return -1;
    const quint64 head = d->records.at(quint32(index)).head.load(std::memory_order_acquire);
    return d->recording() == since ? int(quint8(head >> 48)) : -1;
}

int InMemoryDatachunkHandler::messageCountOfLine(unsigned char line) const
{
    return line > lastLine ? 0 : int(Private::countOfLine(d->lines[line], d->recording()));
}

QList<unsigned char> InMemoryDatachunkHandler::linesInUse() const
{
    QList<unsigned char> lines;
    for (int line = 0; line <= lastLine; ++line) {
        if (messageCountOfLine(quint8(line)) > 0)
            lines.append(quint8(line));
    }
    return lines;
}

quint32 InMemoryDatachunkHandler::firstMessageNumber() const
{
    return d->firstNumber;
}

qint64 InMemoryDatachunkHandler::memoryUsed() const
{
    const std::lock_guard<std::mutex> lock(d->writing);
    quint64 bytes = d->records.bytesReserved() + d->longPayloads.bytesReserved();
    for (const Line &line : d->lines)
        bytes += line.places.bytesReserved();
    return qint64(bytes);
}
