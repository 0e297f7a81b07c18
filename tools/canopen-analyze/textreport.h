#ifndef CANOPENANALYZE_TEXTREPORT_H
#define CANOPENANALYZE_TEXTREPORT_H

#include "findings.h"
#include "output.h"
#include "recording.h"

#include <initializer_list>

/// The report for the eye: what to look at first comes first, long lists are cut unless everything is asked for.
/// Call head(), then line() for each line.
class TextReport
{
public:
    struct Style
    {
        bool colours = false;
        bool all = false;
    };

    TextReport(Output &output, const Recording &recording, Style style);

    void head();
    void line(const LineFindings &findings);

private:
    struct Column
    {
        const char *title;
        int width; // negative: left-aligned
    };
    using Columns = std::initializer_list<Column>;
    enum class Keep { First, Latest };
    template<typename Findings, typename Row>
    void section(const std::string &title, const Findings &findings, Keep keep, Columns columns, Row row);

    void rating(const LineFindings &findings);
    void penalty(const char *what, quint32 count, int weight, quint32 frames);
    void classes(const LineFindings &findings);
    void nodes(const LineFindings &findings);
    void accesses(const LineFindings &findings);
    void aborts(const LineFindings &findings);
    void faults(const LineFindings &findings);
    void openRequests(const LineFindings &findings);
    void blockTransfers(const LineFindings &findings);
    void emergencies(const LineFindings &findings);
    void nmtCommands(const LineFindings &findings);

    void heading(const std::string &text);
    std::string columnTitles(Columns columns) const;
    std::string frameAndTime(quint32 number, CanTimeStamp time) const;
    std::string time(CanTimeStamp time) const;
    std::string coloured(const char *colour, const std::string &text) const;

    Output &mOutput;
    const Recording &mRecording;
    const Style mStyle;
    const int mFrameWidth;
    const int mTimeWidth;
};

#endif // CANOPENANALYZE_TEXTREPORT_H
