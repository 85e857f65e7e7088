// AFC upload throughput: a file written to the simulated device through
// libimobiledevice (afc_file_write in 8192-byte and in 1 MiB writes), against the raw
// speed of a UNIX stream socket moving the same bytes in writes of the same size.
//   bench-afc [MEGABYTES] [ROUNDS]      (defaults: 200, 3; best round is reported)

#include <libimobiledevice/afc.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
const char* const kUdid = "b0000000000000000000000000000000000000af";

double seconds(Clock::time_point from)
{
    return std::chrono::duration<double>(Clock::now() - from).count();
}

// Starts kavrel-devsim with one device; returns its pid once it serves.
pid_t startSimulator(const std::string& dir)
{
    const std::string profile = dir + "/bench.json";
    std::ofstream(profile) << "{\"udid\": \"" << kUdid << "\"}\n";
    const std::string socketPath = dir + "/usbmuxd.sock";
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(pipeFds[1], STDOUT_FILENO);
        close(pipeFds[0]);
        execl(KAVREL_DEVSIM, KAVREL_DEVSIM, "--socket", socketPath.c_str(), "--state",
              (dir + "/state").c_str(), profile.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(pipeFds[1]);
    std::string out;
    char buffer[256];
    while (out.find("ready ") == std::string::npos) {
        ssize_t n = read(pipeFds[0], buffer, sizeof buffer);
        if (n <= 0)
            return -1;
        out.append(buffer, static_cast<size_t>(n));
    }
    close(pipeFds[0]);
    setenv("USBMUXD_SOCKET_ADDRESS", ("UNIX:" + socketPath).c_str(), 1);
    return pid;
}

// Seconds to upload the bytes in writes of chunk bytes (session set-up not counted).
double uploadAfc(const std::vector<char>& bytes, size_t chunk)
{
    idevice_t device = nullptr;
    lockdownd_client_t lockdown = nullptr;
    lockdownd_service_descriptor_t service = nullptr;
    afc_client_t afc = nullptr;
    if (idevice_new(&device, kUdid) != IDEVICE_E_SUCCESS ||
        lockdownd_client_new_with_handshake(device, &lockdown, "bench-afc") != LOCKDOWN_E_SUCCESS ||
        lockdownd_start_service(lockdown, "com.apple.afc", &service) != LOCKDOWN_E_SUCCESS ||
        afc_client_new(device, service, &afc) != AFC_E_SUCCESS) {
        std::fprintf(stderr, "bench-afc: cannot open AFC on the simulated device\n");
        std::exit(1);
    }
    uint64_t handle = 0;
    auto start = Clock::now();
    afc_file_open(afc, "/bench.bin", AFC_FOPEN_WRONLY, &handle);
    for (size_t pos = 0; pos < bytes.size(); pos += chunk) {
        uint32_t written = 0;
        uint32_t n = static_cast<uint32_t>(std::min(chunk, bytes.size() - pos));
        if (afc_file_write(afc, handle, bytes.data() + pos, n, &written) != AFC_E_SUCCESS) {
            std::fprintf(stderr, "bench-afc: write failed\n");
            std::exit(1);
        }
    }
    afc_file_close(afc, handle);
    double elapsed = seconds(start);
    afc_client_free(afc);
    lockdownd_service_descriptor_free(service);
    lockdownd_client_free(lockdown);
    idevice_free(device);
    return elapsed;
}

// Seconds to move the bytes through a UNIX stream socket to a reader thread.
double rawSocket(const std::vector<char>& bytes, size_t chunk)
{
    int fds[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
    std::thread reader([fd = fds[1], total = bytes.size()] {
        std::vector<char> buffer(1 << 20);
        size_t got = 0;
        while (got < total) {
            ssize_t n = read(fd, buffer.data(), buffer.size());
            if (n <= 0)
                break;
            got += static_cast<size_t>(n);
        }
    });
    auto start = Clock::now();
    for (size_t pos = 0; pos < bytes.size();) {
        ssize_t n = write(fds[0], bytes.data() + pos, std::min(chunk, bytes.size() - pos));
        if (n <= 0)
            break;
        pos += static_cast<size_t>(n);
    }
    reader.join();
    double elapsed = seconds(start);
    close(fds[0]);
    close(fds[1]);
    return elapsed;
}

} // namespace

int main(int argc, char** argv)
{
    const size_t megabytes = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 200;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 3;
    std::vector<char> bytes(megabytes << 20);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>((i * 2654435761u) >> 24);

    char dirTemplate[] = "/tmp/bench-afc-XXXXXX";
    const std::string dir = mkdtemp(dirTemplate);
    signal(SIGPIPE, SIG_IGN);
    pid_t simulator = startSimulator(dir);
    if (simulator < 0) {
        std::fprintf(stderr, "bench-afc: kavrel-devsim did not start\n");
        return 1;
    }

    std::printf("%zu MB, best of %d rounds\n", megabytes, rounds);
    std::printf("%-10s %14s %14s %8s\n", "write size", "AFC MB/s", "socket MB/s", "ratio");
    for (size_t chunk : {size_t(8192), size_t(1) << 20}) {
        double afcBest = 1e9, rawBest = 1e9;
        for (int round = 0; round < rounds; ++round) {
            afcBest = std::min(afcBest, uploadAfc(bytes, chunk));
            rawBest = std::min(rawBest, rawSocket(bytes, chunk));
        }
        const double mb = double(megabytes);
        std::printf("%-10zu %14.1f %14.1f %8.2f\n", chunk, mb / afcBest, mb / rawBest,
                    rawBest / afcBest);
    }

    kill(simulator, SIGTERM);
    waitpid(simulator, nullptr, 0);
    std::string cleanup = "rm -rf '" + dir + "'";
    return std::system(cleanup.c_str()) == 0 ? 0 : 1;
}
