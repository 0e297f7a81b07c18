#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

namespace {

struct Run
{
    int status = -1;
    QString out;
    QString err;

    QJsonObject json() const { return QJsonDocument::fromJson(out.toUtf8()).object(); }
    QJsonObject line(int i) const { return json()[QStringLiteral("interfaces")].toArray().at(i).toObject(); }
};

// The program, run with the arguments, and fed the input.
Run analyze(const QStringList &arguments, const QByteArray &input = {}, const QString &workingDirectory = {})
{
    QProcess process;
    process.setWorkingDirectory(workingDirectory);
    process.start(QStringLiteral(CANOPEN_ANALYZE), arguments);
    process.write(input);
    process.closeWriteChannel();
    Run run;
    if (!process.waitForFinished() || process.exitStatus() != QProcess::NormalExit)
        return run;
    run.status = process.exitCode();
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

QString recording(const char *name)
{
    return QStringLiteral(RECORDINGS "/") + QLatin1String(name);
}

// What one line of the JSON list of findings says, without what the row does not name.
QStringList facts(const QJsonArray &findings, const QStringList &keys)
{
    QStringList result;
    for (const auto &finding : findings) {
        QStringList values;
        for (const QString &key : keys)
            values += finding.toObject()[key].toVariant().toString();
        result += values.join(QLatin1Char(' '));
    }
    return result;
}

} // namespace

class TestCanopenAnalyze : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void refusals_data();
    void refusals();
    void helpNamesEveryOption();
    void jsonTellsWhatHappened_data();
    void jsonTellsWhatHappened();
    void badLinesAreNamedAndCounted();
    void standardInputAndFileAgree();
    void windowsLineEndsChangeNothing();
    void twoInterfacesAreTwoNetworks();
    void manyInterfacesDoNotAddUpPauses();
    void onlyTheLineAskedFor();
    void rating();
    void messageNumbersCountAllInterfaces();
    void longListsAreCut();
    void pipedReportHasNoColours();
    void textReport_data();
    void textReport();
    void strangeNamesStayJson();

private:
    QTemporaryDir mFolder;
};

void TestCanopenAnalyze::initTestCase()
{
    QVERIFY(mFolder.isValid());
    QFile empty(mFolder.filePath("empty.log"));
    QVERIFY(empty.open(QIODevice::WriteOnly));
    QFile compressed(mFolder.filePath("log.gz"));
    QVERIFY(compressed.open(QIODevice::WriteOnly));
    compressed.write("\x1F\x8B\x08 and so on");
    QFile comments(mFolder.filePath("comments.log"));
    QVERIFY(comments.open(QIODevice::WriteOnly));
    comments.write("# nothing was recorded\n\n");
    QFile other(mFolder.filePath("other.log"));
    QVERIFY(other.open(QIODevice::WriteOnly));
    other.write(" can0  705   [1]  05\n");
}

void TestCanopenAnalyze::refusals_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("sentence"); // the last line on standard error

    const QString mixed = recording("mixed.log");
    QTest::newRow("nothing at all") << QStringList() << "Which recording? Usage: canopen-analyze [OPTIONS] FILE";
    QTest::newRow("option without recording")
        << QStringList("--all") << "Which recording? Usage: canopen-analyze [OPTIONS] FILE";
    QTest::newRow("two recordings") << QStringList({mixed, "second.log"})
                                    << "One recording at a time: second.log is one too many.";
    QTest::newRow("unknown option") << QStringList({"--colour", mixed})
                                    << "There is no option --colour; --help lists what there is.";
    QTest::newRow("--line without a name")
        << QStringList({mixed, "--line"}) << "--line needs the name of an interface, such as can0.";
    QTest::newRow("missing file") << QStringList("missing.log")
                                  << "Cannot open missing.log: No such file or directory.";
    QTest::newRow("name that looks like an option")
        << QStringList({"--", "--all"}) << "Cannot open --all: No such file or directory.";
    QTest::newRow("directory") << QStringList(".") << ". is a directory, not a candump log.";
    QTest::newRow("empty file") << QStringList("empty.log") << "empty.log holds no frames.";
    QTest::newRow("comments only") << QStringList("comments.log") << "comments.log holds no frames.";
    QTest::newRow("empty standard input") << QStringList("-") << "standard input holds no frames.";
    QTest::newRow("compressed file") << QStringList("log.gz")
                                     << "log.gz is compressed; try: zcat FILE | canopen-analyze -";
    QTest::newRow("what candump shows on the screen")
        << QStringList("other.log")
        << "other.log holds no frames as candump -l writes them: (seconds.fraction) interface ID#DATA";
    QTest::newRow("unknown interface") << QStringList({"--line", "can0", "--line=can7", mixed})
                                       << "There is no interface can7 in " + mixed + ", only can0.";
}

