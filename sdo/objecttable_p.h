#ifndef CANOPENANALYSIS_SDO_OBJECTTABLE_P_H
#define CANOPENANALYSIS_SDO_OBJECTTABLE_P_H

#include "support/canopenrecords.h"

#include <array>
#include <optional>
#include <unordered_map>

/// The objects that an SDO analysis knows something of: the request that waits for its answer, the last answered expedited
/// transfer.
///
/// A server does one transfer after the other, so most frames of a node are about the object of the frame before: the last one
/// is found without a search.
/// Owner: the handler. Threads: those of its owner, one at a time.
class ObjectTable
{
    Q_DISABLE_COPY_MOVE(ObjectTable)

public:
    /// What is kept of a request.
    struct Request
    {
        CanTimeStamp time;
        quint32 msgNumber = 0;
        bool isWrite = false; // an expedited download
        qint64 written = 0;   // its value
    };

    ObjectTable() = default;
    ~ObjectTable() = default;

    void clear()
    {
        mLatest.fill({});
        mStates = {}; // clear() would keep the memory of the buckets
    }

    // ---- the request that waits ------------------------------------------------------------------------------------

    /// Null when none waits. Valid until the table is changed.
    const Request *pendingRequest(const SDO::SDOEntryKey &object)
    {
        const State *const state = find(object);
        return state && state->isPending ? &state->request : nullptr;
    }

    /// Takes the place of a request that waits.
    void setPending(const SDO::SDOEntryKey &object, const Request &request)
    {
        State &state = at(object);
        state.isPending = true;
        state.request = request;
    }

    /// Whether one waited.
    bool forgetPending(const SDO::SDOEntryKey &object)
    {
        State *const state = find(object);
        if (!state || !state->isPending)
            return false;
        state->isPending = false;
        if (!state->isFinished)
            erase(object);
        return true;
    }

    /// Calls \a visit with each object and its request that waits, in no order.
    template<typename Visitor>
    void forEachPending(Visitor visit) const
    {
        for (const auto &[word, state] : mStates) {
            if (state.isPending)
                visit(objectOf(word), state.request);
        }
    }

    // ---- the last answered transfer --------------------------------------------------------------------------------

    /// The time of its request.
    std::optional<CanTimeStamp> finishedRequest(const SDO::SDOEntryKey &object)
    {
        const State *const state = find(object);
        return state && state->isFinished ? std::make_optional(state->finished) : std::nullopt;
    }

    /// An answer came: the transfer requested at \a requestTime is finished, none waits.
    void finish(const SDO::SDOEntryKey &object, CanTimeStamp requestTime)
    {
        State &state = at(object);
        state.isPending = false;
        state.isFinished = true;
        state.finished = requestTime;
    }

    /// Requires: none of its requests waits.
    void forgetFinished(const SDO::SDOEntryKey &object) { erase(object); }

private:
    // An object of which neither holds is not kept.
    struct State
    {
        bool isPending = false;
        bool isFinished = false;
        CanTimeStamp finished;
        Request request;
    };
    // Seeded, so that nobody who writes frames can choose which objects share a bucket.
    struct Hash
    {
        Hash() : seed(uint(qGlobalQHashSeed())) {}
        std::size_t operator()(quint32 word) const noexcept { return word ^ seed; }
        uint seed;
    };
    struct Latest
    {
        quint32 word = 0;
        State *state = nullptr; // null: unknown. Elements of the map stay where they are until they are erased.
    };

    // An object in one word: node (31…24), index (23…8), subindex (7…0).
    static quint32 wordOf(const SDO::SDOEntryKey &object) { return qHash(object); }
    static SDO::SDOEntryKey objectOf(quint32 word)
    {
        return SDO::SDOEntryKey(quint8(word >> 24), quint16(word >> 8), quint8(word));
    }

    State *find(const SDO::SDOEntryKey &object)
    {
        const quint32 word = wordOf(object);
        Latest &latest = mLatest[object.node];
        if (latest.state && latest.word == word)
            return latest.state;
        const auto found = mStates.find(word);
        if (found == mStates.end())
            return nullptr;
        latest = {word, &found->second};
        return latest.state;
    }

    State &at(const SDO::SDOEntryKey &object)
    {
        if (State *const state = find(object))
            return *state;
        const quint32 word = wordOf(object);
        State &made = mStates[word];
        mLatest[object.node] = {word, &made};
        return made;
    }

    void erase(const SDO::SDOEntryKey &object)
    {
        mLatest[object.node] = {};
        mStates.erase(wordOf(object));
    }

    std::unordered_map<quint32, State, Hash> mStates;
    std::array<Latest, 256> mLatest{}; // of each node
};

#endif // CANOPENANALYSIS_SDO_OBJECTTABLE_P_H
