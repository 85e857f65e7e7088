#include "SettingInfo.h"

#include <QDebug>

SettingInfo::SettingInfo() : mIpaCheck(1), mIpaInstall(1), mAutoUpgrade(1) {}

void SettingInfo::debug()
{
    qDebug() << "mVersion: " << mVersion;
    qDebug() << "mDownloadDir: " << mDownloadDir;
    qDebug() << "mItunesDir: " << mItunesDir;
    qDebug() << "mIpaCheck: " << mIpaCheck;
    qDebug() << "mIpaInstall: " << mIpaInstall;
    qDebug() << "mAutoUpgrade: " << mAutoUpgrade;
}
