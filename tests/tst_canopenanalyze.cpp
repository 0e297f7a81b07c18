#include "analyzerun.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

constexpr const char *mixed = "mixed.log";

QByteArray contents(const QString &fileName)
{
    QFile file(fileName);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A log of can0, with a frame each millisecond.
QByteArray candump(const QByteArray &frames)
{
    QByteArray log;
    int msecs = 1000;
    for (const QByteArray &frame : frames.split(' '))
        log += '(' + QByteArray::number(msecs++ / 1000.0, 'f', 3) + ") can0 " + frame + '\n';
    return log;
}

// What the objects of a list say under the keys that follow its name: "1 read; 2 write".
QString facts(const QJsonValue &report, const QString &listAndKeys)
{
    QStringList keys = listAndKeys.split(' ');
    QStringList result;
    for (const QJsonValue finding : report[keys.takeFirst()].toArray()) {
        QStringList values;
        for (const QString &key : std::as_const(keys))
            values += finding[key].toVariant().toString();
        result += values.join(' ');
    }
    return result.join("; ");
}

} // namespace

class TestCanopenAnalyze : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void refusals_data();
    void refusals();
    void helpAndManualNameTheSameOptions();
    void jsonTellsWhatHappened_data();
    void jsonTellsWhatHappened();
    void badLinesAreNamedAndCounted();
    void fileAndInputAgree();
    void interfacesAreNetworks();
    void manyInterfacesDoNotAddUpPauses();
    void longListsAreCut();
    void textReport_data();
    void textReport();
    void strangeNamesStayJson();
};

void TestCanopenAnalyze::refusals_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("input"); // on standard input, and in the file "input.log"
    QTest::addColumn<QString>("sentence"); // the last line on standard error
    const auto row = [](const char *name, const QStringList &arguments, const QByteArray &input,
                        const QString &sentence) {
        QTest::newRow(name) << arguments << input << "canopen-analyze: " + sentence;
    };
    row("no recording", {"--all"}, "", "Which recording? Usage: canopen-analyze [OPTIONS] FILE...");
    row("standard input twice", {"-", "-"}, "", "Standard input can be read only once.");
    row("unknown option", {"--colour", mixed}, "", "There is no option --colour; --help lists what there is.");
    row("--line without a name", {mixed, "--line"}, "", "--line needs the name of an interface, such as can0.");
    row("--live without an interface", {"--live", "socketcan:"}, "",
        "--live needs a plug-in and an interface, such as socketcan:can0.");
    row("--live beside a recording", {"--live=socketcan:can0", mixed}, "",
        "--live goes without a recording, --line and --offline.");
    row("missing file", {"missing.log"}, "", "Cannot open missing.log: No such file or directory.");
    row("name that looks like an option", {"--", "--all"}, "", "Cannot open --all: No such file or directory.");
    row("directory", {"."}, "", ". is a directory, not a recording.");
    row("empty standard input", {"-"}, "", "standard input holds no frames.");
    row("comments only", {"input.log"}, "# nothing was recorded\n\n", "input.log holds no frames.");
    row("compressed file", {"input.log"}, "\x1F\x8B\x08 and so on",
        "input.log is compressed; try: zcat FILE | canopen-analyze -");
    row("binary file", {"input.log"}, QByteArray::fromHex("7F454C460201010000"),
        "input.log is neither a candump log nor a capture (pcap, pcapng).");
    row("what candump shows on the screen", {"input.log"}, " can0  705   [1]  05\n",
        "input.log holds no frames as candump -l writes them: (seconds.fraction) interface ID#DATA");
    row("unknown interface", {"--line", "can0", "--line=can7", "-"}, "(1.0) can0 705#05\n",
        "There is no interface can7 in standard input, only can0.");
}

void TestCanopenAnalyze::refusals()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, input);
    const QTemporaryDir folder;
    QFile file(folder.filePath("input.log"));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(input) == input.size() && file.flush());
    const Run run = analyze(arguments, input, folder.path());
    QCOMPARE(run.status, 2);
    QCOMPARE(run.out, QString());
    QTEST(run.err.trimmed().split('\n').last(), "sentence");
}

void TestCanopenAnalyze::helpAndManualNameTheSameOptions()
{
    const auto optionsIn = [](const QString &text) {
        QStringList options;
        for (auto match = QRegularExpression("--[a-z]+").globalMatch(text); match.hasNext();)
            options += match.next().captured();
        options.removeDuplicates();
        options.sort();
        return options;
    };
    const Run run = analyze({"--help"});
    QCOMPARE(run.status, 0);
    QVERIFY(run.out.contains("--live"));
    QCOMPARE(optionsIn(contents(RECORDINGS "/../tools/canopen-analyze/canopen-analyze.1").replace("\\-", "-")),
             optionsIn(run.out));
}

