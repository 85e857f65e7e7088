// AFC packets: a 40-byte header ("CFA6LPAA", then little-endian 64-bit entire length,
// header+data length, packet number, operation), the operation's data, and for writes
// a payload. Answers reuse the request's packet number.

#include "AfcService.h"
#include "Simulator.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "Device.h"
#include "Log.h"
#include "Service.h"
#include "Stream.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

namespace devsim {

namespace {

constexpr uint64_t kHeaderSize = 40;
constexpr uint64_t kMaxData = 1u << 20;  // operation data (paths, handles)
constexpr uint64_t kMaxRead = 16u << 20; // one FileRefRead answers at most this
constexpr size_t kChunk = 1u << 20;

enum Op : uint64_t
{
    OpStatus = 0x01,
    OpData = 0x02,
    OpReadDir = 0x03,
    OpRemovePath = 0x08,
    OpMakeDir = 0x09,
    OpGetFileInfo = 0x0A,
    OpGetDevInfo = 0x0B,
    OpFileOpen = 0x0D,
    OpFileOpenResult = 0x0E,
    OpFileRead = 0x0F,
    OpFileWrite = 0x10,
    OpFileSeek = 0x11,
    OpFileTell = 0x12,
    OpFileTellResult = 0x13,
    OpFileClose = 0x14,
    OpFileSetSize = 0x15,
    OpRenamePath = 0x18,
    OpFileLock = 0x1B,
    OpMakeLink = 0x1C,
    OpSetFileModTime = 0x1E,
    OpTruncate = 0x07,
    OpRemovePathAndContents = 0x22,
};

enum AfcError : uint64_t
{
    AfcSuccess = 0,
    AfcUnknownError = 1,
    AfcOpHeaderInvalid = 2,
    AfcReadError = 4,
    AfcWriteError = 5,
    AfcUnknownPacketType = 6,
    AfcInvalidArg = 7,
    AfcObjectNotFound = 8,
    AfcObjectIsDir = 9,
    AfcPermDenied = 10,
    AfcObjectExists = 16,
    AfcNoSpaceLeft = 18,
    AfcIoError = 20,
};

uint64_t le64(const char* p)
{
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i)
        v = (v << 8) | static_cast<unsigned char>(p[i]);
    return v;
}

void putLe64(std::string& out, uint64_t v)
{
    for (int i = 0; i < 8; ++i)
        out += static_cast<char>((v >> (8 * i)) & 0xFF);
}

uint64_t errorOf(int err)
{
    switch (err) {
    case ENOENT:
    case ENOTDIR:
        return AfcObjectNotFound;
    case EISDIR:
        return AfcObjectIsDir;
    case EACCES:
    case EPERM:
    case EROFS:
        return AfcPermDenied;
    case EEXIST:
        return AfcObjectExists;
    case ENOTEMPTY:
        // What a device answers for a non-empty folder; hosts read it as "not empty".
        return AfcUnknownError;
    case ENOSPC:
        return AfcNoSpaceLeft;
    case EINVAL:
        return AfcInvalidArg;
    default:
        return AfcIoError;
    }
}

class AfcSession
{
public:
    AfcSession(Stream& stream, const std::string& root, const Device* device)
        : mStream(stream), mRoot(root), mDevice(device)
    {
        while (mRoot.size() > 1 && mRoot.back() == '/')
            mRoot.pop_back();
    }

    ~AfcSession()
    {
        for (const auto& file : mFiles)
            ::close(file.second);
    }

