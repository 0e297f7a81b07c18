#include "sdo/sdosegmenteddownloadanalyzer.h"
#include "sdo/sdosegmenteduploadanalyzer.h"

#include "trace.h"

#include <QMetaEnum>
#include <QtTest>

using Analyzer = SDOSegmentedTransferAnalyzer;

/// The two state machines of segmented transfers, row by row. Behind "=>" stand the role that the frame is given and what the
/// analyzer answers; of a download also why it refused.
class TestSegmentedTransferAnalyzer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void download_data();
    void download();
    void upload_data();
    void upload();

private:
    static QString follow(Analyzer &analyzer, const QByteArray &trace, bool withError);
};

template<typename Enum>
static QString nameOf(Enum value, int prefixLength)
{
    return QString::fromLatin1(QMetaEnum::fromType<Enum>().valueToKey(int(value))).mid(prefixLength);
}

QString TestSegmentedTransferAnalyzer::follow(Analyzer &analyzer, const QByteArray &trace, bool withError)
{
    for (const TraceLine &line : parseTrace(trace)) {
        const QByteArray role = "SMT_" + line.expected.section(QLatin1Char(' '), 0, 0).toLatin1();
        const int type = QMetaEnum::fromType<Analyzer::SegMsgType>().keyToValue(role.constData());
        const QByteArray before = analyzer.transferData();
        const Analyzer::Result result = analyzer.handleNewMessage(Analyzer::SegMsgType(type), line.message);
        QString found = role.mid(4) + QLatin1Char(' ') + nameOf(result, 0);
        if (withError && result == Analyzer::Result::Error)
            found += QLatin1Char(' ') + nameOf(analyzer.lastError(), 3);
        if (found != line.expected)
            return line.text + QStringLiteral("\n  found: ") + found;
        if (result == Analyzer::Result::Error && analyzer.transferData() != before)
            return line.text + QStringLiteral("\n  a refused frame left data behind");
    }
    return QString();
}

static const QByteArray openDownload = R"(
    605  21 00 20 01 0A 00 00 00 => InitRequest Running
    585  60 00 20 01 00 00 00 00 => InitResponse Running
    )";

void TestSegmentedTransferAnalyzer::download_data()
{
    QTest::addColumn<QByteArray>("trace");
    QTest::addColumn<QByteArray>("data");

    const QByteArray firstSegment = R"(
        605  00 41 42 43 44 45 46 47 => SegReq Running
        585  20 00 00 00 00 00 00 00 => SegRes Running
        )";
    QTest::newRow("10 bytes in two segments") << openDownload + firstSegment + QByteArray(R"(
        605  19 48 49 4A 00 00 00 00 => SegReq Running
        585  30 00 00 00 00 00 00 00 => SegRes Finished)")
                                              << QByteArray("ABCDEFGHIJ");
    QTest::newRow("one byte less than announced") << openDownload + firstSegment + QByteArray(R"(
        605  1B 48 49 00 00 00 00 00 => SegReq Running
        585  30 00 00 00 00 00 00 00 => SegRes Error SizeError)")
                                                  << QByteArray("ABCDEFGHI");
    QTest::newRow("size 0 announced and kept") << QByteArray(R"(
        605  21 00 20 01 00 00 00 00 => InitRequest Running
        585  60 00 20 01 00 00 00 00 => InitResponse Running
        605  0F 00 00 00 00 00 00 00 => SegReq Running
        585  20 00 00 00 00 00 00 00 => SegRes Error SizeError)")
                                               << QByteArray();
    QTest::newRow("wrong toggles are refused and forgotten") << openDownload + QByteArray(R"(
        605  10 58 58 58 58 58 58 58 => SegReq Error ToggleBitError
        605  00 41 42 43 44 45 46 47 => SegReq Running
        585  30 00 00 00 00 00 00 00 => SegRes Error ToggleBitError
        585  20 00 00 00 00 00 00 00 => SegRes Running
        605  00 58 58 58 58 58 58 58 => SegReq Error ToggleBitError
        605  19 48 49 4A 00 00 00 00 => SegReq Running
        585  30 00 00 00 00 00 00 00 => SegRes Finished)") << QByteArray("ABCDEFGHIJ");
    QTest::newRow("response about another object") << QByteArray(R"(
        605  21 00 20 01 0A 00 00 00 => InitRequest Running
        585  60 00 20 02 00 00 00 00 => InitResponse Error ObjectMismatch
        585  60 01 20 01 00 00 00 00 => InitResponse Error ObjectMismatch
        585  60 00 20 01 00 00 00 00 => InitResponse Running)")
                                                   << QByteArray();
    QTest::newRow("second initiate response") << openDownload + QByteArray(R"(
        585  60 00 20 01 00 00 00 00 => InitResponse Error FaultyState
        605  00 41 42 43 44 45 46 47 => SegReq Running
        585  60 00 20 01 00 00 00 00 => InitResponse Error FaultyState)")
                                              << QByteArray("ABCDEFG");
    QTest::newRow("segments before the initiate response") << QByteArray(R"(
        605  21 00 20 01 0A 00 00 00 => InitRequest Running
        605  00 41 42 43 44 45 46 47 => SegReq Error Undefined
        585  20 00 00 00 00 00 00 00 => SegRes Error Undefined)")
                                                           << QByteArray();
    QTest::newRow("segment response while a request is awaited, and the other way round") << openDownload
                                                                                                 + QByteArray(R"(
        585  20 00 00 00 00 00 00 00 => SegRes Error Undefined
        605  00 41 42 43 44 45 46 47 => SegReq Running
        605  10 58 58 58 58 58 58 58 => SegReq Error Undefined)") << QByteArray("ABCDEFG");
    QTest::newRow("initiate request again: the size is taken over, the state stays") << openDownload + firstSegment
                                                                                            + QByteArray(R"(
        605  21 00 20 01 08 00 00 00 => InitRequest Running
        605  1D 48 00 00 00 00 00 00 => SegReq Running
        585  30 00 00 00 00 00 00 00 => SegRes Finished)") << QByteArray("ABCDEFGH");
    QTest::newRow("segment cut short by the data length") << openDownload + QByteArray(R"(
        605  00 41 42 43             => SegReq Running
        585  20                      => SegRes Running)") << QByteArray("ABC");
}

