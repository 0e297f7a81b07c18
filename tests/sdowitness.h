#ifndef CANOPENANALYSIS_TESTS_SDOWITNESS_H
#define CANOPENANALYSIS_TESTS_SDOWITNESS_H

#include "sdo/sdomessagehandler.h"
#include "trace.h"

#include <QObject>
#include <QStringList>

#include <functional>

/// An SDO message handler and what it reports, as words that stand behind "=>" in a trace:
///
///     write 5 1000:01 = 42 asked 0ms      newValue of a download of node 5; the time is that of the request
///     read 5 1000:01 = 07 41 asked 0ms    newValue of an upload; bytes of a segmented transfer in hexadecimal
///     error 3                             sigProtocolError
///     listed                              the frame's number was added to protocolErrors()
///     devices 6 x2 last 4                 sigMultipleNodesDetected
///
/// Response time and message numbers must be those of the frame that is being handled; where they are not, it says so.
///
/// Besides frames a trace may hold these lines:
///
///     reset, keep on, keep off, limit 28  the operation of the handler: reset(), setKeepFinishedTransfers() ...
///     wait => devices 5 x1 last 0         what a deferred check reports; 200 ms of real time when it reports nothing
///     pending => 5 1000:02 = null of 3    the waiting requests with their values and message numbers, by object
///     values => 5 1000:01 = 42 of 1: ...  the found entries likewise; behind each its values as
///                                         value(request number: reqTime-respTime by response number, w or r)
class SdoWitness : public QObject
{
    Q_OBJECT

public:
    SdoWitness();

    /// Feeds the trace and compares each line's findings with its expectation; empty when all agree, else what differs.
    QString follow(const QByteArray &trace);
    /// Feeds one frame and returns what was found.
    QString feed(const CAN::CanRxMessage &message);

    SDOMessageHandler handler{nullptr, nullptr};
    /// Called within each emission, after it was noted: where a slot of a host would run.
    std::function<void()> inSlot;
    /// The findings of each frame open with its node's block record: state, d or u, object, counter/blksize, and, unless they are
    /// zero or empty, size, CRC support and data (zero bytes as "."): "3d 2000:00 1/127 size 12 crc 4 ABCDEFG".
    bool showsBlocks = false;

private:
    void note(const QString &finding);
    QString obey(const QStringList &verb);
    QString awaitFindings();
    QString takeFindings();

    CAN::CanRxMessage mCurrent;
    QStringList mFindings;
};

#endif // CANOPENANALYSIS_TESTS_SDOWITNESS_H