    void run()
    {
        while (true) {
            char header[kHeaderSize];
            long n = mStream.readSome(header, kHeaderSize);
            if (n <= 0)
                return;
            if (n < static_cast<long>(kHeaderSize) &&
                !mStream.readFully(header + n, kHeaderSize - static_cast<size_t>(n)))
                return;
            if (std::memcmp(header, "CFA6LPAA", 8) != 0) {
                logDebug("AFC packet without magic; closing");
                return;
            }
            const uint64_t entire = le64(header + 8);
            const uint64_t thisLength = le64(header + 16);
            mPacket = le64(header + 24);
            const uint64_t op = le64(header + 32);
            if (thisLength < kHeaderSize || entire < thisLength ||
                thisLength - kHeaderSize > kMaxData) {
                logDebug("AFC packet with impossible lengths; closing");
                sendStatus(AfcOpHeaderInvalid);
                return;
            }
            mData.assign(thisLength - kHeaderSize, '\0');
            if (!mData.empty() && !mStream.readFully(&mData[0], mData.size()))
                return;
            mPayload = entire - thisLength;
            if (!dispatch(op))
                return;
            // Whatever payload the operation did not consume is skipped.
            if (mPayload > 0 && !skipPayload())
                return;
        }
    }

private:
    // ---- sending ----

    bool sendPacket(uint64_t op, const std::string& data, const std::string& payload = {})
    {
        std::string packet("CFA6LPAA", 8);
        putLe64(packet, kHeaderSize + data.size() + payload.size());
        putLe64(packet, kHeaderSize + data.size());
        putLe64(packet, mPacket);
        putLe64(packet, op);
        packet += data;
        packet += payload;
        return mStream.writeAll(packet);
    }

    bool sendStatus(uint64_t code)
    {
        std::string data;
        putLe64(data, code);
        return sendPacket(OpStatus, data);
    }

    // Data answers carry their bytes after the header part, as a device sends them:
    // hosts read the header part with a single receive but loop over the rest.
    bool sendData(const std::string& bytes) { return sendPacket(OpData, std::string(), bytes); }

    bool skipPayload()
    {
        if (mBuffer.size() < kChunk)
            mBuffer.resize(kChunk);
        while (mPayload > 0) {
            size_t n = static_cast<size_t>(std::min<uint64_t>(mPayload, mBuffer.size()));
            if (!mStream.readFully(mBuffer.data(), n))
                return false;
            mPayload -= n;
        }
        return true;
    }

    // ---- request data ----

    // The n-th NUL-terminated string of the data, starting at offset.
    bool stringAt(size_t offset, int index, std::string* out) const
    {
        size_t pos = offset;
        for (int i = 0; i <= index; ++i) {
            if (pos > mData.size())
                return false;
            size_t end = mData.find('\0', pos);
            if (end == std::string::npos)
                end = mData.size();
            if (i == index) {
                *out = mData.substr(pos, end - pos);
                return true;
            }
            pos = end + 1;
        }
        return false;
    }

    bool u64At(size_t offset, uint64_t* out) const
    {
        if (mData.size() < offset + 8)
            return false;
        *out = le64(mData.data() + offset);
        return true;
    }

    // Maps a device path into the root; ".." never climbs above it.
    std::string hostPath(const std::string& path) const
    {
        std::vector<std::string> parts;
        size_t pos = 0;
        while (pos <= path.size()) {
            size_t slash = path.find('/', pos);
            if (slash == std::string::npos)
                slash = path.size();
            std::string part = path.substr(pos, slash - pos);
            if (part == "..") {
                if (!parts.empty())
                    parts.pop_back();
            } else if (!part.empty() && part != ".") {
                parts.push_back(part);
            }
            pos = slash + 1;
        }
        std::string out = mRoot;
        for (const std::string& part : parts)
            out += "/" + part;
        return out;
    }

    bool isRoot(const std::string& host) const { return host == mRoot; }

    // ---- operations ----

    bool dispatch(uint64_t op)
    {
        switch (op) {
        case OpReadDir:
            return readDir();
        case OpGetFileInfo:
            return fileInfo();
        case OpGetDevInfo:
            return deviceInfo();
        case OpMakeDir:
            return makeDir();
        case OpRemovePath:
            return removePath(false);
        case OpRemovePathAndContents:
            return removePath(true);
        case OpRenamePath:
            return renamePath();
        case OpFileOpen:
            return fileOpen();
        case OpFileRead:
            return fileRead();
        case OpFileWrite:
            return fileWrite();
        case OpFileSeek:
            return fileSeek();
        case OpFileTell:
            return fileTell();
        case OpFileClose:
            return fileClose();
        case OpFileSetSize:
            return fileSetSize();
        case OpTruncate:
            return truncatePath();
        case OpFileLock:
            return fileHandle(nullptr) ? sendStatus(AfcSuccess) : sendStatus(AfcInvalidArg);
        case OpMakeLink:
            return makeLink();
        case OpSetFileModTime:
            return setModTime();
        default:
            logDebug("AFC operation 0x%llx not supported", static_cast<unsigned long long>(op));
            return sendStatus(AfcUnknownPacketType);
        }
    }

