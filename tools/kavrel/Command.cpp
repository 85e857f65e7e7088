#include "Command.h"

#include <cstdio>

namespace kavrelcli {

QList<Command>& commands()
{
    static QList<Command> all;
    return all;
}

CommandRegistrar::CommandRegistrar(const char* name, const char* usage, const char* summary,
                                   CommandFn run)
{
    commands().append(
        {QString::fromUtf8(name), QString::fromUtf8(usage), QString::fromUtf8(summary), run});
}

bool parseCommandLine(QCommandLineParser& parser, const QString& name, const QStringList& args,
                      int& exitCode)
{
    for (const Command& c : commands()) {
        if (c.name == name)
            parser.setApplicationDescription(c.summary);
    }
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("Show this help."));
    parser.addOption(help);
    QStringList words = args;
    words.prepend(QStringLiteral("kavrel ") + name);
    if (!parser.parse(words)) {
        err() << "kavrel " << name << ": " << parser.errorText() << "\n";
        err().flush();
        exitCode = 2;
        return false;
    }
    if (parser.isSet(help)) {
        out() << parser.helpText();
        out().flush();
        exitCode = 0;
        return false;
    }
    return true;
}

QCommandLineOption udidOption()
{
    return QCommandLineOption(QStringLiteral("udid"),
                              QStringLiteral("Device to use (default: the first attached)."),
                              QStringLiteral("U"));
}

QTextStream& out()
{
    static QTextStream s(stdout);
    return s;
}

QTextStream& err()
{
    static QTextStream s(stderr);
    return s;
}

} // namespace kavrelcli
