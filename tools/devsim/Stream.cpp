#include "Stream.h"

#include <openssl/err.h>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace devsim {

Stream::Stream(int fd) : mFd(fd) {}

Stream::~Stream()
{
    if (mSsl) {
        // No close_notify: the peer may be gone already, and hosts do not wait for it.
        SSL_set_quiet_shutdown(mSsl, 1);
        SSL_free(mSsl);
    }
    if (mFd >= 0)
        ::close(mFd);
}

long Stream::rawRead(void* buffer, size_t size)
{
    if (mSsl) {
        int chunk = size > (1u << 30) ? (1 << 30) : static_cast<int>(size);
        int n = SSL_read(mSsl, buffer, chunk);
        if (n > 0)
            return n;
        int err = SSL_get_error(mSsl, n);
        ERR_clear_error();
        return err == SSL_ERROR_ZERO_RETURN ? 0 : -1;
    }
    while (true) {
        ssize_t n = ::recv(mFd, buffer, size, 0);
        if (n < 0 && errno == EINTR)
            continue;
        return n;
    }
}

long Stream::rawWrite(const void* data, size_t size)
{
    if (mSsl) {
        int chunk = size > (1u << 30) ? (1 << 30) : static_cast<int>(size);
        int n = SSL_write(mSsl, data, chunk);
        if (n > 0)
            return n;
        ERR_clear_error();
        return -1;
    }
    while (true) {
        ssize_t n = ::send(mFd, data, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        return n;
    }
}

long Stream::readSome(void* buffer, size_t size)
{
    if (size == 0)
        return 0;
    long n = rawRead(buffer, size);
    if (n > 0)
        mReceived += static_cast<uint64_t>(n);
    return n;
}

bool Stream::readFully(void* buffer, size_t size)
{
    char* p = static_cast<char*>(buffer);
    while (size > 0) {
        long n = readSome(p, size);
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool Stream::writeAll(const void* data, size_t size)
{
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        size_t chunk = size;
        if (mSendLimit > 0) {
            uint64_t sent = mSent;
            if (sent >= mSendLimit) {
                shutdownNow();
                return false;
            }
            if (chunk > mSendLimit - sent)
                chunk = static_cast<size_t>(mSendLimit - sent);
        }
        long n = rawWrite(p, chunk);
        if (n <= 0)
            return false;
        mSent += static_cast<uint64_t>(n);
        p += n;
        size -= static_cast<size_t>(n);
    }
    if (mSendLimit > 0 && mSent >= mSendLimit) {
        shutdownNow();
        return false;
    }
    return true;
}

bool Stream::startTls(SSL_CTX* context)
{
    if (mSsl || !context)
        return false;
    mSsl = SSL_new(context);
    if (!mSsl)
        return false;
    SSL_set_fd(mSsl, mFd);
    if (SSL_accept(mSsl) != 1) {
        ERR_clear_error();
        SSL_set_quiet_shutdown(mSsl, 1);
        SSL_free(mSsl);
        mSsl = nullptr;
        return false;
    }
    return true;
}

void Stream::endTls()
{
    if (!mSsl)
        return;
    // A plain lockdown message starts with a zero byte (big-endian length); a TLS
    // record (the close_notify alert) starts with its record type.
    unsigned char first = 0;
    ssize_t n = ::recv(mFd, &first, 1, MSG_PEEK);
    if (n == 1 && first >= 0x14 && first <= 0x17) {
        char scratch[256];
        int r = SSL_read(mSsl, scratch, sizeof scratch);
        (void)r;
        ERR_clear_error();
    }
    SSL_set_quiet_shutdown(mSsl, 1);
    SSL_free(mSsl);
    mSsl = nullptr;
}

void Stream::shutdownNow()
{
    if (mFd >= 0)
        ::shutdown(mFd, SHUT_RDWR);
}

namespace {

// A new UNIX stream socket and the address of `path`; -1 (and *error) when the path
// does not fit or no socket can be had.
int unixSocketFor(const std::string& path, sockaddr_un* addr, std::string* error)
{
    *addr = sockaddr_un{};
    if (path.size() >= sizeof(addr->sun_path)) {
        if (error)
            *error = "socket path too long: " + path;
        return -1;
    }
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (error)
            *error = std::string("socket: ") + std::strerror(errno);
        return -1;
    }
    addr->sun_family = AF_UNIX;
    std::strncpy(addr->sun_path, path.c_str(), sizeof(addr->sun_path) - 1);
    return fd;
}

} // namespace

int listenUnix(const std::string& path, std::string* error)
{
    sockaddr_un addr;
    int fd = unixSocketFor(path, &addr, error);
    if (fd < 0)
        return -1;
    ::unlink(path.c_str());
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 64) != 0) {
        if (error)
            *error = "cannot listen on " + path + ": " + std::strerror(errno);
        ::close(fd);
        return -1;
    }
    return fd;
}

int connectUnix(const std::string& path, std::string* error)
{
    sockaddr_un addr;
    int fd = unixSocketFor(path, &addr, error);
    if (fd < 0)
        return -1;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        if (error)
            *error = "cannot connect to " + path + ": " + std::strerror(errno);
        ::close(fd);
        return -1;
    }
    return fd;
}

} // namespace devsim
