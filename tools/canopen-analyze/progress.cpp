#include "progress.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace {
constexpr auto firstAfter = std::chrono::milliseconds(300); // shorter runs show nothing
constexpr auto interval = std::chrono::milliseconds(100);
constexpr int barWidth = 40;
constexpr qint64 million = 1000000;
} // namespace

Progress::Progress() : mIsWatched(isatty(STDERR_FILENO)), mNext(std::chrono::steady_clock::now() + firstAfter) {}

Progress::~Progress()
{
    clear();
}

void Progress::show(const std::string &what, qint64 done, qint64 total)
{
    if (!mIsWatched)
        return;
    const std::lock_guard<std::mutex> lock(mMutex);
    const auto now = std::chrono::steady_clock::now();
    if (now < mNext)
        return;
    mNext = now + interval;
    mIsShown = true;
    if (total <= 0) {
        std::fprintf(stderr, "\r\033[K%s: %lld MB", what.c_str(), done / million);
        return;
    }
    const auto share = double(std::min(done, total)) / double(total);
    const std::string bar(std::size_t(share * barWidth), '#');
    std::fprintf(stderr, "\r\033[K%s [%-*s] %3d %%", what.c_str(), barWidth, bar.c_str(), int(share * 100));
}

void Progress::clear()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    wipe();
}

void Progress::message(const QString &text)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    wipe();
    std::fprintf(stderr, "%s\n", qPrintable(text));
}

void Progress::wipe()
{
    if (mIsShown)
        std::fputs("\r\033[K", stderr);
    mIsShown = false;
}
