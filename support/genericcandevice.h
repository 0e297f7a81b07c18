#ifndef CANOPENANALYSIS_SUPPORT_GENERICCANDEVICE_H
#define CANOPENANALYSIS_SUPPORT_GENERICCANDEVICE_H

#include "support/canopenanalysis_export.h"

#include <QObject>

/// A device on a CAN line, of whatever protocol. Hosts derive from it; the analysis only tells the kinds apart with
/// qobject_cast.
/// Owner: the network model.
class CANOPENANALYSIS_EXPORT GenericCANDevice : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(GenericCANDevice)

public:
    ~GenericCANDevice() override;

protected:
    /// \a parent: mostly the network model.
    explicit GenericCANDevice(QObject *parent = nullptr);
};

#endif // CANOPENANALYSIS_SUPPORT_GENERICCANDEVICE_H
