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

#include <QElapsedTimer>
#include <QThread>

#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace kavreltest {

DeviceSim::DeviceSim()
{
    mProcess.setProcessChannelMode(QProcess::MergedChannels);
}

DeviceSim::~DeviceSim()
{
    stop();
}

bool DeviceSim::available()
{
#ifdef KAVREL_DEVSIM
    return QFile::exists(QStringLiteral(KAVREL_DEVSIM));
#else
    return false;
#endif
}

QString DeviceSim::socketPath() const
{
    return mDir.path() + QStringLiteral("/usbmuxd.sock");
}

QString DeviceSim::profileDir() const
{
    return mDir.path() + QStringLiteral("/profiles");
}

bool DeviceSim::start(const QList<DeviceProfile>& profiles)
{
#ifdef KAVREL_DEVSIM
    QStringList args{QStringLiteral("--socket"), socketPath(), QStringLiteral("--state"),
                     mDir.path() + QStringLiteral("/state")};
    for (const DeviceProfile& profile : profiles)
        args << profile.writeTo(profileDir());
    mProcess.start(QStringLiteral(KAVREL_DEVSIM), args);
    if (!mProcess.waitForStarted(10000))
        return false;
    qputenv("USBMUXD_SOCKET_ADDRESS", "UNIX:" + socketPath().toLocal8Bit());
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 15000) {
        const QStringList answer = control(QStringLiteral("list"));
        if (!answer.isEmpty() && answer.last().startsWith(QLatin1String("OK")))
            return true;
        if (mProcess.state() == QProcess::NotRunning)
            return false;
        QThread::msleep(20);
    }
    return false;
#else
    Q_UNUSED(profiles);
    return false;
#endif
}

void DeviceSim::stop()
{
    if (mProcess.state() == QProcess::NotRunning)
        return;
    control(QStringLiteral("quit"));
    if (!mProcess.waitForFinished(5000)) {
        mProcess.kill();
        mProcess.waitForFinished(5000);
    }
    output();
}

bool DeviceSim::attach(const DeviceProfile& profile)
{
    const QStringList answer = control(QStringLiteral("attach ") + profile.writeTo(profileDir()));
    return !answer.isEmpty() && answer.last() == QStringLiteral("OK ") + profile.udid();
}

bool DeviceSim::detach(const QString& udid)
{
    const QStringList answer = control(QStringLiteral("detach ") + udid);
    return !answer.isEmpty() && answer.last() == QLatin1String("OK");
}

QStringList DeviceSim::control(const QString& line)
{
    // The control socket speaks one line per command; the answer ends with a line
    // starting "OK" or "ERROR".
    const QByteArray path = (socketPath() + QStringLiteral(".ctl")).toLocal8Bit();
    sockaddr_un address{};
    if (path.size() >= static_cast<int>(sizeof(address.sun_path)))
        return {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0)
        return {};
    timeval timeout{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    QStringList lines;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
        const QByteArray request = line.toUtf8() + '\n';
        if (::write(fd, request.constData(), static_cast<size_t>(request.size())) ==
            request.size()) {
            QByteArray reply;
            char chunk[4096];
            while (true) {
                const ssize_t n = ::read(fd, chunk, sizeof(chunk));
                if (n <= 0)
                    break;
                reply.append(chunk, static_cast<int>(n));
                lines = QString::fromUtf8(reply).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
                if (reply.endsWith('\n') && !lines.isEmpty() &&
                    (lines.last().startsWith(QLatin1String("OK")) ||
                     lines.last().startsWith(QLatin1String("ERROR"))))
                    break;
            }
        }
    }
    ::close(fd);
    return lines;
}

QString DeviceSim::output()
{
    mOutput += mProcess.readAll();
    return QString::fromLocal8Bit(mOutput);
}

} // namespace kavreltest
