#include "candumpreader.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

namespace {

constexpr int socketCan = 227, cooked = 113, cooked2 = 276, ethernet = 1; // link types

struct Form
{
    bool isNg = false, isBigEndian = false, isNano = false;
    quint32 linkType = socketCan;
};

struct Run
{
    int status = -1;
    QString err;
    QJsonObject report;
};

Run analyze(const QStringList &arguments, const QByteArray &input)
{
    QProcess process;
    process.start(CANOPEN_ANALYZE, QStringList("--json") + arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished() || process.exitStatus() != QProcess::NormalExit)
        return {};
    return {process.exitCode(), process.readAllStandardError(),
            QJsonDocument::fromJson(process.readAllStandardOutput()).object()};
}

// Writes the frames of a candump log as a capture, byte by byte as the formats are laid down.
class Capture final : private FrameSink
{
public:
    Capture(const Form &form, const QByteArray &log) : mForm(form)
    {
        if (form.isNg) // section header; interface description, with a resolution of 10^-9 or the default of 10^-6
            mBytes = block(0x0A0D0D0A, number(0x1A2B3C4D) + number(1, 2) + number(0, 2) + QByteArray(8, '\xFF'))
                     + block(1, number(form.linkType, 2) + number(0, 2) + number(0)
                                    + (form.isNano ? number(9, 2) + number(1, 2) + number(9, 1) + QByteArray(7, '\0')
                                                   : QByteArray()));
        else
            mBytes = number(form.isNano ? 0xA1B23C4D : 0xA1B2C3D4) + number(2, 2) + number(4, 2) + number(0, 8)
                     + number(0x40000) + number(form.linkType);
        CandumpReader reader(*this);
        reader.feed(log.constData(), std::size_t(log.size()));
    }

    QByteArray bytes() const { return mBytes; }

private:
    QByteArray number(quint64 value, int size = 4) const
    {
        QByteArray bytes(size, '\0');
        for (int i = 0; i < size; ++i)
            bytes[mForm.isBigEndian ? size - 1 - i : i] = char(value >> (8 * i) & 0xFF);
        return bytes;
    }
    static QByteArray networkOrder(quint32 value)
    {
        value = qToBigEndian(value);
        return {reinterpret_cast<const char *>(&value), sizeof value};
    }
    QByteArray block(quint64 type, const QByteArray &body) const
    {
        const QByteArray padding(-body.size() & 3, '\0');
        const QByteArray size = number(12 + quint64(body.size()) + quint64(padding.size()));
        return number(type) + size + body + padding + size;
    }

    // The identifier is in network byte order, but in that of the capturing machine behind a cooked header.
    QByteArray packet(const CAN::CanMessage &frame) const
    {
        static constexpr quint32 bits[] = {0x80000000, 0x40000000, 0x20000000}; // extended, remote, error
        quint32 id = frame.mIdentifier;
        for (int bit = 0; bit < 3; ++bit)
            id |= frame.mFlags >> bit & 1 ? bits[bit] : 0;
        const bool isFd = frame.mFlags & CAN::CanMessage::FdFormat;
        const QByteArray protocol = isFd ? QByteArray("\0\x0D", 2) : QByteArray("\0\x0C", 2);
        const QByteArray bytes = QByteArray(1, char(frame.mDataLength)) + QByteArray(3, '\0')
                                 + QByteArray(reinterpret_cast<const char *>(frame.mPayload), isFd ? 64 : 8);
        if (mForm.linkType == cooked)
            return QByteArray("\0\0\x01\x18\0\0\0\0\0\0\0\0\0\0", 14) + protocol + number(id) + bytes;
        if (mForm.linkType == cooked2)
            return protocol + QByteArray("\0\0\0\0\0\x03\x01\x18\0\0\0\0\0\0\0\0\0\0", 18) + number(id) + bytes;
        return networkOrder(id) + bytes;
    }
    void frame(quint8, const CAN::CanRxMessage &msg) override
    {
        const QByteArray data = packet(msg.mFrame);
        const auto time = quint64(msg.mTimeStamp.toNSecs()) / (mForm.isNano ? 1 : 1000);
        const QByteArray sizes = number(quint64(data.size())) + number(quint64(data.size()));
        const quint64 second = mForm.isNano ? 1000000000 : 1000000;
        if (mForm.isNg)
            mBytes += block(6, number(0) + number(time >> 32) + number(time & 0xFFFFFFFF) + sizes + data);
        else
            mBytes += number(time / second) + number(time % second) + sizes + data;
    }
    void badPiece(quint64, const char *problem, std::string_view) override { qFatal("%s", problem); }

