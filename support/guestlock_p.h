#ifndef CANOPENANALYSIS_SUPPORT_GUESTLOCK_P_H
#define CANOPENANALYSIS_SUPPORT_GUESTLOCK_P_H

#include <QtGlobal>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

/// The lock of one analysis. The loop keeps it from frame to frame and lends it to guests between two frames:
///
///     loop    |frame|frame|frame|          |frame|frame|      |frame|
///     guest        arrives······|in, served|
///     loop asleep                                      |      |      (anyone may come in meanwhile)
///
/// A mutex taken and released for every frame would cost more than a process-data frame itself and, since the loop takes it
/// again at once, could keep a guest waiting for hundreds of thousands of frames. Here a frame costs the loop one read of
/// a counter.
///
/// Everyone draws a ticket and is served in that order, the loop included: a guest waits for the frame in hand and for the
/// guests before it, the loop for those guests who had arrived when it let them in, however many more come in the meantime.
///
/// Re-entrant for whoever holds it, so a slot that runs under it can call any operation that enters it.
/// Comes before every lock of the store and of the model.
class GuestLock
{
    Q_DISABLE_COPY_MOVE(GuestLock)

public:
    GuestLock() = default;
    ~GuestLock() = default;

    // ---- the loop's side: one thread, not re-entrant ---------------------------------------------------------------
    void enterLoop() { takeTurn(); }
    void leaveLoop() { endTurn(); }

    /// Between two frames: lets everyone in who waits by now.
    void admitGuests()
    {
        // mServing changes at the end of a turn only, and it is the loop's; who draws a ticket just now is seen a frame later.
        if (Q_UNLIKELY(mTickets.load(std::memory_order_relaxed) != mServing + 1))
            letGuestsIn();
    }

    // ---- the guests' side: any thread ------------------------------------------------------------------------------
    void enter()
    {
        // Only the holder itself can find its own mark here, so no ordering is needed.
        if (mHolder.load(std::memory_order_relaxed) == std::this_thread::get_id())
            ++mReentries;
        else
            takeTurn();
    }

    void leave()
    {
        if (mReentries > 0)
            --mReentries;
        else
            endTurn();
    }

private:
    Q_NEVER_INLINE void letGuestsIn()
    {
        endTurn();
        takeTurn();
    }

    void takeTurn()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        const quint32 ticket = mTickets.load(std::memory_order_relaxed);
        mTickets.store(ticket + 1, std::memory_order_relaxed);
        mTurnEnded.wait(lock, [&] { return mServing == ticket; });
        mHolder.store(std::this_thread::get_id(), std::memory_order_relaxed);
    }

    void endTurn()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mHolder.store(std::thread::id(), std::memory_order_relaxed);
        ++mServing;
        // Notified under the mutex: once it is given back the next one may come to its end and the lock be destroyed.
        mTurnEnded.notify_all();
    }

    std::mutex mMutex; // held for a few instructions only, never while a turn lasts
    std::condition_variable mTurnEnded;
    std::atomic<quint32> mTickets{0}; // the next ticket; written under mMutex
    quint32 mServing = 0;             // the ticket whose turn it is; written under mMutex, at the end of a turn
    std::atomic<std::thread::id> mHolder{std::thread::id()};
    int mReentries = 0; // of the holder, during its turn
};

/// Holds the lock as a guest for its scope; without a lock it does nothing.
class GuestScope
{
    Q_DISABLE_COPY_MOVE(GuestScope)

public:
    explicit GuestScope(GuestLock *lock) : mLock(lock)
    {
        if (mLock)
            mLock->enter();
    }
    ~GuestScope()
    {
        if (mLock)
            mLock->leave();
    }

private:
    GuestLock *const mLock;
};

/// The loop's own scope.
class LoopScope
{
    Q_DISABLE_COPY_MOVE(LoopScope)

public:
    explicit LoopScope(GuestLock &lock) : mLock(lock) { mLock.enterLoop(); }
    ~LoopScope() { mLock.leaveLoop(); }

private:
    GuestLock &mLock;
};

/// The loop gives its lock away for the scope: around sleeps and event processing.
class LoopBreak
{
    Q_DISABLE_COPY_MOVE(LoopBreak)

public:
    explicit LoopBreak(GuestLock &lock) : mLock(lock) { mLock.leaveLoop(); }
    ~LoopBreak() { mLock.enterLoop(); }

private:
    GuestLock &mLock;
};

#endif // CANOPENANALYSIS_SUPPORT_GUESTLOCK_P_H
