#pragma once

#include "DeviceBase.h"

#include <QString>

#include <libimobiledevice/house_arrest.h>

// Measures installed apps through the house-arrest service: the bytes of the app
// bundle, the bytes of its Documents folder and the Apple ID that bought it. One app
// at a time, each through its own house-arrest client on this session.
class DeviceAppSize : public DeviceBase
{
public:
    DeviceAppSize(QObject* parent, const QString& udid);
    ~DeviceAppSize() override;

    // True when the session opened.
    bool prepare();
    // Measures one app. A part that cannot be measured leaves its output as it was.
    bool getAppSize(const QString& appid, unsigned int* appSize, unsigned int* docSize,
                    QString* appleId);
    // Releases the house-arrest client only; the session stays open.
    void cleanUp() override;

private:
    // Vends the app's container on a fresh house-arrest client; false when refused.
    bool vendContainer(const QString& appid);
    // Reads "appleId" out of the container's iTunesMetadata.plist.
    static void readAppleId(afc_client_t afc, const char* path, QString* appleId);

    house_arrest_client_t mHouseArrest;
};
