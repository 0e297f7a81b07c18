#ifndef CANOPENANALYSIS_SDO_VALUERECEIVER_P_H
#define CANOPENANALYSIS_SDO_VALUERECEIVER_P_H

#include "support/canopenrecords.h"

/// Who takes the values of an SDO analysis without a signal, see SDOMessageHandler::setOnlyReceiver().
class ValueReceiver
{
    Q_DISABLE_COPY_MOVE(ValueReceiver)

public:
    ValueReceiver() = default;
    virtual ~ValueReceiver() = default;

    /// What SDOMessageHandler::newValue() tells. reqMsgNumber of \a value has no meaning.
    virtual void takeValue(const SDO::SDOEntryKey &object, SDO::SDOEntryValue &&value) = 0;
};

#endif // CANOPENANALYSIS_SDO_VALUERECEIVER_P_H
