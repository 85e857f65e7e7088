// usbmuxd's client protocol: a 16-byte little-endian header (length including the
// header, version, message type, tag) followed by an XML property list. Version 1 and
// message type 8 (plist) are what libusbmuxd 2 speaks.

#include "Log.h"
#include "Service.h"
#include "Simulator.h"
#include "Stream.h"

#include <arpa/inet.h>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>

namespace devsim {

namespace {

constexpr uint32_t kHeaderSize = 16;
constexpr uint32_t kMessagePlist = 8;
constexpr uint32_t kMaxPacket = 1u << 20;
constexpr uint16_t kLockdownPort = 62078;

enum Result : uint32_t
{
    ResultOk = 0,
    ResultBadCommand = 1,
    ResultBadDevice = 2,
    ResultConnectionRefused = 3,
    ResultBadVersion = 6,
};
constexpr uint32_t kNoEntry = 2;     // ENOENT: no such pair record
constexpr uint32_t kInvalidArg = 22; // EINVAL: request lacks its arguments

void putLe32(std::string& out, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        out += static_cast<char>((v >> (8 * i)) & 0xFF);
}

uint32_t le32(const unsigned char* p)
{
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}

bool sendMux(Stream& stream, uint32_t tag, plist_t message)
{
    std::string body = plistToXml(message);
    std::string packet;
    putLe32(packet, kHeaderSize + static_cast<uint32_t>(body.size()));
    putLe32(packet, 1);
    putLe32(packet, kMessagePlist);
    putLe32(packet, tag);
    packet += body;
    return stream.writeAll(packet);
}

bool sendResult(Stream& stream, uint32_t tag, uint32_t number)
{
    Plist message = plistDict();
    dictSetString(message.get(), "MessageType", "Result");
    dictSetUInt(message.get(), "Number", number);
    return sendMux(stream, tag, message.get());
}

// Answers the first request with a message no host can use, then closes.
void serveMalformed(Stream& stream, const std::string& kind)
{
    char request[4096];
    if (stream.readSome(request, sizeof request) <= 0)
        return;
    if (kind == "shape") {
        Plist wrong = plistArray();
        plist_array_append_item(wrong.get(), plist_new_string("unexpected"));
        sendPlist(stream, wrong.get());
        return;
    }
    const std::string body = "<plist><dict><key>Status</key>";
    std::string packet;
    for (int shift = 24; shift >= 0; shift -= 8)
        packet += static_cast<char>((body.size() >> shift) & 0xFF);
    stream.writeAll(packet + body);
}

// Serves a device port on this connection: lockdown, or the started service.
void runConnection(Simulator& simulator, const std::shared_ptr<Device>& device, Stream& stream,
                   const std::string& serviceName)
{
    device->trackConnection(&stream);
    const Faults& faults = device->faults();
    const std::string name = serviceName.empty() ? "com.apple.mobile.lockdown" : serviceName;
    if (faults.dropAfterBytes > 0 &&
        (faults.dropService == name || (faults.dropService.empty() && !serviceName.empty())))
        stream.setSendLimit(stream.bytesSent() + faults.dropAfterBytes);
    const auto malformed = faults.malformedServices.find(serviceName);
    if (serviceName.empty()) {
        serveLockdown(simulator, device, stream);
    } else if (malformed != faults.malformedServices.end()) {
        serveMalformed(stream, malformed->second);
    } else if (const ServiceInfo* service = findService(serviceName)) {
        ServiceContext context{simulator, device, stream, serviceName};
        logDebug("%s: serving %s", device->udid().c_str(), serviceName.c_str());
        service->handler(context);
    }
    device->untrackConnection(&stream);
}

// Connect: on success the connection becomes the byte stream of the device port and is
// used up (true); otherwise an error Result was sent (false).
bool handleConnect(Simulator& simulator, Stream& stream, uint32_t tag, plist_t request)
{
    plist_t idNode = dictItem(request, "DeviceID", PLIST_UINT);
    plist_t portNode = dictItem(request, "PortNumber", PLIST_UINT);
    if (!idNode) {
        sendResult(stream, tag, ResultBadDevice);
        return false;
    }
    if (!portNode) {
        sendResult(stream, tag, ResultBadCommand);
        return false;
    }
    uint64_t id = 0, rawPort = 0;
    plist_get_uint_val(idNode, &id);
    plist_get_uint_val(portNode, &rawPort);
    // The port travels in network byte order inside the integer.
    const uint16_t port = ntohs(static_cast<uint16_t>(rawPort));
    auto device = simulator.deviceById(static_cast<uint32_t>(id));
    if (!device) {
        sendResult(stream, tag, ResultBadDevice);
        return false;
    }
    std::string serviceName;
    if (port != kLockdownPort) {
        serviceName = device->takeServicePort(port);
        if (serviceName.empty()) {
            logDebug("%s: connection to closed port %u refused", device->udid().c_str(), port);
            sendResult(stream, tag, ResultConnectionRefused);
            return false;
        }
    }
    if (!sendResult(stream, tag, ResultOk))
        return true;
    runConnection(simulator, device, stream, serviceName);
    return true;
}

void handleListen(Simulator& simulator, Stream& stream, uint32_t tag)
{
    if (!sendResult(stream, tag, ResultOk))
        return;
    // Events are written under the listener lock: a listener that stops reading must
    // not hold up hot-plug for everyone else for long.
    timeval timeout{5, 0};
    setsockopt(stream.fd(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    simulator.addListener(&stream);
    // A listener only waits for events; whatever it sends is ignored until it closes.
    char scratch[4096];
    while (stream.readSome(scratch, sizeof scratch) > 0) {
    }
    simulator.removeListener(&stream);
}

void handleReadPairRecord(Simulator& simulator, Stream& stream, uint32_t tag, plist_t request)
{
    std::string id = dictString(request, "PairRecordID");
    std::string data;
    if (id.empty()) {
        sendResult(stream, tag, kInvalidArg);
    } else if (!simulator.readPairRecord(id, &data)) {
        sendResult(stream, tag, kNoEntry);
    } else {
        Plist reply = plistDict();
        dictSetData(reply.get(), "PairRecordData", data);
        sendMux(stream, tag, reply.get());
    }
}

void handleSavePairRecord(Simulator& simulator, Stream& stream, uint32_t tag, plist_t request)
{
    std::string id = dictString(request, "PairRecordID");
    std::string data = dictData(request, "PairRecordData");
    if (id.empty() || data.empty()) {
        sendResult(stream, tag, kInvalidArg);
        return;
    }
    simulator.savePairRecord(id, data);
    sendResult(stream, tag, ResultOk);
    // Like usbmuxd, tell listeners when the record belongs to an attached device.
    if (plist_t idNode = dictItem(request, "DeviceID", PLIST_UINT)) {
        uint64_t deviceId = 0;
        plist_get_uint_val(idNode, &deviceId);
        auto device = simulator.deviceById(static_cast<uint32_t>(deviceId));
        if (device && device->udid() == id)
            simulator.announcePaired(device->deviceId());
    }
}

// One request; false when the connection must end.
bool handleRequest(Simulator& simulator, Stream& stream, uint32_t tag, plist_t request)
{
    std::string type = dictString(request, "MessageType");
    logDebug("usbmuxd request %s (tag %u)", type.c_str(), tag);
    if (type == "ListDevices") {
        Plist list = plistArray();
        for (const auto& device : simulator.devices())
            plist_array_append_item(list.get(), attachedMessage(*device).release());
        Plist reply = plistDict();
        dictSet(reply.get(), "DeviceList", std::move(list));
        return sendMux(stream, tag, reply.get());
    }
    if (type == "Listen") {
        handleListen(simulator, stream, tag);
        return false;
    }
    if (type == "Connect")
        return !handleConnect(simulator, stream, tag, request);
    if (type == "ReadBUID") {
        Plist reply = plistDict();
        dictSetString(reply.get(), "BUID", simulator.systemBuid());
        return sendMux(stream, tag, reply.get());
    }
    if (type == "ReadPairRecord") {
        handleReadPairRecord(simulator, stream, tag, request);
        return true;
    }
    if (type == "SavePairRecord") {
        handleSavePairRecord(simulator, stream, tag, request);
        return true;
    }
    if (type == "DeletePairRecord") {
        std::string id = dictString(request, "PairRecordID");
        if (id.empty())
            return sendResult(stream, tag, kInvalidArg);
        return sendResult(stream, tag, simulator.deletePairRecord(id) ? ResultOk : kNoEntry);
    }
    if (type == "ListListeners") {
        Plist reply = plistDict();
        dictSet(reply.get(), "ListenerList", plistArray());
        return sendMux(stream, tag, reply.get());
    }
    logDebug("unknown usbmuxd request '%s'", type.c_str());
    return sendResult(stream, tag, ResultBadCommand);
}

} // namespace

void Simulator::addListener(Stream* stream)
{
    std::lock_guard<std::mutex> lock(mListenLock);
    for (const auto& device : devices()) {
        Plist message = attachedMessage(*device);
        sendMux(*stream, 0, message.get());
    }
    mListeners.insert(stream);
}

void Simulator::announcePaired(uint32_t deviceId)
{
    Plist message = plistDict();
    dictSetString(message.get(), "MessageType", "Paired");
    dictSetUInt(message.get(), "DeviceID", deviceId);
    std::lock_guard<std::mutex> lock(mListenLock);
    notifyListeners(message.get());
}

void Simulator::notifyListeners(plist_t message)
{
    for (Stream* listener : mListeners)
        sendMux(*listener, 0, message);
}

void serveUsbmuxClient(Simulator& simulator, int fd)
{
    Stream stream(fd);
    simulator.trackClient(&stream);
    while (true) {
        unsigned char header[kHeaderSize];
        long n = stream.readSome(header, kHeaderSize);
        if (n <= 0)
            break;
        if (n < static_cast<long>(kHeaderSize) &&
            !stream.readFully(header + n, kHeaderSize - static_cast<size_t>(n)))
            break; // truncated header: nothing sensible to answer
        const uint32_t length = le32(header);
        const uint32_t version = le32(header + 4);
        const uint32_t message = le32(header + 8);
        const uint32_t tag = le32(header + 12);
        if (length < kHeaderSize || length > kMaxPacket) {
            logDebug("usbmuxd packet with impossible length %u; closing", length);
            sendResult(stream, tag, ResultBadCommand);
            break;
        }
        std::string body(length - kHeaderSize, '\0');
        if (!body.empty() && !stream.readFully(&body[0], body.size()))
            break;
        if (version != 0 && version != 1) {
            sendResult(stream, tag, ResultBadVersion);
            continue;
        }
        if (message != kMessagePlist) {
            // The old binary protocol is not spoken here.
            sendResult(stream, tag, ResultBadCommand);
            continue;
        }
        Plist request = plistFromBytes(body);
        if (!request || plist_get_node_type(request.get()) != PLIST_DICT ||
            !dictItem(request.get(), "MessageType", PLIST_STRING)) {
            logDebug("usbmuxd packet is not a request; answering BadCommand");
            sendResult(stream, tag, ResultBadCommand);
            continue;
        }
        if (!handleRequest(simulator, stream, tag, request.get()))
            break;
    }
    simulator.untrackClient(&stream);
}

} // namespace devsim
