#include "sdo/sdohelper.h"

#include "trace.h"

#include <QtTest>

/// Expedited values of SDO frames, against frames written by hand from CiA 301. The other fields show in the tests of those who read
/// them: handler and transfer analyzers.
class TestSDOHelper : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void expeditedValue_data();
    void expeditedValue();
    void sizeIndicationOfABlockIsInPlace();
};

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
    row("read, 4 bytes, bit 4 is none of n's", "585 53 00 10 00 2A 00 00 00", true, 42);
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

void TestSDOHelper::sizeIndicationOfABlockIsInPlace()
{
    QCOMPARE(SDOHelper::getSizeIndication(frame("605 C6").mFrame), quint8(2));
    QCOMPARE(SDOHelper::getSizeIndication(frame("605 FD").mFrame), quint8(0));
}

QTEST_APPLESS_MAIN(TestSDOHelper)
#include "tst_sdohelper.moc"
