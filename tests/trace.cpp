#include "trace.h"

namespace {

constexpr double nsecsPerMsec = 1000000;

/// Consumes an opening "+20ms" and returns its nanoseconds.
qint64 takeTimeStep(QStringList &words, qint64 otherwise)
{
    if (words.isEmpty() || !words.constFirst().startsWith(QLatin1Char('+')))
        return otherwise;
    const QString step = words.takeFirst();
    bool ok = false;
    const double msecs = step.mid(1, step.size() - 3).toDouble(&ok);
    if (!ok || !step.endsWith(QLatin1String("ms")))
        qFatal("trace: a time step reads +20ms");
    return qRound64(msecs * nsecsPerMsec);
}

quint8 byteOf(const QString &word)
{
    bool ok = false;
    const uint value = word.toUInt(&ok, 16);
    if (!ok || value > 0xFF)
        qFatal("trace: '%s' is no byte", qPrintable(word));
    return static_cast<quint8>(value);
}

CAN::CanMessage parseFrame(QStringList words)
{
    CAN::CanMessage frame;
    const QString identifier = words.takeFirst();
    bool ok = false;
    frame.mIdentifier = identifier.toUInt(&ok, 16);
    if (!ok)
        qFatal("trace: '%s' is no identifier", qPrintable(identifier));
    if (identifier.size() > 3)
        frame.mFlags |= CAN::CanMessage::ExtendedId;
    if (!words.isEmpty() && words.constFirst() == QLatin1String("error")) {
        frame.mFlags |= CAN::CanMessage::ErrorFrame;
        words.removeFirst();
    }
    if (!words.isEmpty() && words.constFirst().startsWith(QLatin1Char('R'))) {
        frame.mFlags |= CAN::CanMessage::RemoteRequest;
        frame.mDataLength = static_cast<quint8>(words.constFirst().mid(1).toUInt());
        return frame;
    }
    if (words.size() > CAN::CanMessage::maxPayload)
        qFatal("trace: too many bytes");
    if (words.size() > 8)
        frame.mFlags |= CAN::CanMessage::FdFormat;
    for (const QString &word : std::as_const(words))
        frame.mPayload[frame.mDataLength++] = byteOf(word);
    return frame;
}

} // namespace

QList<TraceLine> parseTrace(const QByteArray &trace, const QStringList &verbs)
{
    QList<TraceLine> lines;
    qint64 nsecs = 0;
    quint32 number = 0;
    const QStringList texts = QString::fromUtf8(trace).split(QLatin1Char('\n'));
    for (const QString &text : texts) {
        TraceLine line;
        line.text = text.trimmed();
        line.expected = text.section(QLatin1String("=>"), 1).trimmed();
        const QString bus = text.section(QLatin1String("=>"), 0, 0).section(QLatin1Char('|'), 0, 0);
        QStringList words = bus.simplified().split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (words.isEmpty())
            continue;
        if (verbs.contains(words.constFirst())) {
            line.verb = words;
        } else {
            nsecs += takeTimeStep(words, number == 0 ? 0 : qint64(nsecsPerMsec));
            line.message.mFrame = parseFrame(words);
            line.message.mTimeStamp = CanTimeStamp::fromNSecs(nsecs);
            line.message.mMessageNumber = ++number;
        }
        lines.append(line);
    }
    return lines;
}

CAN::CanRxMessage frame(const char *line)
{
    return parseTrace(line).constFirst().message;
}

QList<CAN::CanRxMessage> frames(const QByteArray &trace)
{
    QList<CAN::CanRxMessage> messages;
    const QList<TraceLine> lines = parseTrace(trace);
    for (const TraceLine &line : lines)
        messages.append(line.message);
    return messages;
}
