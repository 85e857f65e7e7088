#include "DeviceInstallerParallel.h"

#include "DeviceInstaller.h"
#include "DeviceManager.h"
#include "OperationInfo.h"

#include <QDebug>
#include <QThreadPool>
#include <QtConcurrent>

DeviceInstallerParallel::DeviceInstallerParallel(DeviceManager* manager, const OperationInfo* info)
    : QObject(manager), mInstaller(nullptr), mManager(manager), mInfo(info)
{
    connect(&mWatcher, &QFutureWatcher<DeviceInstaller*>::finished, this,
            &DeviceInstallerParallel::slotGetInstaller);
    mWatcher.setFuture(QtConcurrent::run(QThreadPool::globalInstance(),
                                         &DeviceInstallerParallel::getInstaller, info, mManager));
}

DeviceInstallerParallel::~DeviceInstallerParallel()
{
    qDebug() << "DeviceInstallerParallel::~DeviceInstallerParallel";
    delete mInstaller;
    mInstaller = nullptr;
    mManager = nullptr;
    mInfo = nullptr;
}

DeviceInstaller* DeviceInstallerParallel::getInstaller(const OperationInfo* info,
                                                       DeviceManager* manager)
{
    qDebug() << "DeviceInstallerParallel::getInstaller";
    qDebug() << info->mUdid;
    // The session stays on this pool thread; the job deletes it from the manager's
    // thread once no event is pending for it.
    return new DeviceInstaller(manager, info);
}

void DeviceInstallerParallel::slotGetInstaller()
{
    qDebug() << "DeviceInstallerParallel::slotGetInstaller";
    mInstaller = mWatcher.result();
    const QString failure = DeviceInstaller::lastFailureLine();
    // Ends the operation and deletes this job: nothing below may touch a member.
    if (!failure.isEmpty())
        mManager->slotInstallFinished(failure);
}
