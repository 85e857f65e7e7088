#include "DeviceCommon.h"

#include "Command.h"

#include <QCommandLineParser>
#include <QtGlobal>

#include <libimobiledevice/libimobiledevice.h>

namespace kavrelcli {

static void dropDebugLines(QtMsgType type, const QMessageLogContext& context, const QString& msg)
{
    Q_UNUSED(context);
    if (type == QtDebugMsg || type == QtInfoMsg)
        return;
    fprintf(stderr, "%s\n", msg.toLocal8Bit().constData());
}

void quietLibraryLog()
{
    if (qEnvironmentVariableIsEmpty("KAVREL_DEBUG"))
        qInstallMessageHandler(dropDebugLines);
}

QStringList attachedUdids(DeviceLookup* how)
{
    QStringList udids;
    char** list = nullptr;
    int count = 0;
    // An error here means usbmuxd could not be reached; an empty list means it
    // answered but no device is attached.
    if (idevice_get_device_list(&list, &count) != IDEVICE_E_SUCCESS) {
        *how = DeviceLookup::NoUsbmuxd;
        return udids;
    }
    for (int i = 0; list && list[i]; ++i)
        udids << QString::fromLatin1(list[i]);
    idevice_device_list_free(list);
    *how = udids.isEmpty() ? DeviceLookup::NoDevice : DeviceLookup::Found;
    return udids;
}

void reportNoDevice(const QString& command, DeviceLookup how)
{
    err() << "kavrel " << command << ": "
          << (how == DeviceLookup::NoUsbmuxd
                  ? "no device attached (usbmuxd is not running; start one or kavrel-devsim)"
                  : "no device attached")
          << "\n";
    err().flush();
}

QString chooseUdid(const QCommandLineParser& parser, const QString& command)
{
    if (parser.isSet(QStringLiteral("udid")))
        return parser.value(QStringLiteral("udid"));
    DeviceLookup how = DeviceLookup::NoDevice;
    const QStringList udids = attachedUdids(&how);
    if (udids.isEmpty()) {
        reportNoDevice(command, how);
        return QString();
    }
    return udids.first();
}

} // namespace kavrelcli
