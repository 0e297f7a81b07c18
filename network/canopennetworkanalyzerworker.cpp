#include "network/canopennetworkanalyzerworker.h"

#include "sdo/sdomessagehandler.h"
#include "sdo/valuereceiver_p.h"
#include "support/canopendevice.h"
#include "support/guestlock_p.h"
#include "support/messageclass_p.h"

#include <QCoreApplication>
#include <QDebug>
#include <QThread>

#include <cmath>

using namespace CANopen;

namespace {

constexpr unsigned long pauseSleepMs = 500;
constexpr unsigned long idleSleepUs = 1;
constexpr quint32 framesPerEventPoint = 5000;

// mPauseState
constexpr quint32 pausedBit = 1;
constexpr quint32 oneCommand = 2;

constexpr signed char firstNode = 1; // of a device; node-ID 0 is no device, and 127 is the largest that the type holds

/// What a node announces in byte 0 of an error control frame; bit 7 is the toggle bit of node guarding.
quint8 eventCodeOfState(quint8 stateByte, quint8 otherwise)
{
    constexpr quint8 toggleBit = 0x80;
    switch (stateByte & ~toggleBit) {
    case 0x04:
        return NE_Stopped;
    case 0x05:
        return NE_Operational;
    case 0x7F:
        return NE_PreOperational;
    default:
        return otherwise;
    }
}

/// A copy for another thread that shares nothing with the original. Qt's containers would share and detach on the next
/// write, but whether a copy is still shared is read there without acquire, so the write is not ordered after the other
/// thread's last read.
template<typename Container>
Container unshared(const Container &original)
{
    Container copy = original;
    copy.detach();
    return copy;
}

unsigned char lineOf(const CANopenNetwork &network)
{
    return static_cast<unsigned char>(network.networkID());
}

/// identifier − base in 16 bits
short identifierOffset(const CAN::CanMessage &msg, quint32 base)
{
    return static_cast<short>(static_cast<quint16>(msg.mIdentifier - base));
}

} // namespace

/// Leads values straight to the worker's slot.
class Q_DECL_HIDDEN CANopenNetworkAnalyzerWorker::Values : public ValueReceiver
{
public:
    explicit Values(CANopenNetworkAnalyzerWorker &worker) : mWorker(worker) {}
    void takeValue(const SDO::SDOEntryKey &object, SDO::SDOEntryValue &&value) override
    {
        mWorker.newSDOValue(object.node, object.index, object.subindex, std::move(value.value), value.reqTime,
                            value.respTime, value.canMsgNumber, value.wasSDOWrite);
    }

private:
    CANopenNetworkAnalyzerWorker &mWorker;
};

CANopenNetworkAnalyzerWorker::CANopenNetworkAnalyzerWorker(
    QPointer<CANopenNetwork> network, QPointer<DatachunkHandler> datachunkHandler,
    QHash<unsigned int, CANopen::CANopenMessageDescription> &messageDescriptions, QObject *parent)
    : QObject(parent),
      mLock(std::make_shared<GuestLock>()),
      mMessageDescriptions(&messageDescriptions),
      mValues(std::make_unique<Values>(*this)),
      mSdoHandler(new SDOMessageHandler(this, mMessageDescriptions)),
      mNetwork(network),
      mDatachunkHandler(datachunkHandler)
{
    mSdoHandler->setGuestLock(mLock);
    if (mNetwork)
        mMessageTypeDistribution = mNetwork->getMessageTypeDistribution();

    using Worker = CANopenNetworkAnalyzerWorker;
    connect(mSdoHandler, &SDOMessageHandler::newValue, this, &Worker::newSDOValue, Qt::DirectConnection);
    connect(mSdoHandler, &SDOMessageHandler::sigProtocolError, this, &Worker::slotSDOProtocolErrorOccured,
            Qt::DirectConnection);
    connect(mSdoHandler, &SDOMessageHandler::sigMultipleNodesDetected, this, &Worker::slotSDOMultipleNodesDetected,
            Qt::DirectConnection);
    mSdoHandler->setOnlyReceiver(mValues.get());
    if (mDatachunkHandler) {
        connect(mDatachunkHandler, &DatachunkHandler::informAboutCleared, this, &Worker::onDatachunkCleared,
                Qt::DirectConnection);
        connect(mDatachunkHandler, &DatachunkHandler::informAboutClearStart, this, &Worker::onDatachunkClearStart,
                Qt::DirectConnection);
    }
}