void TestSegmentedTransferAnalyzer::download()
{
    QFETCH(QByteArray, trace);
    SDOSegmentedDownloadAnalyzer analyzer(5, 0x2000, 1, 0.0);
    QCOMPARE(follow(analyzer, trace, true), QString());
    QTEST(analyzer.transferData(), "data");
    QCOMPARE(analyzer.handleNewMessage(Analyzer::SegMsgType(4), CAN::CanRxMessage()), Analyzer::Result::Error);

    SDOSegmentedDownloadAnalyzer withoutObject;
    QCOMPARE(follow(withoutObject, R"(
        585  60 00 00 00             => InitResponse Error FaultyState
        605  00 41                   => SegReq Error Undefined
        585  20                      => SegRes Error Undefined
        605  21 00 20 01 0A          => InitRequest Running)",
                    true),
             QString());
}

void TestSegmentedTransferAnalyzer::upload_data()
{
    QTest::addColumn<QByteArray>("trace");
    QTest::addColumn<QByteArray>("data");

    const QByteArray open = "585  41 00 20 01 64 00 00 00 => InitResponse Running\n";
    QTest::newRow("ends with the c bit, however many bytes were announced") << open + QByteArray(R"(
        605  60 00 00 00 00 00 00 00 => SegReq Running
        585  09 41 42 43 00 00 00 00 => SegRes Finished)") << QByteArray("ABC");
    QTest::newRow("wrong toggles are refused and forgotten") << open + QByteArray(R"(
        605  70 00 00 00 00 00 00 00 => SegReq Error
        605  60 00 00 00 00 00 00 00 => SegReq Running
        585  19 58 58 58 00 00 00 00 => SegRes Error
        585  00 41 42 43 44 45 46 47 => SegRes Running
        605  60 00 00 00 00 00 00 00 => SegReq Error
        605  70 00 00 00 00 00 00 00 => SegReq Running
        585  1B 48 49 00 00 00 00 00 => SegRes Finished)") << QByteArray("ABCDEFGHI");
    QTest::newRow("frames out of turn") << QByteArray(R"(
        605  60 00 00 00 00 00 00 00 => SegReq Error
        585  09 41 42 43 00 00 00 00 => SegRes Error
        605  40 00 20 01 00 00 00 00 => InitRequest Error
        585  40 00 20 01 00 00 00 00 => InitResponse Running
        585  40 00 20 01 00 00 00 00 => InitResponse Error
        585  09 41 42 43 00 00 00 00 => SegRes Error
        605  60 00 00 00 00 00 00 00 => SegReq Running
        605  70 00 00 00 00 00 00 00 => SegReq Error
        605  40 00 20 01 00 00 00 00 => InitRequest Error
        585  41 00 20 01 00 00 00 00 => InitResponse Error
        585  09 41 42 43 00 00 00 00 => SegRes Finished)")
                                        << QByteArray("ABC");
}

void TestSegmentedTransferAnalyzer::upload()
{
    QFETCH(QByteArray, trace);
    SDOSegmentedUploadAnalyzer analyzer(5, 0x2000, 1, 0.0);
    QCOMPARE(follow(analyzer, trace, false), QString());
    QTEST(analyzer.transferData(), "data");
    QCOMPARE(analyzer.handleNewMessage(Analyzer::SegMsgType(-1), CAN::CanRxMessage()), Analyzer::Result::Error);
    QCOMPARE(analyzer.lastError(), Analyzer::ErrorType::ET_None);

    SDOSegmentedUploadAnalyzer withoutObject;
    QCOMPARE(follow(withoutObject, R"(
        605  40 00 00 00             => InitRequest Error
        585  41 00 00 00             => InitResponse Error
        605  60                      => SegReq Error
        585  09 41                   => SegRes Error)",
                    false),
             QString());
}

QTEST_APPLESS_MAIN(TestSegmentedTransferAnalyzer)
#include "tst_sdosegmentedtransferanalyzer.moc"
