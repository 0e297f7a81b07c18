#ifndef CANOPENANALYSIS_SUPPORT_GUESTLOCK_P_H
#define CANOPENANALYSIS_SUPPORT_GUESTLOCK_P_H

#include <QtGlobal>

#include <atomic>
#include <condition_variable>
#include <mutex>

/// The lock of one analysis. The loop keeps it from frame to frame and lends it to guests between two frames:
///
///     loop    |frame|frame|frame|          |frame|frame|      |frame|
///     guest        arrives······|in, served|
///     loop asleep                                      |      |      (anyone may come in meanwhile)
///
/// A mutex taken and released for every frame would cost more than a process-data frame itself and, since the loop takes it
/// again at once, could keep a guest waiting for hundreds of thousands of frames. Here a frame costs the loop one read of
/// a counter, and a guest waits for the frame in hand.
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
    void enterLoop()
    {
        mMutex.lock();
        mHolder.store(thisThread(), std::memory_order_relaxed);
    }

    void leaveLoop()
    {
        mHolder.store(nullptr, std::memory_order_relaxed);
        mMutex.unlock();
    }

    /// Between two frames: lets everyone in who waits by now.
    void admitGuests()
    {
        // mServed changes under the mutex only, which the loop holds; a guest that arrives just now gets in a frame later.
        if (mArrived.load(std::memory_order_relaxed) != mServed)
            waitForGuests();
    }

    // ---- the guests' side: any thread ------------------------------------------------------------------------------
    void enter()
    {
        // Only the holder itself can find its own mark here, so no ordering is needed.
        if (mHolder.load(std::memory_order_relaxed) == thisThread()) {
            ++mReentries;
            return;
        }
        mArrived.fetch_add(1, std::memory_order_relaxed);
        mMutex.lock();
        ++mServed;
        mHolder.store(thisThread(), std::memory_order_relaxed);
    }

    void leave()
    {
        if (mReentries > 0) {
            --mReentries;
            return;
        }
        mHolder.store(nullptr, std::memory_order_relaxed);
        // Notified before the mutex is given back: afterwards the loop may end and the lock be destroyed.
        mGuestServed.notify_one();
        mMutex.unlock();
    }

private:
    void waitForGuests()
    {
        // Those who arrive later wait for the next frame; otherwise two guests that take turns could stop the loop.
        const quint32 waiting = mArrived.load(std::memory_order_relaxed);
        mHolder.store(nullptr, std::memory_order_relaxed);
        std::unique_lock<std::mutex> lock(mMutex, std::adopt_lock);
        mGuestServed.wait(lock, [&] { return static_cast<qint32>(mServed - waiting) >= 0; });
        lock.release();
        mHolder.store(thisThread(), std::memory_order_relaxed);
    }

    /// A mark that only the calling thread has.
    static const void *thisThread()
    {
        static thread_local char mark;
        return &mark;
    }

    std::mutex mMutex;
    std::condition_variable mGuestServed;
    std::atomic<quint32> mArrived{0}; // guests that have ever asked for the lock
    quint32 mServed = 0;              // guests that have ever got it; under mMutex
    std::atomic<const void *> mHolder{nullptr};
    int mReentries = 0; // of the holder; under mMutex
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
