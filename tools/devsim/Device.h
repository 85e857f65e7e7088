#pragma once
// One simulated device: identity and lockdown values, pairing, its file system (media
// folder, app containers), the app registry, notifications, started-service ports and
// the connections open to it. Shared between connection threads; every member function
// is thread-safe.

#include "Crypto.h"
#include "Plist.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace devsim {

class Stream;

// Faults a profile can ask for (all off by default).
struct Faults
{
    // Service name -> lockdown error that StartService answers (e.g. "ServiceProhibited").
    std::map<std::string, std::string> failingServices;
    // Install/upgrade or uninstall that ends with this Error (empty: succeeds).
    std::string installError;
    std::string installErrorDescription;
    std::string uninstallError;
    std::string uninstallErrorDescription;
    // Every status message of the installation service is delayed by this much.
    int statusDelayMs = 0;
    // Status messages of the installation service carry no PercentComplete.
    bool statusWithoutPercent = false;
    // Every icon the springboard service hands out comes this much later.
    int iconDelayMs = 0;
    // The installation service never answers (a device gone silent).
    bool silent = false;
    // Service name -> "bytes" or "shape": the service answers the first request with a
    // framed message that is not a property list ("bytes") or with a property list of the
    // wrong shape ("shape"), then closes the connection, as a crashing daemon does.
    std::map<std::string, std::string> malformedServices;
    // An AFC write stores at most this many bytes of each write (-1: all).
    int64_t afcWriteLimit = -1;
    // Service connections are cut after sending this many bytes (0: never); limited to
    // dropService when that is set ("com.apple.mobile.lockdown" names lockdown's own
    // connections, which are otherwise spared).
    uint64_t dropAfterBytes = 0;
    std::string dropService;
    // The device is detached once a host has sent this many bytes to com.apple.afc
    // (0: never).
    uint64_t detachAfterAfcBytes = 0;
};

// An installed app. Immutable once registered: changes replace the whole record.
struct App
{
    std::string bundleId;
    std::string applicationType = "User"; // "User" or "System"
    std::string containerPath;            // host folder: <Name>.app, Documents, Library, tmp...
    std::string deviceContainerPath;      // the same folder as the device names it
    std::string bundleName;               // "<Name>.app"
    Plist info;                           // the bundle's Info.plist
    // Further attributes reported by the installation service (SignerIdentity, ...).
    Plist attributes;
    std::string iconFile; // file name of the icon inside the bundle (empty: none)
    // House arrest vends the container, but listing it fails (a container the app's
    // sandbox keeps from the host).
    bool containerUnreadable = false;

    std::string bundlePath() const { return containerPath + "/" + bundleName; }
    std::string documentsPath() const { return containerPath + "/Documents"; }
    // Info.plist merged with attributes, plus ApplicationType, Path and Container, as an
    // installation proxy lists an app.
    Plist browseEntry() const;
    // The icon's bytes as stored in the bundle (empty when there is none).
    std::string iconBytes() const;
};
using AppPtr = std::shared_ptr<const App>;

class Device
{
public:
    // Builds (or, when its folder already holds state, restores) a device from a profile
    // under stateRoot/<udid>. Null with error on failure.
    static std::shared_ptr<Device> create(plist_t profile, const std::string& profileDir,
                                          const std::string& stateRoot, std::string* error);
    ~Device();

    const std::string& udid() const { return mUdid; }
    uint32_t deviceId() const { return mDeviceId; }
    void setDeviceId(uint32_t id) { mDeviceId = id; }
    uint32_t productId() const { return mProductId; }
    bool jailbroken() const { return mJailbroken; }
    const Faults& faults() const { return mFaults; }

    // Host folders: the device's root (what afc2 shows), its media folder (what afc
    // shows) and the folder app containers are created in.
    std::string rootPath() const { return mStatePath + "/fs"; }
    std::string mediaPath() const { return rootPath() + "/private/var/mobile/Media"; }
    std::string applicationsPath() const { return rootPath() + "/private/var/mobile/Applications"; }
    std::string statePath() const { return mStatePath; }

    // Lockdown values. domain "" is the global domain; key "" means the whole domain.
    // Null when the domain or key does not exist.
    Plist value(const std::string& domain, const std::string& key) const;
    // Error text as lockdown reports it ("SetProhibited", ...) on failure.
    bool setValue(const std::string& domain, const std::string& key, plist_t value,
                  std::string* error);
    bool removeValue(const std::string& domain, const std::string& key, std::string* error);

