#include "linewatcher.h"

#include "sdo/sdomessagehandler.h"

#include <chrono>

LineWatcher::~LineWatcher() = default;

void LineWatcher::watch(CANopenNetworkAnalyzer &analyzer, InMemoryDatachunkHandler &store, quint8 line)
{
    mAnalyzer = &analyzer;
    mLine = line;
    connect(&store, &InMemoryDatachunkHandler::endOfLineReached, this, &LineWatcher::onEndOfLine, Qt::DirectConnection);
    const SDOMessageHandler *const sdo = analyzer.sdoMessageHandler();
    connect(sdo, &SDOMessageHandler::sigProtocolError, this, &LineWatcher::onProtocolError, Qt::DirectConnection);
    connect(sdo, &SDOMessageHandler::sigMultipleNodesDetected, this, &LineWatcher::onDeviceCount, Qt::DirectConnection);
}

bool LineWatcher::waitForEnd(int timeoutMs)
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mEnded.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return mHasEnded; });
}

std::vector<LineWatcher::Error> LineWatcher::errors() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mErrors;
}

std::vector<LineWatcher::DeviceCount> LineWatcher::deviceCounts() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mDeviceCounts;
}

void LineWatcher::onEndOfLine(unsigned char line)
{
    if (line != mLine || !mIsComplete)
        return;
    // Before the waiting thread learns of the end: it may destroy the analyzer then.
    mAnalyzer->stop();
    const std::lock_guard<std::mutex> lock(mMutex);
    mHasEnded = true;
    mEnded.notify_all();
}

void LineWatcher::onProtocolError(unsigned int messageNumber, CANopen::SdoProtocolErrorType type)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mErrors.push_back({messageNumber, type});
}

void LineWatcher::onDeviceCount(unsigned char node, unsigned char count, unsigned int messageNumber)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mDeviceCounts.push_back({node, count, messageNumber});
}
