#include "support/cohelper.h"

#include "support/messageclass_p.h"

CANopen::MessageType COHelper::getMessageType(const CAN::CanMessage &frame, bool &isAbort)
{
    return MessageClass::of(frame, isAbort);
}
