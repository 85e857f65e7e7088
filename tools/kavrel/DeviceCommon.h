#pragma once
// Pieces shared by the kavrel commands that talk to devices.

#include <QString>
#include <QStringList>

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
