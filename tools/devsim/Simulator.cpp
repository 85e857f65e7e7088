#include "Simulator.h"

#include "Json.h"
#include "Log.h"
#include "Stream.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace devsim {

namespace {

// Header and framing of the usbmuxd protocol live in Usbmux.cpp; this file keeps the
// registry side.
std::string directoryOf(const std::string& path)
{
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

Plist loadProfile(const std::string& path, std::string* error)
{
    std::string bytes;
    if (!readWholeFile(path, &bytes)) {
        *error = "cannot read profile " + path;
        return nullptr;
    }
    size_t first = bytes.find_first_not_of(" \t\r\n");
    Plist profile;
    if (first != std::string::npos && bytes[first] == '{') {
        std::string why;
        profile = jsonToPlist(bytes, &why);
        if (!profile)
            *error = "profile " + path + " is not valid JSON: " + why;
    } else {
        profile = plistFromBytes(bytes);
        if (!profile)
            *error = "profile " + path + " is neither JSON nor a property list";
    }
    return profile;
}

} // namespace

Plist attachedMessage(const Device& device)
{
    Plist message = plistDict();
    dictSetString(message.get(), "MessageType", "Attached");
    dictSetUInt(message.get(), "DeviceID", device.deviceId());
    Plist properties = plistDict();
    dictSetUInt(properties.get(), "ConnectionSpeed", 480000000);
    dictSetString(properties.get(), "ConnectionType", "USB");
    dictSetUInt(properties.get(), "DeviceID", device.deviceId());
    dictSetUInt(properties.get(), "LocationID", 0x14100000u + device.deviceId());
    dictSetUInt(properties.get(), "ProductID", device.productId());
    dictSetString(properties.get(), "SerialNumber", device.udid());
    dictSet(message.get(), "Properties", std::move(properties));
    return message;
}

Plist detachedMessage(uint32_t deviceId)
{
    Plist message = plistDict();
    dictSetString(message.get(), "MessageType", "Detached");
    dictSetUInt(message.get(), "DeviceID", deviceId);
    return message;
}

Simulator::Simulator(Options options) : mOptions(std::move(options))
{
    if (mOptions.controlPath.empty())
        mOptions.controlPath = mOptions.socketPath + ".ctl";
}

Simulator::~Simulator()
{
    for (int fd : {mMuxFd, mControlFd, mWakePipe[0], mWakePipe[1]})
        if (fd >= 0)
            ::close(fd);
    if (!mOptions.socketPath.empty())
        ::unlink(mOptions.socketPath.c_str());
    if (!mOptions.controlPath.empty())
        ::unlink(mOptions.controlPath.c_str());
    if (mOwnsState)
        removeTree(mOptions.stateDir);
}

bool Simulator::start(std::string* error)
{
    if (mOptions.stateDir.empty()) {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/kavrel-devsim-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (!::mkdtemp(buffer.data())) {
            *error = std::string("cannot create a state folder: ") + std::strerror(errno);
            return false;
        }
        mOptions.stateDir = buffer.data();
        mOwnsState = true;
    } else if (!makePath(mOptions.stateDir)) {
        *error = "cannot create the state folder " + mOptions.stateDir;
        return false;
    }
    std::string buid;
    if (readWholeFile(mOptions.stateDir + "/system-buid.txt", &buid) && !buid.empty()) {
        mSystemBuid = buid;
    } else {
        mSystemBuid = randomUuid();
        writeWholeFile(mOptions.stateDir + "/system-buid.txt", mSystemBuid);
    }
    if (::pipe2(mWakePipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        *error = "pipe failed";
        return false;
    }
    mMuxFd = listenUnix(mOptions.socketPath, error);
    if (mMuxFd < 0)
        return false;
    mControlFd = listenUnix(mOptions.controlPath, error);
    return mControlFd >= 0;
}

void Simulator::stop()
{
    mStopping = true;
    if (mWakePipe[1] >= 0) {
        char c = 'q';
        ssize_t n = ::write(mWakePipe[1], &c, 1);
        (void)n;
    }
}

void Simulator::acceptOn(int listenFd, void (*body)(Simulator&, int fd))
{
    int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
        return;
    spawn(body, fd);
}

void Simulator::run()
{
    while (!mStopping) {
        pollfd fds[3] = {{mMuxFd, POLLIN, 0}, {mControlFd, POLLIN, 0}, {mWakePipe[0], POLLIN, 0}};
        int n = ::poll(fds, 3, -1);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            logError("poll: %s", std::strerror(errno));
            break;
        }
        if (fds[2].revents)
            break;
        if (fds[0].revents & POLLIN)
            acceptOn(mMuxFd, serveUsbmuxClient);
        if (fds[1].revents & POLLIN)
            acceptOn(mControlFd, serveControlClient);
    }
    mStopping = true;
    // Cut every connection, then wait for the threads serving them.
    std::unique_lock<std::mutex> lock(mThreadLock);
    for (Stream* stream : mClients)
        stream->shutdownNow();
    mThreadsDone.wait_for(lock, std::chrono::seconds(10), [this] { return mThreads == 0; });
}

void Simulator::spawn(void (*body)(Simulator&, int fd), int fd)
{
    {
        std::lock_guard<std::mutex> lock(mThreadLock);
        if (mStopping) {
            ::close(fd);
            return;
        }
        ++mThreads;
    }
    std::thread([this, body, fd] {
        body(*this, fd);
        std::lock_guard<std::mutex> lock(mThreadLock);
        if (--mThreads == 0)
            mThreadsDone.notify_all();
    }).detach();
}

void Simulator::trackClient(Stream* stream)
{
    std::lock_guard<std::mutex> lock(mThreadLock);
    mClients.insert(stream);
    if (mStopping)
        stream->shutdownNow();
}

void Simulator::untrackClient(Stream* stream)
{
    std::lock_guard<std::mutex> lock(mThreadLock);
    mClients.erase(stream);
}

// ---- devices ----

bool Simulator::attach(const std::string& profilePath, std::string* udid, std::string* error)
{
    Plist profile = loadProfile(profilePath, error);
    if (!profile)
        return false;
    std::string wanted = dictString(profile.get(), "udid");
    if (deviceByUdid(wanted)) {
        *error = "a device with udid " + wanted + " is already attached";
        return false;
    }
    auto device = Device::create(profile.get(), directoryOf(profilePath),
                                 mOptions.stateDir + "/devices", error);
    if (!device)
        return false;
    // Listeners see the device list and its changes in one order: announcing happens
    // under the listener lock, and so does a new listener's initial list.
    std::lock_guard<std::mutex> listenLock(mListenLock);
    {
        std::lock_guard<std::mutex> lock(mLock);
        for (const auto& other : mDevices) {
            if (other->udid() == device->udid()) {
                *error = "a device with udid " + device->udid() + " is already attached";
                return false;
            }
        }
        device->setDeviceId(mNextDeviceId++);
        if (!mPairRecords.count(device->udid())) {
            std::string saved;
            std::string path;
            pairRecordPath(device->udid(), &path);
            if (readWholeFile(path, &saved) && !saved.empty())
                mPairRecords[device->udid()] = saved;
            else
                mPairRecords[device->udid()] = device->initialPairRecord();
        }
        mDevices.push_back(device);
    }
    *udid = device->udid();
    logDebug("attached %s as device %u", device->udid().c_str(), device->deviceId());
    Plist message = attachedMessage(*device);
    notifyListeners(message.get());
    return true;
}

bool Simulator::detach(const std::string& udid, std::string* error)
{
    std::shared_ptr<Device> device;
    std::lock_guard<std::mutex> listenLock(mListenLock);
    {
        std::lock_guard<std::mutex> lock(mLock);
        for (auto it = mDevices.begin(); it != mDevices.end(); ++it) {
            if ((*it)->udid() == udid) {
                device = *it;
                mDevices.erase(it);
                break;
            }
        }
    }
    if (!device) {
        *error = "no attached device with udid " + udid;
        return false;
    }
    device->disconnectAll();
    logDebug("detached %s (device %u)", udid.c_str(), device->deviceId());
    Plist message = detachedMessage(device->deviceId());
    notifyListeners(message.get());
    return true;
}

std::vector<std::shared_ptr<Device>> Simulator::devices() const
{
    std::lock_guard<std::mutex> lock(mLock);
    return mDevices;
}

std::shared_ptr<Device> Simulator::deviceById(uint32_t id) const
{
    std::lock_guard<std::mutex> lock(mLock);
    for (const auto& device : mDevices)
        if (device->deviceId() == id)
            return device;
    return nullptr;
}

std::shared_ptr<Device> Simulator::deviceByUdid(const std::string& udid) const
{
    std::lock_guard<std::mutex> lock(mLock);
    for (const auto& device : mDevices)
        if (device->udid() == udid)
            return device;
    return nullptr;
}

// ---- pair records ----

void Simulator::pairRecordPath(const std::string& id, std::string* path) const
{
    std::string safe;
    for (char c : id)
        safe += (c == '/' || c == '.') ? '_' : c;
    *path = mOptions.stateDir + "/pair-records/" + safe + ".plist";
}

bool Simulator::readPairRecord(const std::string& id, std::string* data) const
{
    std::lock_guard<std::mutex> lock(mLock);
    auto it = mPairRecords.find(id);
    if (it == mPairRecords.end())
        return false;
    *data = it->second;
    return true;
}

void Simulator::savePairRecord(const std::string& id, const std::string& data)
{
    std::lock_guard<std::mutex> lock(mLock);
    mPairRecords[id] = data;
    std::string path;
    pairRecordPath(id, &path);
    writeWholeFile(path, data);
}

bool Simulator::deletePairRecord(const std::string& id)
{
    std::lock_guard<std::mutex> lock(mLock);
    std::string path;
    pairRecordPath(id, &path);
    ::unlink(path.c_str());
    return mPairRecords.erase(id) > 0;
}

// ---- listeners ----

void Simulator::removeListener(Stream* stream)
{
    std::lock_guard<std::mutex> lock(mListenLock);
    mListeners.erase(stream);
}

} // namespace devsim
