#include "parser/sdoparserworker.h"

#include "inmemory/inmemorycanopennetwork.h"
#include "network/canopennetworkanalyzer.h"
#include "scriptedstore.h"
#include "tools/canopen-analyze/recording.h"

#include <QLoggingCategory>
#include <QtTest>

#include <atomic>
#include <thread>

/// The offline parser: what a run finds, and how it may be started, awaited and destroyed.
class TestParser : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false")); }

    void lines_data();
    void lines();
    void resultsAreEmptyDuringARunAndReplacedAtItsEnd();
    void nothingToParse_data();
    void nothingToParse();
    void destroyedInTheSlotOfFinished_data();
    void destroyedInTheSlotOfFinished();
    void runAgainInTheSlotOfFinished();
    void storeIsFilledMeanwhile();
    void agreesWithTheNetworkAnalysis_data();
    void agreesWithTheNetworkAnalysis();
};

/// How often a parser is destroyed in its slot; a hundred thousand takes seconds, and minutes with a sanitizer.
static int repetitions()
{
    bool ok = false;
    const int wanted = qEnvironmentVariableIntValue("CANOPENANALYSIS_REPETITIONS", &ok);
    return ok ? wanted : 1000;
}

static void append(ScriptedStore &store, unsigned char line, const QByteArray &trace)
{
    for (const CAN::CanRxMessage &message : frames(trace))
        store.append(line, message.mFrame, message.mTimeStamp);
}

/// "node index:subindex number of values", ascending, and what was listed.
static QString describe(SDOParserWorker &parser)
{
    QStringList found;
    const auto result = parser.getResultList();
    for (const SDO::SDOEntry &entry : result)
        found.append(QStringLiteral("%1 %2:%3 x%4")
                         .arg(entry.node)
                         .arg(entry.index, 4, 16)
                         .arg(entry.subindex)
                         .arg(entry.values.size()));
    found.sort();
    for (const unsigned int number : parser.sdoProtocolErrors())
        found.append(QStringLiteral("listed %1").arg(number));
    return found.join(QStringLiteral(", "));
}

void TestParser::lines_data()
{
    QTest::addColumn<int>("line");
    QTest::addColumn<QString>("found");
    // Node 6 is asked on line 1 and answers on line 2: all lines together are one conversation.
    QTest::newRow("all lines, as constructed") << -1 << "5 1000:0 x2, 6 1000:0 x1";
    QTest::newRow("all lines") << 255 << "5 1000:0 x2, 6 1000:0 x1";
    QTest::newRow("line 1") << 1 << "5 1000:0 x1";
    QTest::newRow("line 2") << 2 << "5 1000:0 x1, listed 6";
    QTest::newRow("a line without frames") << 3 << "";
}

void TestParser::lines()
{
    QFETCH(int, line);
    QFETCH(QString, found);
    ScriptedStore store;
    append(store, 1, "605 40 00 10 00\n585 43 00 10 00 2A\n606 40 00 10 00");
    append(store, 2, "605 23 00 10 00 2A\n585 60 00 10 00\n586 43 00 10 00 2A");
    SDOParserWorker parser(nullptr);
    parser.setDatachunkHandler(&store);
    if (line >= 0)
        parser.setNetworkLine(static_cast<unsigned char>(line));
    parser.doWork();
    QCOMPARE(describe(parser), found);
}

void TestParser::resultsAreEmptyDuringARunAndReplacedAtItsEnd()
{
    ScriptedStore store;
    store.appendTrace("605 40 00 10 00\n585 43 00 10 00 2A\n585 60 00 20 00");
    SDOParserWorker parser(nullptr);
    parser.setDatachunkHandler(&store);
    parser.setNodeIdList({99}); // restricts nothing
    QStringList runs;
    connect(
        &parser, &SDOParserWorker::finished, &parser, [&] { runs << describe(parser); }, Qt::DirectConnection);
    parser.doWork();
    parser.doWork(); // from the start again
    store.appendTrace("605 40 00 10 00\n585 43 00 10 00 2B");
    parser.setNetworkLine(0);
    parser.doWork();
    parser.doWork();
    QCOMPARE(runs, (QStringList{"5 1000:0 x1, listed 3", "5 1000:0 x1, listed 3", "5 1000:0 x2, listed 3",
                                "5 1000:0 x2, listed 3"}));
}

void TestParser::nothingToParse_data()
{
    QTest::addColumn<bool>("withStore");
    QTest::addColumn<int>("line");
    QTest::newRow("no store, all lines") << false << 255;
    QTest::newRow("no store, one line") << false << 3;
    QTest::newRow("empty store, all lines") << true << 255;
    QTest::newRow("empty store, one line") << true << 3;
}

void TestParser::nothingToParse()
{
    QFETCH(bool, withStore);
    QFETCH(int, line);
    ScriptedStore store;
    SDOParserWorker parser(nullptr);
    store.appendTrace("585 60 00 20 00");
    parser.setDatachunkHandler(&store);
    parser.doWork();
    QCOMPARE(describe(parser), QStringLiteral("listed 1"));

    store.clear();
    parser.setDatachunkHandler(withStore ? &store : nullptr);
    parser.setNetworkLine(static_cast<unsigned char>(line));
    QList<int> finished;
    connect(&parser, &SDOParserWorker::finished, this, [&](unsigned char parsed) { finished << parsed; });
    parser.startAnalysing(); // finished comes queued, from the thread of the run
    QTRY_COMPARE(finished, QList<int>{line});
    QCOMPARE(describe(parser), QString());
}

