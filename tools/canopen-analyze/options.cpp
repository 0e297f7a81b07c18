#include "options.h"

namespace {

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
    } else if (option.startsWith(QLatin1String("--line="))) {
        options.lines += option.section(QLatin1Char('='), 1);
    } else if (option == QLatin1String("--line")) {
        if (arguments.isEmpty())
            return QStringLiteral("--line needs the name of an interface, such as can0.");
        options.lines += arguments.takeFirst();
    } else {
        return QStringLiteral("There is no option %1; --help lists what there is.").arg(option);
    }
    return {};
}

QString problemWith(const QStringList &files)
{
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
        problem = problemWith(options.fileNames);
    return options;
}

const char *Options::helpText()
{
    return R"(canopen-analyze [OPTIONS] FILE...

Tells what happened on a CANopen network: how clean the traffic is, which nodes were there, which objects
were read and written, and what went wrong. FILE is a log as `candump -l` writes it; - is standard input
(zcat big.log.gz | canopen-analyze -). Several recordings are reported one after the other.

  --line NAME   analyse only the interface NAME, such as can0 (may be given more than once)
  --offline     the SDO analysis alone: values read and written, and frames that break the SDO protocol. Without
                --line the frames of all interfaces go through one analysis, as if they were one network.
                Several recordings are parsed at the same time
  --all         list everything; without it long lists are cut
  --json        print one JSON document with everything: an object, or for several recordings a list of objects
  --version     print the version
  -h, --help    print this help

The exit status is 0, whatever was found, or 2 when a recording could not be analysed.
NO_COLOR=1 in the environment switches colours off.
)";
}
