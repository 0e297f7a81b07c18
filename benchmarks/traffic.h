#ifndef CANOPENANALYSIS_BENCHMARKS_TRAFFIC_H
#define CANOPENANALYSIS_BENCHMARKS_TRAFFIC_H

#include "inmemory/inmemorydatachunkhandler.h"

#include <vector>

/// Recordings to measure with: always the same for the same arguments, frames 100 µs apart.
namespace Traffic {

enum Kind {
    ProcessData,
    Mixed, ///< 70 % PDO, 10 % SYNC and heartbeat, 20 % SDO, in no regular order
    Sdo    ///< half of the frames expedited transfers, half segmented ones, one in fifty of these a block transfer
};

enum Transfer {
    ExpeditedDownload,
    ExpeditedUpload,
    SegmentedDownload, ///< 28 bytes, as all that follow
    SegmentedUpload,
    BlockDownload,
    BlockUpload
};

/// Which nodes and objects the SDO transfers take by turns.
struct Extent
{
    int nodes = 30;    ///< 1 to 127
    int objects = 100; ///< of each node, 1 to 65,536
};

/// The frames of one transfer, request first.
std::vector<CAN::CanMessage> transfer(Transfer kind, int turn, const Extent &extent);

/// Appends \a frames frames to line 0 of \a store. The last transfer may stay incomplete.
void fill(InMemoryDatachunkHandler &store, Kind kind, int frames, const Extent &extent = {});

} // namespace Traffic

#endif // CANOPENANALYSIS_BENCHMARKS_TRAFFIC_H
