#include "sdo/sdomessagehandler.h"

#include "sdowitness.h"

#include <QtTest>

#include <algorithm>
#include <random>

using Frames = QList<CAN::CanRxMessage>;

/// SDO conversations by the thousand, of nine nodes at once: every value is found, and nothing else. (What holds for damaged
/// traffic the fuzz targets check.) The seed is fixed, so a failure can be repeated.
class TestRandomTraffic : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void intactConversationsAreFoundCompletely();
};

namespace {

/// Makes conversations as CiA 301 draws them, for nodes 1 to 9, and knows what they transfer.
class Conversations
{
public:
    explicit Conversations(quint32 seed) : mRandom(seed) {}

    quint32 upTo(quint32 largest) { return std::uniform_int_distribution<quint32>(0, largest)(mRandom); }

    /// One transfer of any kind; \a value is what SdoWitness has to find, empty for block transfers and aborts.
    Frames transfer(quint8 node, QString &value)
    {
        mNode = node;
        mIndex = quint16(0x2000 + upTo(20));
        mFrames.clear();
        value.clear();
        switch (upTo(7)) {
        case 0:
        case 1:
            value = expeditedWrite();
            break;
        case 2:
        case 3:
            value = expeditedRead();
            break;
        case 4:
            value = segmentedWrite();
            break;
        case 5:
            value = segmentedRead();
            break;
        case 6:
            blockWrite();
            break;
        case 7:
            client({0x40});
            server({0x80});
            break;
        }
        return mFrames;
    }

private:
    void add(quint32 base, QByteArray bytes)
    {
        CAN::CanRxMessage message;
        message.mFrame.mIdentifier = base + mNode;
        message.mFrame.mDataLength = 8;
        bytes.resize(8);
        std::copy(bytes.cbegin(), bytes.cend(), message.mFrame.mPayload);
        mFrames.append(message);
    }
    QByteArray withObject(std::initializer_list<int> command, const QByteArray &rest)
    {
        QByteArray bytes(1, char(*command.begin()));
        return bytes.append(char(mIndex & 0xFF))
            .append(char(mIndex >> 8))
            .append('\0')
            .append(rest.leftJustified(4, '\0'));
    }
    void client(std::initializer_list<int> command, const QByteArray &rest = {})
    {
        add(0x600, withObject(command, rest));
    }
    void server(std::initializer_list<int> command, const QByteArray &rest = {})
    {
        add(0x580, withObject(command, rest));
    }

    QByteArray randomBytes(int count)
    {
        QByteArray bytes(count, '\0');
        for (char &byte : bytes)
            byte = char(upTo(255));
        return bytes;
    }
    QString found(const char *verb, const QString &value) const
    {
        return QStringLiteral("%1 %2 %3:00 = %4")
            .arg(QLatin1String(verb))
            .arg(mNode)
            .arg(QString::number(mIndex, 16).toUpper())
            .arg(value);
    }
    QString expeditedWrite()
    {
        const QByteArray bytes = randomBytes(2);
        client({0x2B}, bytes);
        server({0x60});
        return found("write", QString::number(quint8(bytes[0]) + 256 * quint8(bytes[1])));
    }
    QString expeditedRead()
    {
        const QByteArray bytes = randomBytes(1);
        client({0x40});
        server({0x4F}, bytes);
        return found("read", QString::number(quint8(bytes[0])));
    }
    /// Segments of \a value from the client or the server, each with the frame of the other side before or after it.
    void segments(const QByteArray &value, bool download)
    {
        int toggle = 0;
        for (int done = 0; done < value.size(); done += 7, toggle ^= 0x10) {
            const QByteArray part = value.mid(done, 7);
            const bool last = done + 7 >= value.size();
            const QByteArray segment = QByteArray(1, char(toggle | (7 - part.size()) << 1 | int(last))) + part;
            if (!download)
                add(0x600, QByteArray(1, char(0x60 | toggle)));
            add(download ? 0x600 : 0x580, segment);
            if (download)
                add(0x580, QByteArray(1, char(0x20 | toggle)));
        }
    }
    QString segmentedWrite()
    {
        const QByteArray value = randomBytes(int(5 + upTo(40)));
        client({0x21}, QByteArray(1, char(value.size())));
        server({0x60});
        segments(value, true);
        return found("write", QString::fromLatin1(value.toHex(' ').toUpper()));
    }
    QString segmentedRead()
    {
        // Objects of their own: the request stays pending, and a later write of the object would be reported for it.
        mIndex = quint16(mIndex + 0x1000);
        const QByteArray value = randomBytes(int(5 + upTo(40)));
        client({0x40});
        server({0x41}, QByteArray(1, char(value.size())));
        segments(value, false);
        return found("read", QString::fromLatin1(value.toHex(' ').toUpper()));
    }
    void blockWrite()
    {
        const int count = int(1 + upTo(5));
        client({0xC2}, QByteArray(1, char(count * 7)));
        server({0xA0}, QByteArray(1, char(count)));
        for (int sequence = 1; sequence <= count; ++sequence)
            add(0x600, QByteArray(1, char(sequence | (sequence == count ? 0x80 : 0))) + randomBytes(7));
        add(0x580, QByteArray(1, char(0xA2)) + char(count) + char(count));
        add(0x600, QByteArray(1, char(0xC1)));
        add(0x580, QByteArray(1, char(0xA1)));
    }

    std::mt19937 mRandom;
    quint8 mNode = 0;
    quint16 mIndex = 0;
    Frames mFrames;
};

/// Interleaves conversations of nine nodes; each node has one at a time. Frames are 30 ms apart, so no answer repeats another.
Frames interleave(Conversations &make, int conversations, QStringList &values)
{
    QList<Frames> open;
    QStringList openValues;
    Frames traffic;
    while (conversations > 0 || !open.isEmpty()) {
        while (open.size() < 9 && conversations > 0) {
            QList<quint8> idle = {1, 2, 3, 4, 5, 6, 7, 8, 9};
            for (const Frames &running : std::as_const(open))
                idle.removeOne(quint8(running.constFirst().mFrame.mIdentifier & 0x7F));
            QString value;
            open.append(make.transfer(idle.at(int(make.upTo(quint32(idle.size() - 1)))), value));
            openValues.append(value);
            --conversations;
        }
        const int turn = int(make.upTo(quint32(open.size() - 1)));
        traffic.append(open[turn].takeFirst());
        if (open.at(turn).isEmpty()) {
            open.removeAt(turn);
            const QString value = openValues.takeAt(turn);
            if (!value.isEmpty())
                values.append(value);
        }
    }
    return traffic;
}

void number(Frames &traffic)
{
    for (int i = 0; i < traffic.size(); ++i) {
        traffic[i].mMessageNumber = quint32(i + 1);
        traffic[i].mTimeStamp = CanTimeStamp::fromNSecs(i * 30000000LL);
    }
}

} // namespace

void TestRandomTraffic::intactConversationsAreFoundCompletely()
{
    Conversations make(301);
    QStringList expected;
    Frames traffic = interleave(make, 15000, expected);
    number(traffic);
    SdoWitness sdo;
    QStringList found;
    for (const CAN::CanRxMessage &message : std::as_const(traffic)) {
        const QString finding = sdo.feed(message);
        if (!finding.isEmpty())
            found.append(finding.section(QLatin1String(" asked"), 0, 0));
    }
    QVERIFY(traffic.size() > 50000);
    QCOMPARE(found, expected);
    QVERIFY(sdo.handler.protocolErrors().isEmpty());
}

QTEST_GUILESS_MAIN(TestRandomTraffic)
#include "tst_randomtraffic.moc"