    // Pairing: the device's own key and certificate (TLS server side) and the host ids
    // it trusts.
    const Identity& identity() const { return mIdentity; }
    std::string publicKeyPem() const { return mPublicKeyPem; }
    SSL_CTX* tlsContext() const { return mTls; }
    bool trustsHost(const std::string& hostId) const;
    void trustHost(const std::string& hostId);
    void forgetHost(const std::string& hostId);
    // The pair record usbmuxd hands out for this device, made when the device was built
    // (certificates and keys generated by the simulator, binary plist).
    std::string initialPairRecord() const { return mInitialPairRecord; }
    std::string escrowBag() const { return mEscrowBag; }

    // Started services: a fresh port per StartService, consumed by the first connection.
    // A port nobody connects to closes after a minute, as on a device.
    uint16_t openServicePort(const std::string& service);
    // The service waiting on port, or "" (and the port is closed).
    std::string takeServicePort(uint16_t port);

    // App registry.
    std::vector<AppPtr> apps() const;
    AppPtr findApp(const std::string& bundleId) const;
    // Adds or replaces the app and writes its record into its container.
    void registerApp(std::shared_ptr<App> app);
    // Removes the app from the registry and deletes its container; false when unknown.
    bool removeApp(const std::string& bundleId);
    // A new, empty container folder (with Documents, Library, tmp) for an app.
    std::string newContainer() const;

    // Notifications ("com.apple.mobile.application_installed", ...): observers run on the
    // posting thread.
    using Observer = std::function<void(const std::string& name)>;
    int addObserver(Observer observer);
    void removeObserver(int token);
    void postNotification(const std::string& name);

    // Connections open to the device, cut when it is detached.
    void trackConnection(Stream* stream);
    void untrackConnection(Stream* stream);
    void disconnectAll();
    bool detached() const;

private:
    Device() = default;
    bool build(plist_t profile, const std::string& profileDir, const std::string& stateRoot,
               std::string* error);
    bool loadIdentity(std::string* error);
    void loadFaults(plist_t faults);
    void populateMedia(plist_t profile, const std::string& profileDir);
    void populateApps(plist_t apps, const std::string& profileDir);
    void generateApps(plist_t rule);
    void scanApps();
    void saveValues() const;
    void saveTrustedHosts() const;
    bool makePairRecord(std::string* error);
    std::shared_ptr<App> appFromProfile(plist_t entry, const std::string& profileDir) const;
    std::shared_ptr<App> loadAppRecord(const std::string& recordPath) const;
    std::string appRecordPath(const std::string& bundleId) const;
    std::string devicePathOf(const std::string& hostPath) const;

    std::string mUdid;
    uint32_t mDeviceId = 0;
    uint32_t mProductId = 0x12a8;
    bool mJailbroken = false;
    bool mUniqueKey = false; // generate a key of its own instead of the fixed one
    Faults mFaults;
    std::string mStatePath;

    mutable std::mutex mLock;
    Plist mValues; // dict: domain ("global" for the global domain) -> dict of values
    std::set<std::string> mReadOnlyKeys;
    Identity mIdentity;
    std::string mPublicKeyPem;
    SSL_CTX* mTls = nullptr;
    std::set<std::string> mTrustedHosts;
    std::string mInitialPairRecord;
    std::string mEscrowBag;
    struct OpenPort
    {
        std::string service;
        std::chrono::steady_clock::time_point opened;
    };
    std::map<uint16_t, OpenPort> mServicePorts;
    uint16_t mNextPort = 49152;
    std::map<std::string, std::shared_ptr<const App>> mApps;
    std::map<int, Observer> mObservers;
    int mNextObserver = 1;
    std::set<Stream*> mConnections;
    bool mDetached = false;
};

// Helpers for files on the host side, shared by services.
bool makePath(const std::string& path);
bool removeTree(const std::string& path);
bool writeWholeFile(const std::string& path, const std::string& bytes);
bool readWholeFile(const std::string& path, std::string* bytes);
// Creates (or resizes) a file of the given size without writing its bytes (sparse).
bool makeSizedFile(const std::string& path, uint64_t size);

} // namespace devsim
