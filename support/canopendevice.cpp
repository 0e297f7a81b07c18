#include "support/canopendevice.h"

CANopenDevice::CANopenDevice(QObject *parent) : GenericCANDevice(parent) {}

// Out of line, so that the vtable and the meta-object live in this library alone.
CANopenDevice::~CANopenDevice() = default;
