#ifndef CANOPENANALYZE_REPORTS_H
#define CANOPENANALYZE_REPORTS_H

#include "jsonreport.h"
#include "options.h"
#include "textreport.h"

#include <optional>

/// Writes what was found to standard output in the form that was asked for: text, or one JSON document. Of each recording call
/// begin(), then line() for each line, then end(); finally finish().
class Reports
{
    Q_DISABLE_COPY_MOVE(Reports)

public:
    /// \a options must outlive the object.
    explicit Reports(const Options &options);
    ~Reports() = default;

    /// \a recording must stay alive and unchanged until end().
    void begin(const RecordingFacts &recording);
    void line(const LineFindings &findings);
    void end();

    /// Returns false when anything could not be written.
    bool finish();

private:
    const Options &mOptions;
    const bool mIsList; // JSON: of several recordings
    Output mOutput;
    JsonWriter mJson;
    bool mHasBegun = false;
    // That of the present recording, in the form that was asked for
    std::optional<TextReport> mTextReport;
    std::optional<JsonReport> mJsonReport;
};

#endif // CANOPENANALYZE_REPORTS_H
