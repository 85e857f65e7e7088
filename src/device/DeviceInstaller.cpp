#include "DeviceInstaller.h"

#include "OperationInfo.h"

#include <QMutex>
#include <QMutexLocker>

namespace {

// The stored failure line is written on the installer's pool thread and read by the
// manager's thread once the job has finished, so it is guarded.
QMutex gFailureLineLock;
QString gLastFailureLine;

} // namespace

QString DeviceInstaller::lastFailureLine()
{
    QMutexLocker guard(&gFailureLineLock);
    return gLastFailureLine;
}

void DeviceInstaller::storeFailureLine(const QString& line)
{
    QMutexLocker guard(&gFailureLineLock);
    gLastFailureLine = line;
}
