#include "DeviceCommon.h"

#include "Command.h"

#include "DeviceManager.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QEventLoop>
#include <QThreadPool>
#include <QTimer>
#include <QtGlobal>

#include <libimobiledevice/installation_proxy.h>
#include <libimobiledevice/libimobiledevice.h>

#include <cstdio>
#include <unistd.h>
#include <vector>

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

bool parseAppIdsOnDevice(QCommandLineParser& parser, const QString& command,
                         const QStringList& args, QStringList* ids, QString* udid, int* code)
{
    parser.addPositionalArgument(QStringLiteral("APPID"), QStringLiteral("Bundle identifiers."),
                                 QStringLiteral("APPID..."));
    if (!parseCommandLine(parser, command, args, *code))
        return false;
    *ids = parser.positionalArguments();
    if (ids->isEmpty()) {
        err() << "kavrel " << command << ": expected at least one APPID (see 'kavrel " << command
              << " --help')\n";
        err().flush();
        *code = 2;
        return false;
    }
    quietLibraryLog();
    *udid = chooseAttachedUdid(parser, command);
    *code = 1;
    return !udid->isEmpty();
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

namespace kavrelcli {

QString chooseAttachedUdid(const QCommandLineParser& parser, const QString& command)
{
    DeviceLookup how = DeviceLookup::NoDevice;
    const QStringList udids = attachedUdids(&how);
    if (udids.isEmpty()) {
        reportNoDevice(command, how);
        return QString();
    }
    if (!parser.isSet(QStringLiteral("udid")))
        return udids.first();
    const QString udid = parser.value(QStringLiteral("udid"));
    if (!udids.contains(udid)) {
        err() << "kavrel " << command << ": no device with udid " << udid << " is attached\n";
        err().flush();
        return QString();
    }
    return udid;
}

QStringList missingApps(const QString& udid, const QStringList& ids, bool* ok)
{
    *ok = false;
    QStringList missing;
    idevice_t device = nullptr;
    lockdownd_client_t lockdown = nullptr;
    instproxy_client_t proxy = nullptr;
    const QByteArray id = udid.toLatin1();
    if (idevice_new(&device, id.constData()) == IDEVICE_E_SUCCESS &&
        lockdownd_client_new_with_handshake(device, &lockdown, "kavrel") == LOCKDOWN_E_SUCCESS &&
        instproxy_client_start_service(device, &proxy, "kavrel") == INSTPROXY_E_SUCCESS) {
        std::vector<QByteArray> names;
        std::vector<const char*> list;
        for (const QString& app : ids)
            names.push_back(app.toUtf8());
        for (const QByteArray& name : names)
            list.push_back(name.constData());
        list.push_back(nullptr);
        plist_t found = nullptr;
        if (instproxy_lookup(proxy, list.data(), nullptr, &found) == INSTPROXY_E_SUCCESS) {
            *ok = true;
            for (const QString& app : ids)
                if (!plist_dict_get_item(found, app.toUtf8().constData()))
                    missing << app;
        }
        plist_free(found);
    }
    if (proxy)
        instproxy_client_free(proxy);
    if (lockdown)
        lockdownd_client_free(lockdown);
    if (device)
        idevice_free(device);
    return missing;
}

QStringList dropMissingApps(const QString& command, const QString& udid, QStringList* ids)
{
    bool asked = false;
    const QStringList missing = missingApps(udid, *ids, &asked);
    for (const QString& app : missing) {
        err() << "kavrel " << command << ": app " << app << " is not installed on " << udid << "\n";
        ids->removeAll(app);
    }
    err().flush();
    return missing;
}

int runBatches(DeviceManager& manager, bool sizes, const QString& udid, const QStringList& ids,
               const std::function<int(const QString& document)>& onBatch)
{
    const bool terminal = isatty(fileno(stderr));
    int done = 0;
    QEventLoop loop;
    const auto batch = [&](const QString&, const QString& document) {
        done += onBatch(document);
        if (terminal) {
            fprintf(stderr, "\r%d/%d apps", done, int(ids.size()));
            fflush(stderr);
        }
        if (done >= ids.size())
            loop.quit();
    };
    QMetaObject::Connection link =
        sizes ? QObject::connect(&manager, &DeviceManager::signalAppSize, &loop, batch)
              : QObject::connect(&manager, &DeviceManager::signalAppIconsReady, &loop, batch);
    // The manager tells the host nothing when a run ends, and a run that cannot reach
    // the device reports nothing at all: the pool going idle ends the wait too.
    QTimer idle;
    QObject::connect(&idle, &QTimer::timeout, &loop, [&] {
        if (QThreadPool::globalInstance()->activeThreadCount() == 0)
            loop.quit();
    });
    idle.start(200);
    if (sizes)
        manager.getAppSizes(udid, ids);
    else
        manager.getAppIcons(udid, ids);
    if (!ids.isEmpty())
        loop.exec();
    QCoreApplication::processEvents();
    QObject::disconnect(link);
    if (terminal && done > 0)
        fprintf(stderr, "\n");
    return done;
}

} // namespace kavrelcli
