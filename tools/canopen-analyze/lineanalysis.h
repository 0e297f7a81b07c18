#ifndef CANOPENANALYZE_LINEANALYSIS_H
#define CANOPENANALYZE_LINEANALYSIS_H

#include "findings.h"
#include "progress.h"
#include "recording.h"

/// Analyses \a line of \a recording and returns what was found. Waits until the line has been analysed to its end.
/// Call it in the main thread, for one line after the other.
LineFindings analyseLine(Recording &recording, quint8 line, Progress &progress);

#endif // CANOPENANALYZE_LINEANALYSIS_H