void TestCanopenAnalyze::refusals()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, sentence);
    const Run run = analyze(arguments, {}, mFolder.path());
    QCOMPARE(run.status, 2);
    QCOMPARE(run.out, QString());
    QCOMPARE(run.err.trimmed().split('\n').last(), "canopen-analyze: " + sentence);
}

void TestCanopenAnalyze::helpNamesEveryOption()
{
    const Run run = analyze({"--help"});
    QCOMPARE(run.status, 0);
    for (const char *option : {"--line", "--all", "--json", "--version", "--help"})
        QVERIFY2(run.out.contains(QLatin1String(option)), option);
}

void TestCanopenAnalyze::jsonTellsWhatHappened_data()
{
    QTest::addColumn<QByteArray>("log");
    QTest::addColumn<QString>("list");
    QTest::addColumn<QStringList>("keys");
    QTest::addColumn<QStringList>("expected");

    const QString accesses = "sdoAccesses";
    const QStringList accessKeys = {"requestFrame", "frame", "node", "index", "subindex", "access", "bytes", "value"};
    QTest::newRow("read of two bytes") << QByteArray("(1.000) can0 605#4017100000000000\n"
                                                     "(1.002) can0 585#4B171000E8030000\n")
                                       << accesses << accessKeys << QStringList("1 2 5 4119 0 read E803 1000");
    QTest::newRow("read without a size") << QByteArray("(1.000) can0 605#4017100000000000\n"
                                                       "(1.002) can0 585#42171000E8030000\n")
                                         << accesses << accessKeys << QStringList("1 2 5 4119 0 read E8030000 1000");
    QTest::newRow("write of three bytes, rubbish behind them")
        << QByteArray("(1.000) can0 605#2700200301020377\n"
                      "(1.002) can0 585#6000200300000000\n")
        << accesses << accessKeys << QStringList("1 2 5 8192 3 write 010203 197121");
    QTest::newRow("write of one byte after a refused one of four")
        << QByteArray("(1.000) can0 605#2300200301020304\n(1.001) can0 585#8000200310000706\n"
                      "(1.002) can0 605#2F00200309000000\n(1.003) can0 585#6000200300000000\n")
        << accesses << accessKeys << QStringList("3 4 5 8192 3 write 09 9");
    QTest::newRow("segmented read of a text") << QByteArray("(1.000) can0 605#4008100000000000\n"
                                                            "(1.001) can0 585#4108100009000000\n"
                                                            "(1.002) can0 605#6000000000000000\n"
                                                            "(1.003) can0 585#0050756D70206E75\n"
                                                            "(1.004) can0 605#7000000000000000\n"
                                                            "(1.007) can0 585#1B6D620000000000\n")
                                              << accesses << QStringList({"frame", "kind", "bytes", "answerMs"})
                                              << QStringList("6 segmented 50756D70206E756D62 7");

    QTest::newRow("aborts of both sides")
        << QByteArray("(1.000) can0 605#4000300000000000\n(1.002) can0 585#8000300000000206\n"
                      "(2.000) can0 605#4017100200000000\n(3.000) can0 605#8017100200000405\n")
        << "sdoAborts" << QStringList({"frame", "time", "node", "index", "subindex", "code", "meaning", "by"})
        << QStringList({"2 0.002 5 12288 0 0x06020000 object does not exist server",
                        "4 2 5 4119 2 0x05040000 SDO protocol timed out client"});
    QTest::newRow("answer that nobody asked for, and heartbeats that are none")
        << QByteArray("(1.000) can0 585#4B171000E8030000\n(1.001) can0 705#0505\n(1.002) can0 705#05\n")
        << "protocolErrors" << QStringList({"frame", "id", "data", "kind"})
        << QStringList({"1 0x585 4B171000E8030000 unexpectedResponse", "2 0x705 0505 errorControlLength"});

    // A block of three segments when 127 are allowed: in the first transfer the server gets two, then all.
    QTest::newRow("block download with a lost segment")
        << QByteArray("(1.000) can0 605#C6002000110000FF\n(1.001) can0 585#A40020007F000000\n"
                      "(1.002) can0 605#0131323334353637\n(1.003) can0 605#0231323334353637\n"
                      "(1.004) can0 605#8331323334353637\n(1.005) can0 585#A2027F0000000000\n"
                      "(1.006) can0 605#8131323334353637\n(1.007) can0 585#A2017F0000000000\n")
        << "protocolErrors" << QStringList({"frame", "kind"}) << QStringList({"6 segmentsLost", "8 lastAcknowledge"});
    QTest::newRow("request that nobody answers, and an upload that never ends")
        << QByteArray("(1.000) can0 605#4017100000000000\n"
                      "(1.001) can0 606#4008100000000000\n(1.002) can0 586#4108100009000000\n"
                      "(1.003) can0 607#2300200301020304\n")
        << "unansweredRequests" << QStringList({"frame", "node", "index", "access", "begun"})
        << QStringList({"1 5 4119 read false", "2 6 4104 read true", "4 7 8192 write false"});
    QTest::newRow("segmented read that ended leaves no open request")
        << QByteArray("(1.000) can0 605#4008100000000000\n(1.001) can0 585#4108100002000000\n"
                      "(1.002) can0 605#6000000000000000\n(1.003) can0 585#0B48690000000000\n")
        << "unansweredRequests" << QStringList("frame") << QStringList();
    QTest::newRow("two emergencies of two nodes, in order")
        << QByteArray("(1.000) can0 086#1081110102030405\n(1.001) can0 085#0000000000000000\n") << "emergencies"
        << QStringList({"frame", "node", "code", "register", "manufacturer", "meaning"})
        << QStringList({"1 6 0x8110 0x11 0102030405 CAN overrun, objects lost",
                        "2 5 0x0000 0x00 0000000000 error reset or no error"});
    QTest::newRow("NMT commands, one of them unknown")
        << QByteArray("(1.000) can0 000#0100\n(1.001) can0 000#8205\n(1.002) can0 000#7705\n") << "nmtCommands"
        << QStringList({"frame", "command", "node", "meaning"})
        << QStringList({"1 1 0 start", "2 130 5 reset communication", "3 119 5 no CiA 301 command"});
    QTest::newRow("node that boots twice")
        << QByteArray("(1.000) can0 705#00\n(1.500) can0 705#05\n(2.000) can0 705#00\n(2.500) can0 705#7F\n") << "nodes"
        << QStringList({"node", "state", "bootUps", "heartbeats", "devices"}) << QStringList("5 pre-operational 2 2 1");
    QTest::newRow("two devices answer a read") << QByteArray("(1.000) can0 605#4000100000000000\n"
                                                             "(1.003) can0 585#4300100091010F00\n"
                                                             "(1.012) can0 585#4300100091010F00\n")
                                               << "nodes" << QStringList({"node", "devices"}) << QStringList("5 2");
    QTest::newRow("two devices answer a read and two writes: still two")
        << QByteArray("(1.000) can0 605#4000100000000000\n(1.003) can0 585#4300100091010F00\n"
                      "(1.012) can0 585#4300100091010F00\n"
                      "(2.000) can0 605#2F00200309000000\n(2.001) can0 585#6000200300000000\n"
                      "(2.002) can0 585#6000200300000000\n"
                      "(3.000) can0 605#2F00200309000000\n(3.001) can0 585#6000200300000000\n"
                      "(3.002) can0 585#6000200300000000\n")
        << "nodes" << QStringList({"node", "devices"}) << QStringList("5 2");
}

