#include "DeviceBase.h"

#include "DeviceHelper.h"

#include <QDebug>

// The label under which the device's lockdown service records our connections.
static const char* const kLockdownLabel = "zeltrana";

DeviceBase::DeviceBase(QObject* parent, const QString& udid)
    : QObject(parent), mUdid(udid), mDevice(nullptr), mLockdown(nullptr), mInited(false)
{
    DeviceHelper::keepHostAliveOnUnplug();
    mInited = init();
    if (!mInited)
        qDebug() << "failed to init with udid: " << mUdid;
}

DeviceBase::~DeviceBase()
{
    // Not through the virtual: subclasses release their own clients in their destructors.
    DeviceBase::cleanUp();
    mUdid.clear();
}

bool DeviceBase::init()
{
    mDevice = nullptr;
    mLockdown = nullptr;

    if (mUdid.isEmpty()) {
        mUdid = DeviceHelper::getFirstUdid();
        if (mUdid.length() != 40) {
            qDebug() << "Failed to get udid from device.";
            return false;
        }
    }

    const QByteArray udid = mUdid.toLatin1();
    if (idevice_new(&mDevice, udid.constData()) != IDEVICE_E_SUCCESS) {
        qDebug() << "No device found, is it plugged in?";
        return false;
    }

    if (lockdownd_client_new_with_handshake(mDevice, &mLockdown, kLockdownLabel) !=
        LOCKDOWN_E_SUCCESS) {
        qDebug() << "failed to create lockdownd client.";
        cleanUp();
        return false;
    }
    return true;
}

void DeviceBase::cleanUp()
{
    qDebug() << "DeviceBase::cleanUp";
    // The device handle goes before the lockdown client; this order is kept on purpose.
    if (mDevice) {
        idevice_free(mDevice);
        mDevice = nullptr;
    }
    if (mLockdown) {
        lockdownd_client_free(mLockdown);
        mLockdown = nullptr;
    }
}

bool DeviceBase::isInited() const
{
    return mInited;
}
