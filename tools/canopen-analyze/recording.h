#ifndef CANOPENANALYZE_RECORDING_H
#define CANOPENANALYZE_RECORDING_H

#include "countingstore.h"
#include "framesink.h"
#include "progress.h"

#include <QIODevice>
#include <QString>
#include <QStringList>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

/// What is known of a recording besides its frames.
struct RecordingFacts
{
    /// As the user calls it.
    QString name;
    /// Names of the interfaces, by CAN line.
    std::vector<std::string> interfaces;
    quint32 frames = 0;
    /// What the recording is made of: lines of a log, packets of a capture.
    const char *piece = "line";
    /// How many there are, and how many of them could not be read.
    quint64 pieces = 0;
    quint64 badPieces = 0;
    /// Of frames that came in live: whose time stamps they have, in words.
    const char *clock = nullptr;
    /// Time stamps of the first and of the last frame.
    CanTimeStamp first;
    CanTimeStamp last;
};

/// How far the work on a recording is. Written by the thread that works on it, read by any.
struct WorkDone
{
    std::atomic<qint64> bytesRead{0};
    std::atomic<quint64> frames{0};        // 0 until all bytes are read
    std::atomic<quint64> framesFetched{0}; // by a parser
};

/// A log or a capture that was read into a store.
/// Threads: load() first; afterwards the store may be analysed from any thread.
class Recording final : private FrameSink
{
public:
    /// \a progress must outlive the recording; it shows how far the reading is, unless \a done is given: then the caller
    /// shows that.
    explicit Recording(Progress &progress, std::shared_ptr<WorkDone> done = nullptr);

    /// Reads the recording \a fileName (`-` is standard input), in a format that its beginning tells. Returns an empty text,
    /// or one sentence that says why there is nothing to analyse. Lines or packets that cannot be read are reported on
    /// standard error, the first ten in full. Call once.
    QString load(const QString &fileName);

    InMemoryDatachunkHandler &store() { return mStore; }
    /// Complete after load().
    const RecordingFacts &facts() const { return mFacts; }

private:
    void frame(quint8 line, const CAN::CanRxMessage &msg) override;
    void badPiece(quint64 number, const char *problem, std::string_view text) override;
    QString readFrom(const QString &fileName);
    QString readLog(QIODevice &device);
    QString readCapture(QIODevice &device);
    qint64 readBlock(QIODevice &device, char *block, qint64 size);
    template<typename Reader>
    void takeFacts(const Reader &reader);
    QString whyNothingWasFound() const;

    Progress &mProgress;
    const bool mShowsReading;
    const std::shared_ptr<WorkDone> mDone; // never null
    CountingStore mStore;
    RecordingFacts mFacts;
    bool mStoreFull = false;
};

/// The CAN lines of a recording with the \a names, ascending; without names every line. When one of the names does not occur,
/// \a problem is set to one sentence.
std::vector<quint8> linesNamed(const QStringList &names, const RecordingFacts &facts, QString &problem);

#endif // CANOPENANALYZE_RECORDING_H