void TestCanopenAnalyze::jsonTellsWhatHappened_data()
{
    QTest::addColumn<QByteArray>("log");
    QTest::addColumn<QString>("what");
    QTest::addColumn<QString>("found");
    const auto row = [](const char *name, const char *frames, const char *what, const char *found) {
        QTest::newRow(name) << candump(frames) << QString(what) << QString(found);
    };
    const char *const access = "sdoAccesses requestFrame frame node index subindex access kind bytes value answerMs";
    row("reads of two bytes, and without a size",
        "605#4017100000000000 585#4B171000E8030000 605#4017100000000000 585#42171000E8030000", access,
        "1 2 5 4119 0 read expedited E803 1000 1; 3 4 5 4119 0 read expedited E8030000 1000 1");
    row("writes of three bytes with rubbish behind, and of one after a refused one of four",
        "605#2700200301020377 585#6000200300000000 605#2300200301020304 585#8000200310000706 605#2F00200309000000 "
        "585#6000200300000000",
        access, "1 2 5 8192 3 write expedited 010203 197121 1; 5 6 5 8192 3 write expedited 09 9 1");
    row("segmented read of a text",
        "605#4008100000000000 585#4108100009000000 605#6000000000000000 585#0050756D70206E75 605#7000000000000000 "
        "585#1B6D620000000000",
        access, "1 6 5 4104 0 read segmented 50756D70206E756D62  5");
    row("aborts of both sides", "605#4000300000000000 585#8000300000000206 605#4017100200000000 605#8017100200000405",
        "sdoAborts frame time node index subindex code meaning by",
        "2 0.001 5 12288 0 0x06020000 object does not exist server; "
        "4 0.003 5 4119 2 0x05040000 SDO protocol timed out client");
    row("answer that nobody asked for, and heartbeats that are none", "585#4B171000E8030000 705#0505 705#05",
        "protocolErrors frame id data kind",
        "1 0x585 4B171000E8030000 unexpectedResponse; 2 0x705 0505 errorControlLength");
    // A block of three segments when 127 are allowed: in the first transfer the server gets two, then all.
    row("block download with a lost segment",
        "605#C6002000110000FF 585#A40020007F000000 605#0131323334353637 605#0231323334353637 605#8331323334353637 "
        "585#A2027F0000000000 605#8131323334353637 585#A2017F0000000000",
        "protocolErrors frame kind", "6 segmentsLost; 8 lastAcknowledge");
    row("requests that nobody answers, and uploads of which one never ends",
        "605#4017100000000000 606#4008100000000000 586#4108100009000000 607#2300200301020304 608#4008100000000000 "
        "588#4108100002000000 608#6000000000000000 588#0B48690000000000",
        "unansweredRequests frame node index access begun",
        "1 5 4119 read false; 2 6 4104 read true; 4 7 8192 write false");
    row("two emergencies of two nodes, in order", "086#1081110102030405 085#0000000000000000",
        "emergencies frame node code register manufacturer meaning",
        "1 6 0x8110 0x11 0102030405 CAN overrun, objects lost; 2 5 0x0000 0x00 0000000000 error reset or no error");
    row("NMT commands, one of them unknown", "000#0100 000#8205 000#7705", "nmtCommands frame command node meaning",
        "1 1 0 start; 2 130 5 reset communication; 3 119 5 no CiA 301 command");
    row("node that boots twice", "705#00 705#05 705#00 705#7F", "nodes node state bootUps heartbeats devices",
        "5 pre-operational 2 2 1");
    row("two devices answer a read and two writes: still two",
        "605#4000100000000000 585#4300100091010F00 585#4300100091010F00 605#2F00200309000000 585#6000200300000000 "
        "585#6000200300000000 605#2F00200309000000 585#6000200300000000 585#6000200300000000",
        "nodes node devices", "5 2");
}

void TestCanopenAnalyze::jsonTellsWhatHappened()
{
    QFETCH(QByteArray, log);
    QFETCH(QString, what);
    const Run run = analyze({"--json", "-"}, log);
    QCOMPARE(run.status, 0);
    QCOMPARE(run.err, QString());
    QTEST(facts(run.lines()[0], what), "found");
}

void TestCanopenAnalyze::badLinesAreNamedAndCounted()
{
    const Run run = analyze({"--json", "-"}, "(1.0) can0 705#05\n" + QByteArray("(1.5) can0 705#0\x1B\n").repeated(12));
    QCOMPARE(run.status, 0);
    QCOMPARE(run.json()["badLines"].toInt(), 12);
    const QStringList lines = run.err.trimmed().split('\n');
    QCOMPARE(lines.size(), 11);
    QCOMPARE(lines.first(), QStringLiteral("standard input:2: odd number of data digits: (1.5) can0 705#0?"));
    QCOMPARE(lines.last(), QStringLiteral("standard input: 2 more lines could not be read."));
}

void TestCanopenAnalyze::fileAndInputAgree()
{
    const QString fromFile = analyze({"--all", mixed}).out.replace(mixed, "standard input");
    QVERIFY(fromFile.size() > 1000);
    QCOMPARE(analyze({"--all", "-"}, contents(RECORDINGS "/mixed.log")).out, fromFile);
    QCOMPARE(analyze({"--all", "-"}, contents(RECORDINGS "/mixed.log").replace("\n", "\r\n")).out,
             fromFile); // as Windows has it
}