    bool readDir()
    {
        std::string path;
        if (!stringAt(0, 0, &path))
            return sendStatus(AfcInvalidArg);
        const std::string host = hostPath(path);
        DIR* dir = ::opendir(host.c_str());
        if (!dir)
            return sendStatus(errorOf(errno));
        std::vector<std::string> names;
        while (dirent* entry = ::readdir(dir)) {
            std::string name = entry->d_name;
            if (name != "." && name != "..")
                names.push_back(name);
        }
        ::closedir(dir);
        std::sort(names.begin(), names.end());
        std::string data(".\0..\0", 5);
        for (const std::string& name : names)
            data += name + '\0';
        return sendData(data);
    }

    bool fileInfo()
    {
        std::string path;
        if (!stringAt(0, 0, &path))
            return sendStatus(AfcInvalidArg);
        const std::string host = hostPath(path);
        struct stat st;
        if (::lstat(host.c_str(), &st) != 0)
            return sendStatus(errorOf(errno));
        const char* kind = S_ISDIR(st.st_mode)    ? "S_IFDIR"
                           : S_ISLNK(st.st_mode)  ? "S_IFLNK"
                           : S_ISREG(st.st_mode)  ? "S_IFREG"
                           : S_ISCHR(st.st_mode)  ? "S_IFCHR"
                           : S_ISBLK(st.st_mode)  ? "S_IFBLK"
                           : S_ISFIFO(st.st_mode) ? "S_IFIFO"
                                                  : "S_IFSOCK";
        const unsigned long long mtime =
            static_cast<unsigned long long>(st.st_mtim.tv_sec) * 1000000000ull +
            static_cast<unsigned long long>(st.st_mtim.tv_nsec);
        std::string data;
        auto add = [&data](const std::string& key, const std::string& value) {
            data += key + '\0' + value + '\0';
        };
        add("st_size", std::to_string(static_cast<unsigned long long>(st.st_size)));
        add("st_blocks", std::to_string(static_cast<unsigned long long>(st.st_blocks)));
        add("st_nlink", std::to_string(static_cast<unsigned long long>(st.st_nlink)));
        add("st_ifmt", kind);
        add("st_mtime", std::to_string(mtime));
        add("st_birthtime", std::to_string(mtime));
        if (S_ISLNK(st.st_mode)) {
            char target[PATH_MAX];
            ssize_t n = ::readlink(host.c_str(), target, sizeof target - 1);
            if (n >= 0)
                add("LinkTarget", std::string(target, static_cast<size_t>(n)));
        }
        return sendData(data);
    }

    bool deviceInfo()
    {
        struct statvfs fs;
        unsigned long long total = 64ull << 30, free = 32ull << 30;
        if (mDevice) {
            Plist totalNode = mDevice->value("com.apple.disk_usage", "TotalDataCapacity");
            Plist freeNode = mDevice->value("com.apple.disk_usage", "TotalDataAvailable");
            uint64_t v = 0;
            if (totalNode && plist_get_node_type(totalNode.get()) == PLIST_UINT) {
                plist_get_uint_val(totalNode.get(), &v);
                total = v;
            }
            if (freeNode && plist_get_node_type(freeNode.get()) == PLIST_UINT) {
                plist_get_uint_val(freeNode.get(), &v);
                free = v;
            }
        } else if (::statvfs(mRoot.c_str(), &fs) == 0) {
            total = static_cast<unsigned long long>(fs.f_blocks) * fs.f_frsize;
            free = static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize;
        }
        std::string model = "iPhone";
        if (mDevice) {
            Plist type = mDevice->value("", "ProductType");
            if (type && plist_get_node_type(type.get()) == PLIST_STRING)
                model = nodeString(type.get());
        }
        std::string data;
        auto add = [&data](const std::string& key, const std::string& value) {
            data += key + '\0' + value + '\0';
        };
        add("Model", model);
        add("FSTotalBytes", std::to_string(total));
        add("FSFreeBytes", std::to_string(free));
        add("FSBlockSize", "4096");
        return sendData(data);
    }

