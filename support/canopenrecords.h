#ifndef CANOPENANALYSIS_SUPPORT_CANOPENRECORDS_H
#define CANOPENANALYSIS_SUPPORT_CANOPENRECORDS_H

#include "support/canrecords.h"
#include "support/cantimestamp.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMap>
#include <QMetaType>
#include <QString>
#include <QVariant>

/// NMT command specifier: byte 0 of an NMT frame (CiA 301, identifier 0x000). Other values than these occur on faulty
/// buses and are handed on unchanged.
enum NmtCommands : quint8 {
    NC_StartRemoteNode = 1,
    NC_StopRemoteNode = 2,
    NC_EnterPreOperational = 128,
    NC_ResetNode = 129,
    NC_ResetCommunication = 130
};

/// The CANopen records that cross the library's boundary. All are plain values; they own nothing but implicitly shared
/// Qt containers.
namespace CANopen {

/// Message class of a frame, as COHelper::getMessageType assigns it. Values outside the list can be met and are answered.
enum MessageType : quint32 {
    UNKNOWN = 0,          ///< none of the classes below
    SDO_REQ = 1,          ///< SDO, client to server (0x600 + node-ID)
    SDO_RES = 2,          ///< SDO, server to client (0x580 + node-ID)
    SDO_SEGSTARTSTOP = 3, ///< not assigned; counts as unhandled
    SDO_ABORT = 4,        ///< SDO abort transfer, either direction
    SYNC = 5,             ///< synchronisation object
    SRDO = 6,             ///< safety-relevant data object (EN 50325-5)
    PDO = 7,              ///< process data object
    NMT = 8,              ///< network management command
    EMCY = 9,             ///< emergency object (0x080 + node-ID)
    NMT_EC = 10,          ///< NMT error control: heartbeat or node guarding answer (0x700 + node-ID)
    NMT_EC_BOOTUP = 11,   ///< boot-up message
    TIME = 12,            ///< time stamp object
    LSS_REQ = 13,         ///< layer setting services (CiA 305), from the LSS master
    LSS_RES = 14,         ///< layer setting services, from an LSS slave
    SDO_DYN_REQ = 15,     ///< request for a dynamic SDO connection
    FLYMA = 16,           ///< flying NMT master (CiA 302-2)
    INFO = 17,            ///< not assigned; counts as unhandled
    Sleep = 18,           ///< request to sleep
    GFC = 19              ///< global fail-safe command (EN 50325-5)
};

/// What is wrong with the frame that SDOMessageHandler::sigProtocolError names.
enum SdoProtocolErrorType : quint32 {
    PE_UnexpectedResponse =
        0,                  ///< server frame that answers no open request and belongs to no running transfer, or that
                            ///< opens a segmented upload while the node's last one is still followed
    PE_RequestPending = 1,  ///< expedited download request for an object whose earlier request still waits
    PE_DownloadRunning = 2, ///< segmented download initiated while the node's segmented download is still followed
    PE_NoTransfer = 3,      ///< segment request while no segmented transfer of that direction runs for the node
    PE_UploadFailed = 4,    ///< a segmented upload broke the protocol and is given up
    PE_DownloadFailed = 5   ///< a segmented download broke the protocol and is given up
};

/// NMT state that a node announced, as CANopenNMTEvent::mEventCode carries it.
enum NmtEventCode : quint8 {
    NE_None = 0,           ///< an error control frame whose state byte is no CiA 301 state
    NE_BootUp = 1,         ///< boot-up message
    NE_PreOperational = 2, ///< state byte 0x7F
    NE_Operational = 3,    ///< state byte 0x05
    NE_Stopped = 4         ///< state byte 0x04
};

/// One NMT error control frame: which state the node announced, when, and in which frame.
struct CANopenNMTEvent
{
    /// Reception time of the frame.
    CanTimeStamp mTimeStamp;
    /// A NmtEventCode.
    quint8 mEventCode = NE_None;
    /// Message number of the frame; all ones until it is filled in.
    quint32 mMessageNumber = 0xFFFFFFFF;
};

/// Describes one CAN identifier for display. The analysis hands tables of these around and neither fills nor reads them.
struct CANopenMessageDescription
{
    /// Short name.
    QString mName;
    /// More about it.
    QString mComment;
};

namespace SDODef {

/// State of the block transfer of one node, as SDOMessageHandler::blockTransfers() shows it (CiA 301, SDO block transfer).
struct SDOBlockTransfer
{
    /// Phase: 0 none seen, 1 initiated, 2 upload accepted by the server, 3 sub-block phase (frames in the data direction
    /// are segments), 4 last segment received, 5 ended.
    quint32 mState = 0;
    /// Index of the object of the last initiate request.
    quint16 mIndex = 0;
    /// Subindex of that object.
    quint8 mSubindex = 0;
    /// blksize in force: segments a sub-block, as last announced.
    quint8 mBlockSize = 0;
    /// Size in bytes that the last initiate block download request announced, 0 when it announced none. An upload leaves it.
    quint32 mSize = 0;
    /// Segments counted in the current sub-block, modulo 256.
    quint8 mSequence = 0;
    /// Payload collected from the segments that came in sequence.
    QByteArray mData;
    /// 1: block download (the client sends the segments), 0: block upload (the server sends them).
    quint32 mDirection = 0;
    /// Client's CRC bit of the last block download in place: 4 when it supports the CRC, else 0. An upload leaves it.
    quint8 mCrcSupport = 0;
};

} // namespace SDODef

/// Display names of the message classes. Built when a library that includes it is loaded, like those of canrecords.h.
// clang-format off
static const QMap<CANopen::MessageType, QString> messageTypeNames = { // clazy:exclude=non-pod-global-static
    // clang-format on
    {UNKNOWN, QStringLiteral("UNKNOWN")},
    {SDO_REQ, QStringLiteral("SDO_REQ")},
    {SDO_RES, QStringLiteral("SDO_RES")},
    {SDO_SEGSTARTSTOP, QStringLiteral("SDO_SEGSTARTSTOP")},
    {SDO_ABORT, QStringLiteral("SDO_ABORT")},
    {SYNC, QStringLiteral("SYNC")},
    {SRDO, QStringLiteral("SRDO")},
    {PDO, QStringLiteral("PDO")},
    {NMT, QStringLiteral("NMT")},
    {EMCY, QStringLiteral("EMCY")},
    {NMT_EC, QStringLiteral("NMT_EC")},
    {NMT_EC_BOOTUP, QStringLiteral("NMT_EC_BOOTUP")},
    {TIME, QStringLiteral("TIME")},
    {EMCY, QStringLiteral("EMCY")},
    {LSS_REQ, QStringLiteral("LSS_REQ")},
    {LSS_RES, QStringLiteral("LSS_RES")},
    {SDO_DYN_REQ, QStringLiteral("SDO_DYN_REQ")},
    {FLYMA, QStringLiteral("FLYMA")},
    {INFO, QStringLiteral("INFO")},
    {Sleep, QStringLiteral("Sleep")},
    {GFC, QStringLiteral("GFC")},
    {EMCY, QStringLiteral("EMCY")},
};

} // namespace CANopen

