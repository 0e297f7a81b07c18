#ifndef CANOPENANALYSIS_SUPPORT_DATACHUNKHANDLER_H
#define CANOPENANALYSIS_SUPPORT_DATACHUNKHANDLER_H

#include "support/canopenanalysis_export.h"
#include "support/canrecords.h"

#include <QList>
#include <QObject>

/// The host's recording store: the frames of all CAN lines in recording order.
///
/// Owner: the host. Users hold a QPointer and never delete it. Deleting the store in another thread while an analysis loop
/// that reads it runs is an error of the host; deleted in the analysis thread at an event point (by a queued call), or after
/// the loop has ended, the analysis goes on without it; no other thread may be inside an operation of the analyzer then.
///
/// Threads: fetches come from analysis and parse threads, one at a time per analyzer, while the host's thread appends.
/// getMessagesOfLine() comes in the thread that emits informAboutClearStart, within the emission; resetLinePositions() also in the
/// thread that resets an analysis. Implementations provide for that. No operation may wait for the analysis: it is called under the library's lock, which comes
/// before any lock of the store.
///
/// Lines are numbered 0 to 254; 255 means every line where an operation of the library says so.
class CANOPENANALYSIS_EXPORT DatachunkHandler : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(DatachunkHandler)

public:
    /// \a parent may be null.
    explicit DatachunkHandler(QObject *parent = nullptr);
    ~DatachunkHandler() override;

    /// Number of frames in the recording, all lines together; 0 or less means none.
    virtual int getMessageCount() = 0;

    /// The frame at place \a index of the recording, 0 being the first.
    /// Requires: 0 <= \a index < getMessageCount(). When a clear has come in between, an empty record is returned.
    virtual CAN::CanRxMessage messageAt(int index) const = 0;

    /// Sets the read position of every line, which nextMessageForLine() moves, back to the start.
    virtual void resetLinePositions() = 0;

    /// Copies the next frame of \a line after that line's read position into \a msg, advances the position and returns
    /// true. Returns false when the line has no further frame yet; \a msg is then not used. The positions belong to the
    /// store: all its users share them.
    virtual bool nextMessageForLine(CAN::CanRxMessage &msg, unsigned char line) = 0;

    /// Copies the frame of \a line at the caller's read position into \a msg and returns true. Returns false when there is
    /// none yet; \a msg is then not used and \a position must be left alone. The caller starts at 0 and adds 1 to
    /// \a position after each frame it gets. Whether positions count the line's frames or the whole recording's is the
    /// store's choice: in the second case it sets \a position to the place of the frame it returns.
    /// The loop asks again only after every earlier frame of the line was handled, so an answer false tells a store that its
    /// line has been analysed to the end. A store emits nothing within a fetch that returns true.
    virtual bool getMessageOfLine(CAN::CanRxMessage &msg, unsigned char line, unsigned int &position) = 0;

    /// Every frame of \a line from \a position on (counted as getMessageOfLine() does), in recording order.
    virtual QList<CAN::CanRxMessage> getMessagesOfLine(unsigned char line, unsigned int position) = 0;

Q_SIGNALS:
    /// The recording is about to be cleared. Emitted while every frame can still be fetched, with no lock of the store
    /// held; slots run in the emitting thread. Each is followed by one informAboutCleared, and no frame of the new
    /// contents is appended before that: the analysis fetches nothing in between.
    /// An analyzer is not destroyed while its store is being cleared.
    void informAboutClearStart();

    /// The recording has been cleared; fetching starts at position 0. \a isLive: whether live reception goes on.
    /// Emitted with no lock of the store held.
    void informAboutCleared(bool isLive);
};

#endif // CANOPENANALYSIS_SUPPORT_DATACHUNKHANDLER_H
