#pragma once

#include "kavrel_export.h"

#include <QString>

// The host application's settings as kept in the catalog's settings row. The library
// attaches no meaning to the values; it stores and returns them.
class KAVREL_EXPORT SettingInfo
{
public:
    SettingInfo();

    // Writes the six fields to the debug stream.
    void debug();

    QString mVersion;
    QString mDownloadDir;
    QString mItunesDir;
    int mIpaCheck;
    int mIpaInstall;
    int mAutoUpgrade;
};
