#ifndef CANOPENANALYZE_TEXTREPORT_H
#define CANOPENANALYZE_TEXTREPORT_H

#include "findings.h"
#include "output.h"
#include "recording.h"

/// The report for the eye: what to look at first comes first, long lists are cut unless everything is asked for.
/// Call head(), then line() or sdoOnly() for each line.
class TextReport
{
public:
    struct Style
    {
        bool colours = false;
        bool all = false;
    };

    /// \a recording must outlive the report.
    TextReport(Output &output, const RecordingFacts &recording, Style style);

    void head();
    void line(const LineFindings &findings);
    /// How things are while frames still come in: what an overview tells of a line.
    void overview(const LineFindings &findings);
    /// What the SDO analysis alone found: accesses and faults.
    void sdoOnly(const LineFindings &findings);

private:
    enum class Keep { First, Latest };
    template<typename Findings, typename Row>
    void list(const std::string &title, const Findings &findings, Keep keep, std::size_t limit, Row row);

    void lineHead(const LineFindings &findings);
    void rating(const LineFindings &findings);
    void penalty(const char *what, quint32 count, int weight, quint32 frames);
    void classes(const LineFindings &findings);
    void nodes(const LineFindings &findings, bool withObjects);
    void faults(const std::vector<ProtocolFault> &faults, Keep keep);
    void incidents(const LineFindings &findings, Keep keep);
    void blockTransfers(const LineFindings &findings);
    void accesses(const LineFindings &findings);

    std::string row(const ProtocolFault &fault) const;
    std::string row(const SdoAbort &abort) const;
    std::string row(const OpenRequest &request) const;
    std::string row(const NodeEmergency &found) const;
    std::string row(const InMemory::NmtCommand &command) const;
    std::string row(const SdoAccess &access) const;
    std::string rowStart(quint32 number, CanTimeStamp when, quint32 node) const;
    std::string columnTitles() const;

    void heading(const std::string &text);
    std::string time(CanTimeStamp time) const;
    std::string coloured(const char *colour, const std::string &text) const;

    Output &mOutput;
    const RecordingFacts &mRecording;
    const Style mStyle;
    const int mFrameWidth;
    const int mTimeWidth;
};

#endif // CANOPENANALYZE_TEXTREPORT_H
