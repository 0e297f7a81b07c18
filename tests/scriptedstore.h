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
    /// The line of RecordingNetwork.
    static constexpr unsigned char line = 3;

    /// Runs after each fetch, with its answer, before the loop gets it. Set before the analysis starts.
    std::function<void(bool found, unsigned int position)> afterFetch;

    bool getMessageOfLine(CAN::CanRxMessage &msg, unsigned char fetched, unsigned int &position) override
    {
        const bool found = InMemoryDatachunkHandler::getMessageOfLine(msg, fetched, position);
        if (afterFetch)
            afterFetch(found, position);
        return found;
    }

    /// Appends the frames of a trace, \a count times over; the store gives them its own numbers.
    void appendTrace(const QByteArray &trace, int count = 1, unsigned char toLine = line)
    {
        const QList<CAN::CanRxMessage> messages = frames(trace);
        for (int i = 0; i < count * messages.size(); ++i)
            append(toLine, messages.at(i % messages.size()).mFrame, messages.at(i % messages.size()).mTimeStamp);
    }

    void appendPdos(int count) { appendTrace("185 01 02", count); }
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
