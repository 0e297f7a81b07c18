#ifndef CANOPENANALYSIS_BENCHMARKS_COUNTINGNETWORK_H
#define CANOPENANALYSIS_BENCHMARKS_COUNTINGNETWORK_H

#include "support/canopennetwork.h"

/// A model that only counts what it is told.
class CountingNetwork : public CANopenNetwork
{
public:
    quint64 frames() const { return mFrames; }
    quint64 values() const { return mValues; }

    int networkID() const override { return 0; }
    QList<QPointer<GenericCANDevice>> getDeviceList() override { return {}; }
    void reset() override {}
    void addCANMessage(const CAN::CanRxMessage &) override { ++mFrames; }
    void addPDOCanMessage(const CAN::CanRxMessage &) override { ++mOthers; }
    void addSYNC(unsigned int) override { ++mOthers; }
    void addEMCYMsg(signed char, CAN::CanRxMessage) override { ++mOthers; }
    void addNode(signed char, const QString &) override { ++mOthers; }
    void addNodeState(unsigned int, CANopen::CANopenNMTEvent, const CAN::CanRxMessage &) override { ++mOthers; }
    void addNMTRequest(unsigned int, NmtCommands, CanTimeStamp, unsigned int) override { ++mOthers; }
    void addNewSubIndexValue(unsigned char, unsigned short, unsigned char, QVariant, double, double, unsigned int,
                             bool) override
    {
        ++mValues;
    }
    void setPresumedNodeCount(signed char, unsigned char, unsigned int) override { ++mOthers; }
    QMap<CANopen::MessageType, unsigned int> *getMessageTypeDistribution() override { return &mClasses; }

private:
    quint64 mFrames = 0;
    quint64 mValues = 0;
    quint64 mOthers = 0;
    QMap<CANopen::MessageType, unsigned int> mClasses;
};

#endif // CANOPENANALYSIS_BENCHMARKS_COUNTINGNETWORK_H
