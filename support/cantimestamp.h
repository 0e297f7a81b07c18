#ifndef CANOPENANALYSIS_SUPPORT_CANTIMESTAMP_H
#define CANOPENANALYSIS_SUPPORT_CANTIMESTAMP_H

#include <QtGlobal>

/// Reception time of a frame: nanoseconds since an epoch that the recording chooses (8 bytes, trivially copyable).
/// A default-constructed time stamp stands for a time not yet known and reads as 0.
/// Threads: a plain value.
class CanTimeStamp
{
public:
    constexpr CanTimeStamp() = default;

    /// \a nsecs: nanoseconds since any epoch; negative times lie before it.
    static constexpr CanTimeStamp fromNSecs(qint64 nsecs) { return CanTimeStamp(nsecs); }

    /// Nanoseconds since the epoch.
    constexpr qint64 toNSecs() const { return mNSecs; }

    /// Whole milliseconds since the epoch, rounded down (also for times before the epoch).
    constexpr qint64 toMsecs() const
    {
        constexpr qint64 nsecsPerMsec = 1000000;
        return mNSecs / nsecsPerMsec - (mNSecs % nsecsPerMsec < 0 ? 1 : 0);
    }

    /// Seconds since the epoch. Near the present date a double resolves about a quarter of a microsecond.
    constexpr double toDouble() const { return static_cast<double>(mNSecs) / 1e9; }

    /// Equal to the nanosecond.
    friend constexpr bool operator==(CanTimeStamp a, CanTimeStamp b) { return a.mNSecs == b.mNSecs; }
    /// Not equal.
    friend constexpr bool operator!=(CanTimeStamp a, CanTimeStamp b) { return !(a == b); }

private:
    explicit constexpr CanTimeStamp(qint64 nsecs) : mNSecs(nsecs) {}

    qint64 mNSecs = 0;
};

Q_DECLARE_TYPEINFO(CanTimeStamp, Q_MOVABLE_TYPE);

#endif // CANOPENANALYSIS_SUPPORT_CANTIMESTAMP_H
