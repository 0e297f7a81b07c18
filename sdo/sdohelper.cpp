#include "sdo/sdohelper.h"

#include <algorithm>

namespace {

constexpr int valueOffset = 4; // bytes 4 to 7 of an initiate frame hold the value or the size
constexpr int maxValueBytes = 4;

/// \a bits bits of byte 0 from bit \a lowest on, shifted down to bit 0.
quint8 commandBits(const CAN::CanMessage &msg, int lowest, int bits)
{
    return static_cast<quint8>((msg.mPayload[0] >> lowest) & ((1 << bits) - 1));
}

quint32 littleEndian(const CAN::CanMessage &msg, int count)
{
    quint32 number = 0;
    for (int i = 0; i < count; ++i)
        number |= quint32(msg.mPayload[valueOffset + i]) << (8 * i);
    return number;
}

/// How many of the \a wanted bytes from byte 4 on lie within the frame's data length.
int valueBytesPresent(const CAN::CanMessage &msg, int wanted)
{
    return std::max(0, std::min(wanted, msg.mDataLength - valueOffset));
}

} // namespace

quint16 SDOHelper::getIndexOfSDOMessage(const CAN::CanMessage &msg)
{
    return static_cast<quint16>(msg.mPayload[2] << 8 | msg.mPayload[1]);
}

quint8 SDOHelper::getSubindexOfSDOMessage(const CAN::CanMessage &msg)
{
    return msg.mPayload[3];
}

quint8 SDOHelper::sizeIndicatedBitOfCanMsg(const CAN::CanMessage &msg)
{
    return commandBits(msg, 0, 1);
}

quint8 SDOHelper::expeditedBitOfCanMsg(const CAN::CanMessage &msg)
{
    return commandBits(msg, 1, 1);
}

quint8 SDOHelper::expeditedBytesWithoutData(const CAN::CanMessage &msg)
{
    return commandBits(msg, 2, 2);
}

quint32 SDOHelper::sizeOfSegmentedTransfer(const CAN::CanMessage &msg)
{
    return littleEndian(msg, valueBytesPresent(msg, maxValueBytes));
}

qint64 SDOHelper::getExpeditedRawValue(const CAN::CanMessage &msg, bool &ok)
{
    // Bit 6 tells an upload response (010x_xxxx) from a download request (001x_xxxx).
    constexpr quint8 uploadWithSize = 0x43;
    const bool applyN = (msg.mPayload[0] & uploadWithSize) == uploadWithSize;
    const int wanted = applyN ? maxValueBytes - expeditedBytesWithoutData(msg) : maxValueBytes;
    const int taken = valueBytesPresent(msg, wanted);
    ok = taken > 0;
    return littleEndian(msg, taken);
}

quint8 SDOHelper::toggleBitOfCanMsg(const CAN::CanMessage &msg)
{
    return commandBits(msg, 4, 1);
}

quint8 SDOHelper::segmentedBytesWithoutData(const CAN::CanMessage &msg)
{
    return commandBits(msg, 1, 3);
}

quint8 SDOHelper::lastSegmentBitOfCanMsg(const CAN::CanMessage &msg)
{
    return commandBits(msg, 0, 1);
}

quint8 SDOHelper::getClientSubcommandDownload(const CAN::CanMessage &msg)
{
    return commandBits(msg, 0, 1);
}

quint8 SDOHelper::getServerSubCommandBlockUpload(const CAN::CanMessage &msg)
{
    return commandBits(msg, 0, 1);
}

quint8 SDOHelper::getClientSubcommandUpload(const CAN::CanMessage &msg)
{
    return commandBits(msg, 0, 2);
}

quint8 SDOHelper::getServerSubCommandBlockDownload(const CAN::CanMessage &msg)
{
    return commandBits(msg, 0, 2);
}

quint8 SDOHelper::getCRCSupport(const CAN::CanMessage &msg)
{
    return msg.mPayload[0] & 0x04;
}

quint8 SDOHelper::getSizeIndication(const CAN::CanMessage &msg)
{
    return msg.mPayload[0] & 0x02;
}

quint8 SDOHelper::getBlockUploadUnsetBytes(const CAN::CanMessage &msg)
{
    return commandBits(msg, 2, 3);
}

quint8 SDOHelper::getAckseqOfBlockUploadResponseMsg(const CAN::CanMessage &msg)
{
    return msg.mPayload[1];
}

quint8 SDOHelper::getBlkSizeOfBlockUploadResponseMsg(const CAN::CanMessage &msg)
{
    return msg.mPayload[2];
}

quint8 SDOHelper::getBlkSizeOfBlockUploadRequestMsg(const CAN::CanMessage &msg)
{
    return msg.mPayload[4];
}

quint8 SDOHelper::getBlkSizeOfBlockDLResponseMsg(const CAN::CanMessage &msg)
{
    return msg.mPayload[4];
}

quint32 SDOHelper::getSizeInBytesOfSDOBlockDownload(const CAN::CanMessage &msg)
{
    return littleEndian(msg, maxValueBytes);
}
