#include "DevSim.h"
#include "TestSupport.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>

#include <csignal>

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
    const char* const kinds[] = {"Audio", "Book", "Movie", "Music", "Photo", "Ringtone", "Video"};
    for (int i = 0; i < 7; ++i)
        mTotals[QStringLiteral("total%1Bytes").arg(kinds[i])] = (i + 1) * 1000;
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

DeviceProfile& DeviceProfile::symlink(const QString& path, const QString& target)
{
    mMedia.append(QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("symlink"), target}});
    return *this;
}

DeviceProfile& DeviceProfile::failService(const QString& service)
{
    QJsonArray failing = mFaults.value(QStringLiteral("failServices")).toArray();
    failing.append(service);
    mFaults[QStringLiteral("failServices")] = failing;
    return *this;
}

DeviceProfile& DeviceProfile::faults(const QJsonObject& faults)
{
    for (auto it = faults.begin(); it != faults.end(); ++it)
        mFaults[it.key()] = it.value();
    return *this;
}

DeviceProfile& DeviceProfile::apps(const QJsonArray& apps)
{
    mApps = apps;
    return *this;
}

QJsonObject DeviceProfile::json() const
{
    QJsonObject profile{{QStringLiteral("udid"), mUdid},
                        {QStringLiteral("jailbroken"), mJailbroken},
                        {QStringLiteral("lockdown"), mLockdown}};
    if (!mTotals.isEmpty())
        profile[QStringLiteral("diskTotals")] = mTotals;
    if (!mMedia.isEmpty())
        profile[QStringLiteral("media")] = mMedia;
    if (!mFaults.isEmpty())
        profile[QStringLiteral("faults")] = mFaults;
    if (!mApps.isEmpty())
        profile[QStringLiteral("apps")] = mApps;
    return profile;
}

bool DevSim::start(const QStringList& profiles, QString* error, const QStringList& extraArguments)
{
    auto fail = [error](const QString& why) {
        if (error)
            *error = why;
        return false;
    };
    mSocketPath = mDir.filePath("usbmuxd.sock");
    QFile::remove(logPath());

    QStringList arguments{"--socket", mSocketPath, "--state", mDir.filePath("state"),
                          "--exit-with-parent"};
    arguments += extraArguments;
    arguments += profiles;
    mProcess.setProgram(QStringLiteral(KAVREL_DEVSIM));
    mProcess.setArguments(arguments);
    mProcess.setProcessChannelMode(QProcess::SeparateChannels);
    // Standard error goes to a file: it is read at any time, with no event loop running.
    mProcess.setStandardErrorFile(logPath());
    mProcess.start();
    if (!mProcess.waitForStarted(10000))
        return fail("kavrel-devsim did not start: " + mProcess.errorString());

    // The simulator prints "attached <udid>" per profile, then "ready ...".
    QByteArray out;
    QElapsedTimer timer;
    timer.start();
    while (!out.contains("ready ")) {
        if (mProcess.state() != QProcess::Running || timer.elapsed() > 60000) {
            stop();
            return fail("kavrel-devsim did not become ready: " + log().trimmed());
        }
        mProcess.waitForReadyRead(200);
        out += mProcess.readAllStandardOutput();
    }

    // Detaching a device cuts its connections like pulling the cable; libimobiledevice
    // then writes to closed sockets, which must fail with EPIPE rather than kill the test
    // (the library's target platform has no SIGPIPE).
    std::signal(SIGPIPE, SIG_IGN);

    qputenv("USBMUXD_SOCKET_ADDRESS", "UNIX:" + QFile::encodeName(mSocketPath));
    mEnvironmentSet = true;
    return true;
}

bool DevSim::start(const QList<DeviceProfile>& profiles)
{
    QStringList paths;
    for (const DeviceProfile& profile : profiles)
        paths << writeProfile(profile.json());
    QString error;
    if (!start(paths, &error))
        qWarning("kavrel-devsim did not start: %s", qPrintable(error));
    return isRunning();
}

void DevSim::stop()
{
    if (mProcess.state() != QProcess::NotRunning) {
        mProcess.terminate();
        if (!mProcess.waitForFinished(15000)) {
            mProcess.kill();
            mProcess.waitForFinished(5000);
        }
    }
    if (mEnvironmentSet)
        qunsetenv("USBMUXD_SOCKET_ADDRESS");
    mEnvironmentSet = false;
}

QStringList DevSim::control(const QStringList& command, bool* ok) const
{
    const ProgramRun run =
        runProgram(KAVREL_DEVSIM, QStringList{"ctl", "--socket", mSocketPath} + command);
    *ok = run.exitCode == 0;
    return QString::fromUtf8(run.out + run.err).split('\n', Qt::SkipEmptyParts);
}

bool DevSim::attach(const DeviceProfile& profile)
{
    bool ok = false;
    const QStringList lines = control({"attach", writeProfile(profile.json())}, &ok);
    return ok && lines.value(lines.size() - 1) == "OK " + profile.udid();
}

bool DevSim::detach(const QString& udid)
{
    bool ok = false;
    control({"detach", udid}, &ok);
    return ok;
}

QStringList DevSim::attachedUdids() const
{
    bool ok = false;
    QStringList lines = control({"list"}, &ok);
    QStringList udids;
    for (int i = 0; ok && i + 1 < lines.size(); ++i)
        udids << lines[i].section(' ', 0, 0);
    return udids;
}

QString DevSim::mediaDir(const QString& udid) const
{
    bool ok = false;
    QStringList lines = control({"media", udid}, &ok);
    return ok ? lines.last().mid(3).trimmed() : QString();
}

QString DevSim::log() const
{
    return QString::fromLocal8Bit(readFile(logPath()));
}

QString DevSim::writeProfile(const QJsonObject& profile) const
{
    const QString path = mDir.filePath("profiles/" + profile.value("udid").toString() + ".json");
    return writeFile(path, QJsonDocument(profile).toJson()) ? path : QString();
}

Session::Session(const QString& udid)
{
    if (idevice_new(&device, udid.toLatin1().constData()) == IDEVICE_E_SUCCESS)
        lockdownd_client_new_with_handshake(device, &lockdown, "kavrel-test");
}

Session::~Session()
{
    if (lockdown)
        lockdownd_client_free(lockdown);
    if (device)
        idevice_free(device);
}

} // namespace kavreltest
