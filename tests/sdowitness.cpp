#include "sdowitness.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMap>

namespace {

QString textOf(const QVariant &value)
{
    if (value.isNull())
        return QStringLiteral("null");
    if (value.type() == QVariant::LongLong)
        return QString::number(value.toLongLong());
    if (value.type() == QVariant::ByteArray)
        return QString::fromLatin1(value.toByteArray().toHex(' ').toUpper());
    return QStringLiteral("?");
}

QString textOf(uint index, uint subindex)
{
    return QString::asprintf("%04X:%02X", index, subindex);
}

QString textOf(const SDO::SDOEntry &entry)
{
    QString text = QStringLiteral("%1 %2 = %3 of %4")
                       .arg(entry.node)
                       .arg(textOf(entry.index, entry.subindex), textOf(entry.value))
                       .arg(entry.requestMsgNumber);
    for (const SDO::SDOEntryValue &value : entry.values)
        text += QStringLiteral("%1 %2(%3: %4-%5 by %6 %7)")
                    .arg(QLatin1String(&value == &entry.values.constFirst() ? ":" : ""), textOf(value.value))
                    .arg(value.reqMsgNumber)
                    .arg(qRound64(value.reqTime * 1000.0))
                    .arg(qRound64(value.respTime * 1000.0))
                    .arg(value.canMsgNumber)
                    .arg(QLatin1Char(value.wasSDOWrite ? 'w' : 'r'));
    return text;
}

QString textOf(const QHash<SDO::SDOEntryKey, SDO::SDOEntry> &entries)
{
    QStringList texts;
    for (const SDO::SDOEntry &entry : entries)
        texts.append(textOf(entry));
    texts.sort();
    return texts.join(QStringLiteral(", "));
}

QString textOf(const CANopen::SDODef::SDOBlockTransfer &record)
{
    QString text = QStringLiteral("%1%2 %3 %4/%5")
                       .arg(record.mState)
                       .arg(QLatin1Char(record.mDirection == 1 ? 'd' : 'u'))
                       .arg(textOf(record.mIndex, record.mSubindex))
                       .arg(record.mSequence)
                       .arg(record.mBlockSize);
    if (record.mSize != 0)
        text += QStringLiteral(" size %1").arg(record.mSize);
    if (record.mCrcSupport != 0)
        text += QStringLiteral(" crc %1").arg(record.mCrcSupport);
    if (!record.mData.isEmpty())
        text += QLatin1Char(' ') + QString::fromLatin1(QByteArray(record.mData).replace('\0', '.'));
    return text;
}

} // namespace

SdoWitness::SdoWitness()
{
    connect(&handler, &SDOMessageHandler::newValue, this,
            [this](unsigned char node, unsigned short index, unsigned char subindex, const QVariant &value,
                   double reqTime, double respTime, unsigned int number, bool wasSDOWrite) {
                QString finding = QStringLiteral("%1 %2 %3 = %4 asked %5ms")
                                      .arg(QLatin1String(wasSDOWrite ? "write" : "read"))
                                      .arg(node)
                                      .arg(textOf(index, subindex), textOf(value))
                                      .arg(qRound64(reqTime * 1000.0));
                if (respTime != mCurrent.mTimeStamp.toDouble() || number != mCurrent.mMessageNumber)
                    finding += QStringLiteral(" (answered %1ms by %2)").arg(qRound64(respTime * 1000.0)).arg(number);
                note(finding);
            });
    connect(&handler, &SDOMessageHandler::sigProtocolError, this,
            [this](unsigned int number, CANopen::SdoProtocolErrorType type) {
                QString finding = QStringLiteral("error %1").arg(type);
                if (number != mCurrent.mMessageNumber)
                    finding += QStringLiteral(" of %1").arg(number);
                note(finding);
            });
    connect(&handler, &SDOMessageHandler::sigMultipleNodesDetected, this,
            [this](unsigned char node, unsigned char count, unsigned int last) {
                note(QStringLiteral("devices %1 x%2 last %3").arg(node).arg(count).arg(last));
            });
}

void SdoWitness::note(const QString &finding)
{
    mFindings.append(finding);
    if (inSlot)
        inSlot();
}

QString SdoWitness::feed(const CAN::CanRxMessage &message)
{
    mCurrent = message;
    const int listedBefore = handler.protocolErrors().size();
    handler.handleCANMessage(message);
    if (showsBlocks)
        mFindings.prepend(textOf(handler.blockTransfers().value(message.mFrame.mIdentifier & 0x7F)));
    const QList<unsigned int> listed = handler.protocolErrors().mid(listedBefore);
    for (const unsigned int number : listed)
        mFindings.append(number == message.mMessageNumber ? QStringLiteral("listed")
                                                          : QStringLiteral("listed %1").arg(number));
    return takeFindings();
}

QString SdoWitness::takeFindings()
{
    QString findings = mFindings.join(QStringLiteral(", "));
    mFindings.clear();
    return findings;
}

QString SdoWitness::awaitFindings()
{
    QElapsedTimer timer;
    timer.start();
    while (mFindings.isEmpty() && timer.elapsed() < 200)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 10);
    return takeFindings();
}

QString SdoWitness::obey(const QStringList &verb)
{
    if (verb.first() == QLatin1String("wait"))
        return awaitFindings();
    if (verb.first() == QLatin1String("pending"))
        return textOf(handler.pendingSDOEntryList());
    if (verb.first() == QLatin1String("values"))
        return textOf(handler.foundSDOEntryList());
    if (verb.first() == QLatin1String("keep"))
        handler.setKeepFinishedTransfers(verb.last() == QLatin1String("on"));
    else if (verb.first() == QLatin1String("limit"))
        handler.setCollectedBytesLimit(verb.last().toLongLong());
    else
        handler.reset();
    return takeFindings();
}

QString SdoWitness::follow(const QByteArray &trace)
{
    QStringList differences;
    const QList<TraceLine> lines = parseTrace(trace, {"wait", "pending", "values", "keep", "limit", "reset"});
    for (const TraceLine &line : lines) {
        const QString found = line.verb.isEmpty() ? feed(line.message) : obey(line.verb);
        if (found != line.expected)
            differences.append(line.text + QStringLiteral("\n    found: ") + found);
    }
    return differences.join(QLatin1Char('\n'));
}
