// Stands in for the source where the program is built without Qt's CAN bus module.
#include "livesource.h"

LiveSource::~LiveSource() = default;

void LiveSource::open(const QString &, const QString &)
{
    Q_EMIT failed(QStringLiteral("This build has no live source: it was made without Qt's CAN bus module."));
}

void LiveSource::close() {}
