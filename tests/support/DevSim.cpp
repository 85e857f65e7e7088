#include "DevSim.h"
#include "TestSupport.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QtGlobal>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

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
    if (isRunning())
        return fail("already running");
    if (!mDir.isValid())
        return fail("no temporary folder");
    mSocketPath = mDir.filePath("usbmuxd.sock");
    mStartedUdids.clear();
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
    for (const QByteArray& line : out.split('\n')) {
        if (line.startsWith("attached "))
            mStartedUdids << QString::fromLatin1(line.mid(9).trimmed());
    }

    // Detaching a device cuts its connections like pulling the cable; libimobiledevice
    // then writes to closed sockets, which must fail with EPIPE rather than kill the test
    // (the library's target platform has no SIGPIPE).
    std::signal(SIGPIPE, SIG_IGN);

    mHadPreviousAddress = qEnvironmentVariableIsSet("USBMUXD_SOCKET_ADDRESS");
    mPreviousAddress = qgetenv("USBMUXD_SOCKET_ADDRESS");
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
    if (mEnvironmentSet) {
        if (mHadPreviousAddress)
            qputenv("USBMUXD_SOCKET_ADDRESS", mPreviousAddress);
        else
            qunsetenv("USBMUXD_SOCKET_ADDRESS");
        mEnvironmentSet = false;
    }
}

QStringList DevSim::control(const QString& command, bool* ok) const
{
    if (ok)
        *ok = false;
    // A plain UNIX socket: the test support library links no Qt network module.
    const QString controlPath = mSocketPath + ".ctl";
    const QByteArray path = QFile::encodeName(controlPath);
    sockaddr_un addr{};
    if (path.size() >= int(sizeof(addr.sun_path)))
        return {"ERROR control path too long"};
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.constData(), size_t(path.size()));
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        if (fd >= 0)
            ::close(fd);
        return {"ERROR cannot connect to " + controlPath};
    }
    const QByteArray request = command.toUtf8() + "\n";
    if (::send(fd, request.constData(), size_t(request.size()), MSG_NOSIGNAL) != request.size()) {
        ::close(fd);
        return {"ERROR cannot send to " + controlPath};
    }
    QByteArray reply;
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < 60000) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 200) <= 0)
            continue;
        char buffer[4096];
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0)
            break;
        reply.append(buffer, int(n));
        QList<QByteArray> lines = reply.split('\n');
        if (reply.endsWith('\n') && lines.size() >= 2) {
            const QByteArray& last = lines[lines.size() - 2];
            if (last.startsWith("OK") || last.startsWith("ERROR"))
                break;
        }
    }
    ::close(fd);
    QStringList lines = QString::fromUtf8(reply).split('\n', Qt::SkipEmptyParts);
    if (ok)
        *ok = !lines.isEmpty() && lines.last().startsWith("OK");
    return lines;
}

bool DevSim::attach(const QString& profile, QString* udid, QString* error)
{
    bool ok = false;
    const QStringList lines = control("attach " + QFileInfo(profile).absoluteFilePath(), &ok);
    const QString last = lines.value(lines.size() - 1);
    if (ok && udid)
        *udid = last.mid(3).trimmed();
    if (!ok && error)
        *error = last;
    return ok;
}

bool DevSim::attach(const DeviceProfile& profile)
{
    QString udid;
    return attach(writeProfile(profile.json()), &udid) && udid == profile.udid();
}

bool DevSim::detach(const QString& udid)
{
    bool ok = false;
    control("detach " + udid, &ok);
    return ok;
}

QStringList DevSim::attachedUdids() const
{
    bool ok = false;
    QStringList lines = control("list", &ok);
    QStringList udids;
    for (int i = 0; ok && i + 1 < lines.size(); ++i)
        udids << lines[i].section(' ', 0, 0);
    return udids;
}

QString DevSim::mediaDir(const QString& udid) const
{
    bool ok = false;
    QStringList lines = control("media " + udid, &ok);
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
        error = lockdownd_client_new_with_handshake(device, &lockdown, "kavrel-test");
}

Session::~Session()
{
    if (lockdown)
        lockdownd_client_free(lockdown);
    if (device)
        idevice_free(device);
}

lockdownd_service_descriptor_t Session::start(const char* service)
{
    lockdownd_service_descriptor_t descriptor = nullptr;
    if (!lockdown || lockdownd_start_service(lockdown, service, &descriptor) != LOCKDOWN_E_SUCCESS)
        return nullptr;
    return descriptor;
}

afc_client_t Session::afc(const char* service)
{
    lockdownd_service_descriptor_t descriptor = start(service);
    afc_client_t client = nullptr;
    if (descriptor)
        afc_client_new(device, descriptor, &client);
    lockdownd_service_descriptor_free(descriptor);
    return client;
}

QByteArray readAfcFile(afc_client_t afc, const QString& path, uint32_t chunk)
{
    uint64_t handle = 0;
    if (afc_file_open(afc, path.toUtf8().constData(), AFC_FOPEN_RDONLY, &handle) != AFC_E_SUCCESS)
        return {};
    QByteArray out;
    QByteArray buffer(int(chunk), '\0');
    uint32_t got = 0;
    while (afc_file_read(afc, handle, buffer.data(), chunk, &got) == AFC_E_SUCCESS && got > 0)
        out.append(buffer.constData(), int(got));
    afc_file_close(afc, handle);
    return out;
}

bool writeAfcFile(afc_client_t afc, const QString& path, const QByteArray& bytes, int chunk)
{
    uint64_t handle = 0;
    if (afc_file_open(afc, path.toUtf8().constData(), AFC_FOPEN_WRONLY, &handle) != AFC_E_SUCCESS)
        return false;
    bool ok = true;
    for (int pos = 0; ok && pos < bytes.size(); pos += chunk) {
        const uint32_t n = uint32_t(qMin(chunk, bytes.size() - pos));
        uint32_t written = 0;
        ok = afc_file_write(afc, handle, bytes.constData() + pos, n, &written) == AFC_E_SUCCESS &&
             written == n;
    }
    return afc_file_close(afc, handle) == AFC_E_SUCCESS && ok;
}

QMap<QString, QString> afcFileInfo(afc_client_t afc, const QString& path, afc_error_t* error)
{
    char** info = nullptr;
    *error = afc_get_file_info(afc, path.toUtf8().constData(), &info);
    QMap<QString, QString> out;
    for (int i = 0; info && info[i] && info[i + 1]; i += 2)
        out[info[i]] = info[i + 1];
    if (info)
        afc_dictionary_free(info);
    return out;
}

QString stringOf(plist_t dict, const char* key)
{
    plist_t node = dict ? plist_dict_get_item(dict, key) : nullptr;
    char* text = nullptr;
    if (node && plist_get_node_type(node) == PLIST_STRING)
        plist_get_string_val(node, &text);
    const QString out = QString::fromUtf8(text);
    free(text);
    return out;
}

quint64 uintOf(plist_t dict, const char* key, quint64 fallback)
{
    plist_t node = dict ? plist_dict_get_item(dict, key) : nullptr;
    if (!node || plist_get_node_type(node) != PLIST_UINT)
        return fallback;
    uint64_t value = 0;
    plist_get_uint_val(node, &value);
    return value;
}

} // namespace kavreltest
