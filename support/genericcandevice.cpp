#include "support/genericcandevice.h"

GenericCANDevice::GenericCANDevice(QObject *parent) : QObject(parent) {}

// Out of line, so that the vtable and the meta-object live in this library alone.
GenericCANDevice::~GenericCANDevice() = default;
