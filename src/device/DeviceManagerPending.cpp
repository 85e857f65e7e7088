#include "DeviceManager.h"

#include <QDebug>

// Stand-ins until the app-size and icon jobs arrive: the size refresh after an install
// only logs, and the time-out check finds no icon.
void DeviceManager::getAppSizes(const QString& udid, const QStringList& appIds)
{
    qDebug() << "DeviceManager::getAppSizes" << udid << appIds;
}

QByteArray DeviceManager::getAppIcon(const QString& udid, const QString& appid)
{
    Q_UNUSED(udid);
    Q_UNUSED(appid);
    return QByteArray();
}
