#ifndef CANOPENANALYZE_LINEWATCHER_H
#define CANOPENANALYZE_LINEWATCHER_H

#include "inmemory/inmemorydatachunkhandler.h"
#include "network/canopennetworkanalyzer.h"

#include <QObject>
#include <QPointer>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

/// Listens to the analysis of one line: collects what is told by signal only, and ends the analysis at the end of the line,
/// when that is known to be the end, so that nobody has to wait for the pause of an analysis that has nothing left to do.
/// Owner: whoever creates it; must outlive the analyzer. Threads: the slots run in the analysis thread, the rest in the
/// thread of the analyzer; they share under mMutex.
class LineWatcher : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(LineWatcher)

public:
    struct Error
    {
        unsigned int messageNumber = 0;
        CANopen::SdoProtocolErrorType type = CANopen::PE_UnexpectedResponse;
    };

    struct DeviceCount
    {
        quint8 node = 0;
        quint8 count = 0;
        unsigned int repeatedAnswer = 0; // its message number
    };

    LineWatcher() = default;
    ~LineWatcher() override;

    /// Requires: called once, before \a analyzer is resumed.
    void watch(CANopenNetworkAnalyzer &analyzer, InMemoryDatachunkHandler &store, quint8 line);

    /// No further frames come: the analysis ends when it next finds that there is none. Any thread.
    void setComplete() { mIsComplete = true; }

    /// Waits until the line has been analysed to its end, or \a timeoutMs; returns whether it has.
    bool waitForEnd(int timeoutMs);

    std::vector<Error> errors() const;
    /// Every number of answering devices that was told, oldest first.
    std::vector<DeviceCount> deviceCounts() const;

private Q_SLOTS:
    void onEndOfLine(unsigned char line);
    void onProtocolError(unsigned int messageNumber, CANopen::SdoProtocolErrorType type);
    void onDeviceCount(unsigned char node, unsigned char count, unsigned int messageNumber);

private:
    // Set by watch(), then only read
    CANopenNetworkAnalyzer *mAnalyzer = nullptr; // not owned; does not outlive this
    quint8 mLine = 0;

    std::atomic<bool> mIsComplete{false};
    mutable std::mutex mMutex; // guards what follows
    std::condition_variable mEnded;
    bool mHasEnded = false;
    std::vector<Error> mErrors;
    std::vector<DeviceCount> mDeviceCounts;
};

#endif // CANOPENANALYZE_LINEWATCHER_H
