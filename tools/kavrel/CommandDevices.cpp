// kavrel devices: the udids of the attached devices, one per line.

#include "Command.h"
#include "DeviceCommon.h"

#include "DeviceHelper.h"

using namespace kavrelcli;

static int runDevices(const QStringList& args)
{
    QCommandLineParser parser;
    int code = 0;
    if (!parseCommandLine(parser, QStringLiteral("devices"), args, code))
        return code;
    quietLibraryLog();

    // The library's own listing, in the order the device library gives it.
    const QStringList udids = DeviceHelper::getUdids();
    if (udids.isEmpty()) {
        DeviceLookup how = DeviceLookup::NoDevice;
        attachedUdids(&how);
        reportNoDevice(QStringLiteral("devices"),
                       how == DeviceLookup::NoUsbmuxd ? how : DeviceLookup::NoDevice);
        return 1;
    }
    for (const QString& udid : udids)
        out() << udid << "\n";
    out().flush();
    return 0;
}

KAVREL_COMMAND("devices", "", "List the udids of the attached devices", runDevices);
