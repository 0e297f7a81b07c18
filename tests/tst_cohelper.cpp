#include "support/cohelper.h"

#include "trace.h"

#include <QtTest>

/// The message class of frames, row by row at the edges of the identifier ranges.
class TestCOHelper : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void messageType_data();
    void messageType();
};

void TestCOHelper::messageType_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("expected");

    const auto row = [](const char *line, const char *expected) {
        QTest::newRow(line) << QByteArray(line) << QString::fromLatin1(expected);
    };
    row("000 01 05", "NMT");
    row("001", "GFC");
    row("002", "UNKNOWN");
    row("070", "UNKNOWN");
    row("071 00", "FLYMA");
    row("076 00", "FLYMA");
    row("077", "UNKNOWN");
    row("07F", "UNKNOWN");
    row("080", "SYNC");
    row("081 00 00 00 00 00 00 00 00", "EMCY");
    row("0FF", "EMCY");
    row("100 00 00 00 00 00 00", "TIME");
    row("101", "SRDO");
    row("180", "SRDO");
    row("181", "PDO");
    row("57F 00", "PDO");
    row("580 60 00 10 00", "SDO_RES");
    row("5FF", "SDO_RES");
    row("600", "SDO_REQ");
    row("67F 40 00 10 00", "SDO_REQ");
    row("680", "UNKNOWN");
    row("691", "Sleep");
    row("6E0", "SDO_DYN_REQ");
    row("6E1", "UNKNOWN");
    row("6FF", "UNKNOWN");
    row("7E4", "LSS_RES");
    row("7E5", "LSS_REQ");
    row("7E6", "UNKNOWN");
    row("7FF", "UNKNOWN");

    row("701 00", "NMT_EC_BOOTUP");
    row("77F 00", "NMT_EC_BOOTUP");
    row("700 00", "NMT_EC");    // no device has node-ID 0, so nothing boots up there
    row("701 80", "NMT_EC");    // node guarding answer of a node in state 0 with the toggle bit
    row("701 00 00", "NMT_EC"); // of the wrong length
    row("701", "NMT_EC");
    row("780 00", "UNKNOWN");

    row("605 80 00 10 00 00 00 02 06", "SDO_REQ abort");
    row("585 80 00 10 00 00 00 02 06", "SDO_RES abort");
    row("585 80", "SDO_RES abort");
    row("585 82 01 02 03 04 05 06 07", "SDO_RES"); // last segment of a block, not an abort
    row("605 81 00 10 00", "SDO_REQ");
    row("605", "SDO_REQ");
    row("705 80 00", "NMT_EC");

    row("180 R8", "UNKNOWN");
    row("181 R8", "PDO");
    row("57F R0", "PDO");
    row("705 R1", "UNKNOWN"); // node guarding request
    row("580 R8", "UNKNOWN");
    row("605 R8", "UNKNOWN");
    row("205 00 01 02 03 04 05 06 07 08 09 0A 0B", "PDO"); // CAN FD
    row("00000585 80 00", "UNKNOWN");
    row("00000181 R8", "UNKNOWN");
    row("00000800", "UNKNOWN");
    row("181 error", "UNKNOWN");
    row("181 error R8", "UNKNOWN");
}

void TestCOHelper::messageType()
{
    QFETCH(QByteArray, line);
    bool isAbort = false;
    QString found = CANopen::messageTypeNames.value(COHelper::getMessageType(frame(line.constData()).mFrame, isAbort));
    if (isAbort)
        found += QStringLiteral(" abort");
    QTEST(found, "expected");

    isAbort = true; // never set to false
    COHelper::getMessageType(frame(line.constData()).mFrame, isAbort);
    QVERIFY(isAbort);
    CAN::CanMessage damaged = frame(line.constData()).mFrame;
    damaged.mIdentifier |= 0x800; // more than 11 bits without the flag of an extended frame
    QCOMPARE(COHelper::getMessageType(damaged, isAbort), CANopen::UNKNOWN);
}

QTEST_APPLESS_MAIN(TestCOHelper)
#include "tst_cohelper.moc"
