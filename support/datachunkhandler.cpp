#include "support/datachunkhandler.h"

DatachunkHandler::DatachunkHandler(QObject *parent) : QObject(parent) {}

// Out of line, so that the vtable and the meta-object live in this library alone.
DatachunkHandler::~DatachunkHandler() = default;
