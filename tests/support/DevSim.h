#pragma once
// Runs kavrel-devsim (the simulated usbmuxd and devices) for a test: starts it on a
// socket in a temporary folder, waits until it serves, and points libimobiledevice in
// this process at it through USBMUXD_SOCKET_ADDRESS. Stops it on destruction.

#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QVariantMap>

namespace kavreltest {

class DevSim
{
public:
    DevSim();
    ~DevSim();
    DevSim(const DevSim&) = delete;
    DevSim& operator=(const DevSim&) = delete;

    // Profiles are file paths or the names of shipped profiles ("iphone",
    // "ipad-jailbroken"). extraArguments go to the simulator (e.g. "--state", DIR).
    bool start(const QStringList& profiles = {}, QString* error = nullptr,
               const QStringList& extraArguments = {});
    // Ends the simulator (every connection to it is cut) and restores the environment.
    void stop();
    bool isRunning() const;

    QString socketPath() const { return mSocketPath; }
    QString controlPath() const { return mSocketPath + ".ctl"; }
    // A folder that lives as long as this object (profiles, scratch files).
    QString tempDir() const { return mDir.path(); }
    // The udids attached at start, in profile order.
    QStringList startedUdids() const { return mStartedUdids; }

    // Hot-plug through the control socket.
    bool attach(const QString& profile, QString* udid = nullptr, QString* error = nullptr);
    bool detach(const QString& udid, QString* error = nullptr);
    // The udids attached now.
    QStringList attachedUdids() const;
    // Host folders behind com.apple.afc and com.apple.afc2 of an attached device.
    QString mediaDir(const QString& udid) const;
    QString rootDir(const QString& udid) const;
    // Sends one control command; the answer's lines (the last is "OK ..." or "ERROR ...").
    QStringList control(const QString& command, bool* ok = nullptr) const;
    // What the simulator wrote to standard error so far (with --verbose: its traffic).
    QString log() const;
    QString logPath() const { return mDir.filePath("devsim.log"); }

    // Path of a shipped profile ("iphone" -> .../tools/devsim/profiles/iphone.json).
    static QString shippedProfile(const QString& name);
    static QJsonObject loadProfile(const QString& nameOrPath);
    static bool writeProfile(const QString& path, const QJsonObject& profile);
    static bool writeProfile(const QString& path, const QVariantMap& profile);
    // Writes the profile into tempDir() as <udid>.json and returns the path.
    QString writeProfile(const QJsonObject& profile) const;
    // A small device: udid, name, the three lockdown domains and no apps.
    static QJsonObject minimalProfile(const QString& udid,
                                      const QString& deviceName = "Test Device");
    // A 40-character udid derived from a seed, so tests can make distinct devices.
    static QString makeUdid(int seed);

private:
    QTemporaryDir mDir;
    QProcess mProcess;
    QString mSocketPath;
    QStringList mStartedUdids;
    QByteArray mPreviousAddress;
    bool mHadPreviousAddress = false;
    bool mEnvironmentSet = false;
};

} // namespace kavreltest
