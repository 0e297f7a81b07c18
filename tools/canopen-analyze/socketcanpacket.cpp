#include "socketcanpacket.h"

#include <QtEndian>

#include <algorithm>

namespace {

constexpr std::size_t headerSize = 8;
constexpr std::size_t fdPacketSize = 72; // the whole record with room for 64 bytes, whatever the data length
constexpr int lengthAt = 4;
constexpr int flagsAt = 5;
constexpr quint8 fdFlag = 0x04;
constexpr quint8 xlFlag = 0x80; // where other frames have their data length
constexpr int maxClassicLength = 8;

constexpr quint32 extendedBit = 0x80000000;
constexpr quint32 remoteBit = 0x40000000;
constexpr quint32 errorBit = 0x20000000;
constexpr quint32 standardMask = 0x7FF;
constexpr quint32 extendedMask = 0x1FFFFFFF;

void setIdentifier(quint32 id, CAN::CanMessage &frame)
{
    if (id & errorBit) {
        frame.mIdentifier = id & extendedMask;
        frame.mFlags = CAN::CanMessage::ErrorFrame;
        return;
    }
    frame.mIdentifier = id & ((id & extendedBit) ? extendedMask : standardMask);
    frame.mFlags = (id & extendedBit) ? quint8(CAN::CanMessage::ExtendedId) : quint8(0);
    if (id & remoteBit)
        frame.mFlags |= CAN::CanMessage::RemoteRequest;
}

// Captures of old kernels do not mark CAN FD frames, but their packets are larger.
bool isFd(const quint8 *packet, std::size_t sizeOnLine, SocketCanPacket::Format format)
{
    if (format != SocketCanPacket::Format::Open)
        return format == SocketCanPacket::Format::Fd;
    return sizeOnLine == fdPacketSize || (packet[flagsAt] & fdFlag);
}

const char *checkLength(quint8 length, bool fd)
{
    if (length <= maxClassicLength)
        return nullptr;
    if (!fd)
        return "more than 8 data bytes";
    return CAN::fdPayloadLengths.contains(length) ? nullptr : "no CAN FD frame has this many data bytes";
}

} // namespace

const char *SocketCanPacket::decode(const quint8 *packet, std::size_t size, std::size_t sizeOnLine, IdOrder order,
                                    Format format, CAN::CanMessage &frame)
{
    constexpr const char *cutShort = "the packet was cut short";
    if (size < headerSize)
        return cutShort;
    const quint8 length = packet[lengthAt];
    if (length & xlFlag)
        return "a CAN XL frame";
    const bool fd = isFd(packet, sizeOnLine, format);
    if (const char *problem = checkLength(length, fd))
        return problem;
    setIdentifier(order == IdOrder::Network ? qFromBigEndian<quint32>(packet) : qFromUnaligned<quint32>(packet), frame);
    if (fd)
        frame.mFlags |= CAN::CanMessage::FdFormat;
    frame.mDataLength = length;
    if (frame.mFlags & CAN::CanMessage::RemoteRequest)
        return nullptr;
    if (size < headerSize + length)
        return cutShort;
    std::copy_n(packet + headerSize, length, frame.mPayload);
    return nullptr;
}
