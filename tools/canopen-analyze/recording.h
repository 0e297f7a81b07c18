#ifndef CANOPENANALYZE_RECORDING_H
#define CANOPENANALYZE_RECORDING_H

#include "candumpreader.h"
#include "inmemory/inmemorydatachunkhandler.h"
#include "progress.h"

#include <QIODevice>
#include <QString>

/// A log that was read into a store.
/// Threads: load() first; afterwards the store may be analysed from any thread.
class Recording final : private CandumpSink
{
public:
    /// \a progress must outlive the recording.
    explicit Recording(Progress &progress) : mProgress(progress), mReader(*this) {}

    /// Reads the log \a fileName (`-` is standard input). Returns an empty text, or one sentence that says why there is
    /// nothing to analyse. Lines that cannot be read are reported on standard error, the first ten in full. Call once.
    QString load(const QString &fileName);

    InMemoryDatachunkHandler &store() { return mStore; }
    /// What was read, as the user calls it.
    const QString &name() const { return mName; }
    /// Names of the interfaces, by CAN line.
    const std::vector<std::string> &interfaces() const { return mReader.interfaces(); }
    quint32 frameCount() const { return mReader.frameCount(); }
    quint64 lineCount() const { return mReader.lineCount(); }
    quint64 badLines() const { return mBadLines; }
    /// Time stamps of the first and of the last frame.
    CanTimeStamp first() const { return mFirst; }
    CanTimeStamp last() const { return mLast; }

private:
    void frame(quint8 line, const CAN::CanRxMessage &msg) override;
    void badLine(quint64 lineNumber, const char *problem, std::string_view text) override;
    QString readAll(QIODevice &device, qint64 size);
    QString whyNothingWasFound() const;

    Progress &mProgress;
    CandumpReader mReader;
    InMemoryDatachunkHandler mStore;
    QString mName;
    quint64 mBadLines = 0;
    bool mStoreFull = false;
    bool mLooksCompressed = false;
    CanTimeStamp mFirst;
    CanTimeStamp mLast;
};

#endif // CANOPENANALYZE_RECORDING_H
