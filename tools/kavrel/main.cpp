// kavrel: command-line host of the kavrel library.

#include "Command.h"

#include <QGuiApplication>
#include <algorithm>

using namespace kavrelcli;

static void printUsage(QTextStream& s)
{
    s << "Usage: kavrel COMMAND [OPTIONS] [ARGS]\n\n"
      << "Device layer of a desktop assistant for iPhone, iPad and iPod touch.\n\n"
      << "Commands:\n";
    QList<Command> all = commands();
    std::sort(all.begin(), all.end(),
              [](const Command& a, const Command& b) { return a.name < b.name; });
    for (const Command& c : all)
        s << "  " << QString(c.name + " " + c.usage).leftJustified(34) << " " << c.summary << "\n";
    s << "\nRun 'kavrel COMMAND --help' for the options of one command.\n";
    s.flush();
}

// Qt warns once at start-up when XDG_RUNTIME_DIR is unset (a plain shell over ssh, a
// container) and then uses a private default; the warning would be a stray line on
// stderr of every command, so it alone is dropped while the application starts.
static void dropRuntimeDirWarning(QtMsgType type, const QMessageLogContext& context,
                                  const QString& msg)
{
    if (msg.startsWith(QLatin1String("QStandardPaths: XDG_RUNTIME_DIR not set")))
        return;
    qInstallMessageHandler(nullptr);
    qt_message_output(type, context, msg);
    qInstallMessageHandler(dropRuntimeDirWarning);
}

int main(int argc, char** argv)
{
    // Image conversion and icon handling need QtGui, but never a display.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    qInstallMessageHandler(dropRuntimeDirWarning);
    QGuiApplication app(argc, argv);
    qInstallMessageHandler(nullptr);
    QGuiApplication::setApplicationName(QStringLiteral("kavrel"));

    QStringList args = app.arguments().mid(1);
    if (args.isEmpty() || args.first() == QLatin1String("--help") ||
        args.first() == QLatin1String("-h") || args.first() == QLatin1String("help")) {
        printUsage(args.isEmpty() ? err() : out());
        return args.isEmpty() ? 2 : 0;
    }
    const QString name = args.takeFirst();
    for (const Command& c : commands()) {
        if (c.name == name)
            return c.run(args);
    }
    err() << "kavrel: unknown command '" << name << "'\n\n";
    printUsage(err());
    return 2;
}
