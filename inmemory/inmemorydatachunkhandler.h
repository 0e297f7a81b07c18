#ifndef CANOPENANALYSIS_INMEMORY_INMEMORYDATACHUNKHANDLER_H
#define CANOPENANALYSIS_INMEMORY_INMEMORYDATACHUNKHANDLER_H

#include "inmemory/canopenanalysisinmemory_export.h"
#include "support/datachunkhandler.h"

#include <memory>
#include <optional>

/// A recording store that keeps the frames of all lines in memory, in the order in which they are appended.
///
/// Owner: the host; see DatachunkHandler for when it may be deleted.
///
/// Threads: every operation may be called from any thread at any time. Appends and clears are serialised among themselves.
/// Fetches take no lock, wait for nobody and make nobody wait, whatever the other threads do.
///
/// Why without a lock: measured on two processors, walking 5 million frames while another thread appends as fast as it can, a
/// fetch takes 10 ns and an append 33 ns, as they do each on their own; behind one std::mutex the same fetch takes 160 ns and
/// more (18 ns without the writer), and a reader that is fast enough can keep the writer out.
///
/// Numbers: the frames of all lines are numbered together, in recording order, from the first message number on; after a
/// clear the numbers start there again, so a number names a frame within one recording. Beyond 0xFFFFFFFF they go on at 0.
///
/// Memory: a frame with up to 8 payload bytes takes bytesPerClassicFrame bytes, a longer one its payload in addition,
/// rounded up to 8 bytes. It is reserved in pieces of 4096 frames, for the recording and again for each line in use
/// (128 KiB for the first frame of the first line, 32 KiB for that of each further one). A clear keeps what is reserved for
/// the next recording; squeeze() gives it back.
class CANOPENANALYSISINMEMORY_EXPORT InMemoryDatachunkHandler : public DatachunkHandler
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(InMemoryDatachunkHandler)

public:
    /// Largest line number; 255 means every line elsewhere, and is refused here.
    static constexpr unsigned char lastLine = 254;
    /// Memory of a frame with up to 8 payload bytes: 24 for the frame, 8 for its place in its line.
    static constexpr int bytesPerClassicFrame = 32;

    /// \a firstMessageNumber: number of the first frame of each recording.
    explicit InMemoryDatachunkHandler(quint32 firstMessageNumber = 1, QObject *parent = nullptr);
    ~InMemoryDatachunkHandler() override;

    /// Appends \a frame, received on \a line at \a time, and returns the message number that it got. Returns nothing and
    /// leaves the recording as it is when \a line is 255 or when the recording holds INT_MAX frames.
    ///
    /// While a clear runs, from informAboutClearStart until after informAboutCleared, the frame is held back: it gets its
    /// number in the new recording at once, and can be fetched when the clear is over. So append() never waits for a
    /// slot, and a slot of these signals may append; but what it appends is not there yet if it resumes an analysis.
    ///
    /// Payload bytes beyond the data length, and all those of a remote frame, are stored as 0.
    /// Throws std::bad_alloc, the recording being unchanged, when there is no memory.
    std::optional<quint32> append(unsigned char line, const CAN::CanMessage &frame, CanTimeStamp time);

    /// Clears the recording: emits informAboutClearStart while every frame can still be fetched, discards all frames,
    /// emits informAboutCleared(\a isLive), and then appends what was held back meanwhile. Each signal is emitted once a
    /// clear, by the thread that carries it out, with no lock held.
    ///
    /// Returns true when the recording has been cleared. A clear that is asked for while another one runs (by another
    /// thread or in a slot of its signals) returns false at once and is carried out after it by the same thread, before
    /// that one's clear() returns: signals, frames held back and numbers are as if the two had been asked for one after
    /// the other.
    bool clear(bool isLive = false);

    /// Gives back the memory that the recording does not use; nothing while a clear runs.
    /// Requires: no other thread fetches from the store meanwhile; so no analyzer or parser runs on it.
    void squeeze();

    int getMessageCount() override;
    /// As required, but for an \a index outside the recording an empty record.
    CAN::CanRxMessage messageAt(int index) const override;
    /// Sets the read positions back, and has each line announce its end anew (see endOfLineReached): an analysis that
    /// starts over calls it.
    void resetLinePositions() override;
    bool nextMessageForLine(CAN::CanRxMessage &msg, unsigned char line) override;
    /// As required; \a position counts the frames of \a line from 0 and is never changed. May emit endOfLineReached.
    bool getMessageOfLine(CAN::CanRxMessage &msg, unsigned char line, unsigned int &position) override;
    QList<CAN::CanRxMessage> getMessagesOfLine(unsigned char line, unsigned int position) override;

    /// The line on which the frame at place \a index of the recording was received; -1 when there is no such frame.
    int lineAt(int index) const;
    /// Number of frames of \a line.
    int messageCountOfLine(unsigned char line) const;
    /// The lines that have frames, ascending.
    QList<unsigned char> linesInUse() const;
    /// As given at construction.
    quint32 firstMessageNumber() const;
    /// Bytes reserved for frames, used or not.
    qint64 memoryUsed() const;

Q_SIGNALS:
    /// getMessageOfLine() has been asked for the frame that follows the last one of \a line, so whoever asked has every
    /// frame of the line, of which there may be none. Emitted by the asking thread, within getMessageOfLine(), with no lock
    /// of the store held; a slot may call anything. Emitted once an end: not again until the line got a frame, the
    /// recording was cleared, or resetLinePositions() was called. Several analyses of one line share the announcement.
    void endOfLineReached(unsigned char line);

private:
    struct Q_DECL_HIDDEN Private;
    const std::unique_ptr<Private> d;
};

#endif // CANOPENANALYSIS_INMEMORY_INMEMORYDATACHUNKHANDLER_H
