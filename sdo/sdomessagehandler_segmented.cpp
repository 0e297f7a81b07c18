// Segmented transfers in the SDO message handler.
//
//  frame                             transfer of the node      what happens                     listed   signalled
//  initiate download, e = 0          none                      followed from here               –        –
//                                    download runs             frame ignored                    yes      PE_DownloadRunning
//  initiate upload response, e = 0   none                      followed from here               –        –
//                                    upload runs               frame ignored                    yes      PE_UnexpectedResponse
//  initiate download response        none                      answer to an expedited download  –        –
//  segment request                   none of the direction     frame ignored                    yes      PE_NoTransfer
//  segment response                  none of the direction     frame ignored                    yes      PE_UnexpectedResponse
//  any of these                      runs, frame accepted      goes on, or its value reported   –        –
//                                    runs, frame refused       given up                         no       PE_UploadFailed,
//                                                                                                        PE_DownloadFailed
//  An abort ends nothing here: the analyzer left behind is given up at the next frame that does not fit it.

#include "sdo/sdomessagehandler.h"

#include "sdo/bytebudget_p.h"
#include "sdo/sdohelper.h"
#include "sdo/sdonodeid_p.h"
#include "support/guestlock_p.h"

using namespace CANopen;
using SDO::SDOEntry;
using SDO::SDOEntryKey;
using SDO::SDOEntryValue;
using Transfer = SDOSegmentedTransferAnalyzer;

void SDOMessageHandler::handleDLSegmentedInitRequest(const CAN::CanRxMessage &msg, unsigned char node)
{
    if (mSegmentedDownloads[node])
        return listAndReportError(msg, PE_DownloadRunning);

    const SDOEntryKey object(node, SDOHelper::getIndexOfSDOMessage(msg.mFrame),
                             SDOHelper::getSubindexOfSDOMessage(msg.mFrame));
    SDOSegmentedDownloadAnalyzer &analyzer = followDownload(object, msg.mTimeStamp.toDouble());
    handleSegmentedDownloadResult(analyzer.handleNewMessage(Transfer::SMT_InitRequest, msg), node, msg.mMessageNumber);
}

void SDOMessageHandler::handleUploadSegmentedInitResponse(unsigned char node, unsigned short index,
                                                          unsigned char subindex, const CAN::CanRxMessage &msg)
{
    if (mSegmentedUploads[node])
        return listAndReportError(msg, PE_UnexpectedResponse);

    SDOSegmentedUploadAnalyzer &analyzer = followUpload(SDOEntryKey(node, index, subindex), msg.mTimeStamp.toDouble());
    handleSegmentedUploadResult(analyzer.handleNewMessage(Transfer::SMT_InitResponse, msg), node, msg.mMessageNumber);
}

// ---- segments ----------------------------------------------------------------------------------------------------------

void SDOMessageHandler::handleDownloadSegmentRequest(const CAN::CanRxMessage &msg)
{
    const unsigned char node = SdoNodeId::ofClientFrame(msg.mFrame);
    SDOSegmentedDownloadAnalyzer *const analyzer = mSegmentedDownloads[node].get();
    if (!analyzer)
        return listAndReportError(msg, PE_NoTransfer);
    handleSegmentedDownloadResult(analyzer->handleNewMessage(Transfer::SMT_SegReq, msg), node, msg.mMessageNumber);
}

void SDOMessageHandler::handleDownloadSegmentResponse(const CAN::CanRxMessage &msg)
{
    const unsigned char node = SdoNodeId::ofServerFrame(msg.mFrame);
    SDOSegmentedDownloadAnalyzer *const analyzer = mSegmentedDownloads[node].get();
    if (!analyzer)
        return listAndReportError(msg, PE_UnexpectedResponse);
    handleSegmentedDownloadResult(analyzer->handleNewMessage(Transfer::SMT_SegRes, msg), node, msg.mMessageNumber);
}

void SDOMessageHandler::handleUploadSegmentRequest(const CAN::CanRxMessage &msg)
{
    const unsigned char node = SdoNodeId::ofClientFrame(msg.mFrame);
    SDOSegmentedUploadAnalyzer *const analyzer = mSegmentedUploads[node].get();
    if (!analyzer)
        return listAndReportError(msg, PE_NoTransfer);
    handleSegmentedUploadResult(analyzer->handleNewMessage(Transfer::SMT_SegReq, msg), node, msg.mMessageNumber);
}

void SDOMessageHandler::handleUploadSegmentResponse(const CAN::CanRxMessage &msg)
{
    const unsigned char node = SdoNodeId::ofServerFrame(msg.mFrame);
    SDOSegmentedUploadAnalyzer *const analyzer = mSegmentedUploads[node].get();
    if (!analyzer)
        return listAndReportError(msg, PE_UnexpectedResponse);
    handleSegmentedUploadResult(analyzer->handleNewMessage(Transfer::SMT_SegRes, msg), node, msg.mMessageNumber);
}

