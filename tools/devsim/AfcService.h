#pragma once
// The AFC file protocol over a host folder. "com.apple.afc" serves the device's media
// folder, "com.apple.afc2" (jailbroken devices only) its whole root; house_arrest hands
// an app's container to serveAfc once the container is vended.

#include <string>

namespace devsim {

class Device;
class Stream;

// Serves AFC requests on stream until it closes; every path is taken relative to root
// and never leaves it. device (may be null) supplies faults and device information.
void serveAfc(Stream& stream, const std::string& root, const Device* device);

} // namespace devsim
