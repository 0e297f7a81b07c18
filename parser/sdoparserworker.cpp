#include "parser/sdoparserworker.h"

#include "sdo/sdomessagehandler.h"

#include <QThread>

#include <mutex>

//  parse thread   ··run··|emit finished ·······························|end
//  host's thread             slot (queued): results, delete parser ··waits|gone
//
// Qt still reads the sender after the slots were called or queued. So the emission holds a lock that the destructor takes: it
// waits out the tail of one emission. (Inside the emission, in a directly connected slot, the lock is the caller's already, and
// Qt provides for the deletion of the sender there.) Whoever fetches results takes it as well: what the run wrote comes
// before what the host reads, whichever way it learnt of the end.
struct SDOParserWorker::Emission
{
    std::recursive_mutex mutex;

    void await() { const std::lock_guard<std::recursive_mutex> tail(mutex); }
};

SDOParserWorker::SDOParserWorker(QObject *parent)
    : QObject(parent), mSdoHandler(new SDOMessageHandler(this, nullptr)), mEmission(std::make_shared<Emission>())
{
    mSdoHandler->setKeepFinishedTransfers(true);
    // Nobody listens to responder counts here, and a deferred check would run in another thread than the parse.
    mSdoHandler->setDefersNodeCountChecks(false);
}

SDOParserWorker::~SDOParserWorker()
{
    mEmission->await();
}

void SDOParserWorker::setDatachunkHandler(DatachunkHandler *datachunkHandler)
{
    mEmission->await();
    mDatachunkHandler = datachunkHandler;
}

void SDOParserWorker::setNetworkLine(unsigned char networkLine)
{
    mEmission->await();
    mNetworkLine = networkLine;
}

void SDOParserWorker::setNodeIdList(const QList<unsigned char> &nodeIds)
{
    mEmission->await();
    mNodeIds = nodeIds;
}

void SDOParserWorker::startAnalysing()
{
    QThread *const thread = QThread::create([this] { doWork(); });
    connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    thread->start(QThread::InheritPriority);
}

QHash<SDO::SDOEntryKey, SDO::SDOEntry> SDOParserWorker::getResultList()
{
    mEmission->await();
    return mResult;
}

QList<unsigned int> SDOParserWorker::sdoProtocolErrors() const
{
    mEmission->await();
    return mProtocolErrors;
}

void SDOParserWorker::doWork()
{
    mEmission->await();
    if (mSdoHandler)
        mSdoHandler->reset();
    mResult = {};
    mProtocolErrors = {};
    if (mSdoHandler) {
        if (mNetworkLine == allLines)
            parseAllMessages();
        else
            parseLineMessages();
    }
    emitFinished();
}

void SDOParserWorker::parseAllMessages()
{
    const int count = mDatachunkHandler ? mDatachunkHandler->getMessageCount() : 0;
    for (int i = 0; i < count && mDatachunkHandler; ++i)
        mSdoHandler->handleCANMessage(mDatachunkHandler->messageAt(i));
    takeResults();
}

void SDOParserWorker::parseLineMessages()
{
    if (!mDatachunkHandler)
        return;
    mDatachunkHandler->resetLinePositions();
    while (mDatachunkHandler) {
        CAN::CanRxMessage message;
        if (!mDatachunkHandler->nextMessageForLine(message, mNetworkLine))
            break;
        mSdoHandler->handleCANMessage(message);
    }
    takeResults();
}

void SDOParserWorker::takeResults()
{
    mResult = mSdoHandler->foundSDOEntryList();
    mProtocolErrors = mSdoHandler->protocolErrors();
}

/// The last step of a run: the parser may be gone when it returns.
void SDOParserWorker::emitFinished()
{
    const std::shared_ptr<Emission> emission = mEmission;
    const std::lock_guard<std::recursive_mutex> lock(emission->mutex);
    Q_EMIT finished(mNetworkLine);
}
