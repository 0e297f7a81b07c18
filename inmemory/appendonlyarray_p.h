#ifndef CANOPENANALYSIS_INMEMORY_APPENDONLYARRAY_P_H
#define CANOPENANALYSIS_INMEMORY_APPENDONLYARRAY_P_H

#include <QtGlobal>

#include <algorithm>
#include <atomic>
#include <memory>
#include <numeric>
#include <vector>

/// An array that one thread lengthens while others read it without a lock. Elements start zeroed, never move and, but for
/// squeeze(), are never freed: what could be read once can be read for ever, also when it has been given a new meaning.
///
/// The array knows no size; its user marks the elements in use, or publishes a size. \a Element consists of atomics.
template<typename Element>
class AppendOnlyArray
{
    Q_DISABLE_COPY_MOVE(AppendOnlyArray)

public:
    static constexpr quint64 chunkSize = 4096;

    AppendOnlyArray() = default;

    /// Provides the elements below \a size. Throws std::bad_alloc, the array being unchanged. Writer only.
    void reserve(quint64 size)
    {
        while (mChunks.size() * chunkSize < size)
            addChunk();
    }

    /// Whether at(\a index) may be asked for. Any thread.
    bool contains(quint64 index) const { return index < mReserved.load(std::memory_order_acquire); }

    /// Frees the memory of elements from \a size on. Writer only, and nobody may read meanwhile.
    void squeeze(quint64 size)
    {
        mChunks.resize(std::min<std::size_t>(mChunks.size(), (size + chunkSize - 1) / chunkSize));
        mChunks.shrink_to_fit();
        mDirectories.clear();
        addDirectory(mChunks.size());
        mReserved.store(mChunks.size() * chunkSize, std::memory_order_release);
    }

    /// The element at \a index. Any thread. Requires: contains(\a index), as seen by this thread or by one that it
    /// synchronises with.
    Element &at(quint64 index) const
    {
        return mDirectory.load(std::memory_order_acquire)[index / chunkSize][index % chunkSize];
    }

    /// Writer only.
    quint64 bytesReserved() const
    {
        const auto addSize = [](std::size_t sum, const auto &directory) { return sum + directory.size(); };
        const auto entries = std::accumulate(mDirectories.begin(), mDirectories.end(), std::size_t(0), addSize);
        return mChunks.size() * chunkSize * sizeof(Element) + entries * sizeof(Element *);
    }

private:
    void addChunk()
    {
        if (mDirectories.empty() || mDirectories.back().size() == mChunks.size())
            addDirectory(std::max<std::size_t>(8, 2 * mChunks.size()));
        mChunks.push_back(std::unique_ptr<Element[]>(new Element[chunkSize]()));
        mDirectories.back()[mChunks.size() - 1] = mChunks.back().get(); // read by nobody before the next line
        mReserved.store(mChunks.size() * chunkSize, std::memory_order_release);
    }

    // Readers may still be using the directories before, so they stay; together they are smaller than the new one.
    void addDirectory(std::size_t entries)
    {
        std::vector<Element *> directory(entries);
        std::transform(mChunks.begin(), mChunks.end(), directory.begin(),
                       [](const auto &chunk) { return chunk.get(); });
        mDirectories.push_back(std::move(directory));
        mDirectory.store(mDirectories.back().data(), std::memory_order_release);
    }

    // Read by all; changed once in a chunk.
    std::atomic<Element **> mDirectory = nullptr; // the last of the directories
    std::atomic<quint64> mReserved = 0;

    // The writer's.
    std::vector<std::unique_ptr<Element[]>> mChunks;
    std::vector<std::vector<Element *>> mDirectories; // where each chunk is
};

#endif // CANOPENANALYSIS_INMEMORY_APPENDONLYARRAY_P_H
