#include "DeviceProfiles.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonDocument>

namespace kavreltest {

QString testUdid(int n)
{
    return QString::fromLatin1(
        QCryptographicHash::hash(QByteArray::number(n), QCryptographicHash::Sha1).toHex());
}

DeviceProfile::DeviceProfile(const QString& udid, const QString& name) : mUdid(udid)
{
    // The identity keys come first and the product keys after them, so the global
    // domain never ends with one of the keys the report leaves out.
    QJsonObject global;
    global[QStringLiteral("UniqueDeviceID")] = udid;
    global[QStringLiteral("DevicePublicKey")] = QStringLiteral("placeholder");
    global[QStringLiteral("DeviceName")] = name.isEmpty() ? QStringLiteral("Test iPhone") : name;
    global[QStringLiteral("DeviceClass")] = QStringLiteral("iPhone");
    global[QStringLiteral("ProductType")] = QStringLiteral("iPhone12,1");
    global[QStringLiteral("ModelNumber")] = QStringLiteral("MWLT2");
    global[QStringLiteral("SerialNumber")] = QStringLiteral("F2LZK0ABN72J");
    global[QStringLiteral("BuildVersion")] = QStringLiteral("18D52");
    global[QStringLiteral("ProductVersion")] = QStringLiteral("14.4");
    mLockdown[QStringLiteral("global")] = global;

    QJsonObject disk;
    disk[QStringLiteral("TotalDiskCapacity")] = 64000000000.0;
    disk[QStringLiteral("AmountDataAvailable")] = 31000000000.0;
    mLockdown[QStringLiteral("com.apple.disk_usage")] = disk;
    QJsonObject battery;
    battery[QStringLiteral("BatteryCurrentCapacity")] = 87;
    battery[QStringLiteral("BatteryIsCharging")] = false;
    mLockdown[QStringLiteral("com.apple.mobile.battery")] = battery;

    mTotals[QStringLiteral("totalApplicationBytes")] = 1500000000.0;
    mTotals[QStringLiteral("totalAudioBytes")] = 1000;
    mTotals[QStringLiteral("totalBookBytes")] = 2000;
    mTotals[QStringLiteral("totalMovieBytes")] = 3000;
    mTotals[QStringLiteral("totalMusicBytes")] = 4000;
    mTotals[QStringLiteral("totalPhotoBytes")] = 5000;
    mTotals[QStringLiteral("totalRingtoneBytes")] = 6000;
    mTotals[QStringLiteral("totalVideoBytes")] = 7000;
}

DeviceProfile& DeviceProfile::jailbroken(bool on)
{
    mJailbroken = on;
    return *this;
}

static QString domainName(const QString& domain)
{
    return domain.isEmpty() ? QStringLiteral("global") : domain;
}

DeviceProfile& DeviceProfile::value(const QString& domain, const QString& key,
                                    const QJsonValue& value)
{
    QJsonObject values = mLockdown.value(domainName(domain)).toObject();
    values[key] = value;
    mLockdown[domainName(domain)] = values;
    return *this;
}

DeviceProfile& DeviceProfile::removeValue(const QString& domain, const QString& key)
{
    QJsonObject values = mLockdown.value(domainName(domain)).toObject();
    values.remove(key);
    mLockdown[domainName(domain)] = values;
    return *this;
}

DeviceProfile& DeviceProfile::diskTotals(const QJsonObject& totals)
{
    mTotals = totals;
    return *this;
}

DeviceProfile& DeviceProfile::textFile(const QString& path, const QString& text)
{
    mMedia.append(QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("text"), text}});
    return *this;
}

DeviceProfile& DeviceProfile::sizedFile(const QString& path, qint64 size)
{
    mMedia.append(QJsonObject{{QStringLiteral("path"), path},
                              {QStringLiteral("size"), static_cast<double>(size)}});
    return *this;
}

DeviceProfile& DeviceProfile::folder(const QString& path)
{
    mMedia.append(QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("directory"), true}});
    return *this;
}

DeviceProfile& DeviceProfile::symlink(const QString& path, const QString& target)
{
    mMedia.append(QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("symlink"), target}});
    return *this;
}

DeviceProfile& DeviceProfile::failService(const QString& service)
{
    mFailing.append(service);
    return *this;
}

QJsonObject DeviceProfile::json() const
{
    QJsonObject profile;
    profile[QStringLiteral("udid")] = mUdid;
    profile[QStringLiteral("jailbroken")] = mJailbroken;
    profile[QStringLiteral("lockdown")] = mLockdown;
    if (!mTotals.isEmpty())
        profile[QStringLiteral("diskTotals")] = mTotals;
    if (!mMedia.isEmpty())
        profile[QStringLiteral("media")] = mMedia;
    if (!mFailing.isEmpty())
        profile[QStringLiteral("faults")] = QJsonObject{{QStringLiteral("failServices"), mFailing}};
    return profile;
}

QString DeviceProfile::writeTo(const QString& dir) const
{
    QDir().mkpath(dir);
    const QString path = dir + QLatin1Char('/') + mUdid + QStringLiteral(".json");
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return QString();
    file.write(QJsonDocument(json()).toJson());
    return path;
}

} // namespace kavreltest

namespace kavreltest {

bool DeviceSim::available()
{
#ifdef KAVREL_DEVSIM
    return QFile::exists(QStringLiteral(KAVREL_DEVSIM));
#else
    return false;
#endif
}

QString DeviceSim::write(const DeviceProfile& profile) const
{
    return profile.writeTo(mSim.tempDir() + QStringLiteral("/profiles"));
}

bool DeviceSim::start(const QList<DeviceProfile>& profiles)
{
    QStringList paths;
    for (const DeviceProfile& profile : profiles)
        paths << write(profile);
    QString error;
    if (!mSim.start(paths, &error)) {
        qWarning("kavrel-devsim did not start: %s", qPrintable(error));
        return false;
    }
    return true;
}

bool DeviceSim::attach(const DeviceProfile& profile)
{
    QString udid;
    return mSim.attach(write(profile), &udid) && udid == profile.udid();
}

} // namespace kavreltest
