#include "inmemory/inmemorycanopennetwork.h"
#include "inmemory/inmemorydatachunkhandler.h"
#include "network/canopennetworkanalyzer.h"
#include "parser/sdoparserworker.h"
#include "trace.h"

#include <QFile>
#include <QRegularExpression>
#include <QtTest>

namespace {

struct Frame
{
    CAN::CanMessage message;
    CanTimeStamp time;
};

// A read of 1017:00, and an answer that nobody asked for.
std::vector<Frame> shortRecording()
{
    std::vector<Frame> recorded;
    const auto messages = frames("605 40 17 10 00\n585 4B 17 10 00 E8 03\n585 60 00 20 00");
    for (const CAN::CanRxMessage &msg : messages)
        recorded.push_back({msg.mFrame, msg.mTimeStamp});
    return recorded;
}

// Lines without their indentation: what stands in a function there stands at the margin here.
QString unindented(const QString &text)
{
    return QString(text).replace(QRegularExpression(QStringLiteral("\n *")), QStringLiteral("\n"));
}

QString contentOf(const char *fileName)
{
    QFile file(QString::fromLatin1(fileName));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

} // namespace

/// The code of docs/embedding.md, word for word, and that it does what is said there.
class TestEmbedding : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyBlockOfThePageStandsHere();
    void aRecording();
    void theParser();
};

void TestEmbedding::everyBlockOfThePageStandsHere()
{
    const QString source = unindented(contentOf(EMBEDDING_SOURCE));
    const QString page = contentOf(EMBEDDING_PAGE);
    const QRegularExpression block(QStringLiteral("```cpp(\n.*?\n)```"),
                                   QRegularExpression::DotMatchesEverythingOption);
    int blocks = 0;
    for (auto found = block.globalMatch(page); found.hasNext(); ++blocks) {
        const QString code = found.next().captured(1);
        QVERIFY2(source.contains(unindented(code)), qPrintable(code));
    }
    QCOMPARE(blocks, 2);
}

void TestEmbedding::aRecording()
{
    const std::vector<Frame> file = shortRecording();

    InMemoryDatachunkHandler recording;
    for (const Frame &frame : file) // however the host reads it
        recording.append(0, frame.message, frame.time);

    InMemoryCANopenNetwork network(0); // no QObject parent; outlives the analyzer
    CANopenNetworkAnalyzer analyzer(&network, &recording);
    const auto stop = [&analyzer] { analyzer.stop(); }; // runs in the analysis thread
    QObject::connect(&recording, &InMemoryDatachunkHandler::endOfLineReached, &analyzer, stop, Qt::DirectConnection);
    analyzer.setAnalyzing(true);

    QTRY_COMPARE(analyzer.protocolErrors(), QList<unsigned int>{3});
    QCOMPARE(network.objectValues().size(), 1);
}

void TestEmbedding::theParser()
{
    const std::vector<Frame> file = shortRecording();
    QHash<SDO::SDOEntryKey, SDO::SDOEntry> values;
    QList<unsigned int> errors;
    const auto show = [&](const auto &entries, const auto &numbers) {
        values = entries;
        errors = numbers;
    };

    InMemoryDatachunkHandler recording;
    for (const Frame &frame : file)
        recording.append(0, frame.message, frame.time);

    auto *const parser = new SDOParserWorker(nullptr);
    parser->setDatachunkHandler(&recording);
    parser->setNetworkLine(0); // without it the frames of all lines go through one analysis

    const auto finish = [parser, &show] { // runs in this thread, which processes events
        show(parser->getResultList(), parser->sdoProtocolErrors());
        delete parser;
    };
    QObject::connect(parser, &SDOParserWorker::finished, parser, finish);
    parser->startAnalysing(); // returns at once; parser and recording stay alive until finished

    QTRY_COMPARE(errors, QList<unsigned int>{3});
    QCOMPARE(values.value(SDO::SDOEntryKey(5, 0x1017, 0)).values.value(0).value.toInt(), 1000);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); // the thread object
}

QTEST_GUILESS_MAIN(TestEmbedding)
#include "tst_embedding.moc"
