#include "DeviceManager.h"

#include "DeviceAppIcon.h"
#include "DeviceAppIconParallel.h"
#include "DeviceAppListParallel.h"
#include "DeviceAppSizeParallel.h"
#include "DeviceHelper.h"
#include "DeviceInfoParallel.h"
#include "DeviceInstallerParallel.h"
#include "OperationInfo.h"
#include "ProgressLine.h"
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
    DeviceHelper::keepHostAliveOnUnplug();
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

    if (mAppListJob) {
        disconnect(mAppListJob, nullptr, this, nullptr);
        delete mAppListJob;
        mAppListJob = nullptr;
    }
    // The installer job's worker, if still running, is left to end on its own.
    if (mInstallerJob) {
        delete mInstallerJob;
        mInstallerJob = nullptr;
    }
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

void DeviceManager::slotAppUninstalled(const QString& appid)
{
    emit signalAppUninstalled(appid);
}

// ---- the operation queue ----

void DeviceManager::installIpa(const QString& udid, const QString& ipaPath, const QString& appId,
                               bool isUpdate)
{
    qDebug() << "DeviceManager::installIpa, ipa: " << ipaPath
             << ", isUpdate: " << (isUpdate ? "true" : "false");
    auto* info = new OperationInfo;
    info->mType = isUpdate ? KOperationUpgrade : KOperationInstall;
    info->mUdid = udid;
    info->mAppid = appId;
    info->mIpaPath = ipaPath;
    info->mIsUpdate = isUpdate;
    saveOperation(info);
    installNextOne();
}

void DeviceManager::uninstallApp(const QString& udid, const QString& appId)
{
    qDebug() << "DeviceManager::uninstall, appid: " << appId;
    auto* info = new OperationInfo;
    info->mType = KOperationUninstall;
    info->mUdid = udid;
    info->mAppid = appId;
    saveOperation(info);
    installNextOne();
}

void DeviceManager::archiveApp(const QString& udid, const QString& appId, const QString& copyPath,
                               bool appOnly, bool skipUninstall)
{
    qDebug() << "DeviceManager::archiveApp";
    auto* info = new OperationInfo;
    info->mType = KOperationArchive;
    info->mUdid = udid;
    info->mAppid = appId;
    info->mCopyPath = copyPath;
    info->mAppOnly = appOnly;
    info->mSkipUninstall = skipUninstall;
    saveOperation(info);
    installNextOne();
}

void DeviceManager::getAppList(const QString& udid, int appType, int listFormat)
{
    qDebug() << "DeviceManager::getAppList, udid: " << udid;
    auto* info = new OperationInfo;
    info->mType = KOperationListApp;
    info->mUdid = udid;
    info->mAppType = appType;
    info->mListFormat = listFormat;
    saveOperation(info);
    installNextOne();
}

void DeviceManager::cancelInstallByAppid(const OperationInfo* info)
{
    qDebug() << "DeviceManager::cancelInstall";
    removeOperation(info);
}

bool DeviceManager::canInstall()
{
    return !mInstallerJob && !mAppListJob;
}

void DeviceManager::saveOperation(OperationInfo* info)
{
    qDebug() << "DeviceManager::saveOperation";
    if (!hasRequestedOperation(info)) {
        mOperations.append(info);
        return;
    }
    qDebug() << "the operation has been requested before";
    delete info;
}

bool DeviceManager::hasRequestedOperation(OperationInfo* info)
{
    // Only waiting records count: the running one has left the queue already.
    const QList<OperationInfo*> queued = mOperations;
    for (const OperationInfo* other : queued)
        if (*other == *info)
            return true;
    return false;
}

bool DeviceManager::isSameOperation(const OperationInfo* target, OperationInfo* queued)
{
    return target && queued && target->mType == queued->mType &&
           target->mAppid.contains(queued->mAppid);
}

OperationInfo* DeviceManager::takeNextOperation()
{
    if (mOperations.isEmpty())
        return nullptr;
    OperationInfo* info = mOperations.first();
    mOperations.removeAll(info);
    return info;
}

