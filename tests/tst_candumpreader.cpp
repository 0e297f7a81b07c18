#include "candumpreader.h"

#include <QtTest>

namespace {

// Writes down what the reader finds: a frame as "line/time in ns/identifier with a letter for each flag/bytes", a bad line
// as "line number: problem: text". The flags: extended, remote, error, CAN FD.
class Witness final : public FrameSink
{
public:
    QStringList found;

    void frame(quint8 line, const CAN::CanRxMessage &msg) override
    {
        found += QStringLiteral("%1/%2/%3").arg(line).arg(msg.mTimeStamp.toNSecs()).arg(msg.mFrame.mIdentifier, 0, 16);
        for (int bit = 0; bit < 4; ++bit)
            found.last() += (msg.mFrame.mFlags >> bit & 1) != 0 ? QString("xref"[bit]) : QString();
        found.last() += '/' + msg.mFrame.dataToByteArray(0, -1, true).toHex();
        if (msg.mMessageNumber != ++mFrames)
            found.last() += QStringLiteral(" is number %1").arg(msg.mMessageNumber);
    }
    void badPiece(quint64 number, const char *problem, std::string_view text) override
    {
        found += QStringLiteral("%1: %2: ").arg(number).arg(problem) + QByteArray(text.data(), int(text.size()));
    }

private:
    quint32 mFrames = 0;
};

// What is found in a log that comes in three blocks, the first of which ends at the cut.
QStringList foundIn(const QByteArray &log, int cut)
{
    Witness witness;
    CandumpReader reader(witness);
    const int second = (cut + log.size()) / 2;
    reader.feed(log.constData(), std::size_t(cut));
    reader.feed(log.constData() + cut, std::size_t(second - cut));
    reader.feed(log.constData() + second, std::size_t(log.size() - second));
    reader.finish();
    return witness.found;
}

} // namespace

class TestCandumpReader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lines_data();
    void lines();
    void interfacesBecomeLines();
    void interfacesEnd();
};

void TestCandumpReader::lines_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("found");

    const auto row = [](const char *name, const QByteArray &line, const QByteArray &found) {
        QTest::newRow(name) << line << QString(found);
    };
    row("boot-up", "(1710000000.030728) can0 704#00", "0/1710000000030728000/704/00");
    row("eight bytes", "(0.5) can0 605#2300200078563412", "0/500000000/605/2300200078563412");
    row("nanoseconds", "(1710000000.123456789) can0 705#05", "0/1710000000123456789/705/05");
    row("whole seconds", "(12) can0 705#05", "0/12000000000/705/05");
    row("time zero", "(0000000000.000000) can0 705#05", "0/0/705/05");
    row("292 years after the epoch", "(9223372035.999999999) can0 705#05", "0/9223372035999999999/705/05");
    row("long name", "(1.0) slcan-of-the-press-line-17 705#05", "1/1000000000/705/05");
    row("spaces around", "  (1.0)   can0\t705#05  ", "0/1000000000/705/05");
    row("longest line", QByteArray("(1.0) can0 705#05").leftJustified(4096), "0/1000000000/705/05");

    const auto frame = [&](const char *name, const QByteArray &text, const char *found) {
        row(name, "(1.0) can0 " + text, QByteArray("0/1000000000/") + found);
    };
    frame("SYNC without data", "080#", "80/");
    frame("lower-case digits", "5fe#4b00aaff", "5fe/4b00aaff");
    frame("largest standard identifier", "7FF#01", "7ff/01");
    frame("extended identifier that fits into eleven bits", "00000705#05", "705x/05");
    frame("largest extended identifier", "1FFFFFFF#", "1fffffffx/");
    frame("error frame: bus off", "20000040#0000000000000000", "40e/0000000000000000");
    frame("remote frame", "705#R", "705r/");
    frame("remote frame that asks for eight bytes", "00000705#R8", "705xr/0000000000000000");
    frame("CAN FD, no data", "123##1", "123f/");
    frame("CAN FD, 12 bytes", "123##5000102030405060708090A0B", "123f/000102030405060708090a0b");
    frame("CAN FD, extended", "00000123##0FF", "123xf/ff");
    frame("data length code beyond eight", "123#0011223344556677_B", "123/0011223344556677");
    frame("received, says a newer candump", "705#05 R", "705/05");
    frame("sent, remote", "705#R T", "705r/");

    const auto bad = [&](const char *name, const QByteArray &line, const char *problem) {
        row(name, line, QByteArray("2: ") + problem + ": " + line.left(4096));
    };
    bad("candump without -l", " can0  705   [1]  05", "no time stamp in parentheses at the beginning");
    bad("date as time stamp", "(2024-03-09 16:00:00) can0 705#05", "the time stamp is not a number of seconds");
    bad("no seconds", "(.5) can0 705#05", "the time stamp is not a number of seconds");
    bad("parenthesis left open", "(1.5 can0 705#05", "the time stamp is not a number of seconds");
    bad("time stamp beyond 64 bits", "(9223372036.0) can0 705#05", "the time stamp is out of range");
    bad("time stamp of forty digits", "(" + QByteArray(40, '9') + ".0) can0 705#05", "the time stamp is out of range");
    bad("picoseconds", "(1.0000000001) can0 705#05", "the time stamp is finer than a nanosecond");
    bad("cut off behind the time stamp", "(1.5) ", "the line ends behind the time stamp");
    bad("screen output with a time stamp", "(1.5) can0  705   [1]  05", "no identifier followed by '#'");
    bad("standard identifier of 12 bits", "(1.5) can0 800#05", "the identifier is out of range");
    bad("identifier of 32 bits", "(1.5) can0 80000705#05", "the identifier is out of range");
    bad("no digits", "(1.5) can0 #05", "the identifier has neither three nor eight digits");
    bad("nine digits, the lower eight of them good", "(1.5) can0 100000705#05",
        "the identifier has neither three nor eight digits");
    bad("nine bytes", "(1.5) can0 705#010203040506070809", "more than 8 data bytes");
    bad("cut off in the data", "(1.5) can0 705#0", "odd number of data digits");
    bad("letter in the data", "(1.5) can0 705#01G2", "something that is no hexadecimal digit in the data");
    bad("comment behind the data", "(1.5) can0 705#05 boot", "something behind the data");
    bad("remote frame of nine bytes", "(1.5) can0 705#R9", "the data length of the remote frame is not 0 to 8");
    bad("CAN FD without flags", "(1.5) can0 705##", "no flags digit behind '##'");
    bad("CAN FD, 65 bytes", "(1.5) can0 123##0" + QByteArray(130, 'a'), "more than 64 data bytes");
    bad("CAN FD, nine bytes", "(1.5) can0 123##0010203040506070809", "no CAN FD frame has this many data bytes");
    bad("error frame in CAN FD format", "(1.5) can0 20000040##0", "an error frame in CAN FD format");
    bad("one byte too long", QByteArray("(1.0) can0 705#05").leftJustified(4097), "the line is too long");
    bad("endless line", QByteArray(10000, 'x'), "the line is too long");
}

