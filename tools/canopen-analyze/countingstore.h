#ifndef CANOPENANALYZE_COUNTINGSTORE_H
#define CANOPENANALYZE_COUNTINGSTORE_H

#include "inmemory/inmemorydatachunkhandler.h"

#include <atomic>

/// A store that counts the frames which a parser fetches: a parser reports no progress.
/// Threads: one parser at a time, the count may be read from any thread.
class CountingStore final : public InMemoryDatachunkHandler
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CountingStore)

public:
    /// \a fetched is raised by one with each frame, and must outlive the store.
    explicit CountingStore(std::atomic<quint64> &fetched) : mFetched(fetched) {}
    ~CountingStore() override;

    CAN::CanRxMessage messageAt(int index) const override;
    bool nextMessageForLine(CAN::CanRxMessage &msg, unsigned char line) override;

private:
    // There is one writer, so it need not be one indivisible step: that would cost as much as the fetch.
    void count() const { mFetched.store(mFetched.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed); }

    std::atomic<quint64> &mFetched;
};

#endif // CANOPENANALYZE_COUNTINGSTORE_H
