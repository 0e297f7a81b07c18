#ifndef CANOPENANALYSIS_TESTS_TRACE_H
#define CANOPENANALYSIS_TESTS_TRACE_H

#include "support/canrecords.h"

#include <QByteArray>
#include <QList>
#include <QStringList>

/// Bus traces written by hand, as the tests' tables hold them. One frame a line:
///
///     +20ms 605  23 00 10 01 2A 00 00 00 | what the reader should know  => what the analysis must find
///
/// identifier and payload bytes in hexadecimal; an identifier of more than three digits is an extended one; "R2" in place of
/// the bytes is a remote frame that asks for 2 bytes, "error" after the identifier makes an error frame. A line may open with the
/// time since the frame before (1 ms without one; the first frame is at 0 ms plus its step). Its place among the frames, counted
/// from 1, is its message number. What follows "|" is for the reader, what follows "=>" is the expectation; both may be missing.
struct TraceLine
{
    CAN::CanRxMessage message;
    QStringList verb; ///< with its arguments; empty in a line that is a frame
    QString expected;
    QString text; ///< the line itself, for failure messages
};

/// A line may also open with one of \a verbs, of whose meaning the caller knows, in place of a frame.
QList<TraceLine> parseTrace(const QByteArray &trace, const QStringList &verbs = {});

/// A single frame in the notation above.
CAN::CanRxMessage frame(const char *line);

/// The frames of a trace alone.
QList<CAN::CanRxMessage> frames(const QByteArray &trace);

#endif // CANOPENANALYSIS_TESTS_TRACE_H
