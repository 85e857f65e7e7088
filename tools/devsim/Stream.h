#pragma once
// One client connection: a blocking socket, optionally wrapped in TLS after a
// lockdown session asks for it. Counts bytes both ways and can drop itself after a
// given number of bytes (fault injection).

#include <openssl/ssl.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace devsim {

class Stream
{
public:
    explicit Stream(int fd);
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    int fd() const { return mFd; }

    // Reads exactly size bytes; false on end of stream or error.
    bool readFully(void* buffer, size_t size);
    // Reads what is there (at least one byte): the count, 0 at end of stream, -1 on error.
    long readSome(void* buffer, size_t size);
    bool writeAll(const void* data, size_t size);
    bool writeAll(const std::string& data) { return writeAll(data.data(), data.size()); }

    // Server side of a TLS handshake on this connection.
    bool startTls(SSL_CTX* context);
    // Leaves TLS after a lockdown StopSession: consumes the peer's close_notify when it
    // sends one, and goes on in plain text. Hosts often just close the socket instead.
    void endTls();
    bool tlsActive() const { return mSsl != nullptr; }

    // Fault injection: after this many bytes sent in total the connection is cut
    // (0 = never).
    void setSendLimit(uint64_t bytes) { mSendLimit = bytes; }

    // Cuts the connection from any thread; blocked reads and writes then fail.
    void shutdownNow();

    uint64_t bytesSent() const { return mSent; }
    uint64_t bytesReceived() const { return mReceived; }

private:
    long rawRead(void* buffer, size_t size);
    long rawWrite(const void* data, size_t size);

    int mFd;
    SSL* mSsl = nullptr;
    std::atomic<uint64_t> mSent{0};
    std::atomic<uint64_t> mReceived{0};
    uint64_t mSendLimit = 0;
};

// UNIX socket helpers.
int listenUnix(const std::string& path, std::string* error);
int connectUnix(const std::string& path, std::string* error);

} // namespace devsim
