#include "interrupts.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr std::array<int, 2> caught = {SIGINT, SIGTERM};

constexpr qint64 togetherNSecs = 300000000;

// For the signal handler, which knows no object
std::atomic<int> writeEnd{-1};
std::atomic<qint64> firstSignal{0}; // when it came; 0: not yet
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<qint64>::is_always_lock_free);

qint64 monotonicNSecs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void setHandler(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    for (const int number : caught)
        sigaction(number, &action, nullptr);
}

} // namespace

Interrupts::Interrupts()
{
    if (pipe2(mPipe.data(), O_CLOEXEC | O_NONBLOCK) != 0)
        return; // then Ctrl-C simply ends the program
    mNotifier = std::make_unique<QSocketNotifier>(mPipe[0], QSocketNotifier::Read);
    connect(mNotifier.get(), &QSocketNotifier::activated, this, &Interrupts::onReadable);
    firstSignal = 0;
    writeEnd = mPipe[1];
    setHandler(&Interrupts::onSignal);
}

Interrupts::~Interrupts()
{
    if (!mNotifier)
        return;
    setHandler(SIG_DFL);
    writeEnd = -1;
    mNotifier.reset();
    for (const int end : mPipe)
        close(end);
}

// In any thread, between any two instructions: only few functions may be called.
void Interrupts::onSignal(int number)
{
    const int error = errno;
    const qint64 now = monotonicNSecs();
    qint64 first = 0;
    if (firstSignal.compare_exchange_strong(first, now)) {
        const char byte = 0;
        [[maybe_unused]] const auto written = write(writeEnd, &byte, 1);
    } else if (now - first > togetherNSecs) {
        std::signal(number, SIG_DFL);
        std::raise(number); // takes effect when this function returns
    }
    errno = error;
}

void Interrupts::onReadable()
{
    mNotifier->setEnabled(false);
    Q_EMIT interrupted();
}
