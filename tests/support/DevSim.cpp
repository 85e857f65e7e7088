#include "DevSim.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QtGlobal>

#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kavreltest {

namespace {

QString devsimBinary()
{
#ifdef KAVREL_DEVSIM
    return QStringLiteral(KAVREL_DEVSIM);
#else
    return QString();
#endif
}

} // namespace

DevSim::DevSim() = default;

DevSim::~DevSim()
{
    stop();
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
    const QString binary = devsimBinary();
    if (binary.isEmpty())
        return fail("kavrel-devsim is not built (KAVREL_DEVSIM undefined)");
    if (!mDir.isValid())
        return fail("no temporary folder");
    mSocketPath = mDir.filePath("usbmuxd.sock");
    mStartedUdids.clear();
    QFile::remove(logPath());

    QStringList arguments{"--socket", mSocketPath, "--state", mDir.filePath("state"),
                          "--exit-with-parent"};
    arguments += extraArguments;
    arguments += profiles;
    mProcess.setProgram(binary);
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

bool DevSim::isRunning() const
{
    return mProcess.state() == QProcess::Running;
}

QStringList DevSim::control(const QString& command, bool* ok) const
{
    if (ok)
        *ok = false;
    // A plain UNIX socket: the test support library links no Qt network module.
    const QByteArray path = QFile::encodeName(controlPath());
    sockaddr_un addr{};
    if (path.size() >= int(sizeof(addr.sun_path)))
        return {"ERROR control path too long"};
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.constData(), size_t(path.size()));
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        if (fd >= 0)
            ::close(fd);
        return {"ERROR cannot connect to " + controlPath()};
    }
    const QByteArray request = command.toUtf8() + "\n";
    if (::send(fd, request.constData(), size_t(request.size()), MSG_NOSIGNAL) != request.size()) {
        ::close(fd);
        return {"ERROR cannot send to " + controlPath()};
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
    QString path = profile;
    if (!QFileInfo::exists(path) && !profile.contains('/'))
        path = shippedProfile(profile);
    bool ok = false;
    QStringList lines = control("attach " + QFileInfo(path).absoluteFilePath(), &ok);
    const QString last = lines.isEmpty() ? QString() : lines.last();
    if (ok && udid)
        *udid = last.mid(3).trimmed();
    if (!ok && error)
        *error = last;
    return ok;
}

bool DevSim::detach(const QString& udid, QString* error)
{
    bool ok = false;
    QStringList lines = control("detach " + udid, &ok);
    if (!ok && error)
        *error = lines.isEmpty() ? QString() : lines.last();
    return ok;
}

QStringList DevSim::attachedUdids() const
{
    bool ok = false;
    QStringList lines = control("list", &ok);
    QStringList udids;
    if (!ok)
        return udids;
    lines.removeLast();
    for (const QString& line : lines)
        udids << line.section(' ', 0, 0);
    return udids;
}

QString DevSim::mediaDir(const QString& udid) const
{
    bool ok = false;
    QStringList lines = control("media " + udid, &ok);
    return ok ? lines.last().mid(3).trimmed() : QString();
}

QString DevSim::rootDir(const QString& udid) const
{
    bool ok = false;
    QStringList lines = control("root " + udid, &ok);
    return ok ? lines.last().mid(3).trimmed() : QString();
}

QString DevSim::log() const
{
    QFile file(logPath());
    return file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()) : QString();
}

QString DevSim::shippedProfile(const QString& name)
{
    static QString dir;
    if (dir.isEmpty()) {
        QProcess probe;
        probe.start(devsimBinary(), {"--print-profile-dir"});
        probe.waitForFinished(10000);
        dir = QString::fromLocal8Bit(probe.readAllStandardOutput()).trimmed();
    }
    return dir + "/" + (name.endsWith(".json") ? name : name + ".json");
}

QJsonObject DevSim::loadProfile(const QString& nameOrPath)
{
    QString path = QFileInfo::exists(nameOrPath) ? nameOrPath : shippedProfile(nameOrPath);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

bool DevSim::writeProfile(const QString& path, const QJsonObject& profile)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(QJsonDocument(profile).toJson()) > 0;
}

bool DevSim::writeProfile(const QString& path, const QVariantMap& profile)
{
    return writeProfile(path, QJsonObject::fromVariantMap(profile));
}

QString DevSim::writeProfile(const QJsonObject& profile) const
{
    QString udid = profile.value("udid").toString();
    QString path =
        mDir.filePath("profiles/" + (udid.isEmpty() ? QString("profile") : udid) + ".json");
    return writeProfile(path, profile) ? path : QString();
}

QJsonObject DevSim::minimalProfile(const QString& udid, const QString& deviceName)
{
    QJsonObject global{{"DeviceName", deviceName},
                       {"ProductType", "iPhone10,4"},
                       {"ProductVersion", "14.4"},
                       {"BuildVersion", "18D52"},
                       {"SerialNumber", "SIM" + udid.left(9).toUpper()},
                       {"DeviceClass", "iPhone"}};
    QJsonObject disk{{"TotalDataCapacity", 31708938240.0},
                     {"TotalDataAvailable", 20000000000.0},
                     {"TotalDiskCapacity", 32000000000.0}};
    QJsonObject battery{{"BatteryCurrentCapacity", 50}, {"BatteryIsCharging", false}};
    QJsonObject lockdown{
        {"global", global}, {"com.apple.disk_usage", disk}, {"com.apple.mobile.battery", battery}};
    return QJsonObject{{"udid", udid}, {"lockdown", lockdown}};
}

QString DevSim::makeUdid(int seed)
{
    return QString("%1").arg(quint32(seed), 8, 16, QChar('0')) + QString(32, QChar('d'));
}

} // namespace kavreltest
