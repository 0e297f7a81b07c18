#ifndef CANOPENANALYSIS_INMEMORY_INMEMORYCANOPENDEVICE_H
#define CANOPENANALYSIS_INMEMORY_INMEMORYCANOPENDEVICE_H

#include "inmemory/canopenanalysisinmemory_export.h"
#include "inmemory/inmemoryrecords.h"
#include "support/canopendevice.h"

#include <mutex>

/// One node of an InMemoryCANopenNetwork, with the object values read from and written to it.
///
/// Owner: the network model, with which it is created, moved between threads and deleted.
/// Threads: every operation may be called from any thread. Emits nothing and waits for nothing but another call's copying.
///
/// Memory: every value is kept until the values are cleared; each takes about 50 bytes, and its payload when it is longer
/// than 8 bytes.
class CANOPENANALYSISINMEMORY_EXPORT InMemoryCANopenDevice : public CANopenDevice
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(InMemoryCANopenDevice)

public:
    /// \a nodeId: 0 to 127.
    explicit InMemoryCANopenDevice(quint8 nodeId, QObject *parent = nullptr);
    ~InMemoryCANopenDevice() override;

    /// As given at construction.
    quint8 nodeId() const;

    /// Appends \a value to the history of the object at \a index and \a subindex.
    void addObjectValue(quint16 index, quint8 subindex, const SDO::SDOEntryValue &value);
    void clearObjectValues() override;

    /// The values of this node, copied one by one; a value that comes meanwhile waits for that.
    InMemory::ObjectValues objectValues() const;

private:
    const quint8 mNodeId;

    mutable std::mutex mMutex; // guards what follows
    InMemory::ObjectValues mValues;
};

#endif // CANOPENANALYSIS_INMEMORY_INMEMORYCANOPENDEVICE_H
