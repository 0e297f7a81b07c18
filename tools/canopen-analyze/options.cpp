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

bool isOption(const QString &argument)
{
    return argument.size() > 1 && argument.startsWith(QLatin1Char('-'));
}

} // namespace

Options Options::parse(const QStringList &arguments, QString &problem)
{
    Options options;
    QStringList rest = arguments;
    QStringList files;
    while (!rest.isEmpty() && problem.isEmpty()) {
        if (rest.first() == QLatin1String("--")) {
            files += rest.mid(1);
            break;
        }
        if (isOption(rest.first()))
            problem = takeOption(rest, options);
        else
            files += rest.takeFirst();
    }
    if (!problem.isEmpty() || options.help || options.version)
        return options;
    if (files.size() == 1)
        options.fileName = files.first();
    else
        problem = files.isEmpty() ? QStringLiteral("Which recording? Usage: canopen-analyze [OPTIONS] FILE")
                                  : QStringLiteral("One recording at a time: %1 is one too many.").arg(files.at(1));
    return options;
}

const char *Options::helpText()
{
    return R"(canopen-analyze [OPTIONS] FILE

Tells what happened on a CANopen network: how clean the traffic is, which nodes were there, which objects
were read and written, and what went wrong. FILE is a log as `candump -l` writes it; - is standard input
(zcat big.log.gz | canopen-analyze -).

  --line NAME   analyse only the interface NAME, such as can0 (may be given more than once)
  --all         list everything; without it long lists are cut
  --json        print one JSON document with everything
  --version     print the version
  -h, --help    print this help

The exit status is 0, whatever was found, or 2 when there was nothing to analyse.
NO_COLOR=1 in the environment switches colours off.
)";
}
