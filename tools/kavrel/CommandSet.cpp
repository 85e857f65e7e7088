// kavrel set: writes one text value into a device's global lockdown domain.

#include "Command.h"
#include "DeviceCommon.h"

#include "DeviceManager.h"

#include <QEventLoop>

using namespace kavrelcli;

static int runSet(const QStringList& args)
{
    QCommandLineParser parser;
    parser.addOption(udidOption());
    parser.addPositionalArgument(QStringLiteral("KEY"), QStringLiteral("Lockdown key to write."));
    parser.addPositionalArgument(QStringLiteral("VALUE"), QStringLiteral("Text value to write."));
    int code = 0;
    if (!parseCommandLine(parser, QStringLiteral("set"), args, code))
        return code;
    const QStringList words = parser.positionalArguments();
    if (words.size() != 2) {
        err() << "kavrel set: expected KEY VALUE\n";
        err().flush();
        return 2;
    }
    quietLibraryLog();

    const QString udid = chooseUdid(parser, QStringLiteral("set"));
    if (udid.isEmpty())
        return 1;

    DeviceManager manager;
    bool written = false;
    QEventLoop loop;
    QObject::connect(&manager, &DeviceManager::signalUpdateDevInfo, &loop,
                     [&](const QString&, const QString&, const bool& suc) {
                         written = suc;
                         loop.quit();
                     });
    manager.updateDevInfo(udid, words.at(0), words.at(1));
    loop.exec();

    if (!written) {
        err() << "kavrel set: could not write " << words.at(0) << " on device " << udid << "\n";
        err().flush();
        return 1;
    }
    out() << words.at(0) << " = " << words.at(1) << "\n";
    out().flush();
    return 0;
}

KAVREL_COMMAND("set", "[--udid U] KEY VALUE", "Write a text value into a device's lockdown domain",
               runSet);
