#include <QCanBus>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryFile>
#include <QtTest>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

// The program on a live source. Standard error is a terminal: there it shows how things are.
class Live
{
public:
    explicit Live(const QString &source) : mTerminal(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK))
    {
        grantpt(mTerminal);
        unlockpt(mTerminal);
        process.setStandardErrorFile(QString::fromLocal8Bit(ptsname(mTerminal)));
        process.start(CANOPEN_ANALYZE, {"--json", "--live", source});
    }
    ~Live()
    {
        process.kill();
        process.waitForFinished();
        close(mTerminal);
    }
    // Whether the text has stood there so far.
    bool hasShown(const QByteArray &text)
    {
        char block[4096];
        for (ssize_t size = 0; (size = read(mTerminal, block, sizeof block)) > 0;)
            mShown.append(block, int(size));
        return mShown.contains(text);
    }
    bool isOver() const { return process.state() == QProcess::NotRunning; }
    QJsonValue line() { return QJsonDocument::fromJson(process.readAllStandardOutput())["interfaces"][0]; }

    QProcess process;

private:
    const int mTerminal;
    QByteArray mShown;
};

// What depends on when the frames came, and who says so, is left out.
QJsonValue timeless(const QJsonValue &value)
{
    if (value.isArray()) {
        QJsonArray list;
        for (const QJsonValue entry : value.toArray())
            list += timeless(entry);
        return list;
    }
    if (!value.isObject())
        return value;
    QJsonObject object = value.toObject();
    for (const QString &key : object.keys())
        object[key] = timeless(object[key]);
    for (const char *key : {"interface", "duration", "time", "answerMs"})
        object.remove(key);
    return object;
}

QJsonValue reportOn(const QString &log)
{
    QProcess process;
    process.start(CANOPEN_ANALYZE, {"--json", log});
    process.waitForFinished();
    return QJsonDocument::fromJson(process.readAllStandardOutput())["interfaces"][0];
}

// An interface of the plug-in virtualcan at a port that nobody else uses: whoever opens it first serves the others.
QString freeInterface()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost);
    return QStringLiteral("tcp://127.0.0.1:%1/can0").arg(server.serverPort());
}

bool send(const QString &interface, const QString &log)
{
    return QProcess::execute(CANSENDER, {interface, log}) == 0;
}

} // namespace

/// canopen-analyze --live, with another process that sends.
class TestCanopenAnalyzeLive : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void sameAsTheRecording_data();
    void sameAsTheRecording();
    void lostConnection();
    void refusals_data();
    void refusals();
};

void TestCanopenAnalyzeLive::initTestCase()
{
    if (!QCanBus::instance()->plugins().contains("virtualcan"))
        QSKIP("there is no plug-in virtualcan");
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    const bool hasTerminals = terminal >= 0 && QFile::exists(QString::fromLocal8Bit(ptsname(terminal)));
    close(terminal);
    if (!hasTerminals)
        QSKIP("there are no pseudo-terminals");
}

void TestCanopenAnalyzeLive::sameAsTheRecording_data()
{
    QTest::addColumn<QByteArray>("log"); // or the name of a recording
    QTest::addColumn<int>("endedBy");
    QTest::newRow("Ctrl-C behind mixed traffic") << QByteArray(RECORDINGS "/mixed.log") << SIGINT;
    QTest::newRow("SIGTERM behind block transfers") << QByteArray(RECORDINGS "/block-transfer.log") << SIGTERM;
    // (The plug-in makes data frames of error frames.)
    QTest::newRow("frames of every format") << QByteArray("(1.0) can0 605#4017100000000000\n"
                                                          "(1.1) can0 00000605#4017100000000000\n"
                                                          "(1.2) can0 605#R8\n"
                                                          "(1.4) can0 705##1000102030405060708090A0B\n"
                                                          "(1.5) can0 585#4B171000E8030000\n")
                                            << SIGINT;
}

void TestCanopenAnalyzeLive::sameAsTheRecording()
{
    QFETCH(QByteArray, log);
    QFETCH(int, endedBy);
    QTemporaryFile file;
    QVERIFY(file.open());
    const bool isText = log.startsWith('(');
    QVERIFY(!isText || (file.write(log) == log.size() && file.flush()));
    const QString fileName = isText ? file.fileName() : QString::fromLocal8Bit(log);
    const QJsonValue expected = timeless(reportOn(fileName));
    const int frames = expected["frames"].toInt();
    QVERIFY(frames > 0);

    const QString interface = freeInterface();
    Live live("virtualcan:" + interface);
    QTRY_VERIFY_WITH_TIMEOUT(live.hasShown(": 0 frames"), 20000);
    QVERIFY(send(interface, fileName));
    QTRY_VERIFY_WITH_TIMEOUT(live.hasShown(": " + QByteArray::number(frames) + " frames"), 20000);
    kill(pid_t(live.process.processId()), endedBy);
    QTRY_VERIFY_WITH_TIMEOUT(live.isOver(), 20000);
    QCOMPARE(live.process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(live.process.exitCode(), 0);
    QCOMPARE(timeless(live.line()), expected);
}

// What came before is reported all the same.
void TestCanopenAnalyzeLive::lostConnection()
{
    const QString interface = freeInterface();
    Live server("virtualcan:" + interface);
    QTRY_VERIFY_WITH_TIMEOUT(server.hasShown(": 0 frames"), 20000);
    Live live("virtualcan:" + interface);
    QTRY_VERIFY_WITH_TIMEOUT(live.hasShown(": 0 frames"), 20000);
    QVERIFY(send(interface, RECORDINGS "/mixed.log"));
    QTRY_VERIFY_WITH_TIMEOUT(live.hasShown(": 2277 frames"), 20000);
    server.process.kill();
    QTRY_VERIFY_WITH_TIMEOUT(live.isOver(), 20000);
    QCOMPARE(live.process.exitCode(), 2);
    QCOMPARE(live.line()["frames"].toInt(), 2277);
    QVERIFY(live.hasShown("Cannot receive from virtualcan:" + interface.toUtf8() + ": "));
}

void TestCanopenAnalyzeLive::refusals_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QByteArray>("sentence");
    QTest::newRow("unknown plug-in") << "nocan:can0"
                                     << QByteArray(
                                            "Cannot receive from nocan:can0: there is no CAN bus plug-in nocan, only ");
    QTest::newRow("nobody there")
        << "virtualcan:tcp://localhost:1/can0"
        << QByteArray("Cannot receive from virtualcan:tcp://localhost:1/can0: nobody answers there.");
}

void TestCanopenAnalyzeLive::refusals()
{
    QFETCH(QString, source);
    QFETCH(QByteArray, sentence);
    Live live(source);
    QTRY_VERIFY_WITH_TIMEOUT(live.isOver(), 20000);
    QCOMPARE(live.process.exitCode(), 2);
    QVERIFY(live.hasShown("canopen-analyze: " + sentence));
    QCOMPARE(live.process.readAllStandardOutput(), QByteArray());
}

QTEST_GUILESS_MAIN(TestCanopenAnalyzeLive)
#include "tst_canopenanalyze_live.moc"
