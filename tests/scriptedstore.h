#ifndef CANOPENANALYSIS_TESTS_SCRIPTEDSTORE_H
#define CANOPENANALYSIS_TESTS_SCRIPTEDSTORE_H

#include "inmemory/inmemorydatachunkhandler.h"
#include "trace.h"

#include <functional>

/// The in-memory store with a hand in each fetch, to force what otherwise happens once in a million runs.
class ScriptedStore : public InMemoryDatachunkHandler
{
    Q_OBJECT

public:
    /// Runs after each fetch, with its answer, before the loop gets it. Set before the analysis starts.
    std::function<void(bool found, unsigned int position)> afterFetch;
    /// Runs when the frames not yet analysed were read out, before a clear.
    std::function<void()> afterRescue;

    bool getMessageOfLine(CAN::CanRxMessage &msg, unsigned char line, unsigned int &position) override
    {
        const bool found = InMemoryDatachunkHandler::getMessageOfLine(msg, line, position);
        if (afterFetch)
            afterFetch(found, position);
        return found;
    }

    QList<CAN::CanRxMessage> getMessagesOfLine(unsigned char line, unsigned int position) override
    {
        const QList<CAN::CanRxMessage> rest = InMemoryDatachunkHandler::getMessagesOfLine(line, position);
        if (afterRescue)
            afterRescue();
        return rest;
    }

    /// Appends the frames of a trace to line 0; the store gives them its own numbers.
    void appendTrace(const QByteArray &trace)
    {
        for (const CAN::CanRxMessage &message : frames(trace))
            append(0, message.mFrame, message.mTimeStamp);
    }

    /// Appends \a count process data frames to line 0.
    void appendPdos(int count)
    {
        const CAN::CanMessage pdo = frame("185 01 02").mFrame;
        for (int i = 0; i < count; ++i)
            append(0, pdo, CanTimeStamp());
    }
};

/// The numbers from \a first to \a last.
inline QList<quint32> numbers(quint32 first, quint32 last)
{
    QList<quint32> list;
    for (quint32 number = first; number <= last; ++number)
        list.append(number);
    return list;
}

#endif // CANOPENANALYSIS_TESTS_SCRIPTEDSTORE_H
