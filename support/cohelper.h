#ifndef CANOPENANALYSIS_SUPPORT_COHELPER_H
#define CANOPENANALYSIS_SUPPORT_COHELPER_H

#include "support/canopenanalysis_export.h"
#include "support/canopenrecords.h"

/// Classifies frames. Stateless; callable from any thread.
class CANOPENANALYSIS_EXPORT COHelper
{
public:
    /// The message class of a frame, by identifier:
    ///
    /// | identifier                    | class                                        | defined in      |
    /// |-------------------------------|----------------------------------------------|-----------------|
    /// | 0x000                         | NMT                                          | CiA 301         |
    /// | 0x001                         | GFC                                          | EN 50325-5      |
    /// | 0x071 – 0x076                 | FLYMA                                        | CiA 302-2       |
    /// | 0x080                         | SYNC                                         | CiA 301         |
    /// | 0x081 – 0x0FF                 | EMCY                                         | CiA 301         |
    /// | 0x100                         | TIME                                         | CiA 301         |
    /// | 0x101 – 0x180                 | SRDO                                         | EN 50325-5      |
    /// | 0x181 – 0x57F                 | PDO                                          | CiA 301         |
    /// | 0x580 – 0x5FF                 | SDO_RES                                      | CiA 301         |
    /// | 0x600 – 0x67F                 | SDO_REQ                                      | CiA 301         |
    /// | 0x691                         | Sleep                                        | CiA 320         |
    /// | 0x6E0                         | SDO_DYN_REQ                                  | CiA 302-5       |
    /// | 0x701 – 0x77F, 1 byte of 0x00 | NMT_EC_BOOTUP                                | CiA 301         |
    /// | 0x700 – 0x77F                 | NMT_EC                                       | CiA 301         |
    /// | 0x7E4, 0x7E5                  | LSS_RES, LSS_REQ                             | CiA 305         |
    /// | other                         | UNKNOWN                                      |                 |
    ///
    /// Frames with an extended identifier and error frames are UNKNOWN; remote frames are PDO in the PDO range and
    /// UNKNOWN elsewhere.
    ///
    /// \a isAbort is set to true for an SDO abort transfer: an SDO frame of at least one byte whose byte 0 is exactly 0x80.
    /// (The upper three bits alone would also catch a block segment such as 0x82.) The class then still tells the
    /// direction. \a isAbort is never set to false: the caller does that before.
    static CANopen::MessageType getMessageType(const CAN::CanMessage &frame, bool &isAbort);
};

#endif // CANOPENANALYSIS_SUPPORT_COHELPER_H
