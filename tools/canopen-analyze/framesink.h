#ifndef CANOPENANALYZE_FRAMESINK_H
#define CANOPENANALYZE_FRAMESINK_H

#include "support/canrecords.h"

#include <QtGlobal>

#include <string_view>

/// Receives what a reader of recordings finds, in the order of the recording. Called from within the reader's operations, in
/// the thread that calls those; must not call back into the reader.
class FrameSink
{
public:
    /// One frame. \a line is the CAN line: the place of the interface in the reader's interfaces().
    virtual void frame(quint8 line, const CAN::CanRxMessage &msg) = 0;

    /// A piece of the recording (a line of a log, a packet of a capture) that should hold a frame and does not. \a number
    /// counts such pieces from 1; \a problem says what is wrong and lives forever; \a text is the line without its end (its
    /// beginning, if it was too long), or more about the problem, or empty, and lives for the call only.
    virtual void badPiece(quint64 number, const char *problem, std::string_view text) = 0;

protected:
    ~FrameSink() = default;
};

#endif // CANOPENANALYZE_FRAMESINK_H
