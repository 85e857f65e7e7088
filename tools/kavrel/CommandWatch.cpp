// kavrel watch: prints a line for every device attached or detached, until interrupted.

#include "Command.h"
#include "DeviceCommon.h"

#include "DeviceListener.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <unistd.h>

using namespace kavrelcli;

static int gSignalPipe[2] = {-1, -1};

static void onInterrupt(int)
{
    const char byte = 1;
    ssize_t written = write(gSignalPipe[1], &byte, 1);
    (void)written;
}

static int runWatch(const QStringList& args)
{
    QCommandLineParser parser;
    int code = 0;
    if (!parseCommandLine(parser, QStringLiteral("watch"), args, code))
        return code;
    quietLibraryLog();

    DeviceLookup how = DeviceLookup::NoDevice;
    attachedUdids(&how);
    if (how == DeviceLookup::NoUsbmuxd) {
        reportNoDevice(QStringLiteral("watch"), how);
        return 1;
    }

    // Ctrl-C ends the loop, so the listener unsubscribes before the process exits.
    if (pipe(gSignalPipe) != 0)
        return 1;
    QSocketNotifier interrupt(gSignalPipe[0], QSocketNotifier::Read);
    QObject::connect(&interrupt, &QSocketNotifier::activated, qApp, &QCoreApplication::quit);
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);

    DeviceListener listener;
    // The udid text belongs to the device library and lives only during the
    // emission: print it right there, on the event thread.
    QObject::connect(
        &listener, &DeviceListener::DeviceAdded, &listener,
        [](const char* udid) {
            out() << "attached " << udid << "\n";
            out().flush();
        },
        Qt::DirectConnection);
    QObject::connect(
        &listener, &DeviceListener::DeviceRemoved, &listener,
        [](const char* udid) {
            out() << "detached " << udid << "\n";
            out().flush();
        },
        Qt::DirectConnection);
    listener.start();
    const int status = QCoreApplication::exec();
    listener.quit();
    listener.wait();
    return status;
}

KAVREL_COMMAND("watch", "", "Print \"attached UDID\" / \"detached UDID\" lines until interrupted",
               runWatch);
