#ifndef CANOPENANALYZE_RATING_H
#define CANOPENANALYZE_RATING_H

#include <QtGlobal>

/// What the findings cost: points that go off the rating of 100, per hundred frames.
namespace Rating {

constexpr int pointsPerProtocolError = 5;
constexpr int pointsPerSdoAbort = 2;
constexpr int pointsPerUnhandledFrame = 1;

/// Points that \a count findings of \a weight cost in \a frames frames, rounded down; 0 without frames.
constexpr int cost(quint32 count, int weight, quint32 frames)
{
    return frames == 0 ? 0 : int(quint64(count) * 100 * quint64(weight) / frames);
}

} // namespace Rating

#endif // CANOPENANALYZE_RATING_H
