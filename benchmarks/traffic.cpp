#include "traffic.h"

#include <initializer_list>
#include <random>

namespace Traffic {

namespace {

constexpr qint64 frameDistanceNs = 100000;
constexpr int segmentBytes = 7;
constexpr int segmentCount = 4;
constexpr quint32 server = 0x580;
constexpr quint32 client = 0x600;

CAN::CanMessage frame(quint32 identifier, std::initializer_list<int> bytes)
{
    CAN::CanMessage message;
    message.mIdentifier = identifier;
    for (const int byte : bytes)
        message.mPayload[message.mDataLength++] = static_cast<quint8>(byte);
    return message;
}

/// The frames of the transfers of one object, as CiA 301 draws them.
class Conversation
{
public:
    Conversation(int turn, const Extent &extent)
        : mNode(quint32(1 + turn % extent.nodes)), mObject(turn / extent.nodes % extent.objects), mValue(turn & 0xFF)
    {
    }

    std::vector<CAN::CanMessage> of(Transfer kind) const
    {
        switch (kind) {
        case ExpeditedDownload:
            return {request(0x23, mValue), response(0x60)};
        case ExpeditedUpload:
            return {request(0x40), response(0x43, mValue)};
        case SegmentedDownload:
            return segmented(request(0x21, segmentBytes * segmentCount), response(0x60), client, server, 0x20);
        case SegmentedUpload:
            return segmented(request(0x40), response(0x41, segmentBytes * segmentCount), server, client, 0x60);
        case BlockDownload:
            return block({request(0xC2, segmentBytes * segmentCount), response(0xA0, segmentCount)}, client, server);
        case BlockUpload:
            return block({request(0xA0, segmentCount), response(0xC2, segmentBytes * segmentCount),
                          frame(client + mNode, {0xA3, 0, 0, 0, 0, 0, 0, 0})},
                         server, client);
        }
        return {};
    }

private:
    CAN::CanMessage initiate(quint32 identifier, int command, int number) const
    {
        return frame(identifier + mNode, {command, mObject & 0xFF, mObject >> 8, 1, number, 0, 0, 0});
    }
    CAN::CanMessage request(int command, int number = 0) const { return initiate(client, command, number); }
    CAN::CanMessage response(int command, int number = 0) const { return initiate(server, command, number); }
    CAN::CanMessage segment(quint32 sender, int command) const
    {
        return frame(sender + mNode, {command, mValue, 2, 3, 4, 5, 6, 7});
    }

    // A segment and what the other side says to it; a download's segment comes first, an upload's request for it does.
    std::vector<CAN::CanMessage> segmented(const CAN::CanMessage &asked, const CAN::CanMessage &answered,
                                           quint32 sender, quint32 receiver, int command) const
    {
        std::vector<CAN::CanMessage> frames = {asked, answered};
        for (int i = 0; i < segmentCount; ++i) {
            const int toggle = (i % 2) << 4;
            const CAN::CanMessage data = segment(sender, toggle | (i + 1 == segmentCount ? 1 : 0));
            const CAN::CanMessage other = frame(receiver + mNode, {command | toggle, 0, 0, 0, 0, 0, 0, 0});
            frames.insert(frames.end(), {sender == client ? data : other, sender == client ? other : data});
        }
        return frames;
    }

    // One sub-block, its acknowledgement, the end and its response.
    std::vector<CAN::CanMessage> block(std::vector<CAN::CanMessage> frames, quint32 sender, quint32 receiver) const
    {
        for (int i = 1; i <= segmentCount; ++i)
            frames.push_back(segment(sender, i | (i == segmentCount ? 0x80 : 0)));
        frames.push_back(frame(receiver + mNode, {0xA2, segmentCount, segmentCount, 0, 0, 0, 0, 0}));
        frames.push_back(frame(sender + mNode, {0xC1, 0, 0, 0, 0, 0, 0, 0}));
        frames.push_back(frame(receiver + mNode, {0xA1, 0, 0, 0, 0, 0, 0, 0}));
        return frames;
    }

    quint32 mNode;
    int mObject;
    int mValue;
};

/// Where the next frame of each class comes from.
class Generator
{
public:
    Generator(Kind kind, const Extent &extent) : mKind(kind), mExtent(extent) {}

    CAN::CanMessage next()
    {
        ++mCount;
        const unsigned chance = mKind == Mixed ? unsigned(mRandom()) % 100 : 0;
        if (mKind == Sdo || chance >= 80)
            return sdo();
        if (chance >= 70)
            return chance < 75 ? frame(0x080, {}) : frame(0x701 + chance % 5, {0x05});
        return frame(quint32(0x181 + mCount * 7 % 500), {1, 2, 3, 4, 5, 6, 7, mCount & 0xFF});
    }

private:
    CAN::CanMessage sdo()
    {
        if (mNext == mConversation.size()) {
            mConversation = transfer(nextTransfer(), mTurn++, mExtent);
            mNext = 0;
        }
        return mConversation[mNext++];
    }

    // Five expedited transfers have the frames of one segmented one.
    Transfer nextTransfer() const
    {
        const int place = mTurn % 6;
        if (place < 5)
            return place % 2 ? ExpeditedUpload : ExpeditedDownload;
        const bool upload = mTurn / 6 % 2 != 0;
        if (mTurn / 6 % 50 == 0)
            return upload ? BlockUpload : BlockDownload;
        return upload ? SegmentedUpload : SegmentedDownload;
    }

    const Kind mKind;
    const Extent mExtent;
    int mCount = 0;
    int mTurn = 0;
    std::vector<CAN::CanMessage> mConversation;
    std::size_t mNext = 0;
    std::minstd_rand mRandom;
};

} // namespace

std::vector<CAN::CanMessage> transfer(Transfer kind, int turn, const Extent &extent)
{
    return Conversation(turn, extent).of(kind);
}

void fill(InMemoryDatachunkHandler &store, Kind kind, int frames, const Extent &extent)
{
    Generator generator(kind, extent);
    for (qint64 i = 0; i < frames; ++i)
        store.append(0, generator.next(), CanTimeStamp::fromNSecs(i * frameDistanceNs));
}

} // namespace Traffic
