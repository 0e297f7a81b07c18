#ifndef CANOPENANALYZE_LIVESOURCE_H
#define CANOPENANALYZE_LIVESOURCE_H

#include "support/canrecords.h"

#include <QObject>
#include <QString>

#include <optional>

class QCanBusDevice;

/// Frames as they come in, by means of Qt's CAN bus module and its plug-ins.
///
/// Time stamps are those of the driver, if it gives its first frame one; otherwise every frame gets the time of this machine's
/// monotonic clock at which it was fetched from the driver.
/// Threads: lives in a thread with an event loop, and is used there.
class LiveSource final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(LiveSource)

public:
    LiveSource() = default;
    ~LiveSource() override;

    /// Begins to connect to \a interface of \a plugin; connected() or failed() follows, possibly at once. Call once.
    void open(const QString &plugin, const QString &interface);

    /// Emits frame() for each frame that the driver has handed over, then disconnects. No signal comes afterwards. May be
    /// called at any time, also when nothing was opened.
    void close();

    /// Whether the time stamps are those of the driver; not known before the first frame.
    std::optional<bool> hasDriverTime() const { return mHasDriverTime; }

Q_SIGNALS:
    void connected();
    /// Each frame, in the order of reception. Frames of a kind that the plug-in does not know are left out.
    void frame(const CAN::CanMessage &frame, CanTimeStamp time);
    /// The source cannot be opened, or is lost: no frame follows. \a problem is one sentence. At most once.
    void failed(const QString &problem);

private:
    void fail(const QString &what);
    void onStateChanged();
    void takeFrames();
    CanTimeStamp timeOf(qint64 driverUsecs);

    QString mName;
    QCanBusDevice *mDevice = nullptr; // a child of this object
    bool mHasFailed = false;
    std::optional<bool> mHasDriverTime;
};

#endif // CANOPENANALYZE_LIVESOURCE_H
