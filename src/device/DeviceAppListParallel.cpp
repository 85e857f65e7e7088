#include "DeviceAppListParallel.h"

#include "DeviceInstaller.h"
#include "ThreadHandOff.h"

#include <QDebug>
#include <QThreadPool>
#include <QtConcurrent>

DeviceAppListParallel::DeviceAppListParallel(QObject* parent, const QString& udid, int appType,
                                             int listFormat)
    : QObject(parent), mUdid(udid)
{
    connect(&mWatcher, &QFutureWatcher<QStringList>::finished, this,
            &DeviceAppListParallel::slotDataReady);
    ThreadHandOff::publish(&staticMetaObject);
    mWatcher.setFuture(QtConcurrent::run(QThreadPool::globalInstance(),
                                         &DeviceAppListParallel::getAppList, udid, appType,
                                         listFormat));
}

QStringList DeviceAppListParallel::getAppList(const QString& udid, int appType, int listFormat)
{
    ThreadHandOff::receive(&staticMetaObject);
    DeviceInstaller installer(nullptr, udid);
    QString list;
    QStringList appIds;
    QStringList result;
    if (installer.getAppList(&list, &appIds, appType, listFormat)) {
        result << udid << list;
        for (const QString& id : appIds)
            result << id;
    } else {
        qDebug() << "Failed to getAppList by DeviceInstaller.";
    }
    return result;
}

void DeviceAppListParallel::slotDataReady()
{
    qDebug() << "DeviceAppListParallel::slotDataReady";
    const QStringList result = mWatcher.result();
    if (result.size() < 2) {
        qDebug() << "got invalid data by getAppList: " << result.join(QLatin1Char('|'));
        emit signalFailed();
        return;
    }
    // The manager deletes this job while handling the signal.
    emit signalDataAvailable(result.at(0), result.at(1), result.mid(2));
}
