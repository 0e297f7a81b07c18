#ifndef CANOPENANALYZE_FINDINGS_H
#define CANOPENANALYZE_FINDINGS_H

#include "inmemory/inmemoryrecords.h"
#include "support/canopenrecords.h"

#include <QByteArray>
#include <QMap>
#include <QVector>

#include <string>
#include <vector>

/// What the program tells about one CAN line: plain values, in recording order unless something else is said. Frames are
/// named by their message numbers, from 1 over all lines; 0 stands for a frame that is not known.

/// Which frame, and when.
struct FrameRef
{
    quint32 number = 0;
    CanTimeStamp time;
};

/// One object of one node.
struct ObjectRef
{
    quint8 node = 0;
    quint16 index = 0;
    quint8 subindex = 0;
};

/// One value read or written: a finished expedited or segmented transfer.
struct SdoAccess
{
    ObjectRef object;
    /// The frame that ended the transfer.
    FrameRef response;
    /// The frame that opened it.
    FrameRef request;
    bool wasWrite = false;
    /// Of an expedited transfer how many bytes it carried, 1 to 4; of a segmented one 0.
    quint8 expeditedBytes = 0;
    /// Of an expedited transfer the bytes as an unsigned little-endian number.
    quint32 number = 0;
    /// Of a segmented transfer the bytes.
    QByteArray bytes;

    bool isExpedited() const { return expeditedBytes != 0; }
    /// Nanoseconds from request to response; negative when the request is not known.
    qint64 answerNSecs() const { return request.number == 0 ? -1 : response.time.toNSecs() - request.time.toNSecs(); }
};

/// An SDO abort transfer.
struct SdoAbort
{
    FrameRef frame;
    ObjectRef object;
    quint32 code = 0;
    bool byClient = false;
};

/// A frame that breaks the protocol.
struct ProtocolFault
{
    enum Kind : quint8 {
        UnexpectedResponse, // the first six are the CANopen::SdoProtocolErrorType of the same value
        RequestPending,
        DownloadRunning,
        NoTransfer,
        UploadFailed,
        DownloadFailed,
        SegmentsLost,       // a block acknowledgement that does not cover every segment
        LastAcknowledge,    // a block acknowledgement that covers every segment of a last, shorter block: as it must be
        ErrorControlLength, // a heartbeat, guarding answer or boot-up message that is not one byte long
    };
    FrameRef frame;
    CAN::CanMessage message;
    Kind kind = UnexpectedResponse;

    bool isHarmless() const { return kind == LastAcknowledge; }
};

/// An SDO request without an end.
struct OpenRequest
{
    FrameRef frame;
    ObjectRef object;
    bool isWrite = false;
    /// The server did begin the transfer, but it never came to its end.
    bool wasAnswered = false;
};

/// An emergency and the node that sent it.
struct NodeEmergency
{
    quint8 node = 0;
    InMemory::Emergency emergency;
};

/// Everything found on one line.
struct LineFindings
{
    std::string interface;
    quint8 line = 0;
    quint32 frames = 0;
    CanTimeStamp first;
    CanTimeStamp last;

    int rating = 0;
    quint32 sdoAborts = 0;
    quint32 protocolErrors = 0;
    quint32 unhandledFrames = 0;

    QMap<CANopen::MessageType, unsigned int> classes;
    /// Ascending by node-ID; the number of devices is the largest that answered at a time.
    QVector<InMemory::Node> nodes;
    /// Number of objects that were read or written, by node-ID.
    QMap<quint8, int> objectsOfNode;
    std::vector<NodeEmergency> emergencies;
    QVector<InMemory::NmtCommand> nmtCommands;

    std::vector<SdoAccess> accesses;
    std::vector<SdoAbort> aborts;
    std::vector<ProtocolFault> faults;
    std::vector<OpenRequest> openRequests;
    QMap<unsigned char, CANopen::SDODef::SDOBlockTransfer> blockTransfers; // of the nodes that had one
};

#endif // CANOPENANALYZE_FINDINGS_H
