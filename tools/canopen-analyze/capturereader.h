#ifndef CANOPENANALYZE_CAPTUREREADER_H
#define CANOPENANALYZE_CAPTUREREADER_H

#include "framesink.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <string>
#include <vector>

/// Reads captures of CAN traffic, pcap and pcapng, by means of libpcap: packets of the link types SocketCAN and Linux cooked
/// (both versions; packets that are not of a CAN bus are passed over).
///
/// The second version of the cooked header names the interface by its number: each is a CAN line of its own then, called
/// if1, if2 … Otherwise libpcap does not tell on which interface of a capture a packet came: all are one line, called can.
///
/// Threads: a plain object, used by one thread at a time.
class CaptureReader
{
public:
    /// Reads up to \a size bytes more to \a data and returns how many it got: 0 at the end, -1 when it cannot.
    using Read = std::function<qint64(char *data, qint64 size)>;

    /// Whether a file with this \a beginning (at least four bytes) is a capture.
    static bool recognises(const QByteArray &beginning);

    /// \a sink must outlive the reader.
    explicit CaptureReader(FrameSink &sink) : mSink(sink) {}

    /// Reads the capture to its end. Returns an empty text, or a sentence that says why it cannot be read, with %1 for the
    /// name of the file; nothing was read then. A capture that is damaged further on is read up to there, and the damage
    /// told as a bad piece. Call once.
    QString read(const Read &readMore);

    /// Names of the interfaces, in the order in which their first frames appeared; the place is the CAN line.
    const std::vector<std::string> &interfaces() const { return mInterfaces; }
    /// Frames handed to the sink. They carry the message numbers 1, 2, 3 … over all interfaces.
    quint32 frameCount() const { return mFrameCount; }
    /// Packets seen so far, of whatever kind, and the damage.
    quint64 pieceCount() const { return mPieceCount; }

private:
    struct Packet;
    const char *take(const Packet &packet);
    int lineOfInterface(quint32 number);

    FrameSink &mSink;
    std::vector<std::string> mInterfaces;
    std::vector<quint32> mInterfaceNumbers; // by line
    quint32 mFrameCount = 0;
    quint64 mPieceCount = 0;
};

#endif // CANOPENANALYZE_CAPTUREREADER_H
