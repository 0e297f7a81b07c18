#ifndef CANOPENANALYSIS_SDO_BYTEBUDGET_P_H
#define CANOPENANALYSIS_SDO_BYTEBUDGET_P_H

#include <QtGlobal>

/// Keeps the bytes that one SDO analysis collects from segments and blocks within a bound, so that a stuck or hostile node
/// cannot exhaust the host's memory. Whoever keeps bytes takes them here and gives them back when it drops them.
/// Owner: the handler. Threads: those of its owner, one at a time.
class ByteBudget
{
public:
    explicit ByteBudget(qint64 limit) : mLimit(limit) {}

    /// Takes \a bytes; false, and nothing taken, when the bound would be passed.
    bool take(qint64 bytes)
    {
        if (bytes > mLimit - mTaken)
            return false;
        mTaken += bytes;
        return true;
    }
    void give(qint64 bytes) { mTaken -= bytes; }

    void setLimit(qint64 limit) { mLimit = limit; }

private:
    qint64 mLimit;
    qint64 mTaken = 0;
};

#endif // CANOPENANALYSIS_SDO_BYTEBUDGET_P_H
