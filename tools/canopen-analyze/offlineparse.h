#ifndef CANOPENANALYZE_OFFLINEPARSE_H
#define CANOPENANALYZE_OFFLINEPARSE_H

#include "findings.h"
#include "recording.h"

/// Runs the SDO analysis alone over \a line of \a recording, or over the frames of all its lines together (allLines).
/// Of the findings, interface, line, frames, first, last, accesses and faults are filled in; the faults are those of the SDO
/// protocol that the library lists, without failed segmented transfers and repeated writes, which it does not.
/// Threads: any, one at a time for a recording. Returns when the run is over.
LineFindings parseOffline(Recording &recording, quint8 line);

#endif // CANOPENANALYZE_OFFLINEPARSE_H
