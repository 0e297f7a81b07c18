#ifndef CANOPENANALYZE_WORDS_H
#define CANOPENANALYZE_WORDS_H

#include "findings.h"

/// What the numbers on the bus mean, in words. Every function answers every value; the texts live forever.
namespace Words {

/// State of a node: a CANopen::NmtEventCode.
const char *nmtState(quint8 eventCode);
/// Command specifier of an NMT frame.
const char *nmtCommand(quint8 command);
/// Abort code of CiA 301; empty when it is none of them.
const char *abortCode(quint32 code);
/// Error code of an emergency: the finest group of CiA 301 that it belongs to.
const char *emergencyCode(quint16 code);
const char *protocolFault(ProtocolFault::Kind kind);
/// The same as a stable key for programs.
const char *protocolFaultKey(ProtocolFault::Kind kind);
QString messageClass(CANopen::MessageType type);
/// CANopen::SDODef::SDOBlockTransfer::mState.
const char *blockState(quint32 state);

} // namespace Words

#endif // CANOPENANALYZE_WORDS_H