/// The records of the SDO analysis.
namespace SDO {

/// Identifies one object of one node: the key of the entry tables.
struct SDOEntryKey
{
    /// Node-ID, in the 8 bits that the analysis takes from SDO identifiers.
    quint8 node = 0;
    /// Index of the object.
    quint16 index = 0;
    /// Subindex of the object.
    quint8 subindex = 0;

    /// The key of no object: 0, 0, 0.
    SDOEntryKey() = default;
    /// The key of an object.
    SDOEntryKey(quint8 nodeId, quint16 objectIndex, quint8 objectSubindex)
        : node(nodeId), index(objectIndex), subindex(objectSubindex)
    {
    }
};

/// Equal in node, index and subindex.
inline bool operator==(const SDOEntryKey &a, const SDOEntryKey &b)
{
    return a.node == b.node && a.index == b.index && a.subindex == b.subindex;
}
/// Not equal.
inline bool operator!=(const SDOEntryKey &a, const SDOEntryKey &b)
{
    return !(a == b);
}

/// Hash: node, index and subindex packed into one word (31…24, 23…8, 7…0), exclusive-or \a seed.
inline uint qHash(const SDOEntryKey &key, uint seed = 0)
{
    return ((uint(key.node) << 24) | (uint(key.index) << 8) | uint(key.subindex)) ^ seed;
}

/// One value of one finished transfer.
struct SDOEntryValue
{
    /// A qlonglong for an expedited transfer, a QByteArray of the transferred bytes for a segmented one; null when a server
    /// answered a read as if it had been a write.
    QVariant value;
    /// Time of the request in seconds (CanTimeStamp::toDouble()); of a segmented upload that of the server's first answer.
    double reqTime = 0.0;
    /// Time in seconds of the response that ended the transfer.
    double respTime = 0.0;
    /// Message number of that response.
    quint32 canMsgNumber = 0;
    /// Message number of a request: of a download its own initiating request, of an upload the number kept in the entry
    /// that the value belongs to.
    quint32 reqMsgNumber = 0;
    /// True for a download (write to the node), false for an upload (read).
    bool wasSDOWrite = false;
};

/// QVariant's own comparison converts: the bytes "42" would equal the number 42.
inline bool sameValue(const QVariant &a, const QVariant &b)
{
    return a.userType() == b.userType() && a == b;
}

/// Equal in every field; values by sameValue().
inline bool operator==(const SDOEntryValue &a, const SDOEntryValue &b)
{
    return sameValue(a.value, b.value) && a.reqTime == b.reqTime && a.respTime == b.respTime
           && a.canMsgNumber == b.canMsgNumber && a.reqMsgNumber == b.reqMsgNumber && a.wasSDOWrite == b.wasSDOWrite;
}
/// Not equal.
inline bool operator!=(const SDOEntryValue &a, const SDOEntryValue &b)
{
    return !(a == b);
}

/// One object access found in the traffic. It is its own key: an entry may be passed wherever its key is expected.
struct SDOEntry : SDOEntryKey
{
    /// For hosts. The analysis uses none of text, number and flag: empty, 0 and false in every entry it creates, and copied
    /// along.
    QString text;
    /// As text.
    quint32 number = 0;
    /// As text.
    bool flag = false;
    /// Time of the request for which the entry was made; unknown (0) in entries made when a segmented transfer ended.
    CanTimeStamp requestTime;
    /// Message number of that request; 0 in entries made when a segmented transfer ended.
    quint32 requestMsgNumber = 0;
    /// The value that an expedited download request carries (qlonglong); null in every other entry made for a key.
    QVariant value;
    /// Values of the finished transfers of this object, in the order in which they finished.
    QList<SDOEntryValue> values;

