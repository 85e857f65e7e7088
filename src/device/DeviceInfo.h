#pragma once

#include "DeviceBase.h"

#include <QString>

#include <libimobiledevice/afc.h>

// A device session that reads the device-information report (three lockdown domains,
// the disk-usage summary and the jailbreak flag) and writes lockdown values.
class DeviceInfo : public DeviceBase
{
    Q_OBJECT
public:
    DeviceInfo(QObject* parent, const QString& udid);

    // Reads a lockdown value (domain null: the global domain; key null: the whole
    // domain). Mode 0 renders dictionaries/arrays as JSON text and scalars as their
    // plain text, mode 1 gives the XML property list, any other mode renders the
    // value of a given key as JSON text.
    bool getValue(QString& out, const char* domain, const char* key, int mode);
    // The whole information report as one JSON text. domain and key are only logged.
    bool getDevInfo(QString& out, const char* domain, const char* key, int mode);
    // Writes value as a string under key into the global lockdown domain.
    bool setDevProperty(const QString& key, const QString& value);
    // The media totals of the media library's preferences as one JSON object.
    bool getDiskUsageInfo(QString& out);

    // Releases the session and the AFC client. The destructor (DeviceBase's) does not
    // release the AFC client: only an explicit cleanUp() does.
    void cleanUp() override;

    // Lockdown domains known to the library, as a null-terminated table.
    static const char* const* knownDomains();
    // True when text contains the name of any known domain.
    static bool containsKnownDomain(const char* text);

private:
    bool mJailed;
    afc_client_t mAfc;
};
