#ifndef CANOPENANALYSIS_SDO_SDOHELPER_H
#define CANOPENANALYSIS_SDO_SDOHELPER_H

#include "support/canopenanalysis_export.h"
#include "support/canrecords.h"

/// The one place that knows the bit layout of SDO frames (CiA 301, SDO services and protocols).
///
/// "Byte k" is byte k of the payload; byte 0 is the command byte. The identifier is never looked at. The accessors of single
/// fields read the stored byte whatever the frame's data length is (bytes beyond it are stored as 0). "In place" means
/// that the masked bit is returned without shifting it down. Some pairs read the same bits: callers take the name that
/// fits the frame they hold.
/// Threads: stateless, callable from any thread.
class CANOPENANALYSIS_EXPORT SDOHelper
{
public:
    // ---- object address: initiate and abort frames -----------------------------------------------------------------
    /// Object index: byte 1 (low) and byte 2 (high).
    static quint16 getIndexOfSDOMessage(const CAN::CanMessage &msg);
    /// Object subindex: byte 3.
    static quint8 getSubindexOfSDOMessage(const CAN::CanMessage &msg);

    // ---- initiate download request 001_nnes, initiate upload response 010_nnes -------------------------------------
    /// s, bit 0: the size is indicated. 0 or 1.
    static quint8 sizeIndicatedBitOfCanMsg(const CAN::CanMessage &msg);
    /// e, bit 1: expedited transfer. 0 or 1.
    static quint8 expeditedBitOfCanMsg(const CAN::CanMessage &msg);
    /// n of an expedited frame, bits 2 to 3: how many of bytes 4 to 7, counted from the end, carry no data. 0 to 3.
    static quint8 expeditedBytesWithoutData(const CAN::CanMessage &msg);
    /// Size in bytes that a frame which opens a segmented transfer announces: bytes 4 to 7, little-endian, those at or
    /// beyond the data length read as 0.
    static quint32 sizeOfSegmentedTransfer(const CAN::CanMessage &msg);
    /// Value of an expedited frame: an unsigned little-endian number of 0 to 4294967295, never sign-extended.
    /// Of an upload response that indicates its size (e = s = 1) the value is in bytes 4 to 7 − n; of every other frame,
    /// each download request among them, in bytes 4 to 7, whatever its n. Bytes at or beyond the data length are not taken;
    /// \a ok is set to whether any was (if not, the result is 0).
    static qint64 getExpeditedRawValue(const CAN::CanMessage &msg, bool &ok);

    // ---- segments: download request 000tnnnc, download response 001t----, upload request 011t----, response 000tnnnc ------
    /// t, bit 4: toggle bit. 0 or 1.
    static quint8 toggleBitOfCanMsg(const CAN::CanMessage &msg);
    /// n of a segment, bits 1 to 3: how many of bytes 1 to 7, counted from the end, carry no data. 0 to 7.
    static quint8 segmentedBytesWithoutData(const CAN::CanMessage &msg);
    /// c of a segment, bit 0: no more segments follow. 0 or 1.
    static quint8 lastSegmentBitOfCanMsg(const CAN::CanMessage &msg);

    // ---- block transfers -------------------------------------------------------------------------------------------
    /// cs of a client's block download frame, bit 0: 0 initiate, 1 end.
    static quint8 getClientSubcommandDownload(const CAN::CanMessage &msg);
    /// ss of a server's block upload frame, bit 0: 0 initiate response, 1 end.
    static quint8 getServerSubCommandBlockUpload(const CAN::CanMessage &msg);
    /// cs of a client's block upload frame, bits 0 to 1: 0 initiate, 1 end response, 2 acknowledgement, 3 start upload.
    static quint8 getClientSubcommandUpload(const CAN::CanMessage &msg);
    /// ss of a server's block download frame, bits 0 to 1: 0 initiate response, 1 end response, 2 acknowledgement.
    static quint8 getServerSubCommandBlockDownload(const CAN::CanMessage &msg);
    /// cc or sc of a block initiate frame, bit 2 in place: 4 when the CRC is supported, else 0.
    static quint8 getCRCSupport(const CAN::CanMessage &msg);
    /// s of a block initiate frame, bit 1 in place: 2 when the size is indicated, else 0.
    static quint8 getSizeIndication(const CAN::CanMessage &msg);
    /// n of an end frame, bits 2 to 4: how many bytes of the last segment carry no data. 0 to 7.
    static quint8 getBlockUploadUnsetBytes(const CAN::CanMessage &msg);
    /// ackseq of a block acknowledgement of either direction: byte 1.
    static quint8 getAckseqOfBlockUploadResponseMsg(const CAN::CanMessage &msg);
    /// blksize of a block acknowledgement of either direction: byte 2.
    static quint8 getBlkSizeOfBlockUploadResponseMsg(const CAN::CanMessage &msg);
    /// blksize of an initiate block upload request: byte 4.
    static quint8 getBlkSizeOfBlockUploadRequestMsg(const CAN::CanMessage &msg);
    /// blksize of an initiate block download response: byte 4.
    static quint8 getBlkSizeOfBlockDLResponseMsg(const CAN::CanMessage &msg);
    /// Size in bytes of an initiate block download request: bytes 4 to 7, little-endian.
    static quint32 getSizeInBytesOfSDOBlockDownload(const CAN::CanMessage &msg);
};

#endif // CANOPENANALYSIS_SDO_SDOHELPER_H
