#include "recordingnetwork.h"

QStringList RecordingNetwork::takeCalls()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    QStringList calls;
    calls.swap(mCalls);
    return calls;
}

QList<quint32> RecordingNetwork::takeFrames()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    QList<quint32> frames;
    frames.swap(mFrames);
    return frames;
}

void RecordingNetwork::note(const QString &call)
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mCalls.append(call);
    }
    if (inCall)
        inCall(call);
}

void RecordingNetwork::addCANMessage(const CAN::CanRxMessage &msg)
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mFrames.append(msg.mMessageNumber);
    }
    if (inCall)
        inCall(QStringLiteral("frame %1").arg(msg.mMessageNumber));
}

void RecordingNetwork::addPDOCanMessage(const CAN::CanRxMessage &msg)
{
    note(QStringLiteral("pdo %1").arg(msg.mFrame.mIdentifier, 3, 16, QLatin1Char('0')));
}

void RecordingNetwork::addSYNC(unsigned int msgNumber)
{
    note(QStringLiteral("sync by %1").arg(msgNumber));
}

void RecordingNetwork::addEMCYMsg(signed char node, CAN::CanRxMessage msg)
{
    note(QStringLiteral("emcy %1 by %2").arg(node).arg(msg.mMessageNumber));
}

void RecordingNetwork::addNode(signed char node, const QString &name)
{
    note(QStringLiteral("node %1%2").arg(node).arg(name));
}

void RecordingNetwork::addNodeState(unsigned int node, CANopen::CANopenNMTEvent event, const CAN::CanRxMessage &msg)
{
    QString call = QStringLiteral("state %1 = %2 by %3").arg(node).arg(event.mEventCode).arg(event.mMessageNumber);
    if (event.mTimeStamp != msg.mTimeStamp || event.mMessageNumber != msg.mMessageNumber)
        call += QStringLiteral(" but the frame differs");
    note(call);
}

void RecordingNetwork::addNMTRequest(unsigned int node, NmtCommands command, CanTimeStamp time, unsigned int msgNumber)
{
    note(QStringLiteral("nmt %1 to %2 by %3 at %4ms").arg(command).arg(node).arg(msgNumber).arg(time.toMsecs()));
}

void RecordingNetwork::addNewSubIndexValue(unsigned char node, unsigned short index, unsigned char subindex,
                                           QVariant value, double reqTime, double respTime, unsigned int canMsgNumber,
                                           bool wasSDOWrite)
{
    note(QStringLiteral("value %1 %2:%3 = %4 %5 %6ms-%7ms by %8")
             .arg(node)
             .arg(index, 4, 16, QLatin1Char('0'))
             .arg(subindex, 2, 16, QLatin1Char('0'))
             .arg(value.toLongLong())
             .arg(wasSDOWrite ? QStringLiteral("written") : QStringLiteral("read"))
             .arg(qRound64(reqTime * 1000.0))
             .arg(qRound64(respTime * 1000.0))
             .arg(canMsgNumber));
}

void RecordingNetwork::setPresumedNodeCount(signed char nodeId, unsigned char count, unsigned int lastMsgNumber)
{
    note(QStringLiteral("devices %1 x%2 last %3").arg(nodeId).arg(count).arg(lastMsgNumber));
}
