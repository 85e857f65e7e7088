#include "DeviceManager.h"

#include "DeviceAppIcon.h"
#include "DeviceAppIconParallel.h"
#include "DeviceAppSizeParallel.h"
#include "DeviceHelper.h"
#include "DeviceInfoParallel.h"
#include "OperationInfo.h"
#include "Utility.h"

#include <QDebug>
#include <QTimer>

// How long an installer may stay silent before the manager gives up on it.
static const int kInstallerTimeoutMs = 180000;

DeviceManager::DeviceManager(QObject* parent)
    : QObject(parent),
      mAppListJob(nullptr),
      mInstallerJob(nullptr),
      mAppSizeJob(nullptr),
      mAppIconJob(nullptr),
      mInstallTimer(nullptr)
{
    mInstallTimer = new QTimer(this);
    mInstallTimer->setInterval(kInstallerTimeoutMs);
    mInstallTimer->setSingleShot(true);
    connect(mInstallTimer, &QTimer::timeout, this, &DeviceManager::slotInstallerTimeout);
}

DeviceManager::~DeviceManager()
{
    // Running workers are not waited for: a job deleted here leaves its worker to
    // finish on its own, and its result goes nowhere.
    while (!mSpareJobs.isEmpty())
        mSpareJobs.takeFirst()->deleteLater();
    while (!mInfoJobs.isEmpty())
        mInfoJobs.takeFirst()->deleteLater();

    // Queued operations never started are the manager's to free.
    while (!mOperations.isEmpty())
        delete mOperations.takeFirst();

    // The app-list and installer jobs are started by the install queue, which this
    // build does not offer yet; those members stay null and need no release here.
    releaseAppSizeJob();
    releaseAppIconJob();

    if (mInstallTimer) {
        disconnect(mInstallTimer, nullptr, this, nullptr);
        delete mInstallTimer;
        mInstallTimer = nullptr;
    }
}

QString DeviceManager::getFirstUdid()
{
    return DeviceHelper::getFirstUdid();
}

void DeviceManager::getDevInfo(const QString& udid)
{
    auto* job = new DeviceInfoParallel(this, udid);
    connect(job, &DeviceInfoParallel::signalDevInfo, this, &DeviceManager::slotDevInfo);
    mInfoJobs.append(job);
}

void DeviceManager::updateDevInfo(const QString& udid, const QString& key, const QString& value)
{
    auto* job = new DeviceInfoParallel(this, udid, key, value);
    connect(job, &DeviceInfoParallel::signalUpdateProperty, this,
            &DeviceManager::slotUpdateDevInfo);
    mInfoJobs.append(job);
}

// ---- App sizes and icons ----

void DeviceManager::getAppSizes(const QString& udid, const QStringList& appIds)
{
    qDebug() << "DeviceManager::getAppSizes";
    if (mAppSizeJob) {
        qDebug() << "will cancel the previous process";
        releaseAppSizeJob();
    }
    auto* job = new DeviceAppSizeParallel(nullptr, udid, appIds);
    mAppSizeJob = job;
    // Batches travel queued from the worker's thread; one posted before its job was
    // replaced must not reach the host, so each is checked against the job in the slot.
    connect(job, &DeviceAppSizeParallel::signalAppSizesReady, this,
            [this, job](const QString& id, const QString& json) {
                if (job == mAppSizeJob)
                    emit signalAppSize(id, json);
            });
    connect(job, &DeviceAppSizeParallel::signalAppSizeDone, this, &DeviceManager::slotAppSizeDone);
}

void DeviceManager::getAppIcons(const QString& udid, const QStringList& appIds)
{
    qDebug() << "DeviceManager::getAppIcons";
    if (mAppIconJob) {
        qDebug() << "will cancel the previous process";
        releaseAppIconJob();
    }
    auto* job = new DeviceAppIconParallel(nullptr, udid, appIds);
    mAppIconJob = job;
    connect(job, &DeviceAppIconParallel::signalAppIconsReady, this,
            [this, job](const QString& id, const QString& json) {
                if (job == mAppIconJob)
                    emit signalAppIconsReady(id, json);
            });
    connect(job, &DeviceAppIconParallel::signalAppIconsDone, this,
            &DeviceManager::slotAppIconsDone);
}

