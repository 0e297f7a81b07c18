#ifndef CANOPENANALYZE_CANDUMPREADER_H
#define CANOPENANALYZE_CANDUMPREADER_H

#include "framesink.h"

#include <QtGlobal>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Reads logs as `candump -l` writes them, one frame a line:
///
///     (seconds.fraction) interface identifier#data          classic frame, 0 to 8 bytes
///     (seconds.fraction) interface identifier##fdata        CAN FD frame, f its flags, 0 to 64 bytes
///     (seconds.fraction) interface identifier#R2            remote frame, the digit (may be missing) its data length
///
/// The identifier has three hexadecimal digits (11 bits) or eight (29 bits; with 0x20000000 an error frame). At the end
/// of a line a direction, ` R` or ` T`, may stand. Blank lines and lines that begin with `#` are passed over. A line may end
/// with LF or CRLF, the last one with nothing. Time stamps keep every digit down to the nanosecond.
///
/// The log comes in byte blocks of any size, cut anywhere. Nothing fed makes the reader fail or throw, apart from exhausted
/// memory; it keeps at most one line (of maxLineLength) and the names of the interfaces.
/// Threads: a plain object, used by one thread at a time.
class CandumpReader
{
public:
    /// A line of more bytes is bad; the longest frame needs about 200.
    static constexpr std::size_t maxLineLength = 4096;
    /// CAN lines are numbered 0 to 254.
    static constexpr std::size_t maxInterfaces = 255;

    /// \a sink must outlive the reader.
    explicit CandumpReader(FrameSink &sink) : mSink(sink) {}

    /// Reads the next \a size bytes of the log. A line that the block does not complete waits for the next one.
    void feed(const char *data, std::size_t size);

    /// The log has ended: reads the last line if it has no end of its own. Call once, after the last feed().
    void finish();

    /// Names of the interfaces, in the order in which their first frames appeared; the place is the CAN line.
    const std::vector<std::string> &interfaces() const { return mInterfaces; }
    /// Frames handed to the sink. They carry the message numbers 1, 2, 3 … over all interfaces.
    quint32 frameCount() const { return mFrameCount; }
    /// Lines of text seen so far, of whatever kind.
    quint64 pieceCount() const { return mLineCount; }

private:
    void takeLine(const char *begin, const char *end);
    void keepPart(const char *begin, const char *end);
    void readLine(const char *begin, const char *end);
    const char *readFrame(const char *pos, const char *end);
    int lineOfInterface(std::string_view name);

    FrameSink &mSink;
    std::vector<std::string> mInterfaces;
    std::size_t mLastInterface = 0; // most lines come from the interface of the line before
    std::string mPart;              // beginning of a line that the last block did not complete
    quint32 mFrameCount = 0;
    quint64 mLineCount = 0;
};

#endif // CANOPENANALYZE_CANDUMPREADER_H
