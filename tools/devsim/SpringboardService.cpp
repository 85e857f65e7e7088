// "com.apple.springboardservices": the home screen. Requests are dictionaries with a
// lower-case "command": getIconPNGData ({"bundleId": ...} -> {"pngData": icon bytes as
// stored in the bundle, empty for an unknown app or one without icon}), getIconState (the
// home screen pages), getInterfaceOrientation, getHomeScreenWallpaperPNGData and
// setIconState (no answer). Answers are binary property lists, as the device sends them.

#include "Device.h"
#include "Log.h"
#include "Png.h"
#include "Service.h"
#include "Stream.h"

#include <chrono>
#include <thread>

namespace devsim {

namespace {

constexpr uint32_t kDockSize = 4;
constexpr uint32_t kIconsPerPage = 24;

Plist iconEntry(const App& app)
{
    Plist entry = plistDict();
    const std::string name = dictString(app.info.get(), "CFBundleDisplayName",
                                        dictString(app.info.get(), "CFBundleName", app.bundleId));
    dictSetString(entry.get(), "displayIdentifier", app.bundleId);
    dictSetString(entry.get(), "displayName", name);
    dictSetString(entry.get(), "bundleIdentifier", app.bundleId);
    dictSetString(entry.get(), "bundleVersion", dictString(app.info.get(), "CFBundleVersion"));
    return entry;
}

// The dock (system apps first), then pages of the remaining apps.
Plist iconState(const Device& device)
{
    std::vector<AppPtr> ordered;
    for (const AppPtr& app : device.apps())
        if (app->applicationType == "System")
            ordered.push_back(app);
    for (const AppPtr& app : device.apps())
        if (app->applicationType != "System")
            ordered.push_back(app);
    Plist state = plistArray();
    Plist page = plistArray();
    uint32_t limit = kDockSize;
    for (const AppPtr& app : ordered) {
        if (plist_array_get_size(page.get()) == limit) {
            plist_array_append_item(state.get(), page.release());
            page = plistArray();
            limit = kIconsPerPage;
        }
        plist_array_append_item(page.get(), iconEntry(*app).release());
    }
    plist_array_append_item(state.get(), page.release());
    return state;
}

void serveSpringboard(ServiceContext& context)
{
    Device& device = *context.device;
    while (true) {
        Plist request;
        PlistReadResult result = receivePlist(context.stream, request, 4u << 20);
        if (result != PlistReadResult::Ok && result != PlistReadResult::Invalid)
            return;
        const std::string command = dictString(request.get(), "command");
        logDebug("%s: springboardservices %s", device.udid().c_str(), command.c_str());
        if (command == "setIconState")
            continue;
        Plist answer = plistDict();
        if (command == "getIconPNGData") {
            const std::string bundleId = dictString(request.get(), "bundleId");
            logDebug("%s: springboardservices icon of %s", device.udid().c_str(), bundleId.c_str());
            if (device.faults().iconDelayMs > 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(device.faults().iconDelayMs));
            AppPtr app = device.findApp(bundleId);
            dictSetData(answer.get(), "pngData", app ? app->iconBytes() : std::string());
        } else if (command == "getIconState") {
            answer = iconState(device);
        } else if (command == "getInterfaceOrientation") {
            dictSetUInt(answer.get(), "interfaceOrientation", 1); // portrait
        } else if (command == "getHomeScreenWallpaperPNGData") {
            dictSetData(answer.get(), "pngData", makeIconPng(64, 64, 0x203050));
        } else {
            dictSetString(answer.get(), "Error",
                          command.empty() ? "MissingCommand" : "UnknownCommand");
        }
        if (!sendPlist(context.stream, answer.get(), /*binary=*/true))
            return;
    }
}

} // namespace

DEVSIM_SERVICE("com.apple.springboardservices", serveSpringboard, nullptr);

} // namespace devsim
