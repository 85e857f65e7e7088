// kavrel install / uninstall / archive: app operations through the library's queue,
// with live progress.

#include "Command.h"
#include "DeviceCommon.h"
#include "OperationRunner.h"

#include "DeviceManager.h"
#include "IpaParser.h"

#include <QDir>
#include <QFileInfo>

using namespace kavrelcli;

namespace {

QCommandLineOption linesOption()
{
    return QCommandLineOption(QStringLiteral("lines"),
                              QStringLiteral("Print the raw progress lines, one per line."));
}

// Parses the common options; the udid, or empty after printing why.
QString prepare(QCommandLineParser& parser, const QString& name, const QStringList& args,
                int minimum, int& code)
{
    code = 0;
    if (!parseCommandLine(parser, name, args, code))
        return QString();
    if (parser.positionalArguments().size() < minimum) {
        err() << "kavrel " << name << ": missing arguments (see --help)\n";
        err().flush();
        code = 2;
        return QString();
    }
    quietLibraryLog();
    const QString udid = chooseUdid(parser, name);
    if (udid.isEmpty())
        code = 1;
    return udid;
}

} // namespace

static int runInstall(const QStringList& args)
{
    QCommandLineParser parser;
    parser.addOption(udidOption());
    parser.addOption(linesOption());
    const QCommandLineOption upgrade(QStringLiteral("upgrade"),
                                     QStringLiteral("Upgrade the installed app."));
    parser.addOption(upgrade);
    parser.addPositionalArgument(QStringLiteral("FILE.ipa"), QStringLiteral("Packages to install."),
                                 QStringLiteral("FILE.ipa..."));
    int code = 0;
    const QString udid = prepare(parser, QStringLiteral("install"), args, 1, code);
    if (udid.isEmpty())
        return code;

    DeviceManager manager;
    OperationRunner runner(manager, QStringLiteral("install"), parser.isSet(linesOption()));
    for (const QString& file : parser.positionalArguments()) {
        const QString path = QFileInfo(file).absoluteFilePath();
        // The bundle id lets the lines of several packages be told apart.
        IpaParser::IpaInfo info;
        IpaParser::parseIpa(path, &info);
        manager.installIpa(udid, path, info.mAppId, parser.isSet(upgrade));
        runner.expect(info.mAppId, file);
    }
    return runner.wait();
}

static int runUninstall(const QStringList& args)
{
    QCommandLineParser parser;
    parser.addOption(udidOption());
    parser.addOption(linesOption());
    parser.addPositionalArgument(QStringLiteral("APPID"), QStringLiteral("Apps to remove."),
                                 QStringLiteral("APPID..."));
    int code = 0;
    const QString udid = prepare(parser, QStringLiteral("uninstall"), args, 1, code);
    if (udid.isEmpty())
        return code;

    DeviceManager manager;
    OperationRunner runner(manager, QStringLiteral("uninstall"), parser.isSet(linesOption()));
    for (const QString& appid : parser.positionalArguments()) {
        manager.uninstallApp(udid, appid);
        runner.expect(appid, appid);
    }
    return runner.wait();
}

static int runArchive(const QStringList& args)
{
    QCommandLineParser parser;
    parser.addOption(udidOption());
    parser.addOption(linesOption());
    const QCommandLineOption appOnly(QStringLiteral("app-only"),
                                     QStringLiteral("Archive the application without its data."));
    const QCommandLineOption keepApp(QStringLiteral("keep-app"),
                                     QStringLiteral("Keep the app installed after archiving."));
    parser.addOption(appOnly);
    parser.addOption(keepApp);
    parser.addPositionalArgument(QStringLiteral("APPID"), QStringLiteral("App to archive."));
    parser.addPositionalArgument(QStringLiteral("DIR"),
                                 QStringLiteral("Folder that receives APPID.ipa."));
    int code = 0;
    const QString udid = prepare(parser, QStringLiteral("archive"), args, 2, code);
    if (udid.isEmpty())
        return code;

    const QString appid = parser.positionalArguments().at(0);
    const QString dir = QDir(parser.positionalArguments().at(1)).absolutePath();
    DeviceManager manager;
    OperationRunner runner(manager, QStringLiteral("archive"), parser.isSet(linesOption()));
    manager.archiveApp(udid, appid, dir, parser.isSet(appOnly), parser.isSet(keepApp));
    runner.expect(appid, appid + " -> " + QDir(dir).filePath(appid + ".ipa"));
    return runner.wait();
}

KAVREL_COMMAND("install", "[--udid U] [--upgrade] [--lines] FILE.ipa...",
               "Install (or upgrade) apps from .ipa files, one after another", runInstall);
KAVREL_COMMAND("uninstall", "[--udid U] [--lines] APPID...", "Remove apps from the device",
               runUninstall);
KAVREL_COMMAND("archive", "[--udid U] [--app-only] [--keep-app] [--lines] APPID DIR",
               "Copy an installed app to DIR/APPID.ipa", runArchive);
