#include "support/cohelper.h"

#include <array>

namespace {

using namespace CANopen;

constexpr quint32 identifierCount = 0x800; // 11-bit identifiers
constexpr quint32 firstPdo = 0x181;
constexpr quint32 lastPdo = 0x57F;
constexpr quint32 nmtErrorControlBase = 0x700;
constexpr quint8 sdoAbortCommand = 0x80;

struct IdentifierRange
{
    quint32 first;
    quint32 last;
    MessageType type;
};

constexpr IdentifierRange identifierRanges[] = {
    {0x000, 0x000, NMT},     {0x001, 0x001, GFC},     {0x071, 0x076, FLYMA},   {0x080, 0x080, SYNC},
    {0x081, 0x0FF, EMCY},    {0x100, 0x100, TIME},    {0x101, 0x180, SRDO},    {firstPdo, lastPdo, PDO},
    {0x580, 0x5FF, SDO_RES}, {0x600, 0x67F, SDO_REQ}, {0x691, 0x691, Sleep},   {0x6E0, 0x6E0, SDO_DYN_REQ},
    {0x700, 0x77F, NMT_EC},  {0x7E4, 0x7E4, LSS_RES}, {0x7E5, 0x7E5, LSS_REQ},
};

/// One byte per 11-bit identifier: every frame is looked up here twice, so a look-up must not depend on the class.
constexpr std::array<quint8, identifierCount> makeClassTable()
{
    std::array<quint8, identifierCount> table{};
    for (const IdentifierRange &range : identifierRanges) {
        for (quint32 id = range.first; id <= range.last; ++id)
            table[id] = static_cast<quint8>(range.type);
    }
    return table;
}

constexpr std::array<quint8, identifierCount> classTable = makeClassTable();

bool isPdoIdentifier(quint32 id)
{
    return id >= firstPdo && id <= lastPdo;
}

} // namespace

CANopen::MessageType COHelper::getMessageType(const CAN::CanMessage &frame, bool &isAbort)
{
    constexpr quint8 noDataFrame =
        CAN::CanMessage::ExtendedId | CAN::CanMessage::RemoteRequest | CAN::CanMessage::ErrorFrame;
    const quint32 id = frame.mIdentifier;
    if (id >= identifierCount)
        return UNKNOWN;
    if ((frame.mFlags & noDataFrame) != 0) {
        const bool remoteOnly = (frame.mFlags & noDataFrame) == CAN::CanMessage::RemoteRequest;
        return remoteOnly && isPdoIdentifier(id) ? PDO : UNKNOWN;
    }

    const auto type = static_cast<MessageType>(classTable[id]);
    switch (type) {
    case SDO_REQ:
    case SDO_RES:
        if (frame.mDataLength >= 1 && frame.mPayload[0] == sdoAbortCommand)
            isAbort = true;
        return type;
    case NMT_EC:
        if (id != nmtErrorControlBase && frame.mDataLength == 1 && frame.mPayload[0] == 0x00)
            return NMT_EC_BOOTUP;
        return type;
    default:
        return type;
    }
}
