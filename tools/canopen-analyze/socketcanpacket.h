#ifndef CANOPENANALYZE_SOCKETCANPACKET_H
#define CANOPENANALYZE_SOCKETCANPACKET_H

#include "support/canrecords.h"

#include <cstddef>

/// A frame as Linux hands it to a capture program:
///
///     bytes 0 to 3   erti iiii iiii iiii …   identifier; e: 29 bits, r: remote frame, t: error frame
///     byte 4         data length
///     byte 5         CAN FD: flags, 0x04: this is a CAN FD frame
///     bytes 6, 7     reserved
///     from byte 8    data
namespace SocketCanPacket {

/// Byte order of the first four bytes.
enum class IdOrder { Network, Host };
/// What is known of the format of the frame before it is looked at.
enum class Format { Classic, Fd, Open };

/// Decodes the \a size bytes at \a packet, which had \a sizeOnLine bytes before the capture cut it, into \a frame. Returns null,
/// or what is wrong with them, a text that lives forever. \a frame must be a new record.
const char *decode(const quint8 *packet, std::size_t size, std::size_t sizeOnLine, IdOrder order, Format format,
                   CAN::CanMessage &frame);

} // namespace SocketCanPacket

#endif // CANOPENANALYZE_SOCKETCANPACKET_H
