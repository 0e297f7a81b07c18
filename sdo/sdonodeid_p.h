#ifndef CANOPENANALYSIS_SDO_SDONODEID_P_H
#define CANOPENANALYSIS_SDO_SDONODEID_P_H

#include "support/canrecords.h"

/// Node-ID of an SDO frame, from the low byte of its identifier; the frame's class was settled before.
namespace SdoNodeId {

/// Client to server, 0x600 + node-ID: the low byte.
inline unsigned char ofClientFrame(const CAN::CanMessage &msg)
{
    return static_cast<unsigned char>(msg.mIdentifier);
}

/// Server to client, 0x580 + node-ID: the low byte − 0x80 in 8 bits.
inline unsigned char ofServerFrame(const CAN::CanMessage &msg)
{
    return static_cast<unsigned char>(msg.mIdentifier - 0x80);
}

/// Whether a node-ID can be that of a device: 1 to 127.
inline bool isDevice(unsigned char node)
{
    return static_cast<signed char>(node) > 0;
}

} // namespace SdoNodeId

#endif // CANOPENANALYSIS_SDO_SDONODEID_P_H
