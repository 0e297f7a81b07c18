#include "support/canopennetwork.h"

CANopenNetwork::CANopenNetwork(QObject *parent) : CANNetwork(parent) {}

// Out of line, so that the vtable and the meta-object live in this library alone.
CANopenNetwork::~CANopenNetwork() = default;
