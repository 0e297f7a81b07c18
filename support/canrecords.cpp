#include "support/canrecords.h"

#include <algorithm>
#include <type_traits>

namespace CAN {

static_assert(std::is_trivially_copyable<CanMessage>::value, "frames are copied bytewise");
static_assert(std::is_trivially_copyable<CanRxMessage>::value, "frames are copied bytewise");
static_assert(sizeof(CanTimeStamp) == 8, "a time stamp is passed as one word");

std::atomic<bool> CanRxMessage::mLiveMode{false};

QByteArray CanMessage::dataToByteArray(int first, int count, bool inOrder) const
{
    // A record filled from a damaged source may claim more bytes than it can hold.
    const int end = std::min<int>(mDataLength, maxPayload);
    if (first < 0 || first >= end)
        return QByteArray();

    const int available = end - first;
    const int taken = count < 0 ? available : std::min(count, available);
    QByteArray bytes(reinterpret_cast<const char *>(mPayload) + first, taken);
    if (!inOrder)
        std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

} // namespace CAN
