#include "sdo/sdohelper.h"

#include "trace.h"

#include <QtTest>

#include <functional>

using Accessor = std::function<qint64(const CAN::CanMessage &)>;
Q_DECLARE_METATYPE(Accessor)

/// The fields of SDO frames, against frames written by hand from CiA 301.
class TestSDOHelper : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void field_data();
    void field();
    void expeditedValue_data();
    void expeditedValue();
};

void TestSDOHelper::field_data()
{
    QTest::addColumn<Accessor>("accessor");
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<qint64>("expected");

    const auto row = [](const char *name, Accessor accessor, const char *line, qint64 expected) {
        QTest::newRow(name) << accessor << QByteArray(line) << expected;
    };
    using H = SDOHelper;
    row("index", H::getIndexOfSDOMessage, "605 40 01 02 03", 513);
    row("index, high byte not sign-extended", H::getIndexOfSDOMessage, "605 40 FF FF 03", 65535);
    row("subindex", H::getSubindexOfSDOMessage, "605 40 01 02 FF", 255);
    row("size indicated", H::sizeIndicatedBitOfCanMsg, "605 21 00 20 00 0A", 1);
    row("size not indicated", H::sizeIndicatedBitOfCanMsg, "605 FE", 0);
    row("expedited", H::expeditedBitOfCanMsg, "605 22 00 20 00", 1);
    row("not expedited", H::expeditedBitOfCanMsg, "605 FD", 0);
    row("toggle set", H::toggleBitOfCanMsg, "605 70", 1);
    row("toggle clear", H::toggleBitOfCanMsg, "605 EF", 0);
    row("segment 0B: n = 5", H::segmentedBytesWithoutData, "605 0B 41 42", 5);
    row("segment 0B: c = 1", H::lastSegmentBitOfCanMsg, "605 0B 41 42", 1);
    row("segment 0B: t = 0", H::toggleBitOfCanMsg, "605 0B 41 42", 0);
    row("segment 1D: n = 6", H::segmentedBytesWithoutData, "605 1D 41", 6);
    row("segment 1D: t = 1", H::toggleBitOfCanMsg, "605 1D 41", 1);
    row("segment 10: n = 0", H::segmentedBytesWithoutData, "605 F1", 0);
    row("expedited n = 3", H::expeditedBytesWithoutData, "605 2F", 3);
    row("expedited n = 0", H::expeditedBytesWithoutData, "605 F3", 0);
    row("block download initiate", H::getClientSubcommandDownload, "605 C6", 0);
    row("block download end", H::getClientSubcommandDownload, "605 C1", 1);
    row("block upload end", H::getServerSubCommandBlockUpload, "585 CD", 1);
    row("block upload start", H::getClientSubcommandUpload, "605 A3", 3);
    row("block upload acknowledgement", H::getClientSubcommandUpload, "605 A2", 2);
    row("block download acknowledgement", H::getServerSubCommandBlockDownload, "585 A2", 2);
    row("block download end response", H::getServerSubCommandBlockDownload, "585 A1", 1);
    row("CRC supported, in place", H::getCRCSupport, "605 C4", 4);
    row("no CRC", H::getCRCSupport, "605 FB", 0);
    row("block size indicated, in place", H::getSizeIndication, "605 C6", 2);
    row("block size not indicated", H::getSizeIndication, "605 FD", 0);
    row("end of block, n = 2", H::getBlockUploadUnsetBytes, "605 C9", 2);
    row("end of block, n = 7", H::getBlockUploadUnsetBytes, "605 DD", 7);
    row("ackseq", H::getAckseqOfBlockUploadResponseMsg, "585 A2 7F 20", 127);
    row("blksize of an acknowledgement", H::getBlkSizeOfBlockUploadResponseMsg, "585 A2 7F 20", 32);
    row("blksize of an upload request", H::getBlkSizeOfBlockUploadRequestMsg, "605 A4 00 20 00 7F 00", 127);
    row("blksize of a download response", H::getBlkSizeOfBlockDLResponseMsg, "585 A4 00 20 00 15", 21);
    row("size of a block download", H::getSizeInBytesOfSDOBlockDownload, "605 C6 00 20 00 0C 00 00 80", 0x8000000C);
    row("size of a segmented transfer", H::sizeOfSegmentedTransfer, "605 21 00 20 00 00 01 00 00", 256);
    row("size cut short by the data length", H::sizeOfSegmentedTransfer, "605 21 00 20 00 0A", 10);
    row("size without size bytes", H::sizeOfSegmentedTransfer, "605 21 00 20 00", 0);
    row("largest size", H::sizeOfSegmentedTransfer, "605 21 00 20 00 FF FF FF FF", 4294967295);
}

void TestSDOHelper::field()
{
    QFETCH(Accessor, accessor);
    QFETCH(QByteArray, line);
    QTEST(accessor(frame(line.constData()).mFrame), "expected");
}

void TestSDOHelper::expeditedValue_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<bool>("formed");
    QTest::addColumn<qint64>("expected");

    const auto row = [](const char *name, const char *line, bool formed, qint64 expected) {
        QTest::newRow(name) << QByteArray(line) << formed << expected;
    };
    row("read, 1 byte", "585 4F 00 10 00 2A 11 22 33", true, 42);
    row("read, 2 bytes", "585 4B 00 10 00 07 01 AA BB", true, 263);
    row("read, 3 bytes", "585 47 00 10 00 01 00 80 BB", true, 0x800001);
    row("read, 4 bytes, no sign", "585 43 00 10 00 FF FF FF FF", true, 4294967295);
    row("read, size not indicated: all four", "585 4E 00 10 00 2A 11 22 33", true, 0x3322112A);
    row("write: n is not applied", "605 2F 00 10 00 2A 11 22 33", true, 0x3322112A);
    row("write, short frame", "605 23 00 10 00 2A 01", true, 0x012A);
    row("read, frame shorter than n says", "585 43 00 10 00 2A", true, 42);
    row("no value byte", "585 43 00 10 00", false, 0);
    row("command byte alone", "585 4F", false, 0);
}

void TestSDOHelper::expeditedValue()
{
    QFETCH(QByteArray, line);
    QFETCH(bool, formed);
    for (bool ok : {false, true}) { // set either way, whatever it was before
        QTEST(SDOHelper::getExpeditedRawValue(frame(line.constData()).mFrame, ok), "expected");
        QCOMPARE(ok, formed);
    }
}

QTEST_APPLESS_MAIN(TestSDOHelper)
#include "tst_sdohelper.moc"
