#ifndef CANOPENANALYZE_OUTPUT_H
#define CANOPENANALYZE_OUTPUT_H

#include "findings.h"

#include <cstdio>
#include <string>
#include <string_view>

/// Collects text and writes it to a stream in big pieces, so that a report of any length needs little memory.
class Output
{
public:
    /// \a stream must outlive the object, and is not closed.
    explicit Output(std::FILE *stream) : mStream(stream) {}

    Output &operator<<(std::string_view text);
    Output &operator<<(char c) { return *this << std::string_view(&c, 1); }

    /// Writes what is still held back. Returns false when anything could not be written.
    bool finish();

private:
    void flush();

    std::FILE *mStream;
    std::string mText;
    bool mFailed = false;
};

/// Numbers and bytes as text, for both reports.
namespace Format {

/// A decimal number.
std::string number(qint64 value);
/// \a digits upper-case hexadecimal digits.
std::string hex(quint32 value, int digits);
/// \a value with \a decimals behind the point.
std::string fixed(double value, int decimals);
/// Nanoseconds as seconds, every digit down to the microsecond, and those of nanoseconds when there are any.
std::string seconds(qint64 nsecs);
/// The first \a count of \a bytes in hexadecimal, \a separator in between.
std::string bytes(const quint8 *bytes, std::size_t count, std::string_view separator);
std::string bytes(const QByteArray &bytes, std::string_view separator);
/// The bytes of an expedited transfer in bus order.
QByteArray expeditedBytes(const SdoAccess &access);

} // namespace Format

#endif // CANOPENANALYZE_OUTPUT_H
