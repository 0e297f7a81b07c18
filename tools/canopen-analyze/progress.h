#ifndef CANOPENANALYZE_PROGRESS_H
#define CANOPENANALYZE_PROGRESS_H

#include <QString>

#include <chrono>
#include <mutex>
#include <string>

/// A line on standard error that shows how far a long run is; silent when nobody watches there.
/// Threads: any may call any operation.
class Progress
{
public:
    Progress();
    ~Progress();
    Q_DISABLE_COPY_MOVE(Progress)

    /// Shows that \a done of \a total are done, a few times a second at most. \a total 0: not known, \a done are bytes.
    void show(const std::string &what, qint64 done, qint64 total);
    /// Takes the line off the screen, so that something else can be printed.
    void clear();
    /// Prints \a text as a line of its own on standard error.
    void message(const QString &text);

private:
    void wipe();

    const bool mIsWatched;
    std::mutex mMutex; // guards what follows
    bool mIsShown = false;
    std::chrono::steady_clock::time_point mNext;
};

#endif // CANOPENANALYZE_PROGRESS_H
