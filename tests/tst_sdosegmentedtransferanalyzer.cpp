#include "sdo/sdosegmenteddownloadanalyzer.h"
#include "sdo/sdosegmenteduploadanalyzer.h"

#include "trace.h"

#include <QMetaEnum>
#include <QtTest>

using Analyzer = SDOSegmentedTransferAnalyzer;

/// The two state machines of segmented transfers, row by row. Behind "=>" stand the role that the frame is given, what the analyzer
/// answers, of an error its kind (an upload tells none), and the collected data when they are others than before.
class TestSegmentedTransferAnalyzer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void download_data();
    void download();
    void upload_data();
    void upload();
    void withoutAnObject();

private:
    static void follow(Analyzer &&analyzer, const QByteArray &trace);
};

template<typename Enum>
static QString nameOf(Enum value)
{
    return QString::fromLatin1(QMetaEnum::fromType<Enum>().valueToKey(int(value)));
}

void TestSegmentedTransferAnalyzer::follow(Analyzer &&analyzer, const QByteArray &trace)
{
    for (const TraceLine &line : parseTrace(trace)) {
        const QString role = line.expected.section(QLatin1Char(' '), 0, 0);
        const int type = QMetaEnum::fromType<Analyzer::SegMsgType>().keyToValue(qPrintable("SMT_" + role));
        const QByteArray before = analyzer.transferData();
        const Analyzer::Result result = analyzer.handleNewMessage(Analyzer::SegMsgType(type), line.message);
        QString found = role + QLatin1Char(' ') + nameOf(result);
        if (result == Analyzer::Result::Error)
            found += QLatin1Char(' ') + nameOf(analyzer.lastError()).mid(3);
        if (analyzer.transferData() != before)
            found += QLatin1Char(' ') + QString::fromLatin1(analyzer.transferData());
        QVERIFY2(found == line.expected, qPrintable(line.text + QStringLiteral("\n  found: ") + found));
    }
    for (const int unknown : {-1, 4})
        QCOMPARE(analyzer.handleNewMessage(Analyzer::SegMsgType(unknown), {}), Analyzer::Result::Error);
}

void TestSegmentedTransferAnalyzer::download_data()
{
    QTest::addColumn<QByteArray>("trace");

    const QByteArray open = R"(
        605  21 00 20 01 0A 00 00 00 => InitRequest Running
        585  60 00 20 01 00 00 00 00 => InitResponse Running
        )";
    const QByteArray firstSegment = R"(
        605  00 41 42 43 44 45 46 47 => SegReq Running ABCDEFG
        585  20 00 00 00 00 00 00 00 => SegRes Running
        )";
    QTest::newRow("one byte less than announced") << open + firstSegment + R"(
        605  1B 48 49 00 00 00 00 00 => SegReq Running ABCDEFGHI
        585  30 00 00 00 00 00 00 00 => SegRes Error SizeError)";
    QTest::newRow("size 0 announced and kept") << QByteArray(R"(
        605  21 00 20 01 00 00 00 00 => InitRequest Running
        585  60 00 20 01 00 00 00 00 => InitResponse Running
        605  0F 00 00 00 00 00 00 00 => SegReq Running
        585  20 00 00 00 00 00 00 00 => SegRes Error SizeError)");
    QTest::newRow("wrong toggles are refused and forgotten") << open + R"(
        605  10 58 58 58 58 58 58 58 => SegReq Error ToggleBitError
        605  00 41 42 43 44 45 46 47 => SegReq Running ABCDEFG
        585  30 00 00 00 00 00 00 00 => SegRes Error ToggleBitError
        585  20 00 00 00 00 00 00 00 => SegRes Running
        605  00 58 58 58 58 58 58 58 => SegReq Error ToggleBitError
        605  19 48 49 4A 00 00 00 00 => SegReq Running ABCDEFGHIJ
        585  30 00 00 00 00 00 00 00 => SegRes Finished)";
    QTest::newRow("frames out of turn, a response about another object") << QByteArray(R"(
        605  21 00 20 01 0A 00 00 00 => InitRequest Running
        605  00 41 42 43 44 45 46 47 => SegReq Error Undefined
        585  20 00 00 00 00 00 00 00 => SegRes Error Undefined
        585  60 00 20 02 00 00 00 00 => InitResponse Error ObjectMismatch
        585  60 01 20 01 00 00 00 00 => InitResponse Error ObjectMismatch
        585  60 00 20 01 00 00 00 00 => InitResponse Running
        585  60 00 20 01 00 00 00 00 => InitResponse Error FaultyState
        585  20 00 00 00 00 00 00 00 => SegRes Error Undefined
        605  00 41 42 43 44 45 46 47 => SegReq Running ABCDEFG
        605  10 58 58 58 58 58 58 58 => SegReq Error Undefined
        585  60 00 20 01 00 00 00 00 => InitResponse Error FaultyState)");
    QTest::newRow("initiate request again: the size is taken over, the state stays") << open + firstSegment + R"(
        605  21 00 20 01 08 00 00 00 => InitRequest Running
        605  1D 48 00 00 00 00 00 00 => SegReq Running ABCDEFGH
        585  30 00 00 00 00 00 00 00 => SegRes Finished)";
    QTest::newRow("segment cut short by the data length") << open + R"(
        605  00 41 42 43             => SegReq Running ABC
        585  20                      => SegRes Running)";
}