    const Form mForm;
    QByteArray mBytes;
};

// A recording with SDO transfers of all kinds, then one frame of each format that is no heartbeat and no SDO request of
// node 5: were a flag lost, the report would be another.
QByteArray recordedLog()
{
    QFile file(RECORDINGS "/mixed.log");
    return file.open(QIODevice::ReadOnly) ? file.readAll()
                                                + "(1710000099.000001) can0 00000605#4017100000000000\n"
                                                  "(1710000099.000002) can0 605#R8\n"
                                                  "(1710000099.000003) can0 20000605#4017100000000000\n"
                                                  "(1710000099.000004) can0 705##1000102030405060708090A0B\n"
                                                  "(1710000099.000005) can0 705##10506\n"
                                          : QByteArray();
}

} // namespace

Q_DECLARE_METATYPE(Form)

/// canopen-analyze on captures.
class TestCanopenAnalyzeCaptures : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void sameAsTheLog_data();
    void sameAsTheLog();
    void faults_data();
    void faults();
};

void TestCanopenAnalyzeCaptures::sameAsTheLog_data()
{
    QTest::addColumn<Form>("form");
    QTest::addColumn<QString>("interface");
    QTest::newRow("pcap") << Form{false, false, false, socketCan} << "can";
    QTest::newRow("pcap of a big-endian machine, nanoseconds") << Form{false, true, true, socketCan} << "can";
    QTest::newRow("pcapng") << Form{true, false, false, socketCan} << "can";
    QTest::newRow("pcapng of a big-endian machine, nanoseconds") << Form{true, true, true, socketCan} << "can";
    QTest::newRow("cooked") << Form{false, false, false, cooked} << "can";
    QTest::newRow("cooked, of a big-endian machine") << Form{false, true, false, cooked} << "can";
    QTest::newRow("cooked, second version") << Form{true, false, false, cooked2} << "if3";
}

void TestCanopenAnalyzeCaptures::sameAsTheLog()
{
    QFETCH(Form, form);
    QFETCH(QString, interface);
    QByteArray log = recordedLog();
    if (form.isNano)
        log.replace(") can0", "007) can0");
    Run run = analyze({"-"}, Capture(form, log).bytes());
    QCOMPARE(run.err, QString());
    const Run expected = analyze({"-"}, log.replace(" can0", ' ' + interface.toLatin1()));
    QCOMPARE(expected.report["frames"].toInt(), 2277 + 5);
    QCOMPARE(run.report, expected.report);
}

void TestCanopenAnalyzeCaptures::faults_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<int>("framesFound");
    QTest::addColumn<QString>("sentence"); // behind the name of the file; its beginning
    const QByteArray log = "(1.0) can0 705#05\n(2.0) can0 705#05\n(3.0) can0 705#05\n";
    const QByteArray pcap = Capture(Form(), log).bytes();
    const QByteArray pcapng = Capture(Form{true}, log).bytes();
    const auto row = [](const char *name, const QByteArray &file, int framesFound, const char *sentence) {
        QTest::newRow(name) << file << framesFound << QString(sentence);
    };
    row("recorder lost power", pcap.chopped(3), 2, ": packet 3: the capture is damaged from here on: truncated");
    row("the same, pcapng", pcapng.chopped(3), 2, ": packet 3: the capture is damaged from here on: truncated");
    row("nothing but the beginning", pcap.left(10), -1, " is a damaged capture: truncated");
    row("no packets", pcap.left(24), -1, " holds no frames.");
    row("of a computer network", Capture(Form{false, false, false, ethernet}, log).bytes(), -1,
        " is a capture of something else than CAN frames: link type Ethernet.");
    row("no CAN bus among the interfaces",
        Capture(Form{false, false, false, cooked}, log).bytes().replace("\0\x0C", 2, "\x08\0", 2), -1,
        " holds no frames.");
    QByteArray tooLong = pcap; // data length of the first frame: behind two headers and the identifier
    tooLong[24 + 16 + 4] = 9;
    row("data length of 9", tooLong, 2, ": packet 1: more than 8 data bytes");
    row("CAN XL", QByteArray(tooLong).replace(44, 1, "\x81"), 2, ": packet 1: a CAN XL frame");
}

void TestCanopenAnalyzeCaptures::faults()
{
    QFETCH(QByteArray, file);
    QFETCH(int, framesFound);
    QFETCH(QString, sentence);
    const Run run = analyze({"-"}, file);
    QCOMPARE(run.status, framesFound < 0 ? 2 : 0);
    QCOMPARE(run.report["frames"].toInt(-1), framesFound);
    QCOMPARE(run.report["badLines"].toInt(0), framesFound < 0 ? 0 : 1);
    QCOMPARE(run.err.count('\n'), 1);
    const QString begin = (framesFound < 0 ? "canopen-analyze: standard input" : "standard input") + sentence;
    QVERIFY2(run.err.startsWith(begin), qPrintable(run.err)); // libpcap may have more to say
}

QTEST_GUILESS_MAIN(TestCanopenAnalyzeCaptures)
#include "tst_canopenanalyze_captures.moc"
