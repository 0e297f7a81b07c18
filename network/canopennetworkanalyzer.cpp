#include "network/canopennetworkanalyzer.h"

#include "sdo/sdomessagehandler.h"

#include <QDebug>

CANopenNetworkAnalyzer::CANopenNetworkAnalyzer(QPointer<CANopenNetwork> network,
                                               QPointer<DatachunkHandler> datachunkHandler, QObject *parent)
    : QObject(parent)
{
    mWorker = new CANopenNetworkAnalyzerWorker(network, datachunkHandler, mMessageDescriptions, nullptr);
    mThread = new QThread(this);
    // Runs in the analysis thread and returns when the loop ends; only then does the thread's own event loop begin.
    connect(mThread, &QThread::started, mWorker, &CANopenNetworkAnalyzerWorker::analyze);
    connect(mThread, &QThread::finished, this, &CANopenNetworkAnalyzer::networkUpdateFinished);
    mWorker->moveToThread(mThread);
    if (network) {
        network->moveToThread(mThread);
        connect(network, &CANNetwork::sigReanalyze, mWorker, &CANopenNetworkAnalyzerWorker::reanalyze);
    }
    mThread->start(QThread::InheritPriority);
}

CANopenNetworkAnalyzer::~CANopenNetworkAnalyzer()
{
    stop();
    if (mThread) {
        mThread->quit();
        mThread->wait(); // without a time-out: a worker must not be deleted under its loop
    }
    delete mWorker;
}

void CANopenNetworkAnalyzer::setAnalyzing(bool analyzing)
{
    if (mWorker)
        mWorker->setAnalyzing(analyzing);
}

void CANopenNetworkAnalyzer::stop()
{
    if (mWorker)
        mWorker->stop();
}

void CANopenNetworkAnalyzer::reset()
{
    if (mWorker)
        mWorker->reset();
}

const QHash<unsigned int, CANopen::CANopenMessageDescription> &
CANopenNetworkAnalyzer::getCANopenMessageDescriptions() const
{
    return mMessageDescriptions;
}

qint16 CANopenNetworkAnalyzer::calculateRating() const
{
    return mWorker ? mWorker->calculateRating() : qint16(0);
}

QMap<CANopenNetworkAnalyzerWorker::RatingMessageTypes, unsigned int> CANopenNetworkAnalyzer::ratingCounts() const
{
    return mWorker ? mWorker->ratingCounts() : QMap<CANopenNetworkAnalyzerWorker::RatingMessageTypes, unsigned int>();
}

QMap<CANopen::MessageType, unsigned int> CANopenNetworkAnalyzer::messageTypeDistribution() const
{
    return mWorker ? mWorker->messageTypeDistribution() : QMap<CANopen::MessageType, unsigned int>();
}

QList<unsigned int> CANopenNetworkAnalyzer::protocolErrors() const
{
    return mWorker ? mWorker->protocolErrors() : QList<unsigned int>();
}

QHash<SDO::SDOEntryKey, SDO::SDOEntry> CANopenNetworkAnalyzer::pendingSDOEntryList() const
{
    return mWorker ? mWorker->pendingSDOEntryList() : QHash<SDO::SDOEntryKey, SDO::SDOEntry>();
}

QMap<unsigned char, CANopen::SDODef::SDOBlockTransfer> CANopenNetworkAnalyzer::blockTransfers() const
{
    return mWorker ? mWorker->blockTransfers() : QMap<unsigned char, CANopen::SDODef::SDOBlockTransfer>();
}

const SDOMessageHandler *CANopenNetworkAnalyzer::sdoMessageHandler() const
{
    return mWorker ? mWorker->sdoMessageHandler() : nullptr;
}

void CANopenNetworkAnalyzer::networkUpdateFinished()
{
    qDebug() << "void CANopenNetworkAnalyzer::networkUpdateFinished()"
             << "Line:" << 44;
}
