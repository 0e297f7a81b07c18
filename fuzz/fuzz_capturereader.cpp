// Any bytes into the reader of captures. The first byte tells how long the blocks are in which the rest comes.

#include "capturereader.h"
#include "fuzzing.h"

#include <QByteArray>

#include <algorithm>
#include <cstring>

namespace {

struct Findings final : FrameSink
{
    void frame(quint8 line, const CAN::CanRxMessage &msg) override
    {
        const CAN::CanMessage &frame = msg.mFrame;
        const bool isFd = (frame.mFlags & CAN::CanMessage::FdFormat) != 0;
        const bool isRemote = (frame.mFlags & CAN::CanMessage::RemoteRequest) != 0;
        const bool isExtended = (frame.mFlags & CAN::CanMessage::ExtendedId) != 0;
        const bool isError = (frame.mFlags & CAN::CanMessage::ErrorFrame) != 0;
        FUZZ_REQUIRE(msg.mMessageNumber == ++frames);
        FUZZ_REQUIRE(line < reader.interfaces().size());
        FUZZ_REQUIRE(frame.mIdentifier <= (isExtended || isError ? 0x1FFFFFFFU : 0x7FFU));
        FUZZ_REQUIRE(frame.mDataLength <= (isFd ? CAN::CanMessage::maxPayload : 8));
        FUZZ_REQUIRE(std::all_of(frame.mPayload + (isRemote ? 0 : frame.mDataLength), std::end(frame.mPayload),
                                 [](quint8 byte) { return byte == 0; }));
        text += QByteArray::number(msg.mTimeStamp.toNSecs()) + ' ' + QByteArray::number(frame.mIdentifier) + ' '
                + char(line) + char(frame.mFlags) + frame.dataToByteArray(0, -1, true) + '\n';
    }
    void badPiece(quint64 number, const char *problem, std::string_view) override
    {
        FUZZ_REQUIRE(number == reader.pieceCount() && number > lastBad);
        lastBad = number;
        ++badPieces;
        text += QByteArray::number(number) + problem + '\n';
    }

    CaptureReader reader{*this};
    QByteArray text; // all of it, to compare
    quint32 frames = 0;
    quint64 badPieces = 0;
    quint64 lastBad = 0;
};

QByteArray read(const QByteArray &capture, int block)
{
    Findings found;
    int done = 0;
    const QString problem = found.reader.read([&](char *data, qint64 size) {
        const int taken = int(std::min<qint64>({size, block, capture.size() - done}));
        std::memcpy(data, capture.constData() + done, std::size_t(taken));
        done += taken;
        return qint64(taken);
    });
    FUZZ_REQUIRE(found.reader.frameCount() == found.frames);
    FUZZ_REQUIRE(found.frames + found.badPieces <= found.reader.pieceCount());
    FUZZ_REQUIRE(problem.isEmpty() || found.text.isEmpty());
    return found.text + problem.toUtf8();
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray capture(reinterpret_cast<const char *>(data + 1), int(size - 1));
    FUZZ_REQUIRE(read(capture, 1 + data[0]) == read(capture, 1 << 20));
    return 0;
}
