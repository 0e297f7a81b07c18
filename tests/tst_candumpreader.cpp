#include "candumpreader.h"

#include <QStringList>
#include <QtTest>

namespace {

// Writes down what the reader finds: a frame as "line/time in ns/identifier with a letter for each flag/bytes", a bad line
// as "line number: problem".
class Witness final : public CandumpSink
{
public:
    QStringList frames;
    QStringList complaints;
    QByteArray lastBadText;

    void frame(quint8 line, const CAN::CanRxMessage &msg) override
    {
        const CAN::CanMessage &frame = msg.mFrame;
        QString flags;
        if (frame.mFlags & CAN::CanMessage::ExtendedId)
            flags += QLatin1Char('x');
        if (frame.mFlags & CAN::CanMessage::ErrorFrame)
            flags += QLatin1Char('e');
        if (frame.mFlags & CAN::CanMessage::FdFormat)
            flags += QLatin1Char('f');
        QString data = frame.dataToByteArray(0, -1, true).toHex();
        if (frame.mFlags & CAN::CanMessage::RemoteRequest)
            data = QStringLiteral("R%1").arg(frame.mDataLength);
        frames += QStringLiteral("%1/%2/%3%4/%5")
                      .arg(line)
                      .arg(msg.mTimeStamp.toNSecs())
                      .arg(frame.mIdentifier, 0, 16)
                      .arg(flags, data);
        numbersAscend = numbersAscend && int(msg.mMessageNumber) == frames.size();
    }
    void badLine(quint64 lineNumber, const char *problem, std::string_view text) override
    {
        complaints += QStringLiteral("%1: %2").arg(lineNumber).arg(QLatin1String(problem));
        lastBadText = QByteArray(text.data(), int(text.size()));
    }

    bool numbersAscend = true;
};

void read(CandumpReader &reader, const QByteArray &log)
{
    reader.feed(log.constData(), std::size_t(log.size()));
    reader.finish();
}

// A good line of exactly this length.
QByteArray lineOfLength(int length)
{
    const QByteArray line("(1.0) can0 705#05");
    return line + QByteArray(length - line.size(), ' ');
}

} // namespace

class TestCandumpReader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void goodLines_data();
    void goodLines();
    void badLines_data();
    void badLines();
    void linesThatHoldNothing();
    void everyCutGivesTheSame();
    void lineLength_data();
    void lineLength();
    void endlessLineCostsOneComplaint();
    void interfacesBecomeLines();
    void interfaceOfBadLineIsNoLine();
    void interfacesEnd();
};