void TestCanopenAnalyze::jsonTellsWhatHappened()
{
    QFETCH(QByteArray, log);
    QFETCH(QString, list);
    QFETCH(QStringList, keys);
    QFETCH(QStringList, expected);
    const Run run = analyze({"--json", "-"}, log);
    QCOMPARE(run.status, 0);
    QCOMPARE(run.err, QString());
    QVERIFY(run.line(0).contains(list));
    QCOMPARE(facts(run.line(0)[list].toArray(), keys), expected);
}

void TestCanopenAnalyze::badLinesAreNamedAndCounted()
{
    QByteArray log("(1.0) can0 705#05\n");
    for (int i = 0; i < 12; ++i)
        log += "(1.5) can0 705#0\x1B\n";
    const Run run = analyze({"--json", "-"}, log);
    QCOMPARE(run.status, 0);
    QCOMPARE(run.json()["badLines"].toInt(), 12);
    QCOMPARE(run.json()["frames"].toInt(), 1);
    const QStringList lines = run.err.trimmed().split('\n');
    QCOMPARE(lines.size(), 11);
    QCOMPARE(lines.first(), QStringLiteral("standard input:2: odd number of data digits: (1.5) can0 705#0?"));
    QCOMPARE(lines.last(), QStringLiteral("standard input: 2 more lines could not be read."));
}

