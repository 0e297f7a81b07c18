#include "capturereader.h"

#include "socketcanpacket.h"

#include <QtEndian>

#include <pcap/pcap.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>

using SocketCanPacket::Format;
using SocketCanPacket::IdOrder;

namespace {

constexpr quint32 noInterfaceNumber = 0; // Linux counts from 1
constexpr std::size_t maxInterfaces = 255;
constexpr std::size_t bufferSize = 1 << 20;
// The largest time that nanoseconds in 64 bits can hold is a little beyond this.
constexpr qint64 maxSeconds = 9223372035;

// Called by the C library, through which no exception may pass.
ssize_t readMore(void *read, char *data, std::size_t size) noexcept
{
    try {
        return ssize_t((*static_cast<const CaptureReader::Read *>(read))(data, qint64(size)));
    } catch (...) {
        return -1;
    }
}

using Capture = std::unique_ptr<pcap_t, decltype(&pcap_close)>;

Capture openCapture(const CaptureReader::Read &read, char *problem)
{
    cookie_io_functions_t functions = {};
    functions.read = readMore;
    std::FILE *const stream = fopencookie(const_cast<CaptureReader::Read *>(&read), "rb", functions);
    if (!stream)
        return {nullptr, pcap_close};
    std::setvbuf(stream, nullptr, _IOFBF, bufferSize);
    Capture capture(pcap_fopen_offline_with_tstamp_precision(stream, PCAP_TSTAMP_PRECISION_NANO, problem), pcap_close);
    if (!capture)
        std::fclose(stream); // otherwise it belongs to the capture
    return capture;
}

bool isCanLinkType(int linkType)
{
    return linkType == DLT_CAN_SOCKETCAN || linkType == DLT_LINUX_SLL || linkType == DLT_LINUX_SLL2;
}

// What follows from the link type of a packet, and from its header if there is one.
struct Content
{
    std::size_t start = 0; // of the frame
    IdOrder order = IdOrder::Network;
    Format format = Format::Open;
    quint32 interface = noInterfaceNumber;
};

// The frame behind a cooked header, or nothing when the packet is none of a CAN bus. There, libpcap leaves the identifier in the
// byte order of this machine.
std::optional<Content> cookedContent(const quint8 *packet, std::size_t size, std::size_t headerSize,
                                     std::size_t protocolAt)
{
    constexpr quint16 can = 0x000C;
    constexpr quint16 canFd = 0x000D;
    if (size < headerSize)
        return {};
    const auto protocol = qFromBigEndian<quint16>(packet + protocolAt);
    if (protocol != can && protocol != canFd)
        return {};
    return Content{headerSize, IdOrder::Host, protocol == canFd ? Format::Fd : Format::Classic, noInterfaceNumber};
}

std::optional<Content> contentOf(int linkType, const quint8 *packet, std::size_t size)
{
    constexpr int interfaceAt = 4;
    if (linkType == DLT_CAN_SOCKETCAN)
        return Content{};
    if (linkType == DLT_LINUX_SLL)
        return cookedContent(packet, size, 16, 14);
    std::optional<Content> content = cookedContent(packet, size, 20, 0);
    if (content)
        content->interface = qFromBigEndian<quint32>(packet + interfaceAt);
    return content;
}

} // namespace

struct CaptureReader::Packet
{
    int linkType;
    const pcap_pkthdr *header; // its time is in nanoseconds
    const quint8 *bytes;
};

QString CaptureReader::read(const Read &readMore)
{
    char problem[PCAP_ERRBUF_SIZE] = "";
    const Capture capture = openCapture(readMore, problem);
    if (!capture)
        return QStringLiteral("%1 is a damaged capture: ") + QString::fromLocal8Bit(problem) + QLatin1Char('.');
    const int linkType = pcap_datalink(capture.get());
    if (!isCanLinkType(linkType))
        return QStringLiteral("%1 is a capture of something else than CAN frames: link type ")
               + QString::fromLatin1(pcap_datalink_val_to_description_or_dlt(linkType)) + QLatin1Char('.');
    Packet packet = {linkType, nullptr, nullptr};
    pcap_pkthdr *header = nullptr;
    int status = 0;
    while ((status = pcap_next_ex(capture.get(), &header, &packet.bytes)) == 1) {
        packet.header = header;
        ++mPieceCount;
        if (const char *badness = take(packet))
            mSink.badPiece(mPieceCount, badness, {});
    }
    if (status == PCAP_ERROR)
        mSink.badPiece(++mPieceCount, "the capture is damaged from here on", pcap_geterr(capture.get()));
    return {};
}

const char *CaptureReader::take(const Packet &packet)
{
    const std::size_t size = packet.header->caplen;
    const std::optional<Content> content = contentOf(packet.linkType, packet.bytes, size);
    if (!content)
        return nullptr;
    CAN::CanRxMessage msg;
    const char *const problem =
        SocketCanPacket::decode(packet.bytes + content->start, size - content->start,
                                packet.header->len - content->start, content->order, content->format, msg.mFrame);
    if (problem)
        return problem;
    const qint64 seconds = packet.header->ts.tv_sec;
    if (seconds < 0 || seconds > maxSeconds)
        return "the time stamp is out of range";
    msg.mTimeStamp = CanTimeStamp::fromNSecs(seconds * 1000000000 + packet.header->ts.tv_usec);
    const int line = lineOfInterface(content->interface);
    if (line < 0)
        return "more than 255 interfaces";
    msg.mMessageNumber = ++mFrameCount;
    mSink.frame(quint8(line), msg);
    return nullptr;
}

int CaptureReader::lineOfInterface(quint32 number)
{
    const auto found = std::find(mInterfaceNumbers.cbegin(), mInterfaceNumbers.cend(), number);
    if (found != mInterfaceNumbers.cend())
        return int(found - mInterfaceNumbers.cbegin());
    if (mInterfaces.size() == maxInterfaces)
        return -1;
    mInterfaceNumbers.push_back(number);
    mInterfaces.push_back(number == noInterfaceNumber ? "can" : "if" + std::to_string(number));
    return int(mInterfaces.size() - 1);
}
