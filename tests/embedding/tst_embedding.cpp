#include "inmemory/inmemorycanopennetwork.h"
#include "inmemory/inmemorydatachunkhandler.h"
#include "network/canopennetworkanalyzer.h"
#include "parser/sdoparserworker.h"
#include "trace.h"

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

} // namespace

/// The code of docs/embedding.md, which the build cuts out of the page: that it does what is said there.
class TestEmbedding : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aRecording();
    void theParser();
};

void TestEmbedding::aRecording()
{
    const std::vector<Frame> file = shortRecording();
#include "embedding-1.inc"
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
#include "embedding-2.inc"
    QTRY_COMPARE(errors, QList<unsigned int>{3});
    QCOMPARE(values.value(SDO::SDOEntryKey(5, 0x1017, 0)).values.value(0).value.toInt(), 1000);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); // the thread object
}

QTEST_GUILESS_MAIN(TestEmbedding)
#include "tst_embedding.moc"
