#ifndef CANOPENANALYZE_OPTIONS_H
#define CANOPENANALYZE_OPTIONS_H

#include <QString>
#include <QStringList>

/// What the user asked for.
struct Options
{
    /// At least one, unless something else than the analysis of recordings was asked for; at most one is standard input
    /// (`-`).
    QStringList fileNames;
    /// Names of the interfaces to analyse; empty: every one.
    QStringList lines;
    bool all = false;
    bool json = false;
    /// The SDO analysis alone.
    bool offline = false;
    /// The source of frames to be analysed as they come in, as PLUGIN:INTERFACE; empty: recordings are analysed.
    QString live;
    /// Asked for instead of an analysis.
    bool help = false;
    bool version = false;

    /// Reads the command line \a arguments (without the program's name). When it makes no sense, \a problem is set to one
    /// sentence that says why, otherwise it stays empty.
    static Options parse(const QStringList &arguments, QString &problem);

    /// What --help prints.
    static const char *helpText();
};

#endif // CANOPENANALYZE_OPTIONS_H