CANopenNetworkAnalyzerWorker::~CANopenNetworkAnalyzerWorker()
{
    // The last guest: whatever the analysis thread wrote comes before the destruction, however its end was awaited.
    const GuestScope guest(mLock.get());
    mMessageDescriptions->clear();
}

// ---- the loop ----------------------------------------------------------------------------------------------------------

void CANopenNetworkAnalyzerWorker::analyze()
{
    if (!mNetwork || !mDatachunkHandler)
        return;

    // stop() sets its request first and clears mRunning second; here it is the other way round, so one of us sees the other.
    mRunning = true;
    if (mStopRequested) {
        mRunning = false;
        return;
    }

    const QPointer<CANopenNetworkAnalyzerWorker> self(this);
    const std::shared_ptr<GuestLock> lock = mLock; // outlives a worker that is deleted at an event point
    const LoopScope loop(*lock);
    analyzeFrames();
    if (self)
        endForGood();
}

// Flattened: whatever the road of a frame calls is compiled into it, Qt's containers and pointers too.
[[gnu::flatten]] void CANopenNetworkAnalyzerWorker::analyzeFrames()
{
    CAN::CanRxMessage buffer;
    while (pass(buffer)) {}
}

/// Frames rescued for a loop that has ended would only take memory.
void CANopenNetworkAnalyzerWorker::endForGood()
{
    mStopRequested = true;
    mPendingMessages.clear();
    mClearPending.exchange(false);
}

//  state      entered by                                               left by
//  paused     construction, setPause(true), end of a recording         setPause(false), reanalyze()
//  analysing  leaving paused                                           end of recording (paused), stop(), model or store gone
//  ended      stop(), model or store gone                              –
//
//  one pass:  guests │ paused? sleep, events, again │ rescued frames │ fetch ─┬─ frame: (every 5000th: events) analyse
//                                                                            └─ none: idle (events, sleep, pause)
//  Guests and events come in at these points only; a clear, a reset or a reanalysis therefore finds whole frames.
Q_ALWAYS_INLINE bool CANopenNetworkAnalyzerWorker::pass(CAN::CanRxMessage &buffer)
{
    // Guests first: one that pauses the analysis and then resets it must find it empty afterwards.
    mLock->admitGuests();
    const quint32 pauseState = mPauseState;
    if (Q_UNLIKELY((pauseState & pausedBit) != 0))
        return sleepWhilePaused();
    if (Q_UNLIKELY(mClearPending))
        return handleRescuedFrames();
    // Read before the fetch: frames appended before live reception was switched off are still looked for.
    const bool live = CAN::CanRxMessage::mLiveMode;
    CANopenNetwork *const network = mNetwork;
    DatachunkHandler *const store = mDatachunkHandler;
    if (Q_UNLIKELY(!network || !store)) {
        mRunning = false;
        return idle(pauseState, live);
    }
    if (Q_UNLIKELY(mClearing))
        return idle(pauseState, live);
    const unsigned char line = lineOf(*network);
    if (Q_UNLIKELY(!store->getMessageOfLine(buffer, line, mLinePosition)))
        return idle(pauseState, live);
    ++mLinePosition;
    return analyzeFetched(buffer);
}

bool CANopenNetworkAnalyzerWorker::sleepWhilePaused()
{
    return serveEvents(pauseSleepMs, 0) && mRunning;
}