// The answer on the one bus does not belong to the request on the other. Frames are numbered over all buses.
void TestCanopenAnalyze::interfacesAreNetworks()
{
    const QByteArray log = "(1.000) can1 080#\n(1.001) can0 605#4017100000000000\n# not a frame\n"
                           "(1.002) can2 585#4B171000E8030000\n(1.003) can0 585#4B171000E8030000\n";
    const Run all = analyze({"--json", "-"}, log);
    QCOMPARE(facts(all.json().object(), "interfaces interface line frames"),
             QStringLiteral("can1 0 1; can0 1 2; can2 2 1"));
    QCOMPARE(facts(all.lines()[1], "sdoAccesses requestFrame frame time answerMs"), QStringLiteral("2 4 0.003 2"));
    QCOMPARE(facts(all.lines()[2], "protocolErrors frame kind"), QStringLiteral("3 unexpectedResponse"));
    const Run some = analyze({"--json", "--line", "can2", "--line=can1", "-"}, log);
    QCOMPARE(facts(some.json().object(), "interfaces interface line frames"), QStringLiteral("can1 0 1; can2 2 1"));
}

// A paused analysis sleeps for half a second at a time: neither the start nor the end of a line may wait for that,
// or a hundred of them would outlast the patience of analyze().
void TestCanopenAnalyze::manyInterfacesDoNotAddUpPauses()
{
    QByteArray log;
    for (int i = 0; i < 100; ++i)
        log += "(1.0) can" + QByteArray::number(i) + " 705#05\n";
    QCOMPARE(analyze({"--json", "-"}, log).json()["interfaces"].toArray().size(), 100);
}

void TestCanopenAnalyze::longListsAreCut()
{
    const Run run = analyze({mixed});
    QVERIFY2(run.out.count('\n') <= 50, qPrintable(run.out));
    QVERIFY(run.out.contains("  142  "));          // the first abort
    QVERIFY(!run.out.contains("  162  "));         // the last one
    QVERIFY(run.out.contains(" 2272  "));          // the latest access
    QVERIFY(!run.out.contains("    8  0.432029")); // the first one
    QVERIFY(!run.out.contains('\x1B'));            // colours are for terminals
    QCOMPARE(run.err, QString());                  // as is a progress bar
    QVERIFY(analyze({"--all", mixed}).out.count('\n') > 270 + 11);
}

void TestCanopenAnalyze::textReport_data()
{
    QTest::addColumn<QByteArray>("log");
    QTest::addColumn<QString>("expected"); // a line of the report, spaces condensed
    const auto row = [](const char *name, const QByteArray &log, const char *expected) {
        QTest::newRow(name) << log << QString(expected);
    };
    const QByteArray read =
        "(1710000000.000000001) can0 605#4017100000000000\n(1710000000.0025) can0 585#4B171000E8030000\n";
    row("start of the recording", read,
        "standard input: 2 frames, 1 interface, begins 2024-03-09 16:00:00.000000001 UTC");
    row("frames per second", read, "can0: 2 frames in 0.002 s, 800 frames/s");
    row("clean traffic", read, "Rating 100 of 100: no protocol errors, no SDO aborts, no unhandled frames");
    row("value and bytes", read, "2 0.002499999 5 1017:00 read 2.50 1000 E8 03");
    row("cost of an abort", read + "(1710000000.003) can0 585#8017100000000206\n",
        "1 SDO abort costs 66 points (2 for each in a hundred frames)");
    row("two devices", read + "(1710000000.003) can0 585#4B171000E8030000\n", "5 0x05 - - 0 0 1 2 devices!");
    row("single frame has no rate", "(3.5) can0 705#05\n", "can0: 1 frame in 0.000 s");
    row("time stamps that are no dates", "(3.5) can0 705#05\n",
        "standard input: 1 frame, 1 interface, begins at 3.500000 s");
    row("command for all nodes", "(1.0) can0 000#8100\n", "1 0.000000 all reset node (81)");
    // 22 SDO aborts and 43 unhandled frames in 2063 frames: 100 - trunc(2.13) - trunc(2.08)
    row("rating", contents(RECORDINGS "/guarding-and-states.log"), "Rating 96 of 100");
}

void TestCanopenAnalyze::textReport()
{
    QFETCH(QByteArray, log);
    QFETCH(QString, expected);
    const Run run = analyze({"-"}, log);
    QStringList lines = run.out.split('\n');
    std::transform(lines.cbegin(), lines.cend(), lines.begin(), [](const QString &line) { return line.simplified(); });
    QVERIFY2(lines.contains(expected), qPrintable(run.out));
}

void TestCanopenAnalyze::strangeNamesStayJson()
{
    const Run run = analyze({"--json", "-"}, "(1.0) a\"b\\c\x01\xFF 705#05\n");
    QVERIFY(run.out.contains("\\u0001"));
    QCOMPARE(run.lines().first().toObject()["interface"].toString(),
             QStringLiteral("a\"b\\c\x01") + QChar(QChar::ReplacementCharacter));
}

QTEST_GUILESS_MAIN(TestCanopenAnalyze)
#include "tst_canopenanalyze.moc"
