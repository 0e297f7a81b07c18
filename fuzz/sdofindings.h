#ifndef CANOPENANALYSIS_FUZZ_SDOFINDINGS_H
#define CANOPENANALYSIS_FUZZ_SDOFINDINGS_H

#include "sdo/sdomessagehandler.h"

#include <algorithm>
#include <functional>
#include <vector>

/// One signal of an SDO message handler.
struct SdoFinding
{
    enum Kind { Value, Error, Devices };

    Kind kind = Value;
    SDO::SDOEntryKey object;  ///< of an error none, of devices the node
    SDO::SDOEntryValue value; ///< of the others only the message number
    uint detail = 0;          ///< error type or number of devices

    friend bool operator==(const SdoFinding &a, const SdoFinding &b)
    {
        return a.kind == b.kind && a.object == b.object && a.value == b.value && a.detail == b.detail;
    }
};

inline SdoFinding valueFinding(quint8 node, quint16 index, quint8 subindex, const QVariant &value, double reqTime,
                               double respTime, quint32 msgNumber, bool wasSDOWrite)
{
    return {SdoFinding::Value, {node, index, subindex}, {value, reqTime, respTime, msgNumber, 0, wasSDOWrite}, 0};
}

inline bool sameBlocks(const QMap<unsigned char, CANopen::SDODef::SDOBlockTransfer> &a,
                       const QMap<unsigned char, CANopen::SDODef::SDOBlockTransfer> &b)
{
    return std::equal(a.keyValueBegin(), a.keyValueEnd(), b.keyValueBegin(), b.keyValueEnd(),
                      [](const auto &left, const auto &right) {
                          return left.first == right.first && left.second.mState == right.second.mState
                                 && left.second.mIndex == right.second.mIndex && left.second.mData == right.second.mData
                                 && left.second.mSequence == right.second.mSequence;
                      });
}

/// A handler without deferred checks, which depend on the clock.
class ObservedSdoHandler
{
public:
    ObservedSdoHandler() { handler.setDefersNodeCountChecks(false); }

    /// Findings go to \a found from now on, from within each emission.
    void report(const std::function<void(const SdoFinding &)> &found)
    {
        handler.disconnect();
        using Handler = SDOMessageHandler;
        QObject::connect(&handler, &Handler::newValue, &handler,
                         [found](quint8 node, quint16 index, quint8 subindex, const QVariant &value, double reqTime,
                                 double respTime, quint32 number, bool wasSDOWrite) {
                             found(valueFinding(node, index, subindex, value, reqTime, respTime, number, wasSDOWrite));
                         });
        QObject::connect(&handler, &Handler::sigProtocolError, &handler, [found](quint32 number, uint type) {
            found({SdoFinding::Error, {}, {{}, 0, 0, number, 0, false}, type});
        });
        QObject::connect(&handler, &Handler::sigMultipleNodesDetected, &handler,
                         [found](quint8 node, quint8 count, quint32 number) {
                             found({SdoFinding::Devices, {node, 0, 0}, {{}, 0, 0, number, 0, false}, count});
                         });
    }

    SDOMessageHandler handler{nullptr, nullptr};
};

#endif // CANOPENANALYSIS_FUZZ_SDOFINDINGS_H
