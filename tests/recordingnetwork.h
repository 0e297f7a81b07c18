#ifndef CANOPENANALYSIS_TESTS_RECORDINGNETWORK_H
#define CANOPENANALYSIS_TESTS_RECORDINGNETWORK_H

#include "support/canopendevice.h"
#include "support/canopennetwork.h"

#include <QStringList>

#include <functional>
#include <mutex>
#include <utility>

/// A network model that notes each call in words and can act within one.
class RecordingNetwork : public CANopenNetwork
{
    Q_OBJECT

public:
    /// The calls since the last time, without addCANMessage(). From any thread.
    QStringList takeCalls() { return take(mCalls); }
    /// Message numbers given to addCANMessage() since the last time, in order. From any thread.
    QList<quint32> takeFrames() { return take(mFrames); }

    /// Runs within each call, after it was noted and with no lock held; "frame 3" stands for addCANMessage().
    /// Set before the analysis starts.
    std::function<void(const QString &call)> inCall;

    QMap<CANopen::MessageType, unsigned int> distribution;
    QList<QPointer<GenericCANDevice>> devices;

    int networkID() const override { return 0x103; } // line 3
    QList<QPointer<GenericCANDevice>> getDeviceList() override { return devices; }
    void reset() override { note(QStringLiteral("reset")); }
    void addCANMessage(const CAN::CanRxMessage &msg) override;
    void addPDOCanMessage(const CAN::CanRxMessage &msg) override;
    void addSYNC(unsigned int msgNumber) override { note(QStringLiteral("sync by %1").arg(msgNumber)); }
    void addEMCYMsg(signed char node, CAN::CanRxMessage msg) override;
    void addNode(signed char node, const QString &name) override
    {
        note(QStringLiteral("node %1%2").arg(node).arg(name));
    }
    void addNodeState(unsigned int node, CANopen::CANopenNMTEvent event, const CAN::CanRxMessage &msg) override;
    void addNMTRequest(unsigned int node, NmtCommands command, CanTimeStamp time, unsigned int msgNumber) override;
    void addNewSubIndexValue(unsigned char node, unsigned short index, unsigned char subindex, QVariant value,
                             double reqTime, double respTime, unsigned int canMsgNumber, bool wasSDOWrite) override;
    void setPresumedNodeCount(signed char nodeId, unsigned char count, unsigned int lastMsgNumber) override;
    QMap<CANopen::MessageType, unsigned int> *getMessageTypeDistribution() override { return &distribution; }

private:
    void note(const QString &call);
    template<typename List>
    List take(List &list)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return std::exchange(list, List());
    }

    std::mutex mMutex;
    QStringList mCalls;     // under mMutex
    QList<quint32> mFrames; // under mMutex
};

/// A CANopen device that counts how often its values were cleared.
class CountingDevice : public CANopenDevice
{
    Q_OBJECT

public:
    void clearObjectValues() override { ++cleared; }
    int cleared = 0;
};

/// A device of another protocol.
class ForeignDevice : public GenericCANDevice
{
    Q_OBJECT
};

#endif // CANOPENANALYSIS_TESTS_RECORDINGNETWORK_H
