#include "output.h"

#include <algorithm>

namespace {
constexpr std::size_t flushSize = 1 << 16;
} // namespace

Output &Output::operator<<(std::string_view text)
{
    mText += text;
    if (mText.size() >= flushSize)
        flush();
    return *this;
}

void Output::flush()
{
    if (std::fwrite(mText.data(), 1, mText.size(), mStream) != mText.size())
        mFailed = true;
    mText.clear();
}

bool Output::finish()
{
    flush();
    return std::fflush(mStream) == 0 && !mFailed;
}

std::string Format::number(qint64 value)
{
    return std::to_string(value);
}

std::string Format::hex(quint32 value, int digits)
{
    char text[16];
    return {text, std::size_t(std::snprintf(text, sizeof text, "%0*X", digits, value))};
}

std::string Format::fixed(double value, int decimals)
{
    char text[64];
    const int length = std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return {text, std::min(std::size_t(length), sizeof text - 1)};
}

std::string Format::seconds(qint64 nsecs)
{
    constexpr quint64 nsecsPerSec = 1000000000;
    constexpr quint64 nsecsPerUsec = 1000;
    const auto size = nsecs < 0 ? 0 - quint64(nsecs) : quint64(nsecs);
    char text[32];
    int length =
        std::snprintf(text, sizeof text, "%s%llu.%09llu", nsecs < 0 ? "-" : "", size / nsecsPerSec, size % nsecsPerSec);
    if (size % nsecsPerUsec == 0)
        length -= 3;
    return {text, std::size_t(length)};
}

std::string Format::bytes(const quint8 *bytes, std::size_t count, std::string_view separator)
{
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        if (i > 0)
            text += separator;
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

std::string Format::bytes(const QByteArray &bytes, std::string_view separator)
{
    return Format::bytes(reinterpret_cast<const quint8 *>(bytes.constData()), std::size_t(bytes.size()), separator);
}

QByteArray Format::expeditedBytes(const SdoAccess &access)
{
    QByteArray bytes;
    for (int i = 0; i < access.expeditedBytes; ++i)
        bytes.append(char(access.number >> (8 * i) & 0xFF));
    return bytes;
}
