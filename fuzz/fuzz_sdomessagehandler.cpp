// Any frames at any time, into an SDO message handler that is reset, limited and asked in between, also from its slots.

#include "fuzzing.h"
#include "sdofindings.h"

#include "support/cohelper.h"

#include <QSet>

#include <algorithm>
#include <memory>

using namespace CANopen;

namespace {

constexpr qint64 collectedBytesLimit = 512; // in reach of an input

quint32 valueField(const CAN::CanMessage &frame)
{
    return quint32(frame.mPayload[4] | frame.mPayload[5] << 8 | frame.mPayload[6] << 16)
           | quint32(frame.mPayload[7]) << 24;
}

SDO::SDOEntryKey objectOf(const CAN::CanMessage &frame)
{
    const auto *const bytes = frame.mPayload;
    return {quint8(frame.mIdentifier & 0x7F), quint16(bytes[1] | bytes[2] << 8), bytes[3]};
}

/// Follows one pass over an input. What it knows of the traffic is less than what the handler knows, but by other means.
class Pass
{
public:
    /// \a renews: a fresh handler takes the place of each one that is reset.
    Pass(std::unique_ptr<ObservedSdoHandler> &observed, bool renews) : mObserved(observed), mRenews(renews)
    {
        renews ? renew() : setUp();
    }

    void take(const FuzzStep &step);
    void onFinding(const SdoFinding &finding);
    void checkTables() const;
    void setUp();
    void renew();

    std::vector<SdoFinding> findings;

private:
    struct Request
    {
        CanTimeStamp time;
        quint32 number = 0;
        QVariant value;
    };
    struct Traffic
    {
        QSet<double> times;
        QHash<quint32, QByteArray> segments;  // by identifier: the data of all frames that can be segments
        QSet<QPair<uint, quint32>> announced; // object and size of segmented downloads
        QHash<SDO::SDOEntryKey, Request> requests;
        QHash<SDO::SDOEntryKey, QList<SDO::SDOEntryValue>> kept;
        QHash<quint8, uint> devices;
        int listed = 0;
        qint64 limit = collectedBytesLimit; // the largest one
    };

    void feed(const CAN::CanMessage &frame);
    void act(const FuzzStep &step);
    void reset(bool inSlot);
    SDOMessageHandler &handler() const { return mObserved->handler; }
    bool isBlockSegment() const;
    void noteSender();
    void noteRequest();
    void checkValue(const SdoFinding &finding);
    void checkSegmented(const SdoFinding &finding, const QByteArray &bytes) const;
    void checkListed();