void TestCanopenAnalyze::standardInputAndFileAgree()
{
    QFile log(recording("mixed.log"));
    QVERIFY(log.open(QIODevice::ReadOnly));
    Run fromFile = analyze({"--all", log.fileName()});
    const Run fromInput = analyze({"--all", "-"}, log.readAll());
    QCOMPARE(fromInput.status, 0);
    QVERIFY(fromInput.out.size() > 1000);
    QCOMPARE(fromInput.out, fromFile.out.replace(log.fileName(), "standard input"));
}

void TestCanopenAnalyze::windowsLineEndsChangeNothing()
{
    QFile log(recording("mixed.log"));
    QVERIFY(log.open(QIODevice::ReadOnly));
    const QByteArray text = log.readAll();
    const Run unixRun = analyze({"--json", "-"}, text);
    const Run windowsRun = analyze({"--json", "-"}, QByteArray(text).replace("\n", "\r\n"));
    QCOMPARE(windowsRun.err, QString());
    QCOMPARE(windowsRun.out, unixRun.out);
}

// The answer on the one bus does not belong to the request on the other.
void TestCanopenAnalyze::twoInterfacesAreTwoNetworks()
{
    const QByteArray log = "(1.000) can0 605#4017100000000000\n(1.001) can1 585#4B171000E8030000\n";
    const Run run = analyze({"--json", "-"}, log);
    QCOMPARE(run.line(0)["interface"].toString(), QStringLiteral("can0"));
    QCOMPARE(run.line(1)["interface"].toString(), QStringLiteral("can1"));
    QCOMPARE(run.line(0)["frames"].toInt(), 1);
    QCOMPARE(run.line(0)["unansweredRequests"].toArray().size(), 1);
    QCOMPARE(run.line(0)["sdoAccesses"].toArray().size(), 0);
    QCOMPARE(facts(run.line(1)["protocolErrors"].toArray(), {"frame", "kind"}), QStringList("2 unexpectedResponse"));
}

// A paused analysis sleeps for half a second at a time: neither the start nor the end of a line may wait for that.
void TestCanopenAnalyze::manyInterfacesDoNotAddUpPauses()
{
    QByteArray log;
    for (int i = 0; i < 60; ++i)
        log += "(1.0) can" + QByteArray::number(i) + " 705#05\n";
    QElapsedTimer timer;
    timer.start();
    const Run run = analyze({"--json", "-"}, log);
    QCOMPARE(run.json()["interfaces"].toArray().size(), 60);
    QVERIFY2(timer.elapsed() < 15000, qPrintable(QString::number(timer.elapsed())));
}

void TestCanopenAnalyze::onlyTheLineAskedFor()
{
    const QByteArray log = "(1.0) can0 701#05\n(1.1) can1 702#05\n(1.2) can2 703#05\n";
    const Run run = analyze({"--json", "--line", "can2", "--line=can0", "-"}, log);
    const QJsonArray lines = run.json()["interfaces"].toArray();
    QCOMPARE(facts(lines, {"interface", "line", "frames"}), QStringList({"can0 0 1", "can2 2 1"}));
}

// 22 SDO aborts and 43 unhandled frames in 2063 frames: 100 - trunc(2.13) - trunc(2.08).
void TestCanopenAnalyze::rating()
{
    const QJsonObject rating = analyze({"--json", recording("guarding-and-states.log")}).line(0)["rating"].toObject();
    QCOMPARE(rating["value"].toInt(), 96);
    QCOMPARE(rating["sdoAborts"].toObject()["count"].toInt(), 22);
    QCOMPARE(rating["sdoAborts"].toObject()["points"].toInt(), 2);
    QCOMPARE(rating["unhandledFrames"].toObject()["count"].toInt(), 43);
    QCOMPARE(rating["unhandledFrames"].toObject()["points"].toInt(), 2);
    QCOMPARE(rating["protocolErrors"].toObject()["points"].toInt(), 0);
}