void TestSegmentedTransferAnalyzer::download()
{
    QFETCH(QByteArray, trace);
    follow(SDOSegmentedDownloadAnalyzer(5, 0x2000, 1, 0.0), trace);
}

void TestSegmentedTransferAnalyzer::upload_data()
{
    QTest::addColumn<QByteArray>("trace");
    QTest::newRow("wrong toggles are refused and forgotten; ends with the c bit, however many bytes were announced")
        << QByteArray(R"(
        585  41 00 20 01 64 00 00 00 => InitResponse Running
        605  70 00 00 00 00 00 00 00 => SegReq Error None
        605  60 00 00 00 00 00 00 00 => SegReq Running
        585  19 58 58 58 00 00 00 00 => SegRes Error None
        585  00 41 42 43 44 45 46 47 => SegRes Running ABCDEFG
        605  60 00 00 00 00 00 00 00 => SegReq Error None
        605  70 00 00 00 00 00 00 00 => SegReq Running
        585  1B 48 49 00 00 00 00 00 => SegRes Finished ABCDEFGHI)");
    QTest::newRow("frames out of turn") << QByteArray(R"(
        605  60 00 00 00 00 00 00 00 => SegReq Error None
        585  09 41 42 43 00 00 00 00 => SegRes Error None
        605  40 00 20 01 00 00 00 00 => InitRequest Error None
        585  40 00 20 01 00 00 00 00 => InitResponse Running
        585  40 00 20 01 00 00 00 00 => InitResponse Error None
        585  09 41 42 43 00 00 00 00 => SegRes Error None
        605  60 00 00 00 00 00 00 00 => SegReq Running
        605  70 00 00 00 00 00 00 00 => SegReq Error None
        605  40 00 20 01 00 00 00 00 => InitRequest Error None
        585  41 00 20 01 00 00 00 00 => InitResponse Error None
        585  09 41 42 43 00 00 00 00 => SegRes Finished ABC)");
}

void TestSegmentedTransferAnalyzer::upload()
{
    QFETCH(QByteArray, trace);
    follow(SDOSegmentedUploadAnalyzer(5, 0x2000, 1, 0.0), trace);
}

void TestSegmentedTransferAnalyzer::withoutAnObject()
{
    follow(SDOSegmentedDownloadAnalyzer(), R"(
        585  60 00 00 00    => InitResponse Error FaultyState
        605  00 41          => SegReq Error Undefined
        585  20             => SegRes Error Undefined
        605  21 00 20 01 0A => InitRequest Running)");
    follow(SDOSegmentedUploadAnalyzer(), R"(
        605  40 00 00 00    => InitRequest Error None
        585  41 00 00 00    => InitResponse Error None
        605  60             => SegReq Error None
        585  09 41          => SegRes Error None)");
}

QTEST_APPLESS_MAIN(TestSegmentedTransferAnalyzer)
#include "tst_sdosegmentedtransferanalyzer.moc"