Q_ALWAYS_INLINE bool CANopenNetworkAnalyzerWorker::analyzeFetched(const CAN::CanRxMessage &frame)
{
    const quint32 restarts = mRestarts;
    if (Q_UNLIKELY(mLinePosition % framesPerEventPoint == 0) && !serveEvents(0, 0))
        return false;

    CANopenNetwork *const network = mNetwork;
    if (Q_UNLIKELY(restarts != mRestarts))
        return mRunning;
    if (Q_LIKELY(network))
        analyzeFrame(frame, network);
    else
        noteMissingModel();
    return mRunning;
}

void CANopenNetworkAnalyzerWorker::noteMissingModel()
{
    qDebug() << "void CANopenNetworkAnalyzerWorker::analyze()"
             << "Line:" << 171 << "¯\\_(ツ)_/¯";
}

bool CANopenNetworkAnalyzerWorker::idle(quint32 pauseState, bool wasLive)
{
    if (!serveEvents(0, idleSleepUs))
        return false;
    // While the store is cleared an empty line is no end of a recording.
    if (!wasLive && !CAN::CanRxMessage::mLiveMode && !mClearing)
        mPauseState.compare_exchange_strong(pauseState, pauseState | pausedBit);
    return mRunning;
}

/// An event point: sleeps, serves the thread's events with the lock given away, sleeps. Anything may happen inside: guests,
/// clears, reset(), reanalyze(), the deferred count check, deletion of model and store.
/// False when the worker itself is gone: nothing of it may be touched any more.
bool CANopenNetworkAnalyzerWorker::serveEvents(unsigned long sleepBeforeMs, unsigned long sleepAfterUs)
{
    const QPointer<CANopenNetworkAnalyzerWorker> self(this);
    const std::shared_ptr<GuestLock> lock = mLock;
    {
        const LoopBreak lent(*lock);
        if (sleepBeforeMs > 0)
            QThread::msleep(sleepBeforeMs);
        QCoreApplication::processEvents();
        if (sleepAfterUs > 0)
            QThread::usleep(sleepAfterUs);
    }
    return !self.isNull();
}

/// A guest may pause or clear again meanwhile: nothing is fetched afterwards before a look at that.
bool CANopenNetworkAnalyzerWorker::handleRescuedFrames()
{
    mClearPending.exchange(false);

    // Taken out first: a clear that begins between two of them leaves its frames for the next pass.
    QList<CAN::CanRxMessage> rescued;
    rescued.swap(mPendingMessages);
    for (const CAN::CanRxMessage &frame : std::as_const(rescued)) {
        mLock->admitGuests();
        analyzeFrame(frame, mNetwork);
    }
    return mRunning;
}

Q_ALWAYS_INLINE void CANopenNetworkAnalyzerWorker::analyzeFrame(const CAN::CanRxMessage &frame, CANopenNetwork *network)
{
    const quint32 restarts = mRestarts;
    if (Q_LIKELY(network))
        network->addCANMessage(frame);
    if (Q_LIKELY(restarts == mRestarts))
        classify(frame);
}

// ---- commands ----------------------------------------------------------------------------------------------------------

void CANopenNetworkAnalyzerWorker::stop()
{
    mStopRequested = true;
    mRunning = false;
}

void CANopenNetworkAnalyzerWorker::setPause(bool paused)
{
    quint32 state = mPauseState;
    quint32 next = 0;
    do {
        next = ((state + oneCommand) & ~pausedBit) | (paused ? pausedBit : 0);
    } while (!mPauseState.compare_exchange_weak(state, next));
}

/// Keeps the loop from pausing itself before it has looked at its line once more.
void CANopenNetworkAnalyzerWorker::lookAgain()
{
    mPauseState.fetch_add(oneCommand);
}

void CANopenNetworkAnalyzerWorker::reset()
{
    const GuestScope guest(mLock.get());
    ++mRestarts;
    if (mNetwork)
        mNetwork->reset();
    if (mDatachunkHandler)
        mDatachunkHandler->resetLinePositions();
    startOver();
}

