// Stands in for the reader where the program is built without libpcap.
#include "capturereader.h"

QString CaptureReader::read(const Read &)
{
    return QStringLiteral("%1 is a capture, which this build cannot read: it was made without libpcap.");
}
