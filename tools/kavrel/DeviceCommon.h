#pragma once
// Pieces shared by the kavrel commands that talk to devices.

#include <QString>
#include <QStringList>

#include <functional>

class QCommandLineParser;

namespace kavrelcli {

// Keeps the library's debug lines off the terminal unless KAVREL_DEBUG is set.
void quietLibraryLog();

enum class DeviceLookup
{
    Found,
    NoDevice,
    NoUsbmuxd
};

// The attached devices' udids; how tells whether usbmuxd answered at all.
QStringList attachedUdids(DeviceLookup* how);

// The device a command works on: --udid when given, else the first attached one.
// Prints the one-line reason to stderr and returns an empty string when there is none.
QString chooseUdid(const QCommandLineParser& parser, const QString& command);

// The one-line message for a missing device, prefixed with the command name.
void reportNoDevice(const QString& command, DeviceLookup how);

} // namespace kavrelcli

class DeviceManager;

namespace kavrelcli {

// The device for a command that needs one attached: --udid must name an attached
// device, else the first attached one is taken. Prints the one-line reason and returns
// an empty string when there is none.
QString chooseAttachedUdid(const QCommandLineParser& parser, const QString& command);

// For a command that takes APPID... on one attached device: parses args, then picks the
// device. False (with the exit status in code) when the command is to end here: help,
// a usage error, no APPID, no such device.
bool parseAppIdsOnDevice(QCommandLineParser& parser, const QString& command,
                         const QStringList& args, QStringList* ids, QString* udid, int* code);

// The identifiers among ids that the device does not have installed (an app lookup
// through the installation service). ok is false when the device could not be asked.
QStringList missingApps(const QString& udid, const QStringList& ids, bool* ok);
// Takes the apps the device does not have out of ids, with one error line each, and
// returns them.
QStringList dropMissingApps(const QString& command, const QString& udid, QStringList* ids);

// Runs one batch request of the manager (sizes or icons) to its end. onBatch gets each
// batch's udid and document and returns how many apps it held. On a terminal a count
// of the apps done is kept up to date on standard error. Returns the apps reported.
int runBatches(DeviceManager& manager, bool sizes, const QString& udid, const QStringList& ids,
               const std::function<int(const QString& document)>& onBatch);

} // namespace kavrelcli
