#include "analyzerun.h"

#include <QtTest>

namespace {

// The errors of the whole analysis that the SDO analysis alone lists, too.
QJsonArray listedOffline(const QJsonArray &errors)
{
    const QStringList others = {"requestPending", "uploadFailed", "downloadFailed", "errorControlLength"};
    QJsonArray listed;
    std::copy_if(errors.begin(), errors.end(), std::back_inserter(listed),
                 [&](const QJsonValue &error) { return !others.contains(error["kind"].toString()); });
    return listed;
}

// Many recordings, one of them missing: it gets its sentence, the others are reported as they are alone, in the
// order given.
void compareWithEachAlone(const QStringList &options)
{
    QStringList files = {"block-transfer.log", "duplicate-node.log", "mixed.log"};
    files += files + files;
    QStringList texts;
    QJsonArray list;
    for (const QString &file : std::as_const(files)) {
        texts += analyze(options + QStringList(file)).out;
        list += analyze(options + QStringList({"--json", file})).json().object();
    }
    files.insert(1, "missing.log");
    const Run run = analyze(options + files);
    QCOMPARE(run.status, 2);
    QCOMPARE(run.err, QString("canopen-analyze: Cannot open missing.log: No such file or directory.\n"));
    QCOMPARE(run.out, texts.join("\n"));
    QCOMPARE(analyze(options + files + QStringList("--json")).json().array(), list);
}

} // namespace

/// canopen-analyze with --offline, and with several recordings.
class TestCanopenAnalyzeOffline : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void agreesWithTheWholeAnalysis_data();
    void agreesWithTheWholeAnalysis();
    void lines_data();
    void lines();
    void severalRecordings() { compareWithEachAlone({}); }
    void severalRecordingsOffline() { compareWithEachAlone({"--offline"}); }
};

void TestCanopenAnalyzeOffline::agreesWithTheWholeAnalysis_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("log"); // on standard input
    for (const char *name : {"mixed.log", "block-transfer.log", "duplicate-node.log", "guarding-and-states.log"})
        QTest::newRow(name) << name << QByteArray();
    // A read, then: unexpected answer, no transfer, download running, request pending, heartbeat of two bytes, lost segment.
    const QByteArray everyKind(
        "(1.0) can0 608#4017100000000000\n(1.0) can0 588#4B171000E8030000\n(1.1) can0 585#4B171000E8030000\n"
        "(1.2) can0 605#0000000000000000\n(1.3) can0 605#2108100009000000\n(1.4) can0 605#2109100009000000\n"
        "(1.5) can0 606#2300200301020304\n(1.6) can0 606#2300200301020304\n(1.7) can0 705#0505\n"
        "(2.0) can0 607#C6002000150000FF\n(2.1) can0 587#A40020007F000000\n(2.2) can0 607#0131323334353637\n"
        "(2.3) can0 607#0231323334353637\n(2.4) can0 607#8331323334353637\n(2.5) can0 587#A2027F0000000000\n"
        "(2.6) can0 607#8131323334353637\n(2.7) can0 587#A2017F0000000000\n");
    QTest::newRow("one error of each kind") << "-" << everyKind;
}

void TestCanopenAnalyzeOffline::agreesWithTheWholeAnalysis()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, log);
    const QJsonValue whole = analyze({"--json", file}, log).lines().first();
    for (const QStringList &line : {QStringList(), QStringList("--line=can0")}) {
        const QJsonValue offline = analyze(QStringList({"--json", "--offline", file}) + line, log).lines().first();
        QVERIFY(!whole["sdoAccesses"].toArray().isEmpty());
        QCOMPARE(offline["sdoAccesses"], whole["sdoAccesses"]);
        QCOMPARE(offline["protocolErrors"].toArray(), listedOffline(whole["protocolErrors"].toArray()));
    }
}

void TestCanopenAnalyzeOffline::lines_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("found");
    QTest::newRow("all as one network") << QStringList() << "can0, can1/255 value;";
    QTest::newRow("line of the answer") << QStringList("--line=can1") << "can1/1 error;";
    QTest::newRow("each by itself") << QStringList({"--line=can1", "--line=can0"}) << "can0/0;can1/1 error;";
}

void TestCanopenAnalyzeOffline::lines()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, found);
    const QByteArray log = "(1.000) can0 605#4017100000000000\n(1.001) can1 585#4B171000E8030000\n";
    QString lines;
    const QJsonArray reported = analyze(QStringList({"--json", "--offline", "-"}) + arguments, log).lines();
    for (const auto &line : reported) {
        lines += line["interface"].toString() + '/' + QString::number(line["line"].toInt());
        lines += line["sdoAccesses"].toArray().isEmpty() ? "" : " value";
        lines += line["protocolErrors"].toArray().isEmpty() ? ";" : " error;";
    }
    QCOMPARE(lines, found);
}

QTEST_GUILESS_MAIN(TestCanopenAnalyzeOffline)
#include "tst_canopenanalyze_offline.moc"
