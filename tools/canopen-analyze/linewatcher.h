#ifndef CANOPENANALYZE_LINEWATCHER_H
#define CANOPENANALYZE_LINEWATCHER_H

#include "inmemory/inmemorydatachunkhandler.h"
#include "network/canopennetworkanalyzer.h"

#include <QObject>
#include <QPointer>

#include <array>
#include <condition_variable>
#include <mutex>
#include <vector>

/// Listens to the analysis of one line: collects what is told by signal only, and ends the analysis at the end of the line,
/// so that nobody has to wait for the pause of an analysis that has nothing left to do.
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

    LineWatcher() = default;
    ~LineWatcher() override;

    /// Requires: called once, before \a analyzer is resumed.
    void watch(CANopenNetworkAnalyzer &analyzer, InMemoryDatachunkHandler &store, quint8 line);

    /// Waits until the line has been analysed to its end, or \a timeoutMs; returns whether it has.
    bool waitForEnd(int timeoutMs);

    std::vector<Error> errors() const;
    /// The largest number of devices that answered under \a node at a time; 0 when the number was never told.
    quint8 mostDevices(quint8 node) const;

private Q_SLOTS:
    void onEndOfLine(unsigned char line);
    void onProtocolError(unsigned int messageNumber, CANopen::SdoProtocolErrorType type);
    void onDeviceCount(unsigned char node, unsigned char count, unsigned int messageNumber);

private:
    // Set by watch(), then only read
    CANopenNetworkAnalyzer *mAnalyzer = nullptr; // not owned; does not outlive this
    quint8 mLine = 0;

    mutable std::mutex mMutex; // guards what follows
    std::condition_variable mEnded;
    bool mHasEnded = false;
    std::vector<Error> mErrors;
    std::array<quint8, 256> mMostDevices = {};
};

#endif // CANOPENANALYZE_LINEWATCHER_H