void TestCandumpReader::goodLines_data()
{
    QTest::addColumn<QByteArray>("log");
    QTest::addColumn<QString>("frame");

    const auto row = [](const char *name, const char *log, const char *frame) {
        QTest::newRow(name) << QByteArray(log) << QString::fromLatin1(frame);
    };
    row("boot-up", "(1710000000.030728) can0 704#00\n", "0/1710000000030728000/704/00");
    row("eight bytes", "(0.5) can0 605#2300200078563412\n", "0/500000000/605/2300200078563412");
    row("SYNC without data", "(1.000001) can0 080#\n", "0/1000001000/80/");
    row("lower-case digits", "(1.0) vcan0 5fe#4b00aaff\n", "0/1000000000/5fe/4b00aaff");
    row("largest standard identifier", "(1.0) can0 7FF#01\n", "0/1000000000/7ff/01");
    row("extended identifier", "(1.0) can0 18FF50E5#0102\n", "0/1000000000/18ff50e5x/0102");
    row("extended identifier that fits into eleven bits", "(1.0) can0 00000705#05\n", "0/1000000000/705x/05");
    row("largest extended identifier", "(1.0) can0 1FFFFFFF#\n", "0/1000000000/1fffffffx/");
    row("error frame: bus off", "(1.0) can0 20000040#0000000000000000\n", "0/1000000000/40e/0000000000000000");
    row("remote frame", "(1.0) can0 705#R\n", "0/1000000000/705/R0");
    row("remote frame that asks for a byte", "(1.0) can0 705#R1\n", "0/1000000000/705/R1");
    row("remote frame that asks for eight bytes", "(1.0) can0 00000705#R8\n", "0/1000000000/705x/R8");
    row("CAN FD, no data", "(1.0) can0 123##1\n", "0/1000000000/123f/");
    row("CAN FD, 12 bytes", "(1.0) can0 123##5000102030405060708090A0B\n",
        "0/1000000000/123f/000102030405060708090a0b");
    row("CAN FD, extended", "(1.0) can0 00000123##0FF\n", "0/1000000000/123xf/ff");
    row("data length code beyond eight", "(1.0) can0 123#0011223344556677_B\n", "0/1000000000/123/0011223344556677");
    row("received, says a newer candump", "(1.0) can0 705#05 R\n", "0/1000000000/705/05");
    row("sent, remote", "(1.0) can0 705#R T\n", "0/1000000000/705/R0");
    row("spaces around", "  (1.0)   can0\t705#05  \n", "0/1000000000/705/05");
    row("line of a Windows editor", "(1.0) can0 705#05\r\n", "0/1000000000/705/05");
    row("no end of the last line", "(1.0) can0 705#05", "0/1000000000/705/05");
    row("no end of the last line but a CR", "(1.0) can0 705#05\r", "0/1000000000/705/05");
    row("nanoseconds", "(1710000000.123456789) can0 705#05\n", "0/1710000000123456789/705/05");
    row("tenths", "(7.9) can0 705#05\n", "0/7900000000/705/05");
    row("whole seconds", "(12) can0 705#05\n", "0/12000000000/705/05");
    row("zero", "(0000000000.000000) can0 705#05\n", "0/0/705/05");
    row("292 years after the epoch", "(9223372035.999999999) can0 705#05\n", "0/9223372035999999999/705/05");
    row("long name", "(1.0) slcan-of-the-press-line-17 705#05\n", "0/1000000000/705/05");
}

void TestCandumpReader::goodLines()
{
    QFETCH(QByteArray, log);
    QFETCH(QString, frame);
    Witness witness;
    CandumpReader reader(witness);
    read(reader, log);
    QCOMPARE(witness.complaints, QStringList());
    QCOMPARE(witness.frames, QStringList(frame));
    QCOMPARE(reader.frameCount(), 1U);
}

