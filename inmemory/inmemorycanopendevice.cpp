#include "inmemory/inmemorycanopendevice.h"

InMemoryCANopenDevice::InMemoryCANopenDevice(quint8 nodeId, QObject *parent) : CANopenDevice(parent), mNodeId(nodeId) {}

InMemoryCANopenDevice::~InMemoryCANopenDevice() = default;

quint8 InMemoryCANopenDevice::nodeId() const
{
    return mNodeId;
}

void InMemoryCANopenDevice::addObjectValue(quint16 index, quint8 subindex, const SDO::SDOEntryValue &value)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mValues[SDO::SDOEntryKey(mNodeId, index, subindex)].append(value);
}

void InMemoryCANopenDevice::clearObjectValues()
{
    InMemory::ObjectValues forgotten; // freed after the lock is given back
    const std::lock_guard<std::mutex> lock(mMutex);
    mValues.swap(forgotten);
}

InMemory::ObjectValues InMemoryCANopenDevice::objectValues() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    InMemory::ObjectValues values = mValues;
    // Nothing shared leaves the lock: Qt's containers look at their reference count without ordering.
    for (QVector<SDO::SDOEntryValue> &ofObject : values)
        ofObject.detach();
    return values;
}
