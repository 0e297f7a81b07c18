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
class SdoWitness : public QObject
{
    Q_OBJECT

public:
    SdoWitness();

    /// Feeds the trace and compares each frame's findings with its expectation; empty when all agree, else what differs.
    QString follow(const QByteArray &trace);
    /// Feeds one frame and returns what was found.
    QString feed(const CAN::CanRxMessage &message);
    /// What was reported since the last call, by frames or by a deferred check.
    QString takeFindings();

    SDOMessageHandler handler{nullptr, nullptr};
    /// Called within each emission, after it was noted: where a slot of a host would run.
    std::function<void()> inSlot;

private:
    void note(const QString &finding);

    CAN::CanRxMessage mCurrent;
    QStringList mFindings;
};

#endif // CANOPENANALYSIS_TESTS_SDOWITNESS_H
