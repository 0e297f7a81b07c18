#ifndef CANOPENANALYSIS_SDO_SDOSEGMENTEDDOWNLOADANALYZER_H
#define CANOPENANALYSIS_SDO_SDOSEGMENTEDDOWNLOADANALYZER_H

#include "sdo/sdosegmentedtransferanalyzer.h"

/// A client writes an object in segments (CiA 301, SDO download).
///
///     client  0010_000s | index | subindex | size      initiate request
///     server  0110_0000 | index | subindex | 0         initiate response
///     client  000t_nnnc | 7 − n bytes of data          segment request
///     server  001t_0000 | 0                            segment response
///
/// | state              | frame             | must hold                          | next             | result   | last error |
/// |--------------------|-------------------|------------------------------------|------------------|----------|------------|
/// | any                | initiate request  | –                                  | same             | Running  | –          |
/// | WaitForInitRes     | initiate response | same index and subindex            | WaitForSegReq    | Running  | ObjectMismatch |
/// | any other          | initiate response | never                              | same             | Error    | FaultyState |
/// | WaitForSegReq      | segment request   | toggle = request toggle            | WaitForSegRes    | Running  | ToggleBitError, SizeError beyond the bound on bytes |
/// | WaitForSegRes      | segment response  | toggle = response toggle           | WaitForSegReq    | Running  | ToggleBitError |
/// | WaitForSegRes      | …after c = 1      | length = announced size, not 0     | same             | Finished | SizeError  |
/// | any other          | segment frame     | never                              | same             | Error    | Undefined  |
///
/// What must hold and does not gives Error with the error named in the last column, and leaves everything as it was.
/// A download that announces no size therefore never finishes. Both toggles start at 0.
class CANOPENANALYSIS_EXPORT SDOSegmentedDownloadAnalyzer : public SDOSegmentedTransferAnalyzer
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(SDOSegmentedDownloadAnalyzer)

public:
    /// An analyzer without an object, in TS_Unitialized.
    explicit SDOSegmentedDownloadAnalyzer(QObject *parent = nullptr);
    /// Starts in TS_WaitForInitResponse. \a time: that of the initiate request, in seconds.
    SDOSegmentedDownloadAnalyzer(quint8 node, quint16 index, quint8 subindex, double time, QObject *parent = nullptr);
    ~SDOSegmentedDownloadAnalyzer() override;

    Result handleNewMessage(SegMsgType type, const CAN::CanRxMessage &msg) override;

private:
    Result handleInitRequest(const CAN::CanRxMessage &msg);
    Result handleInitResponse(const CAN::CanRxMessage &msg);
    Result handleSegReq(const CAN::CanRxMessage &msg);
    Result handleSegRes(const CAN::CanRxMessage &msg);
    Result refuse(ErrorType error);
};

#endif // CANOPENANALYSIS_SDO_SDOSEGMENTEDDOWNLOADANALYZER_H
