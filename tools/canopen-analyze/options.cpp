#include "options.h"

namespace {

// The option's value stands behind = or is the next argument. Returns a problem, or an empty text.
QString takeOptionWithValue(const QString &option, QStringList &arguments, Options &options)
{
    const QString name = option.section(QLatin1Char('='), 0, 0);
    const bool isLine = name == QLatin1String("--line");
    if (!isLine && name != QLatin1String("--live"))
        return QStringLiteral("There is no option %1; --help lists what there is.").arg(option);
    const QString value = option != name        ? option.section(QLatin1Char('='), 1)
                          : arguments.isEmpty() ? QString()
                                                : arguments.takeFirst();
    if (isLine) {
        options.lines += value;
        return value.isEmpty() ? QStringLiteral("--line needs the name of an interface, such as can0.") : QString();
    }
    const int colon = value.indexOf(QLatin1Char(':'));
    if (colon < 1 || colon == value.size() - 1)
        return QStringLiteral("--live needs a plug-in and an interface, such as socketcan:can0.");
    if (!options.live.isEmpty())
        return QStringLiteral("--live can be given only once.");
    options.live = value;
    return {};
}

// Takes the option at the head of the arguments. Returns a problem, or an empty text.
QString takeOption(QStringList &arguments, Options &options)
{
    const QString option = arguments.takeFirst();
    if (option == QLatin1String("--all")) {
        options.all = true;
    } else if (option == QLatin1String("--json")) {
        options.json = true;
    } else if (option == QLatin1String("--offline")) {
        options.offline = true;
    } else if (option == QLatin1String("--help") || option == QLatin1String("-h")) {
        options.help = true;
    } else if (option == QLatin1String("--version")) {
        options.version = true;
    } else {
        return takeOptionWithValue(option, arguments, options);
    }
    return {};
}

QString problemWith(const Options &options)
{
    const QStringList &files = options.fileNames;
    if (!options.live.isEmpty()) {
        const bool isAlone = files.isEmpty() && options.lines.isEmpty() && !options.offline;
        return isAlone ? QString() : QStringLiteral("--live goes without a recording, --line and --offline.");
    }
    if (files.isEmpty())
        return QStringLiteral("Which recording? Usage: canopen-analyze [OPTIONS] FILE...");
    if (files.count(QStringLiteral("-")) > 1)
        return QStringLiteral("Standard input can be read only once.");
    return {};
}

bool isOption(const QString &argument)
{
    return argument.size() > 1 && argument.startsWith(QLatin1Char('-'));
}

} // namespace

Options Options::parse(const QStringList &arguments, QString &problem)
{
    Options options;
    QStringList rest = arguments;
    while (!rest.isEmpty() && problem.isEmpty()) {
        if (rest.first() == QLatin1String("--")) {
            options.fileNames += rest.mid(1);
            break;
        }
        if (isOption(rest.first()))
            problem = takeOption(rest, options);
        else
            options.fileNames += rest.takeFirst();
    }
    if (problem.isEmpty() && !options.help && !options.version)
        problem = problemWith(options);
    return options;
}

const char *Options::helpText()
{
    return R"(canopen-analyze [OPTIONS] FILE...
canopen-analyze [OPTIONS] --live PLUGIN:INTERFACE

Tells what happened on a CANopen network: how clean the traffic is, which nodes were there, which objects
were read and written, and what went wrong. FILE is a log as `candump -l` writes it, or a capture (pcap,
pcapng) of CAN frames; - is standard input (zcat big.log.gz | canopen-analyze -). Several recordings are
reported one after the other.

  --line NAME   analyse only the interface NAME, such as can0 (may be given more than once)
  --live PLUGIN:INTERFACE
                analyse frames as they come in, such as socketcan:can0, until Ctrl-C (or SIGTERM); a second
                Ctrl-C ends at once. PLUGIN is one of Qt's CAN bus module
  --offline     the SDO analysis alone: values read and written, and frames that break the SDO protocol. Without
                --line the frames of all interfaces go through one analysis, as if they were one network.
                Several recordings are parsed at the same time
  --all         list everything; without it long lists are cut
  --json        print one JSON document with everything: an object, or for several recordings a list of objects
  --version     print the version
  -h, --help    print this help

The exit status is 0, whatever was found, or 2 when a recording or a live source could not
be analysed.
NO_COLOR=1 in the environment switches colours off.
)";
}
