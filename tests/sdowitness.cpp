#include "sdowitness.h"

namespace {

QString textOf(const QVariant &value)
{
    if (value.type() == QVariant::LongLong)
        return QString::number(value.toLongLong());
    if (value.type() == QVariant::ByteArray)
        return QString::fromLatin1(value.toByteArray().toHex(' ').toUpper());
    return value.isNull() ? QStringLiteral("null") : QStringLiteral("?");
}

QString objectText(uint node, uint index, uint subindex)
{
    return QStringLiteral("%1 %2:%3")
        .arg(node)
        .arg(index, 4, 16, QLatin1Char('0'))
        .arg(subindex, 2, 16, QLatin1Char('0'))
        .toUpper();
}

} // namespace

SdoWitness::SdoWitness()
{
    connect(&handler, &SDOMessageHandler::newValue, this,
            [this](unsigned char node, unsigned short index, unsigned char subindex, const QVariant &value,
                   double reqTime, double respTime, unsigned int number, bool wasSDOWrite) {
                QString finding = QStringLiteral("%1 %2 = %3 asked %4ms")
                                      .arg(wasSDOWrite ? QStringLiteral("write") : QStringLiteral("read"),
                                           objectText(node, index, subindex), textOf(value))
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
    const QList<unsigned int> listed = handler.protocolErrors().mid(listedBefore);
    for (const unsigned int number : listed)
        mFindings.append(number == message.mMessageNumber ? QStringLiteral("listed")
                                                          : QStringLiteral("listed %1").arg(number));
    return takeFindings();
}

QString SdoWitness::takeFindings()
{
    const QString findings = mFindings.join(QStringLiteral(", "));
    mFindings.clear();
    return findings;
}

QString SdoWitness::follow(const QByteArray &trace)
{
    QStringList differences;
    const QList<TraceLine> lines = parseTrace(trace);
    for (const TraceLine &line : lines) {
        const QString found = feed(line.message);
        if (found != line.expected)
            differences.append(QStringLiteral("%1: %2\n    found: %3")
                                   .arg(line.message.mMessageNumber)
                                   .arg(line.text, found.isEmpty() ? QStringLiteral("nothing") : found));
    }
    return differences.join(QLatin1Char('\n'));
}
