#ifndef CANOPENANALYSIS_SDO_SDOSEGMENTEDUPLOADANALYZER_H
#define CANOPENANALYSIS_SDO_SDOSEGMENTEDUPLOADANALYZER_H

#include "sdo/sdosegmentedtransferanalyzer.h"

/// A client reads an object in segments (CiA 301, SDO upload).
///
///     server  0100_000s | index | subindex | size      initiate response
///     client  011t_0000 | 0                            segment request
///     server  000t_nnnc | 7 − n bytes of data          segment response
///
/// | state          | frame             | must hold                | next          | result                       |
/// |----------------|-------------------|--------------------------|---------------|------------------------------|
/// | WaitForInitRes | initiate response | –                        | WaitForSegReq | Running                      |
/// | WaitForSegReq  | segment request   | toggle = request toggle  | WaitForSegRes | Running                      |
/// | WaitForSegRes  | segment response  | toggle = response toggle | WaitForSegReq | Finished with c = 1, else Running |
/// | any            | anything else     | never                    | same          | Error                        |
///
/// What must hold and does not gives Error and leaves everything as it was. The object of the initiate response is not
/// compared, since the analyzer is made from that frame. The announced size is never compared with the length: c alone ends
/// an upload. Both toggles start at 0.
class CANOPENANALYSIS_EXPORT SDOSegmentedUploadAnalyzer : public SDOSegmentedTransferAnalyzer
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(SDOSegmentedUploadAnalyzer)

public:
    /// An analyzer without an object, in TS_Unitialized.
    explicit SDOSegmentedUploadAnalyzer(QObject *parent = nullptr);
    /// Starts in TS_WaitForInitResponse. \a time: that of the initiate response, in seconds.
    SDOSegmentedUploadAnalyzer(quint8 node, quint16 index, quint8 subindex, double time, QObject *parent = nullptr);
    ~SDOSegmentedUploadAnalyzer() override;

    Result handleNewMessage(SegMsgType type, const CAN::CanRxMessage &msg) override;

private:
    Result handleInitResponse(const CAN::CanRxMessage &msg);
    Result handleSegReq(const CAN::CanRxMessage &msg);
    Result handleSegRes(const CAN::CanRxMessage &msg);
};

#endif // CANOPENANALYSIS_SDO_SDOSEGMENTEDUPLOADANALYZER_H
