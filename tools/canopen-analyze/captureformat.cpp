#include "capturereader.h"

#include <array>

bool CaptureReader::recognises(const QByteArray &beginning)
{
    // pcap with microseconds and with nanoseconds, each in both byte orders; pcapng.
    static constexpr std::array<const char *, 5> magics = {"\xA1\xB2\xC3\xD4", "\xD4\xC3\xB2\xA1", "\xA1\xB2\x3C\x4D",
                                                           "\x4D\x3C\xB2\xA1", "\x0A\x0D\x0D\x0A"};
    for (const char *magic : magics) {
        if (beginning.startsWith(magic))
            return true;
    }
    return false;
}
