#ifndef CANOPENANALYZE_LIVESESSION_H
#define CANOPENANALYZE_LIVESESSION_H

#include "inmemory/inmemorydatachunkhandler.h"
#include "interrupts.h"
#include "lineanalysis.h"
#include "livescreen.h"
#include "livesource.h"
#include "options.h"
#include "recording.h"
#include "reports.h"

#include <QEventLoop>
#include <QObject>
#include <QTimer>

/// Analyses frames while they come in, shows how things are once a second, and reports everything at the end: when the user
/// interrupts, or when the source is lost.
/// Threads: the main thread, for one session.
class LiveSession final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(LiveSession)

public:
    /// \a options must outlive the session, and name a live source.
    explicit LiveSession(const Options &options);
    ~LiveSession() override;

    /// Runs to the end and gives \a reports what was found, if there was a frame. Returns an empty text, or one sentence that
    /// says why the session did not go well. Call once.
    QString run(Reports &reports);

private:
    void onConnected();
    void onFrame(const CAN::CanMessage &frame, CanTimeStamp time);
    void end(const QString &problem);
    void draw();
    RecordingFacts facts() const;

    const Options &mOptions;
    const QString mPlugin;
    const QString mInterface;
    InMemoryDatachunkHandler mStore;
    LineAnalysis mAnalysis;
    LiveScreen mScreen;
    QTimer mConnecting;
    QTimer mRedraw;
    QEventLoop mLoop;
    bool mIsOver = false;
    bool mIsFull = false;
    QString mProblem;
    LiveSource mSource;
    Interrupts mInterrupts;
};

#endif // CANOPENANALYZE_LIVESESSION_H
