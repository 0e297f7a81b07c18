#include "offlinebatch.h"

#include "framescan.h"
#include "offlineparse.h"

#include <QFileInfo>
#include <QThread>

#include <algorithm>
#include <chrono>
#include <new>
#include <system_error>

OfflineBatch::OfflineBatch(const Options &options, Progress &progress) : mOptions(options), mProgress(progress)
{
    for (const QString &fileName : options.fileNames) {
        mJobs.push_back(std::make_unique<Job>());
        mJobs.back()->fileName = fileName;
        mJobs.back()->size = QFileInfo(fileName).size();
    }
    const std::size_t threads = std::min(mJobs.size(), std::size_t(std::max(1, QThread::idealThreadCount())));
    startThreads(threads);
    if (mThreads.empty())
        work();
}

OfflineBatch::~OfflineBatch()
{
    for (std::thread &thread : mThreads)
        thread.join();
}

// Where the system has no more threads to give, fewer do the work.
void OfflineBatch::startThreads(std::size_t count)
{
    mThreads.reserve(count); // a running thread must not be lost for want of memory
    try {
        while (mThreads.size() < count)
            mThreads.emplace_back([this] { work(); });
    } catch (const std::system_error &) {
        return;
    }
}

OfflineResult OfflineBatch::take(std::size_t place)
{
    constexpr auto progressInterval = std::chrono::milliseconds(100);
    Job &job = *mJobs[place];
    std::unique_lock<std::mutex> lock(mMutex);
    while (!mJobOver.wait_for(lock, progressInterval, [&job] { return job.isOver; }))
        showProgress();
    mProgress.clear();
    return std::move(job.result);
}

// One of the threads.
void OfflineBatch::work()
{
    for (;;) {
        const std::size_t place = mNextJob++;
        if (place >= mJobs.size())
            return;
        OfflineResult result = parseOrSayWhyNot(*mJobs[place]);
        const std::lock_guard<std::mutex> lock(mMutex);
        mJobs[place]->result = std::move(result);
        mJobs[place]->isOver = true;
        mJobOver.notify_all();
    }
}

OfflineResult OfflineBatch::parseOrSayWhyNot(const Job &job)
{
    try {
        return parse(job);
    } catch (const std::bad_alloc &) {
        return {QStringLiteral("There is not enough memory for %1.").arg(job.fileName), {}, {}};
    }
}

OfflineResult OfflineBatch::parse(const Job &job)
{
    Recording recording(mProgress, job.done);
    OfflineResult result;
    result.problem = recording.load(job.fileName);
    result.facts = recording.facts();
    if (!result.problem.isEmpty())
        return result;
    std::vector<quint8> lines = {allLines};
    if (!mOptions.lines.isEmpty())
        lines = linesNamed(mOptions.lines, result.facts, result.problem);
    if (!result.problem.isEmpty())
        return result;
    for (const quint8 line : lines)
        result.lines.push_back(parseOffline(recording, line));
    return result;
}

// One bar for all recordings, by size: half of the work on each is reading, half of it is parsing.
void OfflineBatch::showProgress()
{
    double done = 0;
    qint64 total = 0;
    qint64 bytesRead = 0;
    for (const auto &job : mJobs) {
        done += shareDone(*job) * double(job->size);
        total += job->size;
        bytesRead += job->done->bytesRead;
    }
    const std::string what = mJobs.size() == 1 ? "Parsing" : "Parsing " + std::to_string(mJobs.size()) + " recordings";
    mProgress.show(what, total > 0 ? qint64(done) : bytesRead, total);
}

double OfflineBatch::shareDone(const Job &job)
{
    if (job.isOver || job.size == 0)
        return 1;
    const quint64 frames = job.done->frames;
    const double read = double(job.done->bytesRead) / double(job.size);
    const double parsed = frames > 0 ? double(job.done->framesFetched) / double(frames) : 0;
    return (std::min(read, 1.0) + std::min(parsed, 1.0)) / 2;
}