void CANopenNetworkAnalyzerWorker::reanalyze()
{
    const GuestScope guest(mLock.get());
    ++mRestarts;
    if (mDatachunkHandler)
        mDatachunkHandler->resetLinePositions();
    if (mNetwork) {
        const QList<QPointer<GenericCANDevice>> devices = mNetwork->getDeviceList();
        for (const QPointer<GenericCANDevice> &device : devices) {
            if (auto *const canopenDevice = qobject_cast<CANopenDevice *>(device.data()))
                canopenDevice->clearObjectValues();
        }
    }
    startOver();
    setPause(false);
}

/// The steps that reset() and reanalyze() share. Frames rescued from a cleared store stay: no later fetch brings them back.
void CANopenNetworkAnalyzerWorker::startOver()
{
    if (mSdoHandler)
        mSdoHandler->reset();
    mRatingCounts.clear();
    mLinePosition = 0;
    if (mNetwork && mMessageTypeDistribution)
        mMessageTypeDistribution->clear();
    lookAgain(); // at the end of its line, a loop that is not paused has to start over, not to pause itself
}

// ---- the store is cleared ----------------------------------------------------------------------------------------------

void CANopenNetworkAnalyzerWorker::onDatachunkClearStart()
{
    const GuestScope guest(mLock.get());
    // A second start before the end of the clear would rescue the same frames again.
    if (!mNetwork || !mDatachunkHandler || mClearing)
        return;
    if (!mStopRequested) // otherwise nobody would analyse them
        rescueUnreadFrames();
    mClearing = true;
}

void CANopenNetworkAnalyzerWorker::rescueUnreadFrames()
{
    const QList<CAN::CanRxMessage> rescued = mDatachunkHandler->getMessagesOfLine(lineOf(*mNetwork), mLinePosition);
    if (rescued.isEmpty())
        return;
    mPendingMessages += rescued;
    mClearPending.exchange(true);
}

void CANopenNetworkAnalyzerWorker::onDatachunkCleared(bool isLive)
{
    Q_UNUSED(isLive)
    const GuestScope guest(mLock.get());
    mLinePosition = 0;
    mClearing = false;
    lookAgain();
}

// ---- classification and dispatch ---------------------------------------------------------------------------------------

void CANopenNetworkAnalyzerWorker::handleMessage(const CAN::CanRxMessage &frame)
{
    classify(frame);
}

// Process data are most of the traffic, and are through after one comparison.
Q_ALWAYS_INLINE void CANopenNetworkAnalyzerWorker::classify(const CAN::CanRxMessage &frame)
{
    CANopenNetwork *const network = mNetwork;
    if (Q_UNLIKELY(!MessageClass::isProcessData(frame.mFrame)))
        return dispatch(frame, network);
    if (Q_LIKELY(network)) {
        count(PDO);
        network->addPDOCanMessage(frame);
    }
}

/// Requires: the model exists, and with it the map.
Q_ALWAYS_INLINE void CANopenNetworkAnalyzerWorker::count(CANopen::MessageType type)
{
    if (Q_LIKELY(mMessageTypeDistribution))
        ++(*mMessageTypeDistribution)[type];
}

/// Frames of every class but PDO.
void CANopenNetworkAnalyzerWorker::dispatch(const CAN::CanRxMessage &frame, CANopenNetwork *network)
{
    bool isAbort = false;
    const MessageType classified = MessageClass::of(frame.mFrame, isAbort);
    const MessageType type = isAbort ? SDO_ABORT : classified;
    if (network)
        count(type);

    switch (type) {
    case SDO_REQ:
        return handleSdoRequest(frame);
    case SDO_RES:
        return handleSdoResponse(frame, network);
    case SDO_ABORT:
        return handleSdoAbort(frame, classified);
    case SYNC:
        if (network)
            network->addSYNC(frame.mMessageNumber);
        return;
    case NMT:
        return handleNmtCommand(frame);
    case EMCY:
        return handleEmergency(frame);
    case NMT_EC:
    case NMT_EC_BOOTUP:
        return handleNMTECMessage(frame, type);
    default: // UNKNOWN, SDO_SEGSTARTSTOP, SRDO, and whatever lies above NMT_EC_BOOTUP
        ++mRatingCounts[RMT_Unhandled];
        return;
    }
}

