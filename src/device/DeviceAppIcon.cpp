#include "DeviceAppIcon.h"

#include <QDebug>

#include <cstdlib>

static const char* const kSpringboardService = "com.apple.springboardservices";

DeviceAppIcon::DeviceAppIcon(QObject* parent, const QString& udid)
    : DeviceBase(parent, udid), mSbServices(nullptr)
{
}

DeviceAppIcon::~DeviceAppIcon()
{
    qDebug() << "DeviceAppIcon::~DeviceAppIcon";
    if (mSbServices) {
        sbservices_client_free(mSbServices);
        mSbServices = nullptr;
    }
}

bool DeviceAppIcon::prepare()
{
    if (!isInited()) {
        qDebug() << "DeviceBase wasn't inited yet!";
        return false;
    }
    lockdownd_service_descriptor_t service = nullptr;
    if (lockdownd_start_service(mLockdown, kSpringboardService, &service) != LOCKDOWN_E_SUCCESS ||
        !service || service->port == 0) {
        lockdownd_service_descriptor_free(service);
        qDebug() << "Could not start com.apple.springboardservices service! Remind that this "
                    "feature is only supported in OS 3.1 and later!";
        return false;
    }
    const sbservices_error_t made = sbservices_client_new(mDevice, service, &mSbServices);
    lockdownd_service_descriptor_free(service);
    if (made != SBSERVICES_E_SUCCESS) {
        mSbServices = nullptr;
        qDebug() << "Could not create client for sbservices!";
        return false;
    }
    return true;
}

bool DeviceAppIcon::getAppIcon(const QString& appid, QByteArray& icon)
{
    if (appid.isEmpty()) {
        qDebug() << "appid couldn't be empty.";
        return false;
    }
    char* data = nullptr;
    uint64_t size = 0;
    const QByteArray id = appid.toLatin1();
    const bool ok = sbservices_get_icon_pngdata(mSbServices, id.constData(), &data, &size) ==
                        SBSERVICES_E_SUCCESS &&
                    size != 0;
    if (ok)
        icon.append(data, static_cast<int>(size));
    else
        qDebug("Warning, sbservices_get_icon_pngdata failed for appid: '%s'", id.constData());
    free(data);
    return ok;
}