void TestCandumpReader::badLines_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("problem");

    const auto row = [](const char *name, const QByteArray &line, const char *problem) {
        QTest::newRow(name) << line << QString::fromLatin1(problem);
    };
    row("candump without -l", " can0  705   [1]  05", "no time stamp in parentheses at the beginning");
    row("date as time stamp", "(2024-03-09 16:00:00) can0 705#05", "the time stamp is not a number of seconds");
    row("no seconds", "(.5) can0 705#05", "the time stamp is not a number of seconds");
    row("negative time", "(-1.5) can0 705#05", "the time stamp is not a number of seconds");
    row("parenthesis left open", "(1.5 can0 705#05", "the time stamp is not a number of seconds");
    row("time stamp beyond 64 bits", "(9223372036.0) can0 705#05", "the time stamp is out of range");
    row("time stamp of forty digits", "(" + QByteArray(40, '9') + ".0) can0 705#05", "the time stamp is out of range");
    row("picoseconds", "(1.0000000001) can0 705#05", "the time stamp is finer than a nanosecond");
    row("cut off in the time stamp", "(17100000", "the time stamp is not a number of seconds");
    row("cut off behind the time stamp", "(1.5) ", "the line ends behind the time stamp");
    row("cut off in the identifier", "(1.5) can0 70", "no identifier followed by '#'");
    row("cut off in the data", "(1.5) can0 705#0", "odd number of data digits");
    row("cut off behind ##", "(1.5) can0 705##", "no flags digit behind '##'");
    row("screen output with a time stamp", "(1.5) can0  705   [1]  05", "no identifier followed by '#'");
    row("standard identifier of 12 bits", "(1.5) can0 800#05", "the identifier is out of range");
    row("identifier of 32 bits", "(1.5) can0 80000705#05", "the identifier is out of range");
    row("two digits", "(1.5) can0 05#05", "the identifier has neither three nor eight digits");
    row("nine digits, the lower eight of them good", "(1.5) can0 100000705#05",
        "the identifier has neither three nor eight digits");
    row("no digits", "(1.5) can0 #05", "the identifier has neither three nor eight digits");
    row("nine bytes", "(1.5) can0 705#010203040506070809", "more than 8 data bytes");
    row("odd digits", "(1.5) can0 705#012", "odd number of data digits");
    row("letter in the data", "(1.5) can0 705#01G2", "something that is no hexadecimal digit in the data");
    row("two lines in one", "(1.5) can0 705#05(1.6) can0 705#05", "something that is no hexadecimal digit in the data");
    row("comment behind the data", "(1.5) can0 705#05 boot", "something behind the data");
    row("remote frame of nine bytes", "(1.5) can0 705#R9", "the data length of the remote frame is not 0 to 8");
    row("CAN FD, 65 bytes", "(1.5) can0 123##0" + QByteArray(65, 'a') + QByteArray(65, 'b'), "more than 64 data bytes");
    row("CAN FD, nine bytes", "(1.5) can0 123##0010203040506070809", "no CAN FD frame has this many data bytes");
    row("zero byte", QByteArray("(1.5) can0 705#0\0", 17), "odd number of data digits");
    row("no text at all", QByteArray("\xFF\xFE\x00\x01", 4), "no time stamp in parentheses at the beginning");
}

// The bad line stands between two good ones, which must not suffer.
void TestCandumpReader::badLines()
{
    QFETCH(QByteArray, line);
    QFETCH(QString, problem);
    Witness witness;
    CandumpReader reader(witness);
    read(reader, "(1.0) can0 705#05\n" + line + "\n(2.0) can0 705#7F\n");
    QCOMPARE(witness.complaints, QStringList(QStringLiteral("2: ") + problem));
    QCOMPARE(witness.lastBadText, line);
    QCOMPARE(witness.frames, QStringList({"0/1000000000/705/05", "0/2000000000/705/7f"}));
    QVERIFY(witness.numbersAscend);
}

void TestCandumpReader::linesThatHoldNothing()
{
    Witness witness;
    CandumpReader reader(witness);
    read(reader, "# press line, 9 March\n\n \t \r\n  # (1.0) can0 705#05\n\r\n");
    QCOMPARE(witness.frames, QStringList());
    QCOMPARE(witness.complaints, QStringList());
    QCOMPARE(reader.lineCount(), 5ULL);
}

// The same log in two blocks, cut at every byte, and byte by byte.
void TestCandumpReader::everyCutGivesTheSame()
{
    const QByteArray log = "(1.000001) can0 704#00\r\n# comment\n\n(1.000002) can1 123##3000102030405060708090A0B\n"
                           "(1.5) can0 705#0\n(1.000003) can0 18FF50E5#0102 R\r\n(1.000004) can1 705#R1";
    Witness whole;
    CandumpReader wholeReader(whole);
    read(wholeReader, log);
    QCOMPARE(whole.frames.size(), 4);
    QCOMPARE(whole.complaints.size(), 1);
    for (int cut = 0; cut <= log.size(); ++cut) {
        Witness witness;
        CandumpReader reader(witness);
        reader.feed(log.constData(), std::size_t(cut));
        read(reader, log.mid(cut));
        QCOMPARE(witness.frames, whole.frames);
        QCOMPARE(witness.complaints, whole.complaints);
    }
    Witness bytewise;
    CandumpReader reader(bytewise);
    for (const char byte : log)
        reader.feed(&byte, 1);
    reader.finish();
    QCOMPARE(bytewise.frames, whole.frames);
    QCOMPARE(bytewise.complaints, whole.complaints);
}

