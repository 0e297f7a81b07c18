#include "recordingnetwork.h"

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

void RecordingNetwork::addEMCYMsg(signed char node, CAN::CanRxMessage msg)
{
    note(QStringLiteral("emcy %1 by %2").arg(node).arg(msg.mMessageNumber));
}

void RecordingNetwork::addNodeState(unsigned int node, CANopen::CANopenNMTEvent event, const CAN::CanRxMessage &msg)
{
    const bool fits = event.mTimeStamp == msg.mTimeStamp && event.mMessageNumber == msg.mMessageNumber;
    note(QString::asprintf("state %u = %u by %u", node, event.mEventCode, event.mMessageNumber)
         + (fits ? "" : " but the frame differs"));
}

void RecordingNetwork::addNMTRequest(unsigned int node, NmtCommands command, CanTimeStamp time, unsigned int msgNumber)
{
    note(QString::asprintf("nmt %u to %u by %u at %lldms", command, node, msgNumber, time.toMsecs()));
}

void RecordingNetwork::addNewSubIndexValue(unsigned char node, unsigned short index, unsigned char subindex,
                                           QVariant value, double reqTime, double respTime, unsigned int canMsgNumber,
                                           bool wasSDOWrite)
{
    note(QString::asprintf("value %u %04x:%02x = %lld %s %.0fms-%.0fms by %u", node, index, subindex,
                           value.toLongLong(), wasSDOWrite ? "written" : "read", reqTime * 1000.0, respTime * 1000.0,
                           canMsgNumber));
}

void RecordingNetwork::setPresumedNodeCount(signed char nodeId, unsigned char count, unsigned int lastMsgNumber)
{
    note(QStringLiteral("devices %1 x%2 last %3").arg(nodeId).arg(count).arg(lastMsgNumber));
}