    std::unique_ptr<ObservedSdoHandler> &mObserved; // takes findings to its present pass
    const bool mRenews;
    Traffic mTraffic;
    CAN::CanRxMessage mInHand;
    qint64 mNSecs = 0;
    qint64 mLimit = collectedBytesLimit;
    bool mKeep = true;
    bool mResetInSlot = false;
    bool mWasReset = false; // while the frame in hand was handled
    int mSignalledAndListed = 0;
};

void Pass::take(const FuzzStep &step)
{
    constexpr quint64 nsecsPerMsec = 1000000;
    mNSecs = qint64(quint64(mNSecs) + quint64(step.msecs) * nsecsPerMsec); // may wrap
    if (step.isAction)
        act(step);
    else
        feed(step.frame);
}

void Pass::act(const FuzzStep &step)
{
    switch (step.action % 6) {
    case 0:
        return reset(false);
    case 1:
        mResetInSlot = true;
        return;
    case 2:
        mLimit = qint64(step.number & 0xFFFF);
        mTraffic.limit = std::max(mTraffic.limit, mLimit);
        return handler().setCollectedBytesLimit(mLimit);
    case 3:
        mKeep = !mKeep;
        return handler().setKeepFinishedTransfers(mKeep);
    case 4:
        mNSecs = qint64(step.number);
        return;
    case 5:
        return checkTables();
    }
}

void Pass::setUp()
{
    handler().setCollectedBytesLimit(mLimit);
    handler().setKeepFinishedTransfers(mKeep);
    mObserved->report([this](const SdoFinding &finding) { onFinding(finding); });
}

void Pass::renew()
{
    mObserved = std::make_unique<ObservedSdoHandler>();
    setUp();
}

void Pass::reset(bool inSlot)
{
    mTraffic = Traffic();
    mTraffic.limit = mLimit;
    mWasReset = true;
    if (mRenews && inSlot) { // feed() renews it, once it is done with the frame; until then it has nothing to say
        handler().blockSignals(true);
        return;
    }
    mRenews ? renew() : handler().reset();
    checkTables();
}

void Pass::feed(const CAN::CanMessage &frame)
{
    mInHand.mFrame = frame;
    mInHand.mTimeStamp = CanTimeStamp::fromNSecs(mNSecs);
    ++mInHand.mMessageNumber;
    mWasReset = false;
    mSignalledAndListed = 0;
    const bool isSegment = isBlockSegment();
    mTraffic.times.insert(mInHand.mTimeStamp.toDouble());
    if (!isSegment)
        noteSender();
    handler().handleCANMessage(mInHand);
    if (mWasReset && mRenews)
        renew();
    if (mWasReset)
        return checkTables(); // nothing of the frame may be left
    if (!isSegment)
        noteRequest();
    checkListed();
}

/// Whether a block transfer takes the frame, whatever it looks like.
bool Pass::isBlockSegment() const
{
    bool isAbort = false;
    const MessageType type = COHelper::getMessageType(mInHand.mFrame, isAbort);
    const auto block = handler().blockTransfers().value(objectOf(mInHand.mFrame).node);
    return !isAbort && block.mState == 3 && (type == SDO_REQ || type == SDO_RES)
           && (type == SDO_REQ) == (block.mDirection == 1);
}

void Pass::noteSender()
{
    const CAN::CanMessage &frame = mInHand.mFrame;
    const int command = frame.mPayload[0];
    if ((command & 0xE0) == 0 && (frame.mFlags & ~CAN::CanMessage::FdFormat) == 0)
        mTraffic.segments[frame.mIdentifier] += frame.dataToByteArray(1, 7 - (command >> 1 & 7), true);
}

/// The request of the frame, if it is one: the last of its object is the one that is answered.
void Pass::noteRequest()
{
    bool isAbort = false;
    const MessageType type = COHelper::getMessageType(mInHand.mFrame, isAbort);
    const SDO::SDOEntryKey object = objectOf(mInHand.mFrame);
    const int command = mInHand.mFrame.mPayload[0];
    if (isAbort)
        mTraffic.requests.remove(object);
    else if (type != SDO_REQ)
        return;
    else if ((command & 0xE2) == 0x22 && mInHand.mFrame.mDataLength > 4)
        mTraffic.requests[object] = {mInHand.mTimeStamp, mInHand.mMessageNumber, qlonglong(valueField(mInHand.mFrame))};
    else if ((command & 0xE0) == 0x40 && object.node > 0)
        mTraffic.requests[object] = {mInHand.mTimeStamp, mInHand.mMessageNumber, QVariant()};
    else if ((command & 0xE3) == 0x21)
        mTraffic.announced.insert({qHash(object), valueField(mInHand.mFrame)});
}

void Pass::onFinding(const SdoFinding &finding)
{
    FUZZ_REQUIRE(!mWasReset);
    FUZZ_REQUIRE(finding.value.canMsgNumber == mInHand.mMessageNumber);
    findings.push_back(finding);
    if (finding.kind == SdoFinding::Value) {
        checkValue(finding);
    } else if (finding.kind == SdoFinding::Error) {
        FUZZ_REQUIRE(finding.detail <= PE_DownloadFailed);
        if (finding.detail == PE_UnexpectedResponse || finding.detail == PE_DownloadRunning
            || finding.detail == PE_NoTransfer)
            ++mSignalledAndListed;
    } else {
        FUZZ_REQUIRE(mTraffic.devices.value(finding.object.node, 0) != finding.detail);
        mTraffic.devices[finding.object.node] = finding.detail;
    }
    // A slot may take copies, which later changes must not touch.
    FUZZ_REQUIRE(handler().protocolErrors().size() <= mTraffic.listed + 1);
    if (mResetInSlot) {
        mResetInSlot = false;
        reset(true);
    }
}

void Pass::checkValue(const SdoFinding &finding)
{
    const SDO::SDOEntryValue &found = finding.value;
    FUZZ_REQUIRE(mTraffic.times.contains(found.reqTime));
    FUZZ_REQUIRE(found.respTime == mInHand.mTimeStamp.toDouble());
    if (mKeep)
        mTraffic.kept[finding.object].append(found);
    if (found.value.userType() == QMetaType::QByteArray)
        return checkSegmented(finding, found.value.toByteArray());

    FUZZ_REQUIRE(mTraffic.requests.contains(finding.object));
    const Request request = mTraffic.requests.take(finding.object); // answered once
    FUZZ_REQUIRE(found.reqTime == request.time.toDouble());
    const int command = mInHand.mFrame.mPayload[0];
    const int unusedBits = (command & 1) != 0 ? 8 * (command >> 2 & 3) : 0;
    const qlonglong answered = valueField(mInHand.mFrame) & (0xFFFFFFFF >> unusedBits);
    FUZZ_REQUIRE(SDO::sameValue(found.value, found.wasSDOWrite ? request.value : QVariant(answered)));
}

void Pass::checkSegmented(const SdoFinding &finding, const QByteArray &bytes) const
{
    const bool written = finding.value.wasSDOWrite;
    const quint32 sender = (written ? 0x600U : 0x580U) + finding.object.node;
    FUZZ_REQUIRE(bytes.size() <= mTraffic.limit / 2);
    FUZZ_REQUIRE(mTraffic.segments.value(sender).endsWith(bytes));
    FUZZ_REQUIRE(!written || mTraffic.announced.contains({qHash(finding.object), quint32(bytes.size())}));
}

void Pass::checkListed()
{
    const QList<uint> listed = handler().protocolErrors();
    const int added = listed.size() - mTraffic.listed;
    FUZZ_REQUIRE(added >= mSignalledAndListed && added <= 1);
    FUZZ_REQUIRE(added == 0 || listed.constLast() == mInHand.mMessageNumber);
    mTraffic.listed = listed.size();
}

void Pass::checkTables() const
{
    FUZZ_REQUIRE(handler().protocolErrors().size() == mTraffic.listed);
    for (const SDO::SDOEntry &pending : handler().pendingSDOEntryList()) {
        const Request request = mTraffic.requests.value(pending);
        FUZZ_REQUIRE(pending.requestMsgNumber == request.number && SDO::sameValue(pending.value, request.value));
    }
    auto kept = mTraffic.kept;
    for (const SDO::SDOEntry &found : handler().foundSDOEntryList()) {
        QList<SDO::SDOEntryValue> values = found.values;
        for (SDO::SDOEntryValue &value : values)
            value.reqMsgNumber = 0; // signals do not carry it
        FUZZ_REQUIRE(values == kept.take(found));
    }
    FUZZ_REQUIRE(kept.isEmpty());
    qint64 blockBytes = 0;
    for (const SDODef::SDOBlockTransfer &block : handler().blockTransfers()) {
        FUZZ_REQUIRE(block.mState <= 5 && block.mDirection <= 1);
        blockBytes += block.mData.size();
    }
    FUZZ_REQUIRE(blockBytes <= mTraffic.limit / 2);
    FUZZ_REQUIRE(!mTraffic.times.empty() || handler().blockTransfers().isEmpty());
}

} // namespace

// Twice through one handler, and through a fresh one after each reset(): what was before a reset() changes nothing.
int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    enum Road { First, Again, Renewing };
    const std::vector<FuzzStep> steps = fuzzSteps(data, size);
    auto observed = std::make_unique<ObservedSdoHandler>();
    std::vector<SdoFinding> findings;
    QMap<unsigned char, SDODef::SDOBlockTransfer> blocks;
    for (const Road road : {First, Again, Renewing}) {
        Pass pass(observed, road == Renewing);
        for (const FuzzStep &step : steps)
            pass.take(step);
        pass.checkTables();
        FUZZ_REQUIRE(road == First || pass.findings == findings);
        FUZZ_REQUIRE(road == First || sameBlocks(observed->handler.blockTransfers(), blocks));
        findings = pass.findings;
        blocks = observed->handler.blockTransfers();
        observed->handler.reset();
    }
    return 0;
}
