#ifndef CANOPENANALYZE_SDOACCESSES_H
#define CANOPENANALYZE_SDOACCESSES_H

#include "findings.h"
#include "inmemory/inmemorydatachunkhandler.h"

/// From what the library reports to the findings of the program: for the whole analysis and for the SDO analysis alone.

/// One value of the object \a key. Request, time and the number of expedited bytes are left to scanFrames().
SdoAccess accessOf(const SDO::SDOEntryKey &key, const SDO::SDOEntryValue &value);

/// Ascending by response.
void sortByResponse(std::vector<SdoAccess> &accesses);

/// The frame with the message \a number. Requires: \a store holds it.
CAN::CanRxMessage frameOfNumber(const InMemoryDatachunkHandler &store, quint32 number);

FrameRef refOf(const CAN::CanRxMessage &msg);

#endif // CANOPENANALYZE_SDOACCESSES_H
