#ifndef CANOPENANALYSIS_TESTS_ANALYZERUN_H
#define CANOPENANALYSIS_TESTS_ANALYZERUN_H

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

/// What canopen-analyze says; a status of -1 when it crashed or did not end.
struct Run
{
    int status = -1;
    QString out;
    QString err;

    QJsonDocument json() const { return QJsonDocument::fromJson(out.toUtf8()); }
    QJsonArray lines() const { return json()["interfaces"].toArray(); }
};

/// Runs the program with the arguments, in the folder of the recordings or another, and feeds it the input.
inline Run analyze(const QStringList &arguments, const QByteArray &input = {},
                   const QString &folder = QStringLiteral(RECORDINGS))
{
    QProcess process;
    process.setWorkingDirectory(folder);
    process.start(QStringLiteral(CANOPEN_ANALYZE), arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished() || process.exitStatus() != QProcess::NormalExit)
        return {};
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

#endif // CANOPENANALYSIS_TESTS_ANALYZERUN_H
