#ifndef CANOPENANALYSIS_SUPPORT_CANOPENDEVICE_H
#define CANOPENANALYSIS_SUPPORT_CANOPENDEVICE_H

#include "support/genericcandevice.h"

/// A CANopen device of the network model.
/// Owner: the network model.
class CANOPENANALYSIS_EXPORT CANopenDevice : public GenericCANDevice
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CANopenDevice)

public:
    /// \a parent: mostly the network model.
    explicit CANopenDevice(QObject *parent = nullptr);
    ~CANopenDevice() override;

    /// Forgets the object values learnt for the device, and nothing else.
    /// Called for every CANopen device when the analysis starts over, by the thread that runs
    /// CANopenNetworkAnalyzerWorker::reanalyze(), under the library's lock. Must hold no lock while it emits, and must
    /// not delete the device.
    virtual void clearObjectValues() = 0;
};

#endif // CANOPENANALYSIS_SUPPORT_CANOPENDEVICE_H
