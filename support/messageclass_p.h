#ifndef CANOPENANALYSIS_SUPPORT_MESSAGECLASS_P_H
#define CANOPENANALYSIS_SUPPORT_MESSAGECLASS_P_H

#include "support/canopenrecords.h"

#include <array>

/// What COHelper::getMessageType() answers, for the library's own hot path: in place, without a call.
namespace MessageClass {

constexpr quint32 identifierCount = 0x800; // 11-bit identifiers
constexpr quint32 firstPdo = 0x181;
constexpr quint32 lastPdo = 0x57F;
constexpr quint32 nmtErrorControlBase = 0x700;
constexpr quint8 sdoAbortCommand = 0x80;

struct IdentifierRange
{
    quint32 first;
    quint32 last;
    CANopen::MessageType type;
};

constexpr IdentifierRange identifierRanges[] = {
    {0x000, 0x000, CANopen::NMT},     {0x001, 0x001, CANopen::GFC},      {0x071, 0x076, CANopen::FLYMA},
    {0x080, 0x080, CANopen::SYNC},    {0x081, 0x0FF, CANopen::EMCY},     {0x100, 0x100, CANopen::TIME},
    {0x101, 0x180, CANopen::SRDO},    {firstPdo, lastPdo, CANopen::PDO}, {0x580, 0x5FF, CANopen::SDO_RES},
    {0x600, 0x67F, CANopen::SDO_REQ}, {0x691, 0x691, CANopen::Sleep},    {0x6E0, 0x6E0, CANopen::SDO_DYN_REQ},
    {0x700, 0x77F, CANopen::NMT_EC},  {0x7E4, 0x7E4, CANopen::LSS_RES},  {0x7E5, 0x7E5, CANopen::LSS_REQ},
};

/// One byte per 11-bit identifier, so that a look-up does not depend on the class.
constexpr std::array<quint8, identifierCount> makeTable()
{
    std::array<quint8, identifierCount> table{};
    for (const IdentifierRange &range : identifierRanges) {
        for (quint32 id = range.first; id <= range.last; ++id)
            table[id] = static_cast<quint8>(range.type);
    }
    return table;
}

inline constexpr std::array<quint8, identifierCount> table = makeTable();

inline bool isPdoIdentifier(quint32 id)
{
    return id >= firstPdo && id <= lastPdo;
}

/// Whether the class is PDO; remote frames that ask for one are of that class, too.
inline bool isProcessData(const CAN::CanMessage &frame)
{
    constexpr quint8 noClass = CAN::CanMessage::ExtendedId | CAN::CanMessage::ErrorFrame;
    return isPdoIdentifier(frame.mIdentifier) && (frame.mFlags & noClass) == 0;
}

inline CANopen::MessageType of(const CAN::CanMessage &frame, bool &isAbort)
{
    constexpr quint8 noDataFrame =
        CAN::CanMessage::ExtendedId | CAN::CanMessage::RemoteRequest | CAN::CanMessage::ErrorFrame;
    const quint32 id = frame.mIdentifier;
    if (id >= identifierCount || (frame.mFlags & noDataFrame) != 0)
        return isProcessData(frame) ? CANopen::PDO : CANopen::UNKNOWN;

    const auto type = static_cast<CANopen::MessageType>(table[id]);
    switch (type) {
    case CANopen::SDO_REQ:
    case CANopen::SDO_RES:
        if (frame.mDataLength >= 1 && frame.mPayload[0] == sdoAbortCommand)
            isAbort = true;
        return type;
    case CANopen::NMT_EC:
        if (id != nmtErrorControlBase && frame.mDataLength == 1 && frame.mPayload[0] == 0x00)
            return CANopen::NMT_EC_BOOTUP;
        return type;
    default:
        return type;
    }
}

} // namespace MessageClass

#endif // CANOPENANALYSIS_SUPPORT_MESSAGECLASS_P_H
