#ifndef CANOPENANALYZE_OFFLINEBATCH_H
#define CANOPENANALYZE_OFFLINEBATCH_H

#include "findings.h"
#include "options.h"
#include "progress.h"
#include "recording.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

/// What the SDO analysis alone found in one recording.
struct OfflineResult
{
    /// One sentence that says why there is nothing; empty when there is.
    QString problem;
    RecordingFacts facts;
    /// One for each line that was asked for, or one for all together.
    std::vector<LineFindings> lines;
};

/// Reads and parses the recordings of the command line, as many at a time as there are processors, each in one thread and a
/// store of its own. A thread takes the next recording when it is done with one and has given the store's memory back. When no
/// thread can be had, the constructor does all the work.
///
///     thread 1   |A: read|parse|C: read|parse|        A.log B.log C.log, two processors
///     thread 2   |B: read      |parse|
///     main           take(0)···|A    take(1)·|B take(2)|C
///
/// Threads: created, used and destroyed by one thread.
class OfflineBatch
{
    Q_DISABLE_COPY_MOVE(OfflineBatch)

public:
    /// Starts. Both arguments must outlive the batch.
    OfflineBatch(const Options &options, Progress &progress);
    /// Waits until every recording was parsed.
    ~OfflineBatch();

    /// Waits for the recording at \a place of the command line, shows the progress of all meanwhile, and returns what was
    /// found in it. Once for each.
    OfflineResult take(std::size_t place);

private:
    struct Job
    {
        // Set once, then only read
        QString fileName;
        qint64 size = 0; // in bytes; 0: not known
        const std::shared_ptr<WorkDone> done = std::make_shared<WorkDone>();
        // Guarded by mMutex
        OfflineResult result;
        bool isOver = false;
    };

    void startThreads(std::size_t count);
    void work();
    OfflineResult parse(const Job &job);
    OfflineResult parseOrSayWhyNot(const Job &job);
    void showProgress();
    static double shareDone(const Job &job);

    const Options &mOptions;
    Progress &mProgress;
    std::vector<std::unique_ptr<Job>> mJobs;
    std::atomic<std::size_t> mNextJob{0};
    std::mutex mMutex;
    std::condition_variable mJobOver;
    std::vector<std::thread> mThreads;
};

#endif // CANOPENANALYZE_OFFLINEBATCH_H
