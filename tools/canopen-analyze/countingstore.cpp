#include "countingstore.h"

CountingStore::~CountingStore() = default;

CAN::CanRxMessage CountingStore::messageAt(int index) const
{
    count();
    return InMemoryDatachunkHandler::messageAt(index);
}

bool CountingStore::nextMessageForLine(CAN::CanRxMessage &msg, unsigned char line)
{
    count();
    return InMemoryDatachunkHandler::nextMessageForLine(msg, line);
}
