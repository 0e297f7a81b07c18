#include "words.h"

#include <algorithm>
#include <iterator>

namespace {

struct CodeText
{
    quint32 code;
    const char *text;
};

// Ascending by code.
constexpr CodeText abortCodes[] = {
    {0x05030000, "toggle bit not alternated"},
    {0x05040000, "SDO protocol timed out"},
    {0x05040001, "command specifier not valid or unknown"},
    {0x05040002, "invalid block size"},
    {0x05040003, "invalid sequence number"},
    {0x05040004, "CRC error"},
    {0x05040005, "out of memory"},
    {0x06010000, "unsupported access to the object"},
    {0x06010001, "read of a write-only object"},
    {0x06010002, "write of a read-only object"},
    {0x06020000, "object does not exist"},
    {0x06040041, "object cannot be mapped to a PDO"},
    {0x06040042, "mapped objects exceed the PDO length"},
    {0x06040043, "parameter incompatibility"},
    {0x06040047, "internal incompatibility in the device"},
    {0x06060000, "hardware error"},
    {0x06070010, "data type or length does not match"},
    {0x06070012, "data too long"},
    {0x06070013, "data too short"},
    {0x06090011, "subindex does not exist"},
    {0x06090030, "invalid value"},
    {0x06090031, "value too high"},
    {0x06090032, "value too low"},
    {0x06090036, "maximum is less than minimum"},
    {0x060A0023, "resource not available: SDO connection"},
    {0x08000000, "general error"},
    {0x08000020, "data cannot be transferred or stored"},
    {0x08000021, "data cannot be stored: local control"},
    {0x08000022, "data cannot be stored: device state"},
    {0x08000023, "no object dictionary present"},
    {0x08000024, "no data available"},
};

// Ascending by code; where a group has members of its own, they stand behind it.
constexpr CodeText emergencyCodes[] = {
    {0x8110, "CAN overrun, objects lost"},     {0x8120, "CAN error passive"},
    {0x8130, "life guard or heartbeat error"}, {0x8140, "recovered from bus off"},
    {0x8150, "CAN identifier collision"},      {0x8210, "PDO not processed: length error"},
    {0x8220, "PDO length exceeded"},           {0x8230, "multiplexed PDO not processed"},
    {0x8240, "unexpected SYNC data length"},   {0x8250, "RPDO timeout"},
};

constexpr CodeText emergencyGroups[] = {
    {0x00, "error reset or no error"},
    {0x10, "generic error"},
    {0x20, "current"},
    {0x21, "current, input side"},
    {0x22, "current inside device"},
    {0x23, "current, output side"},
    {0x30, "voltage"},
    {0x31, "mains voltage"},
    {0x32, "voltage inside device"},
    {0x33, "output voltage"},
    {0x40, "temperature"},
    {0x41, "ambient temperature"},
    {0x42, "device temperature"},
    {0x50, "device hardware"},
    {0x60, "device software"},
    {0x61, "internal software"},
    {0x62, "user software"},
    {0x63, "data set"},
    {0x70, "additional modules"},
    {0x80, "monitoring"},
    {0x81, "communication"},
    {0x82, "protocol error"},
    {0x90, "external error"},
    {0xF0, "additional functions"},
    {0xFF, "device specific"},
};

template<std::size_t size>
const char *find(const CodeText (&table)[size], quint32 code)
{
    const auto entry = std::lower_bound(std::begin(table), std::end(table), code,
                                        [](const CodeText &text, quint32 wanted) { return text.code < wanted; });
    return entry != std::end(table) && entry->code == code ? entry->text : "";
}

} // namespace

const char *Words::nmtState(quint8 eventCode)
{
    switch (eventCode) {
    case CANopen::NE_BootUp:
        return "boot-up";
    case CANopen::NE_PreOperational:
        return "pre-operational";
    case CANopen::NE_Operational:
        return "operational";
    case CANopen::NE_Stopped:
        return "stopped";
    default:
        return "unknown";
    }
}

const char *Words::nmtCommand(quint8 command)
{
    switch (command) {
    case NC_StartRemoteNode:
        return "start";
    case NC_StopRemoteNode:
        return "stop";
    case NC_EnterPreOperational:
        return "enter pre-operational";
    case NC_ResetNode:
        return "reset node";
    case NC_ResetCommunication:
        return "reset communication";
    default:
        return "no CiA 301 command";
    }
}

const char *Words::abortCode(quint32 code)
{
    return find(abortCodes, code);
}

const char *Words::emergencyCode(quint16 code)
{
    constexpr quint16 subgroupMask = 0xFFF0;
    if (const char *text = find(emergencyCodes, code & subgroupMask); *text)
        return text;
    const quint32 group = code >> 8;
    if (const char *text = find(emergencyGroups, group); *text)
        return text;
    constexpr quint32 mainGroupMask = 0xF0;
    const char *const text = find(emergencyGroups, group & mainGroupMask);
    return *text && group >= 0x10 ? text : "reserved";
}

const char *Words::protocolFault(ProtocolFault::Kind kind)
{
    switch (kind) {
    case ProtocolFault::UnexpectedResponse:
        return "answer without request or transfer";
    case ProtocolFault::RequestPending:
        return "write repeated before it was answered";
    case ProtocolFault::DownloadRunning:
        return "segmented write begins in a running one";
    case ProtocolFault::NoTransfer:
        return "segment without segmented transfer";
    case ProtocolFault::UploadFailed:
        return "breaks the segmented read, given up";
    case ProtocolFault::DownloadFailed:
        return "breaks the segmented write, given up";
    case ProtocolFault::SegmentsLost:
        return "block acknowledged in part, segments lost";
    case ProtocolFault::LastAcknowledge:
        return "last block, shorter than the block size";
    case ProtocolFault::ErrorControlLength:
        return "heartbeat that is not one byte long";
    }
    return "unknown";
}

const char *Words::protocolFaultKey(ProtocolFault::Kind kind)
{
    switch (kind) {
    case ProtocolFault::UnexpectedResponse:
        return "unexpectedResponse";
    case ProtocolFault::RequestPending:
        return "requestPending";
    case ProtocolFault::DownloadRunning:
        return "downloadRunning";
    case ProtocolFault::NoTransfer:
        return "noTransfer";
    case ProtocolFault::UploadFailed:
        return "uploadFailed";
    case ProtocolFault::DownloadFailed:
        return "downloadFailed";
    case ProtocolFault::SegmentsLost:
        return "segmentsLost";
    case ProtocolFault::LastAcknowledge:
        return "lastAcknowledge";
    case ProtocolFault::ErrorControlLength:
        return "errorControlLength";
    }
    return "unknown";
}

QString Words::messageClass(CANopen::MessageType type)
{
    return CANopen::messageTypeNames.value(type, QStringLiteral("CLASS_%1").arg(type));
}

const char *Words::blockState(quint32 state)
{
    switch (state) {
    case 1:
        return "initiated";
    case 2:
        return "accepted by the server";
    case 3:
        return "segments running";
    case 4:
        return "last segment received";
    case 5:
        return "ended";
    default:
        return "unknown";
    }
}
