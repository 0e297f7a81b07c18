#ifndef CANOPENANALYZE_FRAMESCAN_H
#define CANOPENANALYZE_FRAMESCAN_H

#include "findings.h"
#include "support/datachunkhandler.h"

/// The line number that stands for every line of a recording.
constexpr quint8 allLines = 255;

/// Walks once over the frames of the line (or of allLines) and fills in what the analysis does not tell: first and last time stamp; of each
/// access the request behind it and how many bytes were transferred; of each open request whether the transfer began; the
/// aborts; the error control frames of a wrong length.
/// Requires: \a findings has line, accesses (ascending by response) and openRequests; nobody else uses \a store.
void scanFrames(DatachunkHandler &store, LineFindings &findings);

#endif // CANOPENANALYZE_FRAMESCAN_H
