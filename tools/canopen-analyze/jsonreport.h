#ifndef CANOPENANALYZE_JSONREPORT_H
#define CANOPENANALYZE_JSONREPORT_H

#include "findings.h"
#include "jsonwriter.h"
#include "recording.h"

/// The whole report as one JSON object; docs/canopen-analyze.md lists its keys. Call begin(), then line() or sdoOnly() for each
/// line, then end().
class JsonReport
{
public:
    /// \a json and \a recording must outlive the report.
    JsonReport(JsonWriter &json, const RecordingFacts &recording) : mJson(json), mRecording(recording) {}

    void begin();
    void line(const LineFindings &findings);
    /// What the SDO analysis alone found.
    void sdoOnly(const LineFindings &findings);
    void end();

private:
    void beginLine(const LineFindings &findings);
    void rating(const LineFindings &findings);
    void penalty(const char *key, quint32 count, int points);
    void classes(const LineFindings &findings);
    void nodes(const LineFindings &findings);
    void accesses(const LineFindings &findings);
    void value(const SdoAccess &access);
    void aborts(const LineFindings &findings);
    void faults(const LineFindings &findings);
    void openRequests(const LineFindings &findings);
    void blockTransfers(const LineFindings &findings);
    void emergencies(const LineFindings &findings);
    void nmtCommands(const LineFindings &findings);

    template<typename Findings, typename Writer>
    void list(const char *key, const Findings &findings, Writer write);
    void frame(quint32 number, CanTimeStamp time);
    void object(quint8 node, quint16 index, quint8 subindex);
    void text(const char *key, const char *latin1) { mJson.key(key).value(QString::fromLatin1(latin1)); }
    void number(const char *key, qint64 value) { mJson.key(key).value(value); }
    void hex(const char *key, quint32 value, int digits);

    JsonWriter &mJson;
    const RecordingFacts &mRecording;
};

#endif // CANOPENANALYZE_JSONREPORT_H
