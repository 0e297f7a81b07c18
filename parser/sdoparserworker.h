#ifndef CANOPENANALYSIS_PARSER_SDOPARSERWORKER_H
#define CANOPENANALYSIS_PARSER_SDOPARSERWORKER_H

#include "support/canopenanalysis_export.h"
#include "support/canopenrecords.h"
#include "support/datachunkhandler.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>

#include <memory>

class SDOMessageHandler;

/// Runs the SDO analysis alone over a finished recording, away from any network analysis: every object access with the history
/// of its values, and the message numbers of protocol errors.
///
///     SDOParserWorker parser(nullptr);
///     parser.setDatachunkHandler(&recording);
///     parser.setNetworkLine(2);                       // all lines without it
///     connect(&parser, &SDOParserWorker::finished, this, [&] { show(parser.getResultList()); });
///     parser.startAnalysing();
///
/// Owner: the host. Threads: lives in the thread that creates it; a run takes place in a thread of its own. Between
/// startAnalysing() and finished nothing else may be called, store and parser must stay alive, and nobody else may
/// move the read positions of the store (one parser at a time for a store). A run cannot be paused or stopped.
///
/// May be destroyed in a slot connected to finished, in any thread and by any kind of connection.
class CANOPENANALYSIS_EXPORT SDOParserWorker : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(SDOParserWorker)

public:
    /// The line number that stands for every line.
    static constexpr unsigned char allLines = 255;

    /// Without a recording, for all lines.
    explicit SDOParserWorker(QObject *parent);
    ~SDOParserWorker() override;

    /// The recording to parse; may be null, a run then finds nothing. Not owned.
    void setDatachunkHandler(DatachunkHandler *datachunkHandler);

    /// The line to parse, or allLines (the value after construction). With allLines the frames of every line go through one
    /// analysis in recording order: node 5 of two lines counts as one node.
    void setNetworkLine(unsigned char networkLine);

    /// Stored; the parse does not consult it.
    void setNodeIdList(const QList<unsigned char> &nodeIds);

    /// Starts a run in a thread of its own and returns at once. The thread object is deleted later, in the calling
    /// thread, which has to process events for that.
    void startAnalysing();

    /// What the last run found: one entry for each object with a finished expedited or segmented transfer. A copy; empty
    /// before the first run.
    QHash<SDO::SDOEntryKey, SDO::SDOEntry> getResultList();

    /// Message numbers of the frames that SDOMessageHandler::protocolErrors() listed in the last run. A copy.
    QList<unsigned int> sdoProtocolErrors() const;

Q_SIGNALS:
    /// A run is over and its results can be fetched; emitted exactly once a run, from the thread of the run.
    /// \a networkLine is the line that was parsed.
    void finished(unsigned char networkLine);

public Q_SLOTS:
    /// One complete run in the calling thread; emits finished before it returns.
    void doWork();

private:
    struct Emission;

    void parseAllMessages();
    void parseLineMessages();
    void takeResults();
    void emitFinished();

    QPointer<DatachunkHandler> mDatachunkHandler; // the host's, may vanish between runs
    QPointer<SDOMessageHandler> mSdoHandler;      // a child
    QHash<SDO::SDOEntryKey, SDO::SDOEntry> mResult;
    QList<unsigned char> mNodeIds;
    unsigned char mNetworkLine = allLines;
    QList<unsigned int> mProtocolErrors;
    const std::shared_ptr<Emission> mEmission; // outlives a parser that is destroyed while it emits
};

#endif // CANOPENANALYSIS_PARSER_SDOPARSERWORKER_H
