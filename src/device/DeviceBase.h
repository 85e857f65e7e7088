#pragma once

#include "kavrel_export.h"

#include <QObject>
#include <QString>

#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>

// One session to one device: a device handle and a lockdown client with a completed
// handshake. The session opens in the constructor; classes that talk to a device
// service derive from it and start their services through mLockdown.
class KAVREL_EXPORT DeviceBase : public QObject
{
    Q_OBJECT
public:
    DeviceBase(QObject* parent, const QString& udid);
    ~DeviceBase() override;

    // Opens the device handle and the lockdown client. Handles held from an earlier
    // call are not released here: call cleanUp() first.
    bool init();
    // Releases the session. Subclasses holding service clients override it.
    virtual void cleanUp();
    // The result of init() as run by the constructor (cleanUp() does not change it).
    bool isInited() const;

protected:
    QString mUdid;
    idevice_t mDevice;
    lockdownd_client_t mLockdown;
    bool mInited;
};
