#ifndef CANOPENANALYSIS_SDO_OBJECTTABLE_P_H
#define CANOPENANALYSIS_SDO_OBJECTTABLE_P_H

#include "support/canopenrecords.h"

#include <array>
#include <optional>
#include <unordered_map>
#include <vector>

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

    /// Gives all memory back.
    void clear()
    {
        mLatest.fill(nullptr);
        mPending = std::vector<Object *>(); // "= {}" would clear it and keep its memory
        mObjects = noObjects();
    }

    // ---- the request that waits ------------------------------------------------------------------------------------

    /// Null when none waits. Valid until the table is changed.
    const Request *pendingRequest(const SDO::SDOEntryKey &key)
    {
        const Object *const object = find(key);
        return object && object->second.isPending() ? &object->second.request : nullptr;
    }

    /// Takes the place of a request that waits.
    void setPending(const SDO::SDOEntryKey &key, const Request &request)
    {
        Object &object = at(key);
        object.second.request = request;
        startWaiting(object);
    }

    /// Whether one waited.
    bool forgetPending(const SDO::SDOEntryKey &key)
    {
        Object *const object = find(key);
        if (!object || !object->second.isPending())
            return false;
        stopWaiting(*object);
        if (!object->second.isFinished)
            erase(key);
        return true;
    }

    /// Calls \a visit with the key of each object that has one, and the request, in no order.
    template<typename Visitor>
    void forEachPending(Visitor visit) const
    {
        for (const Object *const object : mPending)
            visit(keyOf(object->first), object->second.request);
    }

    // ---- the last answered transfer --------------------------------------------------------------------------------

    /// The time of its request.
    std::optional<CanTimeStamp> finishedRequest(const SDO::SDOEntryKey &key)
    {
        const Object *const object = find(key);
        return object && object->second.isFinished ? std::make_optional(object->second.finished) : std::nullopt;
    }

    /// An answer came: the transfer requested at \a requestTime is finished, none waits.
    void finish(const SDO::SDOEntryKey &key, CanTimeStamp requestTime)
    {
        Object &object = at(key);
        stopWaiting(object);
        object.second.isFinished = true;
        object.second.finished = requestTime;
    }

    /// Requires: none of its requests waits.
    void forgetFinished(const SDO::SDOEntryKey &key) { erase(key); }

private:
    // An object of which neither holds is not kept.
    struct State
    {
        static constexpr quint32 notPending = 0xFFFFFFFF;
        quint32 place = notPending; // in mPending
        bool isFinished = false;
        CanTimeStamp finished;
        Request request;

        bool isPending() const { return place != notPending; }
    };
    // Seeded, so that nobody who writes frames can choose which objects share a bucket.
    struct Hash
    {
        Hash() : seed(uint(qGlobalQHashSeed())) {}
        std::size_t operator()(quint32 word) const noexcept { return word ^ seed; }
        uint seed;
    };
    // By key in one word, see wordOf(). An element stays where it is until it is erased.
    using Objects = std::unordered_map<quint32, State, Hash>;
    using Object = Objects::value_type;

    // Half as many objects as buckets at most: their chains, whose length the processor cannot foresee, stay short.
    static Objects noObjects()
    {
        Objects objects;
        objects.max_load_factor(0.5F);
        return objects;
    }

    // node (31…24), index (23…8), subindex (7…0)
    static quint32 wordOf(const SDO::SDOEntryKey &key) { return qHash(key); }
    static SDO::SDOEntryKey keyOf(quint32 word)
    {
        return SDO::SDOEntryKey(quint8(word >> 24), quint16(word >> 8), quint8(word));
    }

    Object *find(const SDO::SDOEntryKey &key)
    {
        const quint32 word = wordOf(key);
        Object *&latest = mLatest[key.node];
        if (latest && latest->first == word)
            return latest;
        const auto found = mObjects.find(word);
        if (found == mObjects.end())
            return nullptr;
        latest = &*found;
        return latest;
    }

    Object &at(const SDO::SDOEntryKey &key)
    {
        if (Object *const object = find(key))
            return *object;
        Object &made = *mObjects.try_emplace(wordOf(key)).first;
        mLatest[key.node] = &made;
        return made;
    }

    void erase(const SDO::SDOEntryKey &key)
    {
        mLatest[key.node] = nullptr;
        mObjects.erase(wordOf(key));
    }

    void startWaiting(Object &object)
    {
        if (object.second.isPending())
            return;
        mPending.push_back(&object);
        object.second.place = quint32(mPending.size() - 1);
    }

    // The last one takes the place.
    void stopWaiting(Object &object)
    {
        const quint32 place = object.second.place;
        if (place == State::notPending)
            return;
        mPending[place] = mPending.back();
        mPending[place]->second.place = place;
        mPending.pop_back();
        object.second.place = State::notPending;
    }

    Objects mObjects = noObjects();
    std::vector<Object *> mPending;         // those with a request that waits, so that nobody has to look for them
    std::array<Object *, 256> mLatest = {}; // of each node; null: not known
};

#endif // CANOPENANALYSIS_SDO_OBJECTTABLE_P_H