// The SDO handler lives as long as the worker, unless somebody deletes it.

void CANopenNetworkAnalyzerWorker::handleSdoRequest(const CAN::CanRxMessage &frame)
{
    if (SDOMessageHandler *const handler = mSdoHandler)
        handler->handleC2SMessage(frame);
}

void CANopenNetworkAnalyzerWorker::handleSdoResponse(const CAN::CanRxMessage &frame, CANopenNetwork *network)
{
    const auto node = static_cast<signed char>(getNodeFromSDO_RES(frame.mFrame));
    const quint32 restarts = mRestarts;
    if (node >= firstNode && network)
        network->addNode(node, QString());
    SDOMessageHandler *const handler = mSdoHandler;
    if (handler && restarts == mRestarts) // not when the model has started the analysis over
        handler->handleS2CMessage(frame);
}

void CANopenNetworkAnalyzerWorker::handleSdoAbort(const CAN::CanRxMessage &frame, CANopen::MessageType direction)
{
    if (SDOMessageHandler *const handler = mSdoHandler)
        handler->handleAbortMessage(frame, direction); // emits nothing
    ++mRatingCounts[RMT_SdoAbort];
}

void CANopenNetworkAnalyzerWorker::handleEmergency(const CAN::CanRxMessage &frame)
{
    const auto node = static_cast<signed char>(getNodeFromEMCY(frame.mFrame));
    if (node >= firstNode && mNetwork)
        mNetwork->addEMCYMsg(node, frame);
}

//  NMT command   command specifier | node-ID (0: all nodes)
void CANopenNetworkAnalyzerWorker::handleNmtCommand(const CAN::CanRxMessage &frame)
{
    if (mNetwork)
        mNetwork->addNMTRequest(frame.mFrame.mPayload[1], static_cast<NmtCommands>(frame.mFrame.mPayload[0]),
                                frame.mTimeStamp, frame.mMessageNumber);
}

void CANopenNetworkAnalyzerWorker::handleNMTECMessage(const CAN::CanRxMessage &frame, const CANopen::MessageType &type)
{
    CANopenNMTEvent event;
    event.mTimeStamp = frame.mTimeStamp;
    event.mMessageNumber = frame.mMessageNumber;
    const auto node = static_cast<signed char>(getNodeFromNMT_EC(frame.mFrame, type, event));
    if (node < 0) {
        ++mRatingCounts[RMT_ProtocolError];
        return;
    }
    if (mNetwork)
        mNetwork->addNodeState(static_cast<unsigned int>(node), event, frame);
}

int CANopenNetworkAnalyzerWorker::checkNode(short n)
{
    constexpr short nodeLimit = 128;
    return n < nodeLimit ? n : -1;
}

int CANopenNetworkAnalyzerWorker::getNodeFromSDO_RES(const CAN::CanMessage &msg)
{
    return checkNode(identifierOffset(msg, 0x580));
}

int CANopenNetworkAnalyzerWorker::getNodeFromEMCY(const CAN::CanMessage &msg)
{
    return checkNode(identifierOffset(msg, 0x080));
}

int CANopenNetworkAnalyzerWorker::getNodeFromNMT_EC(const CAN::CanMessage &msg, CANopen::MessageType type,
                                                    CANopen::CANopenNMTEvent &event)
{
    constexpr int noNode = -1;
    if (msg.mDataLength != 1) {
        ++mRatingCounts[RMT_ProtocolError];
        return noNode;
    }
    const int node = checkNode(identifierOffset(msg, 0x700));
    if (static_cast<signed char>(node) == noNode)
        return node;
    if (type == NMT_EC)
        event.mEventCode = eventCodeOfState(msg.mPayload[0], event.mEventCode);
    else if (type == NMT_EC_BOOTUP)
        event.mEventCode = NE_BootUp;
    return node;
}

