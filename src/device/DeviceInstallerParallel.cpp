#include "DeviceInstallerParallel.h"

#include "DeviceInstaller.h"
#include "DeviceManager.h"
#include "OperationInfo.h"
#include "ThreadHandOff.h"

#include <QDebug>
#include <QThreadPool>
#include <QtConcurrent>

DeviceInstallerParallel::DeviceInstallerParallel(DeviceManager* manager, const OperationInfo* info)
    : QObject(manager), mInstaller(nullptr), mManager(manager), mInfo(info)
{
    connect(&mWatcher, &QFutureWatcher<DeviceInstaller*>::finished, this,
            &DeviceInstallerParallel::slotGetInstaller);
    ThreadHandOff::publish(info);
    mWatcher.setFuture(QtConcurrent::run(QThreadPool::globalInstance(),
                                         &DeviceInstallerParallel::getInstaller, info, mManager));
}

DeviceInstallerParallel::~DeviceInstallerParallel()
{
    qDebug() << "DeviceInstallerParallel::~DeviceInstallerParallel";
    if (mInstaller)
        delete mInstaller;
    else
        deleteSessionWhenReturned(mWatcher.future());
    mInstaller = nullptr;
    mManager = nullptr;
    mInfo = nullptr;
}

// A session this job never stored (its finish line came first, or the job goes before
// its worker returns) would otherwise keep its device connections open for good: it is
// deleted on this thread once the worker has returned it. The lines it emitted were
// posted to the manager before that and are delivered as usual.
void DeviceInstallerParallel::deleteSessionWhenReturned(const QFuture<DeviceInstaller*>& future)
{
    auto* reaper = new QFutureWatcher<DeviceInstaller*>();
    connect(reaper, &QFutureWatcherBase::finished, reaper, [reaper] {
        delete reaper->result();
        reaper->deleteLater();
    });
    reaper->setFuture(future);
}

DeviceInstaller* DeviceInstallerParallel::getInstaller(const OperationInfo* info,
                                                       DeviceManager* manager)
{
    ThreadHandOff::receive(info);
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
