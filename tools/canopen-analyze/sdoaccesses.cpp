#include "sdoaccesses.h"

#include <algorithm>

SdoAccess accessOf(const SDO::SDOEntryKey &key, const SDO::SDOEntryValue &value)
{
    SdoAccess access;
    access.object = {key.node, key.index, key.subindex};
    access.response.number = value.canMsgNumber;
    access.wasWrite = value.wasSDOWrite;
    if (value.value.userType() == QMetaType::QByteArray) {
        access.bytes = value.value.toByteArray();
    } else {
        access.expeditedBytes = sizeof(access.number); // the frame tells how many there were
        access.number = quint32(value.value.toLongLong());
    }
    return access;
}

void sortByResponse(std::vector<SdoAccess> &accesses)
{
    std::sort(accesses.begin(), accesses.end(),
              [](const SdoAccess &a, const SdoAccess &b) { return a.response.number < b.response.number; });
}

CAN::CanRxMessage frameOfNumber(const InMemoryDatachunkHandler &store, quint32 number)
{
    return store.messageAt(int(number - store.firstMessageNumber()));
}

FrameRef refOf(const CAN::CanRxMessage &msg)
{
    return {msg.mMessageNumber, msg.mTimeStamp};
}