// The neighbours must not suffer, wherever the blocks are cut.
void TestCandumpReader::lines()
{
    QFETCH(QByteArray, line);
    QFETCH(QString, found);
    for (const QByteArray end : {"\n", "\r\n"}) {
        const QByteArray log = "(1.0) can0 705#05" + end + line + end + "(2.0) can0 705#7F";
        for (int cut = 0; cut <= log.size(); ++cut)
            QCOMPARE(foundIn(log, cut), QStringList({"0/1000000000/705/05", found, "0/2000000000/705/7f"}));
    }
}

void TestCandumpReader::interfacesBecomeLines()
{
    const QByteArray log = "# press line, 9 March\n\n \t \r\n(1.0) can7 701#0\n(1.0) can1 701#05\n(2.0) can0 702#05\n"
                           "  # (1.0) can0 705#05\n(3.0) can10 703#05\n(4.0) can1 701#05\n(5.0) can0 702#05\r";
    Witness witness;
    CandumpReader reader(witness);
    reader.feed(log.constData(), std::size_t(log.size()));
    reader.finish();
    const QStringList expected = {"4: odd number of data digits: (1.0) can7 701#0",
                                  "0/1000000000/701/05",
                                  "1/2000000000/702/05",
                                  "2/3000000000/703/05",
                                  "0/4000000000/701/05",
                                  "1/5000000000/702/05"};
    QCOMPARE(witness.found, expected);
    QCOMPARE(reader.interfaces(), (std::vector<std::string>{"can1", "can0", "can10"}));
    QCOMPARE(reader.pieceCount(), 10ULL);
}

void TestCandumpReader::interfacesEnd()
{
    QByteArray log;
    for (int i = 0; i < 256; ++i)
        log += "(1.0) can" + QByteArray::number(i) + " 705#05\n";
    const QStringList found = foundIn(log + "(1.0) can254 705#05\n", 0);
    QCOMPARE(found.mid(254), QStringList({"254/1000000000/705/05", "256: more than 255 interfaces: (1.0) can255 705#05",
                                          "254/1000000000/705/05"}));
}

QTEST_APPLESS_MAIN(TestCandumpReader)
#include "tst_candumpreader.moc"
