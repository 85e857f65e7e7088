#pragma once

#include "DeviceBase.h"
#include "kavrel_export.h"

#include <QByteArray>
#include <QString>

#include <libimobiledevice/sbservices.h>

// Fetches the home-screen icons of installed apps, as PNG bytes, from the device's
// springboard service. One client serves any number of icons.
class KAVREL_EXPORT DeviceAppIcon : public DeviceBase
{
public:
    DeviceAppIcon(QObject* parent, const QString& udid);
    ~DeviceAppIcon() override;

    // Opens the springboard-services client. A second call opens another client
    // without closing the first.
    bool prepare();
    // Appends the app's icon bytes to icon (which is not cleared first).
    bool getAppIcon(const QString& appid, QByteArray& icon);

private:
    sbservices_client_t mSbServices;
};