void TestParser::destroyedInTheSlotOfFinished_data()
{
    QTest::addColumn<bool>("direct");
    QTest::newRow("queued, in the host's thread") << false;
    QTest::newRow("direct, in the thread of the run") << true;
}

void TestParser::destroyedInTheSlotOfFinished()
{
    QFETCH(bool, direct);
    ScriptedStore store;
    store.appendTrace("605 40 00 10 00\n585 43 00 10 00 2A");
    std::atomic<int> destroyed{0};
    for (int i = 1; i <= repetitions(); ++i) {
        auto *const parser = new SDOParserWorker(nullptr);
        parser->setDatachunkHandler(&store);
        connect(
            parser, &SDOParserWorker::finished, this,
            [&destroyed, parser] {
                delete parser;
                ++destroyed;
            },
            direct ? Qt::DirectConnection : Qt::QueuedConnection);
        parser->startAnalysing();
        while (destroyed < i) {
            QCoreApplication::processEvents();
            std::this_thread::yield();
        }
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); // the thread objects
}

void TestParser::runAgainInTheSlotOfFinished()
{
    ScriptedStore store;
    store.appendTrace("605 40 00 10 00\n585 43 00 10 00 2A");
    SDOParserWorker parser(nullptr);
    parser.setDatachunkHandler(&store);
    int runs = 0;
    connect(
        &parser, &SDOParserWorker::finished, this,
        [&] {
            if (++runs < 3)
                parser.doWork();
        },
        Qt::DirectConnection);
    parser.doWork();
    QCOMPARE(runs, 3);
    QCOMPARE(describe(parser), QStringLiteral("5 1000:0 x1"));
}

void TestParser::storeIsFilledMeanwhile()
{
    ScriptedStore store;
    SDOParserWorker parser(nullptr);
    parser.setDatachunkHandler(&store);
    std::atomic<bool> done{false};
    std::thread appender([&] {
        for (int i = 0; i < 20000; ++i)
            store.appendTrace("605 40 00 10 00\n585 43 00 10 00 2A");
        done = true;
    });
    int runs = 0;
    int values = 0;
    while (!done || values < 20000) {
        int finished = 0;
        parser.setNetworkLine(runs % 2 == 0 ? 255 : 0);
        const auto connection = connect(&parser, &SDOParserWorker::finished, this, [&] { ++finished; });
        parser.startAnalysing();
        QTRY_COMPARE(finished, 1);
        disconnect(connection);
        const int now = parser.getResultList().value(SDO::SDOEntryKey(5, 0x1000, 0)).values.size();
        QVERIFY(now >= values);
        values = now;
        ++runs;
    }
    appender.join();
    QCOMPARE(values, 20000);
    QVERIFY(parser.sdoProtocolErrors().isEmpty());
}

void TestParser::agreesWithTheNetworkAnalysis_data()
{
    QTest::addColumn<QString>("file");
    for (const char *name : {"mixed", "block-transfer", "duplicate-node", "guarding-and-states"})
        QTest::newRow(name) << QStringLiteral(RECORDINGS "/%1.log").arg(QLatin1String(name));
}

void TestParser::agreesWithTheNetworkAnalysis()
{
    QFETCH(QString, file);
    Progress progress;
    Recording recording(progress);
    QCOMPARE(recording.load(file), QString());
    InMemoryDatachunkHandler &store = recording.store();

    InMemoryCANopenNetwork network(0);
    std::atomic<bool> ended{false};
    QList<unsigned int> listed;
    {
        CANopenNetworkAnalyzer analyzer(&network, &store);
        const auto end = [&] {
            analyzer.stop();
            ended = true;
        };
        connect(&store, &InMemoryDatachunkHandler::endOfLineReached, &analyzer, end, Qt::DirectConnection);
        analyzer.setAnalyzing(true);
        QTRY_VERIFY(ended);
        listed = analyzer.protocolErrors();
    }

    SDOParserWorker parser(nullptr);
    parser.setDatachunkHandler(&store);
    parser.setNetworkLine(0);
    parser.doWork();
    const auto parsed = parser.getResultList();
    const auto reported = network.objectValues();
    QVERIFY(!reported.isEmpty());
    QCOMPARE(parsed.size(), reported.size());
    for (const SDO::SDOEntry &entry : parsed) {
        QVector<SDO::SDOEntryValue> values = entry.values.toVector();
        for (SDO::SDOEntryValue &value : values)
            value.reqMsgNumber = 0; // the network analysis is not told it
        QVERIFY(values == reported.value(entry));
    }
    QCOMPARE(parser.sdoProtocolErrors(), listed);
}

QTEST_GUILESS_MAIN(TestParser)
#include "tst_sdoparserworker.moc"
