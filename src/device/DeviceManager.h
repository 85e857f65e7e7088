#pragma once

#include "kavrel_export.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

class QTimer;
class DeviceInfoParallel;
class DeviceAppListParallel;
class DeviceInstallerParallel;
class DeviceAppSizeParallel;
class DeviceAppIconParallel;
struct OperationInfo;

// The facade a host drives from its own thread: each request becomes a background
// job, and the jobs' results come back as this object's signals, on the host's thread.
class KAVREL_EXPORT DeviceManager : public QObject
{
    Q_OBJECT
public:
    explicit DeviceManager(QObject* parent = nullptr);
    ~DeviceManager() override;

    // The first attached device, or an empty string.
    static QString getFirstUdid();
    // Reads the device's information report; answer: signalDevInfo.
    void getDevInfo(const QString& udid);
    // Writes a text value into the device's global lockdown domain; answer:
    // signalUpdateDevInfo.
    void updateDevInfo(const QString& udid, const QString& key, const QString& value);
    // Sizes of the apps, measured where the catalog lacks them; answer: signalAppSize,
    // once per batch. A new request replaces the running one.
    void getAppSizes(const QString& udid, const QStringList& appIds);
    // Icons of the apps into the catalog; answer: signalAppIconsReady, once per batch.
    // A new request replaces the running one.
    void getAppIcons(const QString& udid, const QStringList& appIds);
    // One icon straight from the device, blocking, with up to ten attempts; empty when
    // none could be had.
    QByteArray getAppIcon(const QString& udid, const QString& appid);

    // The operation queue: requests run one at a time, in order; a request equal to one
    // still waiting is dropped. Progress and finish lines: signalDevProgress.
    void installIpa(const QString& udid, const QString& ipaPath, const QString& appId,
                    bool isUpdate);
    void uninstallApp(const QString& udid, const QString& appId);
    void archiveApp(const QString& udid, const QString& appId, const QString& copyPath,
                    bool appOnly, bool skipUninstall);
    // appType 0 all, 1 system, 2 user apps; listFormat 0 the device's XML, else JSON.
    // Answer: signalAppList.
    void getAppList(const QString& udid, int appType, int listFormat);
    // Removes the first waiting request of the same type whose app id is part of
    // info's; the running one is never touched. The caller keeps info.
    void cancelInstallByAppid(const OperationInfo* info);
    // True when no operation runs.
    bool canInstall();
    // Off by default: the guard timer starts with an operation's first progress line, so
    // a device that never answers an uninstall or archive holds the queue for good.
    // On: the timer also runs from the start of every installer operation, and a time-out
    // line names that operation's app, never the previous one's last line.
    void setGuardFromStart(bool on);
    void saveOperation(OperationInfo* info);
    bool hasRequestedOperation(OperationInfo* info);
    // The cancel match: same type, and target's app id contains queued's.
    bool isSameOperation(const OperationInfo* target, OperationInfo* queued);
    OperationInfo* takeNextOperation();
    // Starts the job for one record without looking whether one runs.
    void install(const OperationInfo* info);
    void installNextOne();
    void removeOperation(const OperationInfo* info);

signals:
    void signalAppSize(const QString& udid, const QString& jsonSizes);
    void signalAppIconsReady(const QString& udid, const QString& jsonApps);
    void signalDevInfo(const QString& udid, const QString& devInfo);
    void signalUpdateDevInfo(const QString& udid, const QString& key, const bool& suc);
    void signalAppList(const QString& udid, const QString& jsonApps, const QStringList& appIds);
    void signalDevProgress(const QString& status);
    void signalAppUninstalled(const QString& appid);

public slots:
    void slotAppIconsDone(const QString& udid);
    void slotAppSizeDone(const QString& udid);
    void slotDevInfo(const QString& udid, const QString& devInfo);
    void slotUpdateDevInfo(const QString& udid, const QString& key, const bool& suc);
    void slotAppList(const QString& udid, const QString& jsonApps, const QStringList& appIds);
    void slotAppListFailed();
    void slotDevProgress(const QString& status);
    void slotInstallFinished(const QString& status);
    void slotAppUninstalled(const QString& appid);
    void slotInstallerTimeout();

private:
    void finishTimedOutJob();
    // Relays the result of a device-information job and releases the job.
    void releaseInfoJob(QObject* job);
    void releaseAppListJob();
    // Cuts the size or icon job off from the manager and empties its slot.
    void releaseAppSizeJob();
    void releaseAppIconJob();

    QList<QObject*> mSpareJobs;
    QStringList mSpareStrings;
    QList<DeviceInfoParallel*> mInfoJobs;
    QList<OperationInfo*> mOperations;
    DeviceAppListParallel* mAppListJob;
    DeviceInstallerParallel* mInstallerJob;
    DeviceAppSizeParallel* mAppSizeJob;
    DeviceAppIconParallel* mAppIconJob;
    QTimer* mInstallTimer;
    QString mLastStatus;
    bool mGuardFromStart = false;

    // Lets the tests look at the jobs in flight.
    friend class TestDeviceManagerAccess;
};
