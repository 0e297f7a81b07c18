#include "support/cannetwork.h"

CANNetwork::CANNetwork(QObject *parent) : QObject(parent) {}

// Out of line, so that the vtable and the meta-object live in this library alone.
CANNetwork::~CANNetwork() = default;
