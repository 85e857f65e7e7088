#include "Log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace devsim {

namespace {
std::atomic<bool> gVerbose{false};
std::mutex gLock;

void write(const char* level, const char* format, va_list args)
{
    std::lock_guard<std::mutex> lock(gLock);
    std::fprintf(stderr, "kavrel-devsim: %s", level);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}
} // namespace

void setVerbose(bool value)
{
    gVerbose = value;
}
bool verbose()
{
    return gVerbose;
}

void logError(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    write("error: ", format, args);
    va_end(args);
}

void logDebug(const char* format, ...)
{
    if (!gVerbose)
        return;
    va_list args;
    va_start(args, format);
    write("", format, args);
    va_end(args);
}

} // namespace devsim
