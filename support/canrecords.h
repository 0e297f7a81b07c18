#ifndef CANOPENANALYSIS_SUPPORT_CANRECORDS_H
#define CANOPENANALYSIS_SUPPORT_CANRECORDS_H

#include "support/canopenanalysis_export.h"
#include "support/cantimestamp.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QMetaType>
#include <QString>

#include <atomic>

/// The CAN records that cross the library's boundary. All are plain values that own nothing.
namespace CAN {

/// One CAN or CAN FD frame as it was on the bus. Starts as an empty data frame with identifier 0.
struct CANOPENANALYSIS_EXPORT CanMessage
{
    /// Bits of mFlags. A frame with none of them is a classic data frame with an 11-bit identifier.
    enum Flag : quint8 {
        ExtendedId = 1,    ///< 29-bit identifier
        RemoteRequest = 2, ///< remote frame (RTR): no data, only a data length
        ErrorFrame = 4,    ///< the interface's report of a bus error; the identifier is no CAN identifier then
        FdFormat = 8       ///< CAN FD frame
    };

    /// Largest number of payload bytes that the record holds (that of CAN FD).
    static constexpr int maxPayload = 64;

    /// CAN identifier: 11 bits, or 29 with ExtendedId.
    quint32 mIdentifier = 0;
    /// Number of payload bytes: 0 to 8, or with FdFormat up to 64. Of a remote frame the length it asks for.
    quint8 mDataLength = 0;
    /// Payload in bus order. Bytes at and beyond mDataLength are 0: whoever fills the record sees to it.
    quint8 mPayload[maxPayload] = {};
    /// Combination of Flag.
    quint8 mFlags = 0;

    /// Copies payload bytes from index \a first on, \a count of them; a negative \a count, or one that reaches past the
    /// data length, takes the bytes up to the end of the payload. With \a inOrder the bytes come in bus order, without it
    /// last byte first, so that the hexadecimal text of the result is the little-endian number on the bus.
    /// A \a first outside the payload gives an empty array. Any argument and any data length is allowed.
    QByteArray dataToByteArray(int first, int count, bool inOrder) const;
};

/// One frame as recorded. Default-constructed it is the empty buffer that a store's fetch fills in.
struct CANOPENANALYSIS_EXPORT CanRxMessage
{
    /// Reception time.
    CanTimeStamp mTimeStamp;
    /// The frame as it was on the bus.
    CAN::CanMessage mFrame;
    /// Running number of the frame in its recording; every finding names the frame behind it by this number.
    quint32 mMessageNumber = 0;

    /// True while frames are received live, false while a finished recording is analysed. One flag for the process:
    /// set by the host, read by every analysis loop when its line has no further frame (live: it polls on; otherwise it
    /// pauses itself). May be changed from any thread at any time.
    static std::atomic<bool> mLiveMode;
};

// The name tables are built when a library that includes them is loaded, one copy for each source file: hosts know them as
// plain constants. Hence the exceptions from the rule against such objects.

/// Names of the bus errors that an error frame reports, by error number (1 to 8).
// clang-format off
static const QMap<unsigned char, QString> errorNames = { // clazy:exclude=non-pod-global-static
    // clang-format on
    {1, QStringLiteral("Stuff error")},          {2, QStringLiteral("Form error")},
    {3, QStringLiteral("Acknowledgment error")}, {4, QStringLiteral("Bit error")},
    {5, QStringLiteral("Fast data bit error")},  {6, QStringLiteral("CRC error")},
    {7, QStringLiteral("Data length error")},    {8, QStringLiteral("unspecified error")},
};

/// Payload lengths in bytes of the CAN FD data length codes 9 to 15, in that order.
// clang-format off
static const QList<unsigned char> fdPayloadLengths = {12, 16, 20, 24, 32, 48, 64}; // clazy:exclude=non-pod-global-static
// clang-format on

} // namespace CAN

Q_DECLARE_METATYPE(CAN::CanMessage)
Q_DECLARE_METATYPE(CAN::CanRxMessage)

#endif // CANOPENANALYSIS_SUPPORT_CANRECORDS_H
