#ifndef CANOPENANALYZE_LINEANALYSIS_H
#define CANOPENANALYZE_LINEANALYSIS_H

#include "findings.h"
#include "inmemory/inmemorycanopennetwork.h"
#include "inmemory/inmemorydatachunkhandler.h"
#include "linewatcher.h"
#include "network/canopennetworkanalyzer.h"
#include "progress.h"

#include <QHash>

#include <optional>
#include <string>

/// The analysis of one CAN line by the library, from the first frame to the findings.
///
///     a recording   endWithLine()  start()              finish()
///     live          start()  overview() …  endWithLine()  finish()
///
/// Threads: the main thread, one line after the other. Frames may be appended to the store from there until endWithLine().
class LineAnalysis
{
    Q_DISABLE_COPY_MOVE(LineAnalysis)

public:
    /// \a store must outlive the analysis; its frames are numbered from 1. \a interface is the name of the \a line.
    LineAnalysis(InMemoryDatachunkHandler &store, const std::string &interface, quint8 line);
    ~LineAnalysis();

    void start();

    /// No further frames come: the analysis ends when it has handled the last one. In live mode it may run already; for a
    /// recording, call it before start().
    void endWithLine();

    /// How things are: of the findings, line, frames, first and last, rating, classes, nodes (without the number of their
    /// objects), emergencies, NMT commands and the faults that are told at once. Costs little, and nothing for what lies
    /// long ago. Requires: the store has no other line.
    LineFindings overview();

    /// Waits until the line has been analysed to its end, ends the analysis and returns everything that was found. Once.
    LineFindings finish(Progress &progress);

private:
    void begin();
    void waitForEnd(Progress &progress);
    void takeRating();
    void takeNodes();
    QMap<quint8, quint8> mostDevices() const;
    void takeAccesses();
    void addFault(quint32 messageNumber, ProtocolFault::Kind kind);
    void takeFaults();
    void addAcknowledgements();
    void takeOpenRequests(const QHash<SDO::SDOEntryKey, SDO::SDOEntry> &pending);
    void takeBlockTransfers(const QMap<unsigned char, CANopen::SDODef::SDOBlockTransfer> &transfers);
    bool endedLater(const SDO::SDOEntry &request) const;

    InMemoryDatachunkHandler &mStore;
    const std::string mInterface;
    const quint8 mLine;
    LineFindings mFindings;
    QHash<SDO::SDOEntryKey, quint32> mLastResponse; // of each object that was read or written
    // In this order: the analyzer is the first to go
    InMemoryCANopenNetwork mNetwork;
    LineWatcher mWatcher;
    std::optional<CANopenNetworkAnalyzer> mAnalyzer;
};

#endif // CANOPENANALYZE_LINEANALYSIS_H