void TestCandumpReader::lineLength_data()
{
    QTest::addColumn<QByteArray>("log");
    QTest::addColumn<int>("cut");
    QTest::addColumn<bool>("good");

    const int longest = int(CandumpReader::maxLineLength);
    for (const int cut : {0, 1, 4095, 4096, 4097}) {
        QTest::addRow("longest line, cut at %d", cut) << lineOfLength(longest) + "\n" << cut << true;
        QTest::addRow("longest line with CR, cut at %d", cut) << lineOfLength(longest) + "\r\n" << cut << true;
        QTest::addRow("one byte more, cut at %d", cut) << lineOfLength(longest + 1) + "\n" << cut << false;
        QTest::addRow("one byte more with CR, cut at %d", cut) << lineOfLength(longest + 1) + "\r\n" << cut << false;
    }
    QTest::newRow("longest line that ends the log") << lineOfLength(longest) << 17 << true;
    QTest::newRow("too long a line that ends the log") << lineOfLength(longest + 1) << 17 << false;
}

void TestCandumpReader::lineLength()
{
    QFETCH(QByteArray, log);
    QFETCH(int, cut);
    QFETCH(bool, good);
    Witness witness;
    CandumpReader reader(witness);
    reader.feed(log.constData(), std::size_t(cut));
    read(reader, log.mid(cut));
    QCOMPARE(witness.frames.size(), good ? 1 : 0);
    QCOMPARE(witness.complaints, good ? QStringList() : QStringList("1: the line is too long"));
}

void TestCandumpReader::endlessLineCostsOneComplaint()
{
    Witness witness;
    CandumpReader reader(witness);
    const QByteArray block(1 << 16, 'x');
    for (int i = 0; i < 64; ++i)
        reader.feed(block.constData(), std::size_t(block.size()));
    read(reader, "\n(1.0) can0 705#05\n");
    QCOMPARE(witness.complaints, QStringList("1: the line is too long"));
    QCOMPARE(witness.lastBadText.size(), int(CandumpReader::maxLineLength));
    QCOMPARE(witness.frames, QStringList("0/1000000000/705/05"));
}

void TestCandumpReader::interfacesBecomeLines()
{
    Witness witness;
    CandumpReader reader(witness);
    read(reader, "(1.0) can1 701#05\n(2.0) can0 702#05\n(3.0) can10 703#05\n(4.0) can1 701#05\n(5.0) can0 702#05\n");
    const QStringList expected = {"0/1000000000/701/05", "1/2000000000/702/05", "2/3000000000/703/05",
                                  "0/4000000000/701/05", "1/5000000000/702/05"};
    QCOMPARE(witness.frames, expected);
    QCOMPARE(reader.interfaces(), (std::vector<std::string>{"can1", "can0", "can10"}));
    QVERIFY(witness.numbersAscend);
}

void TestCandumpReader::interfaceOfBadLineIsNoLine()
{
    Witness witness;
    CandumpReader reader(witness);
    read(reader, "(1.0) can7 701#0\n(2.0) can0 702#05\n");
    QCOMPARE(reader.interfaces(), std::vector<std::string>{"can0"});
}

void TestCandumpReader::interfacesEnd()
{
    QByteArray log;
    for (int i = 0; i < 257; ++i)
        log += "(1.0) can" + QByteArray::number(i) + " 705#05\n";
    log += "(1.0) can254 705#05\n";
    Witness witness;
    CandumpReader reader(witness);
    read(reader, log);
    QCOMPARE(witness.complaints, QStringList({"256: more than 255 interfaces", "257: more than 255 interfaces"}));
    QCOMPARE(witness.frames.size(), 256);
    QCOMPARE(witness.frames.last(), QStringLiteral("254/1000000000/705/05"));
}

QTEST_APPLESS_MAIN(TestCandumpReader)
#include "tst_candumpreader.moc"
