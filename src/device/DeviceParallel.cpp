#include "DeviceParallel.h"

#include <QDebug>

DeviceParallel::DeviceParallel(QObject* parent, const QString& udid, const QStringList& args)
    : QObject(parent), mUdid(udid), mArgs(args)
{
}

void DeviceParallel::slotDataAvailable()
{
    qDebug() << "slotDataAvailable";
    const QStringList result = mWatcher.result();
    if (result.size() < 1) {
        qDebug() << "failed to get result.";
        return;
    }
    QStringList info;
    info << mUdid << result;
    emit signalDataReady(info);
}
