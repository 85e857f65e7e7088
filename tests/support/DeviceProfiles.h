#pragma once
// Device profiles for kavrel-devsim, built per test: a udid, lockdown domains, files
// in the media folder and faults, written as JSON files the simulator reads.

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

namespace kavreltest {

// A 40-character udid, distinct for each n.
QString testUdid(int n);

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
    DeviceProfile& removeValue(const QString& domain, const QString& key);
    // The media library's totals; an empty object leaves iTunesPrefs.plist out.
    DeviceProfile& diskTotals(const QJsonObject& totals);
    // A file in the media folder with the given text, a file of a given size, a folder,
    // a symbolic link.
    DeviceProfile& textFile(const QString& path, const QString& text);
    DeviceProfile& sizedFile(const QString& path, qint64 size);
    DeviceProfile& folder(const QString& path);
    DeviceProfile& symlink(const QString& path, const QString& target);
    // Lockdown refuses to start the service.
    DeviceProfile& failService(const QString& service);

    QJsonObject json() const;
    // Writes the profile into dir and returns the file's path (empty on failure).
    QString writeTo(const QString& dir) const;

private:
    QString mUdid;
    bool mJailbroken = false;
    QJsonObject mLockdown;
    QJsonObject mTotals;
    QJsonArray mMedia;
    QJsonArray mFailing;
};

} // namespace kavreltest

#include "DevSim.h"

#include <QList>

namespace kavreltest {

// kavrel-devsim with devices built from DeviceProfile objects: starts with the given
// devices attached, attaches and detaches them later. Stopping restores the
// environment, so code run afterwards finds no usbmuxd.
class DeviceSim
{
public:
    // True when the simulator program was built.
    static bool available();
    bool start(const QList<DeviceProfile>& profiles = {});
    void stop() { mSim.stop(); }
    bool attach(const DeviceProfile& profile);
    bool detach(const QString& udid) { return mSim.detach(udid); }
    DevSim& sim() { return mSim; }

private:
    QString write(const DeviceProfile& profile) const;
    DevSim mSim;
};

} // namespace kavreltest