QByteArray DeviceManager::getAppIcon(const QString& udid, const QString& appid)
{
    QByteArray icon;
    for (int attemptsLeft = 9;; --attemptsLeft) {
        if (!icon.isEmpty())
            return icon;
        auto* session = new DeviceAppIcon(nullptr, udid);
        if (session->prepare() && session->getAppIcon(appid, icon)) {
            delete session;
            return icon;
        }
        Utility::waitSeconds(0);
        delete session;
        if (attemptsLeft == 0)
            return icon;
    }
}

void DeviceManager::slotAppIconsDone(const QString& udid)
{
    Q_UNUSED(udid);
    qDebug() << "DeviceManager::slotAppIconsDone";
    releaseAppIconJob();
}

void DeviceManager::slotAppSizeDone(const QString& udid)
{
    Q_UNUSED(udid);
    qDebug() << "DeviceManager::slotAppSizeDone";
    releaseAppSizeJob();
}

// A replaced or finished job's worker may still be running and calling into the job,
// so the job is only detached here and deletes itself once that worker has returned.
// Deleting it later also keeps its address from being reused while batches it posted
// are still queued.
void DeviceManager::releaseAppSizeJob()
{
    if (!mAppSizeJob)
        return;
    disconnect(mAppSizeJob, nullptr, this, nullptr);
    mAppSizeJob->retire();
    mAppSizeJob = nullptr;
}

void DeviceManager::releaseAppIconJob()
{
    if (!mAppIconJob)
        return;
    disconnect(mAppIconJob, nullptr, this, nullptr);
    mAppIconJob->retire();
    mAppIconJob = nullptr;
}

void DeviceManager::slotDevInfo(const QString& udid, const QString& devInfo)
{
    QObject* job = sender();
    emit signalDevInfo(udid, devInfo);
    releaseInfoJob(job);
}

void DeviceManager::slotUpdateDevInfo(const QString& udid, const QString& key, const bool& suc)
{
    QObject* job = sender();
    emit signalUpdateDevInfo(udid, key, suc);
    releaseInfoJob(job);
}

void DeviceManager::releaseInfoJob(QObject* job)
{
    // Jobs are removed by identity, so results are relayed in the order the jobs
    // finish rather than the order of the requests.
    auto* info = qobject_cast<DeviceInfoParallel*>(job);
    if (!info)
        return;
    mInfoJobs.removeAll(info);
    info->deleteLater();
}

void DeviceManager::slotAppList(const QString& udid, const QString& jsonApps,
                                const QStringList& appIds)
{
    // The app listing runs through the operation queue, which this build does not
    // offer yet: no job can call this, and nothing is relayed.
    Q_UNUSED(udid);
    Q_UNUSED(jsonApps);
    Q_UNUSED(appIds);
}

void DeviceManager::slotAppListFailed()
{
    // See slotAppList: no app-list job exists in this build yet.
}

void DeviceManager::slotDevProgress(const QString& status)
{
    // Installer sessions do not run through the manager in this build yet; a line
    // arriving here is ignored rather than arming the guard timer.
    Q_UNUSED(status);
}

void DeviceManager::slotInstallFinished(const QString& status)
{
    // See slotDevProgress: no installer job exists in this build yet.
    Q_UNUSED(status);
}

void DeviceManager::slotAppUninstalled(const QString& appid)
{
    emit signalAppUninstalled(appid);
}

void DeviceManager::slotInstallerTimeout()
{
    // The guard timer is only armed by installer progress, which this build does
    // not route through the manager yet.
}