// ---- what the SDO analysis reports -------------------------------------------------------------------------------------

void CANopenNetworkAnalyzerWorker::newSDOValue(uchar node, ushort index, uchar subindex, QVariant value, double reqTime,
                                               double respTime, uint canMsgNumber, bool wasSDOWrite)
{
    if (mNetwork)
        mNetwork->addNewSubIndexValue(node, index, subindex, std::move(value), reqTime, respTime, canMsgNumber,
                                      wasSDOWrite);
}

void CANopenNetworkAnalyzerWorker::slotSDOProtocolErrorOccured(uint msgNumber, CANopen::SdoProtocolErrorType errorType)
{
    Q_UNUSED(msgNumber)
    Q_UNUSED(errorType)
    ++mRatingCounts[RMT_ProtocolError];
}

void CANopenNetworkAnalyzerWorker::slotSDOMultipleNodesDetected(uchar node, uchar count, uint canMsgNumber)
{
    if (mNetwork)
        mNetwork->setPresumedNodeCount(static_cast<signed char>(node), count, canMsgNumber);
}

// ---- what the host reads -----------------------------------------------------------------------------------------------

qint16 CANopenNetworkAnalyzerWorker::calculateRating() const
{
    const GuestScope guest(mLock.get());
    const quint32 frames = mLinePosition;
    if (frames == 0)
        return 0;

    // Events per hundred frames; the product wraps at 32 bits.
    const auto share = [&](RatingMessageTypes type) {
        return static_cast<double>(mRatingCounts.value(type) * 100U) / static_cast<double>(frames);
    };
    const double aborts = share(RMT_SdoAbort);
    // Each term is cut off by itself. Kept as doubles, since against a small count of frames a term can outgrow an integer.
    const double points =
        std::trunc(aborts + aborts) + std::trunc(share(RMT_Unhandled)) + std::trunc(5.0 * share(RMT_ProtocolError));
    return points >= 100.0 ? qint16(0) : static_cast<qint16>(100 - static_cast<int>(points));
}

QMap<CANopenNetworkAnalyzerWorker::RatingMessageTypes, unsigned int> CANopenNetworkAnalyzerWorker::ratingCounts() const
{
    const GuestScope guest(mLock.get());
    return unshared(mRatingCounts);
}

QMap<CANopen::MessageType, unsigned int> CANopenNetworkAnalyzerWorker::messageTypeDistribution() const
{
    const GuestScope guest(mLock.get());
    return mNetwork && mMessageTypeDistribution ? unshared(*mMessageTypeDistribution)
                                                : QMap<MessageType, unsigned int>();
}

QList<unsigned int> CANopenNetworkAnalyzerWorker::protocolErrors() const
{
    const GuestScope guest(mLock.get());
    return mSdoHandler ? unshared(mSdoHandler->protocolErrors()) : QList<unsigned int>();
}

QHash<SDO::SDOEntryKey, SDO::SDOEntry> CANopenNetworkAnalyzerWorker::pendingSDOEntryList() const
{
    const GuestScope guest(mLock.get());
    return mSdoHandler ? unshared(mSdoHandler->pendingSDOEntryList()) : QHash<SDO::SDOEntryKey, SDO::SDOEntry>();
}

QMap<unsigned char, CANopen::SDODef::SDOBlockTransfer> CANopenNetworkAnalyzerWorker::blockTransfers() const
{
    const GuestScope guest(mLock.get());
    if (!mSdoHandler)
        return QMap<unsigned char, SDODef::SDOBlockTransfer>();
    QMap<unsigned char, SDODef::SDOBlockTransfer> transfers = unshared(mSdoHandler->blockTransfers());
    for (SDODef::SDOBlockTransfer &transfer : transfers)
        transfer.mData.detach();
    return transfers;
}

const SDOMessageHandler *CANopenNetworkAnalyzerWorker::sdoMessageHandler() const
{
    return mSdoHandler;
}
