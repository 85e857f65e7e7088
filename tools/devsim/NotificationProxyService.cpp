// "com.apple.mobile.notification_proxy": a host observes device notifications by name
// ({"Command": "ObserveNotification", "Name": ...}) and receives
// {"Command": "RelayNotification", "Name": ...} whenever one is posted on the device, by
// the installation service or by any host ({"Command": "PostNotification", ...}).
// {"Command": "Shutdown"} is answered with {"Command": "ProxyDeath"} and ends the
// connection.

#include "Device.h"
#include "Log.h"
#include "Service.h"
#include "Stream.h"

#include <mutex>
#include <set>

namespace devsim {

namespace {

// What the observer registered with the device shares with the connection. Observers run
// on the posting thread, possibly after the connection ended, so the stream is reached only
// through here, under the lock, and cleared before the connection goes away.
struct Relay
{
    std::mutex lock;
    Stream* stream = nullptr;
    std::set<std::string> names;

    bool send(plist_t message) { return stream && sendPlist(*stream, message); }
};

Plist commandMessage(const char* command)
{
    Plist message = plistDict();
    dictSetString(message.get(), "Command", command);
    return message;
}

void serveNotificationProxy(ServiceContext& context)
{
    Device& device = *context.device;
    auto relay = std::make_shared<Relay>();
    relay->stream = &context.stream;
    const int token = device.addObserver([relay](const std::string& name) {
        std::lock_guard<std::mutex> lock(relay->lock);
        if (!relay->names.count(name))
            return;
        Plist message = commandMessage("RelayNotification");
        dictSetString(message.get(), "Name", name);
        relay->send(message.get());
    });

    while (true) {
        Plist request;
        PlistReadResult result = receivePlist(context.stream, request, 1u << 20);
        if (result == PlistReadResult::Invalid)
            continue; // not a property list: nothing to act on
        if (result != PlistReadResult::Ok)
            break;
        const std::string command = dictString(request.get(), "Command");
        const std::string name = dictString(request.get(), "Name");
        logDebug("%s: notification_proxy %s %s", device.udid().c_str(), command.c_str(),
                 name.c_str());
        if (command == "ObserveNotification" && !name.empty()) {
            std::lock_guard<std::mutex> lock(relay->lock);
            relay->names.insert(name);
        } else if (command == "PostNotification" && !name.empty()) {
            device.postNotification(name);
        } else if (command == "Shutdown") {
            std::lock_guard<std::mutex> lock(relay->lock);
            Plist answer = commandMessage("ProxyDeath");
            relay->send(answer.get());
            break;
        }
        // Anything else is ignored, as the device does.
    }

    device.removeObserver(token);
    std::lock_guard<std::mutex> lock(relay->lock);
    relay->stream = nullptr;
}

} // namespace

DEVSIM_SERVICE("com.apple.mobile.notification_proxy", serveNotificationProxy, nullptr);

} // namespace devsim