void TestCanopenAnalyze::messageNumbersCountAllInterfaces()
{
    const QByteArray log = "(1.000) can1 080#\n(1.001) can0 605#4017100000000000\n# not a frame\n(1.002) can1 080#\n"
                           "(1.003) can0 585#4B171000E8030000\n";
    const Run run = analyze({"--json", "--line=can0", "-"}, log);
    QCOMPARE(facts(run.line(0)["sdoAccesses"].toArray(), {"requestFrame", "frame", "time", "answerMs"}),
             QStringList("2 4 0.003 2"));
}

void TestCanopenAnalyze::longListsAreCut()
{
    const QString report = analyze({recording("mixed.log")}).out;
    const int cut = report.count('\n');
    QVERIFY(report.contains("  142  "));          // the first abort
    QVERIFY(!report.contains("  162  "));         // the last one
    QVERIFY(report.contains(" 2272  "));          // the latest access
    QVERIFY(!report.contains("    8  0.432029")); // the first one
    const int all = analyze({"--all", recording("mixed.log")}).out.count('\n');
    QVERIFY2(cut <= 50, qPrintable(QString::number(cut)));
    QVERIFY2(all > 270 + 11, qPrintable(QString::number(all)));
}

void TestCanopenAnalyze::pipedReportHasNoColours()
{
    const Run run = analyze({recording("mixed.log")});
    QVERIFY(!run.out.isEmpty());
    QVERIFY(!run.out.contains('\x1B'));
    QCOMPARE(run.err, QString()); // nor a progress bar
}

void TestCanopenAnalyze::textReport_data()
{
    QTest::addColumn<QByteArray>("log");
    QTest::addColumn<QString>("expected"); // a line of the report, spaces condensed

    const QByteArray read =
        "(1710000000.000000001) can0 605#4017100000000000\n(1710000000.0025) can0 585#4B171000E8030000\n";
    QTest::newRow("start of the recording")
        << read << "standard input: 2 frames, 1 interface, begins 2024-03-09 16:00:00.000000001 UTC";
    QTest::newRow("frames per second") << read << "can0: 2 frames in 0.002 s, 800 frames/s";
    QTest::newRow("clean traffic") << read
                                   << "Rating 100 of 100: no protocol errors, no SDO aborts, no unhandled frames";
    QTest::newRow("value and bytes") << read << "2 0.002499999 5 1017:00 read 2.50 1000 E8 03";
    QTest::newRow("single frame has no rate") << QByteArray("(3.5) can0 705#05\n") << "can0: 1 frame in 0.000 s";
    QTest::newRow("time stamps that are no dates")
        << QByteArray("(3.5) can0 705#05\n") << "standard input: 1 frame, 1 interface, begins at 3.500000 s";
    QTest::newRow("cost of an abort") << read + "(1710000000.003) can0 585#8017100000000206\n"
                                      << "1 SDO abort costs 66 points (2 for each in a hundred frames)";
    QTest::newRow("two devices") << read + "(1710000000.003) can0 585#4B171000E8030000\n"
                                 << "5 0x05 - - 0 0 1 2 devices!";
    QTest::newRow("command for all nodes") << QByteArray("(1.0) can0 000#8100\n") << "1 0.000000 all reset node (81)";
}

void TestCanopenAnalyze::textReport()
{
    QFETCH(QByteArray, log);
    QFETCH(QString, expected);
    const Run run = analyze({"-"}, log);
    QStringList lines;
    const QStringList outLines = run.out.split('\n');
    for (const QString &line : outLines)
        lines += line.simplified();
    QVERIFY2(lines.contains(expected), qPrintable(run.out));
}

void TestCanopenAnalyze::strangeNamesStayJson()
{
    const QByteArray log("(1.0) a\"b\\c\x01\xFF 705#05\n");
    const Run run = analyze({"--json", "-"}, log);
    QCOMPARE(run.status, 0);
    QVERIFY(run.out.contains("\\u0001"));
    QCOMPARE(run.line(0)["interface"].toString(), QStringLiteral("a\"b\\c\x01") + QChar(QChar::ReplacementCharacter));
}

QTEST_GUILESS_MAIN(TestCanopenAnalyze)
#include "tst_canopenanalyze.moc"
