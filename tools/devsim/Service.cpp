#include "Service.h"

#include "Stream.h"

#include <map>
#include <mutex>

namespace devsim {

namespace {
std::map<std::string, ServiceInfo>& registry()
{
    static std::map<std::string, ServiceInfo> services;
    return services;
}
std::mutex& registryLock()
{
    static std::mutex lock;
    return lock;
}
} // namespace

bool registerService(const ServiceInfo& info)
{
    std::lock_guard<std::mutex> lock(registryLock());
    registry()[info.name] = info;
    return true;
}

const ServiceInfo* findService(const std::string& name)
{
    std::lock_guard<std::mutex> lock(registryLock());
    auto it = registry().find(name);
    return it == registry().end() ? nullptr : &it->second;
}

PlistReadResult receivePlist(Stream& stream, Plist& out, uint32_t maxSize)
{
    out.reset();
    unsigned char header[4];
    long n = stream.readSome(header, 4);
    if (n <= 0)
        return PlistReadResult::Closed;
    if (n < 4 && !stream.readFully(header + n, 4 - static_cast<size_t>(n)))
        return PlistReadResult::Truncated;
    uint32_t length = (uint32_t(header[0]) << 24) | (uint32_t(header[1]) << 16) |
                      (uint32_t(header[2]) << 8) | uint32_t(header[3]);
    if (length > maxSize)
        return PlistReadResult::TooLarge;
    std::string body(length, '\0');
    if (length > 0 && !stream.readFully(&body[0], length))
        return PlistReadResult::Truncated;
    out = plistFromBytes(body);
    return out ? PlistReadResult::Ok : PlistReadResult::Invalid;
}

bool sendPlist(Stream& stream, plist_t message, bool binary)
{
    std::string body = binary ? plistToBinary(message) : plistToXml(message);
    uint32_t length = static_cast<uint32_t>(body.size());
    std::string packet;
    packet.reserve(4 + body.size());
    packet += static_cast<char>((length >> 24) & 0xFF);
    packet += static_cast<char>((length >> 16) & 0xFF);
    packet += static_cast<char>((length >> 8) & 0xFF);
    packet += static_cast<char>(length & 0xFF);
    packet += body;
    return stream.writeAll(packet);
}

} // namespace devsim
