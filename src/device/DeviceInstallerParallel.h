#pragma once

#include <QFutureWatcher>
#include <QObject>

class DeviceInstaller;
class DeviceManager;
struct OperationInfo;

// Background job that runs one installer session on the global thread pool. The
// session's lines go straight to the manager; a session that ended with an error but
// no finish line is ended here with its stored failure line.
class DeviceInstallerParallel : public QObject
{
    Q_OBJECT
public:
    // Starts the worker at once.
    DeviceInstallerParallel(DeviceManager* manager, const OperationInfo* info);
    // Deletes the stored session (its clean-up runs); a running worker is left to end,
    // and the session it returns is deleted then.
    ~DeviceInstallerParallel() override;

    // The worker: builds the session, which runs the whole operation before returning.
    static DeviceInstaller* getInstaller(const OperationInfo* info, DeviceManager* manager);

public slots:
    void slotGetInstaller();

private:
    static void deleteSessionWhenReturned(const QFuture<DeviceInstaller*>& future);

    DeviceInstaller* mInstaller;
    DeviceManager* mManager;
    QFutureWatcher<DeviceInstaller*> mWatcher;

public:
    // The operation being run; owned by the session. The manager reads it on a time-out.
    const OperationInfo* mInfo;
};
