#include "DeviceInfoParallel.h"

#include "DeviceInfo.h"
#include "ThreadHandOff.h"

#include <QDebug>
#include <QThreadPool>
#include <QtConcurrent>

DeviceInfoParallel::DeviceInfoParallel(QObject* parent, const QString& udid)
    : QObject(parent), mUdid(udid)
{
    // Connect before the future is set: a worker that is already done still reports.
    connect(&mInfoWatcher, &QFutureWatcher<QString>::finished, this,
            &DeviceInfoParallel::slotDataReady);
    ThreadHandOff::publish(&staticMetaObject);
    mInfoWatcher.setFuture(
        QtConcurrent::run(QThreadPool::globalInstance(), &DeviceInfoParallel::readDevInfo, udid));
}

DeviceInfoParallel::DeviceInfoParallel(QObject* parent, const QString& udid, const QString& key,
                                       const QString& value)
    : QObject(parent), mUdid(udid), mKey(key)
{
    connect(&mUpdateWatcher, &QFutureWatcher<bool>::finished, this,
            &DeviceInfoParallel::slotUpdateFinished);
    ThreadHandOff::publish(&staticMetaObject);
    mUpdateWatcher.setFuture(QtConcurrent::run(
        QThreadPool::globalInstance(), &DeviceInfoParallel::writeDevProperty, udid, key, value));
}

QString DeviceInfoParallel::readDevInfo(const QString& udid)
{
    ThreadHandOff::receive(&staticMetaObject);
    DeviceInfo info(nullptr, udid);
    QString out;
    const bool ok = info.getDevInfo(out, nullptr, nullptr, 0);
    // The session's destructor leaves its AFC client open; the worker releases the whole
    // session itself so that no connection outlives the job.
    info.cleanUp();
    if (!ok) {
        qDebug() << "failed to getDevInfo";
        return QString();
    }
    return out;
}

bool DeviceInfoParallel::writeDevProperty(const QString& udid, const QString& key,
                                          const QString& value)
{
    ThreadHandOff::receive(&staticMetaObject);
    DeviceInfo info(nullptr, udid);
    const bool ok = info.setDevProperty(key, value);
    info.cleanUp();
    return ok;
}

void DeviceInfoParallel::slotDataReady()
{
    qDebug() << "slotDataReady";
    emit signalDevInfo(mUdid, mInfoWatcher.result());
}

void DeviceInfoParallel::slotUpdateFinished()
{
    qDebug() << "DeviceInfoParallel::slotUpdateFinished";
    emit signalUpdateProperty(mUdid, mKey, mUpdateWatcher.result());
}
