// The control socket: one command per line, answered by zero or more lines of output
// and a last line "OK ..." or "ERROR ...".
//   attach PROFILE   -> OK <udid>
//   detach UDID      -> OK
//   list             -> "<udid> <device id> <media folder>" per device, then OK <count>
//   media UDID       -> OK <host folder shown by com.apple.afc>
//   root UDID        -> OK <host folder shown by com.apple.afc2>
//   quit             -> OK, then the simulator stops

#include "Log.h"
#include "Simulator.h"
#include "Stream.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <unistd.h>

namespace devsim {

namespace {

std::string runCommand(Simulator& simulator, const std::string& line, bool* quit)
{
    std::istringstream in(line);
    std::string verb;
    in >> verb;
    std::string argument;
    std::getline(in, argument);
    size_t first = argument.find_first_not_of(" \t");
    argument = first == std::string::npos ? std::string() : argument.substr(first);
    while (!argument.empty() && (argument.back() == '\r' || argument.back() == ' '))
        argument.pop_back();

    std::string error;
    if (verb == "attach") {
        std::string udid;
        if (argument.empty())
            return "ERROR attach needs a profile path\n";
        if (!simulator.attach(argument, &udid, &error))
            return "ERROR " + error + "\n";
        return "OK " + udid + "\n";
    }
    if (verb == "detach") {
        if (!simulator.detach(argument, &error))
            return "ERROR " + error + "\n";
        return "OK\n";
    }
    if (verb == "list") {
        std::string out;
        auto devices = simulator.devices();
        for (const auto& device : devices)
            out += device->udid() + " " + std::to_string(device->deviceId()) + " " +
                   device->mediaPath() + "\n";
        return out + "OK " + std::to_string(devices.size()) + "\n";
    }
    if (verb == "media" || verb == "root") {
        auto device = simulator.deviceByUdid(argument);
        if (!device)
            return "ERROR no attached device with udid " + argument + "\n";
        return "OK " + (verb == "media" ? device->mediaPath() : device->rootPath()) + "\n";
    }
    if (verb == "quit") {
        *quit = true;
        return "OK\n";
    }
    return "ERROR unknown command '" + verb + "' (attach, detach, list, media, root, quit)\n";
}

} // namespace

void serveControlClient(Simulator& simulator, int fd)
{
    Stream stream(fd);
    simulator.trackClient(&stream);
    std::string buffer;
    char chunk[1024];
    bool quit = false;
    while (!quit) {
        size_t newline = buffer.find('\n');
        if (newline == std::string::npos) {
            if (buffer.size() > 64 * 1024)
                break;
            long n = stream.readSome(chunk, sizeof chunk);
            if (n <= 0)
                break;
            buffer.append(chunk, static_cast<size_t>(n));
            continue;
        }
        std::string line = buffer.substr(0, newline);
        buffer.erase(0, newline + 1);
        if (line.empty())
            continue;
        if (!stream.writeAll(runCommand(simulator, line, &quit)))
            break;
    }
    simulator.untrackClient(&stream);
    if (quit)
        simulator.stop();
}

int runControlCommand(const std::string& controlPath, const std::vector<std::string>& words)
{
    if (words.empty()) {
        std::fprintf(stderr, "kavrel-devsim ctl: missing command\n");
        return 2;
    }
    std::string line = words[0];
    for (size_t i = 1; i < words.size(); ++i) {
        std::string word = words[i];
        // The simulator may run in another folder: send profiles as absolute paths.
        if (words[0] == "attach" && !word.empty() && word[0] != '/') {
            char resolved[PATH_MAX];
            if (::realpath(word.c_str(), resolved))
                word = resolved;
        }
        line += " " + word;
    }
    std::string error;
    int fd = connectUnix(controlPath, &error);
    if (fd < 0) {
        std::fprintf(stderr, "kavrel-devsim ctl: %s\n", error.c_str());
        return 1;
    }
    Stream stream(fd);
    if (!stream.writeAll(line + "\n")) {
        std::fprintf(stderr, "kavrel-devsim ctl: cannot send the command\n");
        return 1;
    }
    std::string reply;
    char chunk[4096];
    while (true) {
        long n = stream.readSome(chunk, sizeof chunk);
        if (n <= 0)
            break;
        reply.append(chunk, static_cast<size_t>(n));
        // The answer ends with its OK/ERROR line.
        size_t lastStart = reply.rfind('\n', reply.size() >= 2 ? reply.size() - 2 : 0);
        std::string last = reply.substr(lastStart == std::string::npos ? 0 : lastStart + 1);
        if (!reply.empty() && reply.back() == '\n' &&
            (last.compare(0, 2, "OK") == 0 || last.compare(0, 5, "ERROR") == 0))
            break;
    }
    std::fputs(reply.c_str(), stdout);
    size_t lastStart = reply.rfind('\n', reply.size() >= 2 ? reply.size() - 2 : 0);
    std::string last = reply.substr(lastStart == std::string::npos ? 0 : lastStart + 1);
    return last.compare(0, 2, "OK") == 0 ? 0 : 1;
}

} // namespace devsim
