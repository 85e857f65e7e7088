#pragma once
// Device services: every service that lockdown can start lives in its own file and
// registers itself here with DEVSIM_SERVICE. Lockdown's StartService looks services up
// by name; the simulator runs the handler on the connection that the host opens to the
// service's port, on that connection's own thread.

#include "Plist.h"

#include <memory>
#include <string>

namespace devsim {

class Device;
class Simulator;
class Stream;

struct ServiceContext
{
    Simulator& simulator;
    std::shared_ptr<Device> device;
    Stream& stream;
    std::string serviceName;
};

using ServiceHandler = void (*)(ServiceContext& context);
// Whether the device offers the service at all (e.g. afc2 only when jailbroken);
// null means always.
using ServiceAvailability = bool (*)(const Device& device);

struct ServiceInfo
{
    const char* name;
    ServiceHandler handler;
    ServiceAvailability available;
};

bool registerService(const ServiceInfo& info);
// Null when no such service is registered.
const ServiceInfo* findService(const std::string& name);

#define DEVSIM_SERVICE_CAT2(a, b) a##b
#define DEVSIM_SERVICE_CAT(a, b) DEVSIM_SERVICE_CAT2(a, b)
// Registers a service at start-up: DEVSIM_SERVICE("com.apple.afc", serveAfc, nullptr);
#define DEVSIM_SERVICE(NAME, HANDLER, AVAILABLE)                                                   \
    static const bool DEVSIM_SERVICE_CAT(devsimServiceRegistered_, __LINE__) =                     \
        ::devsim::registerService({NAME, HANDLER, AVAILABLE})

// Property-list framing used by lockdown and most services: a 32-bit big-endian length,
// then an XML or binary property list.
enum class PlistReadResult
{
    Ok,
    Closed,    // end of stream before a message began
    Truncated, // stream ended inside a message
    TooLarge,  // announced length above the limit
    Invalid    // complete message that is not a property list
};
PlistReadResult receivePlist(Stream& stream, Plist& out, uint32_t maxSize = 16u << 20);
bool sendPlist(Stream& stream, plist_t message, bool binary = false);

} // namespace devsim
