#ifndef CANOPENANALYSIS_TESTS_WATCHDOG_H
#define CANOPENANALYSIS_TESTS_WATCHDOG_H

#include <QtGlobal>

#include <array>
#include <atomic>
#include <future>
#include <thread>

/// Ends the program when its scope does not come to its end within a minute, and says what each thread was doing.
class Watchdog
{
    Q_DISABLE_COPY_MOVE(Watchdog)

public:
    Watchdog() = default;
    ~Watchdog()
    {
        mOver.set_value();
        mThread.join();
    }

    /// Written by the threads of the test, each its own; null at their end.
    static inline std::array<std::atomic<const char *>, 7> doing{};

private:
    static void watch(std::future<void> over)
    {
        if (over.wait_for(std::chrono::minutes(1)) == std::future_status::ready)
            return;
        for (const auto &what : doing)
            qWarning("a thread is %s", what.load() ? what.load() : "at its end");
        qFatal("not at its end after a minute: something hangs");
    }
    std::promise<void> mOver;
    std::thread mThread{watch, mOver.get_future()};
};

#endif // CANOPENANALYSIS_TESTS_WATCHDOG_H