    /// The entry of no object (0, 0, 0); its value is the recognisable 0x0BADF00D.
    SDOEntry() : value(0x0BADF00D) {}
    /// An entry for an object, its value null.
    explicit SDOEntry(const SDOEntryKey &key) : SDOEntryKey(key) {}
};

/// Equal in every field (not in the key alone); values by sameValue().
inline bool operator==(const SDOEntry &a, const SDOEntry &b)
{
    return static_cast<const SDOEntryKey &>(a) == static_cast<const SDOEntryKey &>(b) && a.text == b.text
           && a.number == b.number && a.flag == b.flag && a.requestTime == b.requestTime
           && a.requestMsgNumber == b.requestMsgNumber && sameValue(a.value, b.value) && a.values == b.values;
}
/// Not equal.
inline bool operator!=(const SDOEntry &a, const SDOEntry &b)
{
    return !(a == b);
}

} // namespace SDO

Q_DECLARE_METATYPE(CANopen::MessageType)
Q_DECLARE_METATYPE(CANopen::SdoProtocolErrorType)
Q_DECLARE_METATYPE(CANopen::CANopenNMTEvent)
Q_DECLARE_METATYPE(CANopen::SDODef::SDOBlockTransfer)
Q_DECLARE_METATYPE(NmtCommands)
Q_DECLARE_METATYPE(SDO::SDOEntryKey)
Q_DECLARE_METATYPE(SDO::SDOEntry)
Q_DECLARE_METATYPE(SDO::SDOEntryValue)

#endif // CANOPENANALYSIS_SUPPORT_CANOPENRECORDS_H
