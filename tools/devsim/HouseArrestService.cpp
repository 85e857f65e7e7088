// "com.apple.mobile.house_arrest": a host asks for one app's container
// ({"Command": "VendContainer" or "VendDocuments", "Identifier": bundle id}); the answer is
// {"Status": "Complete"} and from then on the connection speaks AFC rooted in the app's
// container (<Name>.app, Documents, Library, tmp, iTunesMetadata.plist). An unknown app
// gets {"Error": "ApplicationLookupFailed"} and the host may ask again.

#include "AfcService.h"
#include "Device.h"
#include "Log.h"
#include "Service.h"
#include "Stream.h"

namespace devsim {

namespace {

bool sendError(Stream& stream, const char* error)
{
    Plist answer = plistDict();
    dictSetString(answer.get(), "Error", error);
    return sendPlist(stream, answer.get());
}

void serveHouseArrest(ServiceContext& context)
{
    Device& device = *context.device;
    while (true) {
        Plist request;
        PlistReadResult result = receivePlist(context.stream, request, 1u << 20);
        if (result != PlistReadResult::Ok && result != PlistReadResult::Invalid)
            return;
        const std::string command = dictString(request.get(), "Command");
        const std::string bundleId = dictString(request.get(), "Identifier");
        logDebug("%s: house_arrest %s %s", device.udid().c_str(), command.c_str(),
                 bundleId.c_str());
        bool sent;
        if (command != "VendContainer" && command != "VendDocuments") {
            sent = sendError(context.stream, command.empty() ? "MissingCommand" : "UnknownCommand");
        } else if (bundleId.empty()) {
            sent = sendError(context.stream, "MissingIdentifier");
        } else if (AppPtr app = device.findApp(bundleId)) {
            Plist answer = plistDict();
            dictSetString(answer.get(), "Status", "Complete");
            if (!sendPlist(context.stream, answer.get()))
                return;
            // An unreadable container is served as a root that does not exist, so every
            // request inside it fails as the device refuses it.
            serveAfc(context.stream,
                     app->containerUnreadable ? app->containerPath + "/.unreadable"
                                              : app->containerPath,
                     &device);
            return;
        } else {
            sent = sendError(context.stream, "ApplicationLookupFailed");
        }
        if (!sent)
            return;
    }
}

} // namespace

DEVSIM_SERVICE("com.apple.mobile.house_arrest", serveHouseArrest, nullptr);

} // namespace devsim