    bool makeDir()
    {
        std::string path;
        if (!stringAt(0, 0, &path))
            return sendStatus(AfcInvalidArg);
        const std::string host = hostPath(path);
        struct stat st;
        if (::stat(host.c_str(), &st) == 0)
            return sendStatus(S_ISDIR(st.st_mode) ? AfcSuccess : AfcObjectExists);
        return sendStatus(makePath(host) ? AfcSuccess : errorOf(errno));
    }

    bool removePath(bool recursive)
    {
        std::string path;
        if (!stringAt(0, 0, &path))
            return sendStatus(AfcInvalidArg);
        const std::string host = hostPath(path);
        if (isRoot(host))
            return sendStatus(AfcPermDenied);
        struct stat st;
        if (::lstat(host.c_str(), &st) != 0)
            return sendStatus(errorOf(errno));
        if (recursive)
            return sendStatus(removeTree(host) ? AfcSuccess : errorOf(errno));
        int rc = S_ISDIR(st.st_mode) ? ::rmdir(host.c_str()) : ::unlink(host.c_str());
        return sendStatus(rc == 0 ? AfcSuccess : errorOf(errno));
    }

    bool renamePath()
    {
        std::string from, to;
        if (!stringAt(0, 0, &from) || !stringAt(0, 1, &to))
            return sendStatus(AfcInvalidArg);
        const std::string hostFrom = hostPath(from), hostTo = hostPath(to);
        if (isRoot(hostFrom) || isRoot(hostTo))
            return sendStatus(AfcPermDenied);
        return sendStatus(::rename(hostFrom.c_str(), hostTo.c_str()) == 0 ? AfcSuccess
                                                                          : errorOf(errno));
    }

    // Opening follows symbolic links only while they stay inside the root.
    bool insideRoot(const std::string& host) const
    {
        char resolvedRoot[PATH_MAX], resolved[PATH_MAX];
        if (!::realpath(mRoot.c_str(), resolvedRoot))
            return false;
        std::string parent = host.substr(0, host.find_last_of('/'));
        std::string probe = ::realpath(host.c_str(), resolved)     ? std::string(resolved)
                            : ::realpath(parent.c_str(), resolved) ? std::string(resolved)
                                                                   : std::string();
        std::string rootText = resolvedRoot;
        return !probe.empty() &&
               (probe == rootText || probe.compare(0, rootText.size() + 1, rootText + "/") == 0);
    }