// ---- results -----------------------------------------------------------------------------------------------------------

void SDOMessageHandler::handleSegmentedDownloadResult(SDOSegmentedTransferAnalyzer::Result result, unsigned char node,
                                                      quint32 msgNumber)
{
    switch (result) {
    case Transfer::Result::Finished:
        return segmentedDownloadFinished(node);
    case Transfer::Result::Error:
        return segmentedDownloadError(node, msgNumber);
    case Transfer::Result::Running:
        return;
    }
}

void SDOMessageHandler::handleSegmentedUploadResult(SDOSegmentedTransferAnalyzer::Result result, unsigned char node,
                                                    quint32 msgNumber)
{
    switch (result) {
    case Transfer::Result::Finished:
        return segmentedUploadFinished(node);
    case Transfer::Result::Error:
        return segmentedUploadError(node, msgNumber);
    case Transfer::Result::Running:
        return;
    }
}

void SDOMessageHandler::segmentedDownloadFinished(unsigned char node)
{
    if (const SDOSegmentedDownloadAnalyzer *const analyzer = mSegmentedDownloads[node].get()) {
        if (reportSegmentedValue(*analyzer, node, true))
            endDownload(node);
    }
}

void SDOMessageHandler::segmentedUploadFinished(unsigned char node)
{
    if (const SDOSegmentedUploadAnalyzer *const analyzer = mSegmentedUploads[node].get()) {
        if (reportSegmentedValue(*analyzer, node, false))
            endUpload(node);
    }
}

bool SDOMessageHandler::reportSegmentedValue(const SDOSegmentedTransferAnalyzer &analyzer, unsigned char node,
                                             bool wasSDOWrite)
{
    const SDOEntryKey object(node, analyzer.index(), analyzer.subindex());
    SDOEntryValue value;
    value.value = QVariant(analyzer.transferData());
    value.reqTime = analyzer.initRequestTime();
    value.respTime = analyzer.lastResponseTime();
    value.canMsgNumber = analyzer.lastMessageNumber();
    value.wasSDOWrite = wasSDOWrite;
    if (mKeepFinishedTransfers) {
        SDOEntry &found = foundEntry(SDOEntry(object));
        value.reqMsgNumber = wasSDOWrite ? analyzer.getInitMsgNumber() : found.requestMsgNumber;
        found.values.append(value);
    }
    return reportValue(object, std::move(value));
}

void SDOMessageHandler::segmentedDownloadError(unsigned char node, quint32 msgNumber)
{
    if (mSegmentedDownloads[node] && reportError(msgNumber, PE_DownloadFailed))
        endDownload(node);
}

void SDOMessageHandler::segmentedUploadError(unsigned char node, quint32 msgNumber)
{
    if (mSegmentedUploads[node] && reportError(msgNumber, PE_UploadFailed))
        endUpload(node);
}

// ---- analyzers ---------------------------------------------------------------------------------------------------------

namespace {

/// Sets an analyzer on a transfer: the spare one, or a new one when that is in use.
template<typename Analyzer>
Analyzer &follow(std::unique_ptr<Analyzer> &analyzer, std::unique_ptr<Analyzer> &spare, ByteBudget *budget,
                 const SDOEntryKey &object, double time)
{
    analyzer = spare ? std::move(spare) : std::make_unique<Analyzer>();
    analyzer->setByteBudget(budget);
    analyzer->followTransfer(object.node, object.index, object.subindex, time);
    return *analyzer;
}

template<typename Analyzer>
void end(std::unique_ptr<Analyzer> &analyzer, std::unique_ptr<Analyzer> &spare)
{
    if (!analyzer)
        return;
    analyzer->dropTransfer();
    spare = std::move(analyzer);
}

} // namespace

SDOSegmentedDownloadAnalyzer &SDOMessageHandler::followDownload(const SDO::SDOEntryKey &object, double time)
{
    return follow(mSegmentedDownloads[object.node], mSpareDownload, mSegmentBudget.get(), object, time);
}

SDOSegmentedUploadAnalyzer &SDOMessageHandler::followUpload(const SDO::SDOEntryKey &object, double time)
{
    return follow(mSegmentedUploads[object.node], mSpareUpload, mSegmentBudget.get(), object, time);
}

void SDOMessageHandler::endDownload(unsigned char node)
{
    end(mSegmentedDownloads[node], mSpareDownload);
}

void SDOMessageHandler::endUpload(unsigned char node)
{
    end(mSegmentedUploads[node], mSpareUpload);
}
