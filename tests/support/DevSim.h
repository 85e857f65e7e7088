#pragma once
// kavrel-devsim (the simulated usbmuxd and devices) for a test: the device profiles it
// reads, the simulator itself, and small libimobiledevice clients that talk to it.

#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <plist/plist.h>

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

namespace kavreltest {

// The udids of the shipped profiles "iphone" and "ipad-jailbroken".
inline const QString kPhone = QStringLiteral("a1b2c3d4e5f60718293a4b5c6d7e8f9012345678");
inline const QString kPad = QStringLiteral("f0e1d2c3b4a5968778695a4b3c2d1e0f9a8b7c6d");

// A 40-character udid, distinct for each n.
QString testUdid(int n);

// A device profile, written as the JSON file the simulator reads.
class DeviceProfile
{
public:
    // An iPhone with the usual global values, the disk-usage and battery domains and a
    // media library whose totals are all set.
    explicit DeviceProfile(const QString& udid = QString(), const QString& name = QString());

    QString udid() const { return mUdid; }
    DeviceProfile& jailbroken(bool on = true);
    // Sets a value of the global domain ("" domain) or of a named domain.
    DeviceProfile& value(const QString& domain, const QString& key, const QJsonValue& value);
    // The media library's totals; an empty object leaves iTunesPrefs.plist out.
    DeviceProfile& diskTotals(const QJsonObject& totals);
    // A file in the media folder with the given text, a file of a given size, a symbolic
    // link.
    DeviceProfile& textFile(const QString& path, const QString& text);
    DeviceProfile& sizedFile(const QString& path, qint64 size);
    DeviceProfile& symlink(const QString& path, const QString& target);
    // Lockdown refuses to start the service.
    DeviceProfile& failService(const QString& service);
    // Faults and apps as the simulator's profile format spells them.
    DeviceProfile& faults(const QJsonObject& faults);
    DeviceProfile& apps(const QJsonArray& apps);

    QJsonObject json() const;

private:
    QString mUdid;
    bool mJailbroken = false;
    QJsonObject mLockdown, mTotals, mFaults;
    QJsonArray mMedia, mApps;
};

// Starts the simulator on a socket in a temporary folder, waits until it serves, and
// points libimobiledevice in this process at it through USBMUXD_SOCKET_ADDRESS. Stops
// it on destruction.
class DevSim
{
public:
    DevSim() = default;
    ~DevSim() { stop(); }
    DevSim(const DevSim&) = delete;
    DevSim& operator=(const DevSim&) = delete;

    // Profiles are file paths or the names of shipped profiles ("iphone",
    // "ipad-jailbroken"). extraArguments go to the simulator (e.g. "--state", DIR).
    bool start(const QStringList& profiles = {}, QString* error = nullptr,
               const QStringList& extraArguments = {});
    bool start(const QList<DeviceProfile>& profiles);
    // Ends the simulator (every connection to it is cut) and unsets the address, so code
    // run afterwards finds no usbmuxd.
    void stop();
    bool isRunning() const { return mProcess.state() == QProcess::Running; }

    QString socketPath() const { return mSocketPath; }
    // A folder that lives as long as this object (profiles, scratch files).
    QString tempDir() const { return mDir.path(); }

    // Hot-plug through the control socket.
    bool attach(const DeviceProfile& profile);
    bool detach(const QString& udid);
    // The udids attached now.
    QStringList attachedUdids() const;
    // Host folder behind com.apple.afc of an attached device.
    QString mediaDir(const QString& udid) const;
    // What the simulator wrote to standard error so far (with "--verbose": every request).
    QString log() const;

    // Writes the profile into tempDir() as profiles/<udid>.json and returns the path.
    QString writeProfile(const QJsonObject& profile) const;

private:
    // Sends one control command; the answer's lines (the last is "OK ..." or "ERROR ...").
    QStringList control(const QStringList& command, bool* ok) const;
    QString logPath() const { return mDir.filePath("devsim.log"); }

    QTemporaryDir mDir;
    QProcess mProcess;
    QString mSocketPath;
    bool mEnvironmentSet = false;
};

// A device handle with a completed lockdown handshake (TLS session).
class Session
{
public:
    explicit Session(const QString& udid);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    bool ok() const { return lockdown != nullptr; }

    idevice_t device = nullptr;
    lockdownd_client_t lockdown = nullptr;
};

} // namespace kavreltest