void DeviceManager::install(const OperationInfo* info)
{
    if (info->mType == KOperationListApp) {
        mAppListJob =
            new DeviceAppListParallel(this, info->mUdid, info->mAppType, info->mListFormat);
        connect(mAppListJob, &DeviceAppListParallel::signalDataAvailable, this,
                &DeviceManager::slotAppList);
        connect(mAppListJob, &DeviceAppListParallel::signalFailed, this,
                &DeviceManager::slotAppListFailed);
        // The job keeps its own copies; nothing reads the record any more.
        delete info;
        return;
    }
    if (mGuardFromStart) {
        mLastStatus.clear();
        mInstallTimer->start();
    }
    // The installer session takes the record over.
    mInstallerJob = new DeviceInstallerParallel(this, info);
}

void DeviceManager::setGuardFromStart(bool on)
{
    mGuardFromStart = on;
}

void DeviceManager::installNextOne()
{
    qDebug() << "DeviceManager::installNextOne";
    if (mInstallerJob || mAppListJob) {
        qDebug() << "installer busy now, will try later";
        return;
    }
    if (OperationInfo* info = takeNextOperation()) {
        install(info);
        return;
    }
    qDebug() << "Done, no more install requests.";
}

void DeviceManager::removeOperation(const OperationInfo* info)
{
    qDebug() << "DeviceManager::removeOperation";
    const QList<OperationInfo*> queued = mOperations;
    for (OperationInfo* other : queued) {
        if (isSameOperation(info, other)) {
            qDebug() << "Will remove this operation, info->mAppid: " << info->mAppid;
            mOperations.removeAll(other);
            delete other;
            return;
        }
    }
}

void DeviceManager::slotDevProgress(const QString& status)
{
    mLastStatus = status;
    mInstallTimer->start();
    emit signalDevProgress(status);
}

void DeviceManager::slotInstallFinished(const QString& status)
{
    qDebug() << "DeviceManager::slotInstallFinished, status: " << status;
    mInstallTimer->stop();
    if (!status.contains(QLatin1String("DoneWithoutNotification")))
        emit signalDevProgress(status);
    if (ProgressLine::isInstallComplete(status)) {
        qDebug() << "Trying to getappsize for installed app...";
        // An empty udid: the size job opens the first attached device.
        getAppSizes(QString(), QStringList() << status.section(ProgressLine::kSeparator, 2, 2));
    }
    // May delete the caller: the job hands over its stored failure line from here.
    delete mInstallerJob;
    mInstallerJob = nullptr;
    installNextOne();
}

void DeviceManager::slotInstallerTimeout()
{
    qDebug() << "DeviceManager::slotInstallerTimeout";
    QString appid;
    QByteArray icon;
    int type = KOperationInstall;
    if (mInstallerJob && mInstallerJob->mInfo) {
        appid = mInstallerJob->mInfo->mAppid;
        type = mInstallerJob->mInfo->mType;
    }
    // With the guard from the start, an uninstall or archive that never answered says so
    // under its own name: an icon on the device tells nothing about them.
    const bool install = type == KOperationInstall || type == KOperationUpgrade;
    if (mGuardFromStart && !install && mLastStatus.isEmpty()) {
        const int command = type == KOperationUninstall ? KCommandUninstall : KCommandArchive;
        emit signalDevProgress(
            ProgressLine::operationTimedOut(OperationInfo::commandName(command), appid));
        return finishTimedOutJob();
    }
    if (mInstallerJob && mInstallerJob->mInfo)
        icon = getAppIcon(mInstallerJob->mInfo->mUdid, appid);
    // An app whose icon the device can show counts as installed.
    const QString line = icon.isEmpty() ? ProgressLine::timedOut(mLastStatus, appid)
                                        : ProgressLine::installCompleted(appid);
    emit signalDevProgress(line);
    finishTimedOutJob();
}

void DeviceManager::finishTimedOutJob()
{
    delete mInstallerJob;
    mInstallerJob = nullptr;
    installNextOne();
}

void DeviceManager::slotAppList(const QString& udid, const QString& jsonApps,
                                const QStringList& appIds)
{
    releaseAppListJob();
    emit signalAppList(udid, jsonApps, appIds);
    installNextOne();
}

void DeviceManager::slotAppListFailed()
{
    releaseAppListJob();
    installNextOne();
}

void DeviceManager::releaseAppListJob()
{
    if (!mAppListJob)
        return;
    disconnect(mAppListJob, nullptr, this, nullptr);
    delete mAppListJob;
    mAppListJob = nullptr;
}
