#ifndef CANOPENANALYZE_PROGRESS_H
#define CANOPENANALYZE_PROGRESS_H

#include <QtGlobal>

#include <chrono>
#include <string>

/// A line on standard error that shows how far a long run is; silent when nobody watches there.
/// Threads: a plain object of the main thread.
class Progress
{
public:
    Progress();
    ~Progress();
    Q_DISABLE_COPY_MOVE(Progress)

    /// Shows that \a done of \a total are done, a few times a second at most. \a total 0: not known.
    void show(const std::string &what, qint64 done, qint64 total);
    /// Takes the line off the screen, so that something else can be printed.
    void clear();

private:
    const bool mIsWatched;
    bool mIsShown = false;
    std::chrono::steady_clock::time_point mNext;
};

#endif // CANOPENANALYZE_PROGRESS_H