    bool fileOpen()
    {
        uint64_t mode = 0;
        std::string path;
        if (!u64At(0, &mode) || !stringAt(8, 0, &path))
            return sendStatus(AfcInvalidArg);
        int flags;
        switch (mode) {
        case 1:
            flags = O_RDONLY;
            break;
        case 2:
            flags = O_RDWR | O_CREAT;
            break;
        case 3:
            flags = O_WRONLY | O_CREAT | O_TRUNC;
            break;
        case 4:
            flags = O_RDWR | O_CREAT | O_TRUNC;
            break;
        case 5:
            flags = O_WRONLY | O_APPEND | O_CREAT;
            break;
        case 6:
            flags = O_RDWR | O_APPEND | O_CREAT;
            break;
        default:
            return sendStatus(AfcInvalidArg);
        }
        const std::string host = hostPath(path);
        struct stat st;
        if (::stat(host.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            return sendStatus(AfcObjectIsDir);
        if (!insideRoot(host))
            return sendStatus(::access(host.c_str(), F_OK) == 0 || errno != ENOENT
                                  ? AfcPermDenied
                                  : AfcObjectNotFound);
        int fd = ::open(host.c_str(), flags | O_CLOEXEC, 0644);
        if (fd < 0)
            return sendStatus(errorOf(errno));
        uint64_t handle = mNextHandle++;
        mFiles[handle] = fd;
        std::string data;
        putLe64(data, handle);
        return sendPacket(OpFileOpenResult, data);
    }

    // The file descriptor named by the handle at the start of the data.
    bool fileHandle(int* fd)
    {
        uint64_t handle = 0;
        if (!u64At(0, &handle))
            return false;
        auto it = mFiles.find(handle);
        if (it == mFiles.end())
            return false;
        if (fd)
            *fd = it->second;
        return true;
    }

    bool fileRead()
    {
        int fd = -1;
        uint64_t size = 0;
        if (!fileHandle(&fd) || !u64At(8, &size))
            return sendStatus(AfcInvalidArg);
        size = std::min(size, kMaxRead);
        std::string bytes(static_cast<size_t>(size), '\0');
        size_t got = 0;
        while (got < bytes.size()) {
            ssize_t n = ::read(fd, &bytes[got], bytes.size() - got);
            if (n < 0) {
                if (errno == EINTR)
                    continue;
                return sendStatus(errno == EISDIR ? AfcObjectIsDir : AfcReadError);
            }
            if (n == 0)
                break;
            got += static_cast<size_t>(n);
        }
        bytes.resize(got);
        return sendData(bytes);
    }

    bool fileWrite()
    {
        int fd = -1;
        if (!fileHandle(&fd))
            return sendStatus(AfcInvalidArg);
        // Fault injection: the device keeps only part of each write and says nothing.
        int64_t limit = mDevice ? mDevice->faults().afcWriteLimit : -1;
        uint64_t keep = limit < 0 ? mPayload : std::min<uint64_t>(mPayload, uint64_t(limit));
        // One buffer for the session: a fresh megabyte per write costs more than the I/O.
        std::vector<char>& buffer = mBuffer;
        if (buffer.size() < kChunk)
            buffer.resize(kChunk);
        bool failed = false;
        int failure = 0;
        while (mPayload > 0) {
            size_t n = static_cast<size_t>(std::min<uint64_t>(mPayload, buffer.size()));
            if (!mStream.readFully(buffer.data(), n))
                return false;
            mPayload -= n;
            size_t store = static_cast<size_t>(std::min<uint64_t>(keep, n));
            keep -= store;
            size_t done = 0;
            while (!failed && done < store) {
                ssize_t w = ::write(fd, buffer.data() + done, store - done);
                if (w < 0) {
                    if (errno == EINTR)
                        continue;
                    failed = true;
                    failure = errno;
                    break;
                }
                done += static_cast<size_t>(w);
            }
        }
        if (failed)
            return sendStatus(failure == ENOSPC ? AfcNoSpaceLeft : AfcWriteError);
        return sendStatus(AfcSuccess);
    }

    bool fileSeek()
    {
        int fd = -1;
        uint64_t whence = 0, offset = 0;
        if (!fileHandle(&fd) || !u64At(8, &whence) || !u64At(16, &offset) || whence > 2)
            return sendStatus(AfcInvalidArg);
        static const int kWhence[] = {SEEK_SET, SEEK_CUR, SEEK_END};
        off_t rc = ::lseek(fd, static_cast<off_t>(static_cast<int64_t>(offset)), kWhence[whence]);
        return sendStatus(rc < 0 ? errorOf(errno) : AfcSuccess);
    }

    bool fileTell()
    {
        int fd = -1;
        if (!fileHandle(&fd))
            return sendStatus(AfcInvalidArg);
        off_t pos = ::lseek(fd, 0, SEEK_CUR);
        if (pos < 0)
            return sendStatus(errorOf(errno));
        std::string data;
        putLe64(data, static_cast<uint64_t>(pos));
        return sendPacket(OpFileTellResult, data);
    }

    bool fileClose()
    {
        uint64_t handle = 0;
        if (!u64At(0, &handle))
            return sendStatus(AfcInvalidArg);
        auto it = mFiles.find(handle);
        if (it == mFiles.end())
            return sendStatus(AfcInvalidArg);
        ::close(it->second);
        mFiles.erase(it);
        return sendStatus(AfcSuccess);
    }

    bool fileSetSize()
    {
        int fd = -1;
        uint64_t size = 0;
        if (!fileHandle(&fd) || !u64At(8, &size))
            return sendStatus(AfcInvalidArg);
        return sendStatus(::ftruncate(fd, static_cast<off_t>(size)) == 0 ? AfcSuccess
                                                                         : errorOf(errno));
    }

    bool truncatePath()
    {
        uint64_t size = 0;
        std::string path;
        if (!u64At(0, &size) || !stringAt(8, 0, &path))
            return sendStatus(AfcInvalidArg);
        return sendStatus(::truncate(hostPath(path).c_str(), static_cast<off_t>(size)) == 0
                              ? AfcSuccess
                              : errorOf(errno));
    }

    bool makeLink()
    {
        uint64_t type = 0;
        std::string target, name;
        if (!u64At(0, &type) || !stringAt(8, 0, &target) || !stringAt(8, 1, &name))
            return sendStatus(AfcInvalidArg);
        const std::string host = hostPath(name);
        int rc;
        if (type == 2)
            rc = ::symlink(target.c_str(), host.c_str());
        else if (type == 1)
            rc = ::link(hostPath(target).c_str(), host.c_str());
        else
            return sendStatus(AfcInvalidArg);
        return sendStatus(rc == 0 ? AfcSuccess : errorOf(errno));
    }

    bool setModTime()
    {
        uint64_t mtime = 0;
        std::string path;
        if (!u64At(0, &mtime) || !stringAt(8, 0, &path))
            return sendStatus(AfcInvalidArg);
        timespec times[2];
        times[0].tv_sec = 0;
        times[0].tv_nsec = UTIME_OMIT;
        times[1].tv_sec = static_cast<time_t>(mtime / 1000000000ull);
        times[1].tv_nsec = static_cast<long>(mtime % 1000000000ull);
        return sendStatus(::utimensat(AT_FDCWD, hostPath(path).c_str(), times, 0) == 0
                              ? AfcSuccess
                              : errorOf(errno));
    }

    Stream& mStream;
    std::string mRoot;
    const Device* mDevice;
    std::string mData;
    uint64_t mPayload = 0;
    uint64_t mPacket = 0;
    std::map<uint64_t, int> mFiles;
    std::vector<char> mBuffer;
    uint64_t mNextHandle = 1;
};

void serveMediaAfc(ServiceContext& context)
{
    // Fault injection: the cable is pulled once the host has sent this many bytes to
    // the media AFC (in the middle of an upload, or of a report reading a file).
    const uint64_t detachAfter = context.device->faults().detachAfterAfcBytes;
    if (detachAfter == 0) {
        serveAfc(context.stream, context.device->mediaPath(), context.device.get());
        return;
    }
    std::atomic<bool> served{false};
    std::thread watcher([&] {
        while (!served && context.stream.bytesReceived() < detachAfter)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::string error;
        if (!served)
            context.simulator.detach(context.device->udid(), &error);
    });
    serveAfc(context.stream, context.device->mediaPath(), context.device.get());
    served = true;
    watcher.join();
}

void serveRootAfc(ServiceContext& context)
{
    serveAfc(context.stream, context.device->rootPath(), context.device.get());
}

bool jailbrokenOnly(const Device& device)
{
    return device.jailbroken();
}

} // namespace

void serveAfc(Stream& stream, const std::string& root, const Device* device)
{
    AfcSession session(stream, root, device);
    session.run();
}

DEVSIM_SERVICE("com.apple.afc", serveMediaAfc, nullptr);
DEVSIM_SERVICE("com.apple.afc2", serveRootAfc, jailbrokenOnly);

} // namespace devsim
