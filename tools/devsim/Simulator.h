#pragma once
// The simulated usbmuxd: the device list, hot-plug listeners, the pair-record store,
// the client socket (usbmuxd's plist protocol) and the control socket.

#include "Device.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace devsim {

class Stream;

struct Options
{
    std::string socketPath;  // what clients reach through USBMUXD_SOCKET_ADDRESS=UNIX:...
    std::string controlPath; // the control socket (default: socketPath + ".ctl")
    std::string stateDir;    // where device state lives; a temporary folder when empty
};

class Simulator
{
public:
    explicit Simulator(Options options);
    ~Simulator();

    // Creates the state folder and both sockets.
    bool start(std::string* error);
    // Serves until stop() (or a signal) asks it to end; then cuts every connection.
    void run();
    // Safe from a signal handler.
    void stop();

    // Hot-plug.
    bool attach(const std::string& profilePath, std::string* udid, std::string* error);
    bool detach(const std::string& udid, std::string* error);
    std::vector<std::shared_ptr<Device>> devices() const;
    std::shared_ptr<Device> deviceById(uint32_t id) const;
    std::shared_ptr<Device> deviceByUdid(const std::string& udid) const;

    // usbmuxd's pair-record store.
    bool readPairRecord(const std::string& id, std::string* data) const;
    void savePairRecord(const std::string& id, const std::string& data);
    bool deletePairRecord(const std::string& id);
    std::string systemBuid() const { return mSystemBuid; }

    const Options& options() const { return mOptions; }

    // Hot-plug listeners (usbmuxd clients that sent Listen). addListener first sends the
    // new listener an Attached message per device.
    void addListener(Stream* stream);
    void removeListener(Stream* stream);
    // Sends a usbmuxd message to every listener; called with mListenLock held.
    void notifyListeners(plist_t message);
    // Sends listeners a Paired event for the device.
    void announcePaired(uint32_t deviceId);

    // Worker threads, counted so that shutdown can wait for them.
    void spawn(void (*body)(Simulator&, int fd), int fd);
    // Connections cut at shutdown.
    void trackClient(Stream* stream);
    void untrackClient(Stream* stream);

private:
    void acceptOn(int listenFd, void (*body)(Simulator&, int fd));
    void pairRecordPath(const std::string& id, std::string* path) const;

    Options mOptions;
    bool mOwnsState = false;
    int mMuxFd = -1;
    int mControlFd = -1;
    int mWakePipe[2] = {-1, -1};
    std::string mSystemBuid;

    mutable std::mutex mLock;
    std::vector<std::shared_ptr<Device>> mDevices;
    uint32_t mNextDeviceId = 1;
    std::map<std::string, std::string> mPairRecords;

    std::mutex mListenLock;
    std::set<Stream*> mListeners;

    std::mutex mThreadLock;
    std::condition_variable mThreadsDone;
    int mThreads = 0;
    std::set<Stream*> mClients;
    std::atomic<bool> mStopping{false};
};

// Plist message helpers of the usbmuxd protocol.
Plist attachedMessage(const Device& device);
Plist detachedMessage(uint32_t deviceId);

// Thread bodies (defined in Usbmux.cpp and Control.cpp).
void serveUsbmuxClient(Simulator& simulator, int fd);
void serveControlClient(Simulator& simulator, int fd);
// Lockdown on port 62078 (Lockdown.cpp).
void serveLockdown(Simulator& simulator, std::shared_ptr<Device> device, Stream& stream);
// The control client: `kavrel-devsim ctl ...`.
int runControlCommand(const std::string& controlPath, const std::vector<std::string>& words);

} // namespace devsim
