#ifndef CANOPENANALYSIS_SUPPORT_CANNETWORK_H
#define CANOPENANALYSIS_SUPPORT_CANNETWORK_H

#include "support/canopenanalysis_export.h"
#include "support/genericcandevice.h"

#include <QList>
#include <QObject>
#include <QPointer>

/// The host's model of the network on one CAN line, as far as it does not depend on the protocol.
/// Owner: the host. Threads: see CANopenNetwork.
class CANOPENANALYSIS_EXPORT CANNetwork : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CANNetwork)

public:
    /// A model that is given to an analyzer has no parent.
    explicit CANNetwork(QObject *parent = nullptr);
    ~CANNetwork() override;

    /// Identifies the network; the low 8 bits are the number of the CAN line whose frames are analysed.
    /// Called once a frame: must be cheap, and must not change while the network is analysed.
    virtual int networkID() const = 0;

    /// Every device of the network. Called when the analysis starts over.
    virtual QList<QPointer<GenericCANDevice>> getDeviceList() = 0;

Q_SIGNALS:
    /// The host asks for the whole recording to be analysed again. May be emitted from any thread; the analysis follows in
    /// its own thread, at its next event point.
    void sigReanalyze();
};

#endif // CANOPENANALYSIS_SUPPORT_CANNETWORK_H
