#include "parser/sdoparserworker.h"

#include "scriptedstore.h"
#include "sdo/sdomessagehandler.h"

#include <QLoggingCategory>
#include <QtTest>

#include <atomic>
#include <thread>

/// The offline parser: what a run finds, and how it may be started, awaited and destroyed.
class TestParser : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QLoggingCategory::setFilterRules("default.debug=false"); }

    void runs_data();
    void runs();
    void destroyedInTheSlotOfFinished_data();
    void destroyedInTheSlotOfFinished();
    void storeIsFilledMeanwhile();
    void storeOrHandlerVanishes();
};

/// How often a parser is destroyed in its slot; a hundred thousand takes seconds, and minutes with a sanitizer.
static int repetitions()
{
    bool ok = false;
    const int wanted = qEnvironmentVariableIntValue("CANOPENANALYSIS_REPETITIONS", &ok);
    return ok ? wanted : 1000;
}

/// "node index:subindex number of values", ascending, and what was listed.
static QString describe(SDOParserWorker &parser)
{
    QStringList found;
    const auto result = parser.getResultList();
    for (const SDO::SDOEntry &entry : result)
        found += QString::asprintf("%u %x:%u x%d", entry.node, entry.index, entry.subindex, entry.values.size());
    found.sort();
    for (const unsigned int number : parser.sdoProtocolErrors())
        found += QStringLiteral("listed %1").arg(number);
    return found.join(", ");
}

void TestParser::runs_data()
{
    QTest::addColumn<bool>("withStore");
    QTest::addColumn<int>("line");
    QTest::addColumn<QString>("found");
    // Node 6 is asked on line 1 and answers on line 2: all lines together are one conversation.
    QTest::newRow("all lines, as constructed") << true << -1 << "5 1000:0 x2, 6 1000:0 x1";
    QTest::newRow("all lines") << true << 255 << "5 1000:0 x2, 6 1000:0 x1";
    QTest::newRow("line 1") << true << 1 << "5 1000:0 x1";
    QTest::newRow("line 2") << true << 2 << "5 1000:0 x1, listed 6";
    QTest::newRow("a line without frames") << true << 4 << "";
    QTest::newRow("no store, all lines") << false << 255 << "";
    QTest::newRow("no store, one line") << false << 3 << "";
}

void TestParser::runs()
{
    QFETCH(bool, withStore);
    QFETCH(int, line);
    QFETCH(QString, found);
    SDOParserWorker parser(nullptr);
    parser.setNodeIdList({99}); // restricts nothing
    ScriptedStore before;
    before.appendTrace("585 60 00 20 00");
    parser.setDatachunkHandler(&before);
    parser.doWork();
    QCOMPARE(describe(parser), QString("listed 1"));

    ScriptedStore store;
    store.appendTrace("605 40 00 10 00\n585 43 00 10 00 2A\n606 40 00 10 00", 1, 1);
    store.appendTrace("605 23 00 10 00 2A\n585 60 00 10 00\n586 43 00 10 00 2A", 1, 2);
    parser.setDatachunkHandler(withStore ? &store : nullptr);
    if (line >= 0)
        parser.setNetworkLine(static_cast<unsigned char>(line));
    QStringList runs;
    const auto note = [&] {
        runs += describe(parser);
        if (runs.size() == 1)
            parser.doWork(); // from the start again
    };
    connect(&parser, &SDOParserWorker::finished, &parser, note, Qt::DirectConnection);
    parser.doWork();
    QList<int> lines; // queued, from the thread of the run
    connect(&parser, &SDOParserWorker::finished, this, [&](unsigned char parsed) { lines += parsed; });
    parser.startAnalysing();
    QTRY_COMPARE(lines, QList<int>{line < 0 ? 255 : line});
    QCOMPARE(describe(parser), found); // and with that, that the run is over
    QCOMPARE(runs, (QStringList{found, found, found}));
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
        const auto destroy = [&destroyed, parser] { delete parser, ++destroyed; };
        const auto type = direct ? Qt::DirectConnection : Qt::QueuedConnection;
        connect(parser, &SDOParserWorker::finished, this, destroy, type);
        parser->startAnalysing();
        while (destroyed < i) {
            QCoreApplication::processEvents();
            std::this_thread::yield();
        }
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); // the thread objects
}

void TestParser::storeIsFilledMeanwhile()
{
    ScriptedStore store;
    SDOParserWorker parser(nullptr);
    parser.setDatachunkHandler(&store);
    int finished = 0;
    connect(&parser, &SDOParserWorker::finished, this, [&] { ++finished; });
    std::atomic<bool> done{false};
    std::thread appender([&] {
        store.appendTrace("605 40 00 10 00\n585 43 00 10 00 2A", 20000);
        done = true;
    });
    int values = 0;
    bool isLast = false;
    for (int run = 1; !isLast; ++run) {
        isLast = done;
        parser.setNetworkLine(run % 2 == 0 ? SDOParserWorker::allLines : ScriptedStore::line);
        parser.startAnalysing();
        QTRY_COMPARE(finished, run);
        const int now = parser.getResultList().value(SDO::SDOEntryKey(5, 0x1000, 0)).values.size();
        QVERIFY(now >= values);
        values = now;
    }
    appender.join();
    QCOMPARE(values, 20000);
    QVERIFY(parser.sdoProtocolErrors().isEmpty());
}

void TestParser::storeOrHandlerVanishes()
{
    for (const unsigned char line : {SDOParserWorker::allLines, ScriptedStore::line}) {
        auto store = std::make_unique<ScriptedStore>();
        store->appendTrace("605 40 00 10 00\n585 43 00 10 00 2A", 2);
        SDOParserWorker parser(nullptr);
        parser.setDatachunkHandler(store.get());
        parser.setNetworkLine(line);
        const auto *const handler = parser.findChild<SDOMessageHandler *>();
        connect(handler, &SDOMessageHandler::newValue, handler,
                [&] { store.reset(); }); // clazy:exclude=lambda-in-connect
        parser.doWork();
        QCOMPARE(describe(parser), QString("5 1000:0 x1"));
        delete handler;
        parser.doWork();
        QCOMPARE(describe(parser), QString());
    }
}

QTEST_GUILESS_MAIN(TestParser)
#include "tst_sdoparserworker.moc"
