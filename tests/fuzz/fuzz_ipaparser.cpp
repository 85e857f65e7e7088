// libFuzzer target: an .ipa (zip) archive read into an app record, as `kavrel ipa`
// and the catalog do. Each input is written to a file in memory (/dev/shm where there
// is one) and parsed from there.

#include "FuzzQuiet.h"
#include "IpaParser.h"

#include <QString>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::string gInput;

bool writeInput(const uint8_t* data, size_t size)
{
    FILE* f = fopen(gInput.c_str(), "wb");
    if (!f)
        return false;
    const bool ok = fwrite(data, 1, size, f) == size;
    fclose(f);
    return ok;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    silenceQtMessages();
    char shm[] = "/dev/shm/fuzz_ipaparser.XXXXXX";
    char tmp[] = "/tmp/fuzz_ipaparser.XXXXXX";
    const char* dir = mkdtemp(shm);
    if (!dir)
        dir = mkdtemp(tmp);
    if (!dir)
        abort();
    gInput = std::string(dir) + "/input.ipa";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!writeInput(data, size))
        return 0;
    IpaParser::IpaInfo info;
    IpaParser::parseIpa(QString::fromStdString(gInput), &info);
    info.debugInfo();
    IpaParser::debugInfo(info);
    return 0;
}
