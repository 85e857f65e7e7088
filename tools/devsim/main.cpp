// kavrel-devsim: a simulated usbmuxd with simulated iOS devices (see README.md).
//   kavrel-devsim --socket PATH [--control PATH] [--state DIR] [--verbose] [PROFILE...]
//   kavrel-devsim ctl (--socket PATH | --control PATH) attach PROFILE|detach UDID|list|...

#include "Log.h"
#include "Simulator.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace devsim;

namespace {

Simulator* gSimulator = nullptr;

void onSignal(int)
{
    if (gSimulator)
        gSimulator->stop();
}

void usage(FILE* out)
{
    std::fputs(
        "usage: kavrel-devsim --socket PATH [--control PATH] [--state DIR] [--verbose] "
        "[PROFILE...]\n"
        "       kavrel-devsim ctl (--socket PATH | --control PATH) COMMAND [ARG]\n"
        "Plays usbmuxd on the UNIX socket PATH with one simulated device per PROFILE (a JSON\n"
        "or plist file; a bare name such as 'iphone' or 'ipad-jailbroken' picks a shipped\n"
        "profile). Point libimobiledevice programs at it with\n"
        "  USBMUXD_SOCKET_ADDRESS=UNIX:PATH\n"
        "Control commands: attach PROFILE, detach UDID, list, media UDID, root UDID, quit.\n"
        "--exit-with-parent ends the simulator when the process that started it ends.\n"
        "The control socket is PATH.ctl unless --control says otherwise.\n",
        out);
}

// A bare name stands for a profile shipped with the simulator.
std::string resolveProfile(const std::string& name)
{
    struct stat st;
    if (::stat(name.c_str(), &st) == 0 || name.find('/') != std::string::npos)
        return name;
    std::string shipped = std::string(DEVSIM_PROFILE_DIR) + "/" + name;
    if (name.size() < 5 || name.compare(name.size() - 5, 5, ".json") != 0)
        shipped += ".json";
    return ::stat(shipped.c_str(), &st) == 0 ? shipped : name;
}

int runCtl(int argc, char** argv)
{
    std::string socketPath, controlPath;
    std::vector<std::string> words;
    for (int i = 2; i < argc; ++i) {
        std::string arg = argv[i];
        if ((arg == "--socket" || arg == "--control") && i + 1 < argc) {
            (arg == "--socket" ? socketPath : controlPath) = argv[++i];
        } else if (arg == "-h" || arg == "--help") {
            usage(stdout);
            return 0;
        } else {
            words.push_back(arg);
        }
    }
    if (controlPath.empty() && socketPath.empty()) {
        usage(stderr);
        return 2;
    }
    if (controlPath.empty())
        controlPath = socketPath + ".ctl";
    if (words.size() == 2 && words[0] == "attach")
        words[1] = resolveProfile(words[1]);
    return runControlCommand(controlPath, words);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc > 1 && std::strcmp(argv[1], "ctl") == 0)
        return runCtl(argc, argv);

    Options options;
    std::vector<std::string> profiles;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--socket" && i + 1 < argc) {
            options.socketPath = argv[++i];
        } else if (arg == "--control" && i + 1 < argc) {
            options.controlPath = argv[++i];
        } else if (arg == "--state" && i + 1 < argc) {
            options.stateDir = argv[++i];
        } else if (arg == "--exit-with-parent") {
            // A test that crashes must not leave its simulator behind.
            pid_t parent = ::getppid();
            ::prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (::getppid() != parent)
                return 0;
        } else if (arg == "--verbose" || arg == "-v") {
            setVerbose(true);
        } else if (arg == "-h" || arg == "--help") {
            usage(stdout);
            return 0;
        } else if (arg == "--print-profile-dir") {
            std::printf("%s\n", DEVSIM_PROFILE_DIR);
            return 0;
        } else if (!arg.empty() && arg[0] == '-') {
            std::fprintf(stderr, "kavrel-devsim: unknown option %s\n", arg.c_str());
            usage(stderr);
            return 2;
        } else {
            profiles.push_back(resolveProfile(arg));
        }
    }
    if (options.socketPath.empty()) {
        usage(stderr);
        return 2;
    }

    std::signal(SIGPIPE, SIG_IGN);
    Simulator simulator(options);
    std::string error;
    if (!simulator.start(&error)) {
        logError("%s", error.c_str());
        return 1;
    }
    for (const std::string& profile : profiles) {
        std::string udid;
        if (!simulator.attach(profile, &udid, &error)) {
            logError("%s", error.c_str());
            return 1;
        }
        std::printf("attached %s\n", udid.c_str());
    }
    gSimulator = &simulator;
    struct sigaction action
    {
    };
    action.sa_handler = onSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::printf("ready socket=%s control=%s\n", simulator.options().socketPath.c_str(),
                simulator.options().controlPath.c_str());
    std::fflush(stdout);
    simulator.run();
    gSimulator = nullptr;
    return 0;
}
