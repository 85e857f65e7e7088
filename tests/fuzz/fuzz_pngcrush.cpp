// libFuzzer target: one PngCrush::process run per input. The first input byte picks
// the options (FuzzInput.h), the rest is written to a file and converted; a converted
// file is converted once more as a plain PNG, which exercises the zlib path.

#include "FuzzInput.h"
#include "PngCrush.h"

#include <sys/stat.h>

namespace {
std::string gInput, gOutDir;
} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The converter reports on standard output; millions of lines help nobody.
    if (!freopen("/dev/null", "w", stdout))
        abort();
    const std::string dir = fuzzinput::scratchDir("fuzz_pngcrush");
    gInput = dir + "/input.png";
    gOutDir = dir + "/out";
    mkdir(gOutDir.c_str(), 0700);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || !fuzzinput::writeFile(gInput, data + 1, size - 1))
        return 0;
    using namespace fuzzinput;
    const uint8_t flags = data[0];
    PngCrush crush;
    crush.allow_plain = (flags & AllowPlain) != 0;
    crush.list_chunks = (flags & ListChunks) != 0;
    crush.print_info = (flags & PrintInfo) != 0;
    crush.informational = (flags & Informational) != 0;
    crush.fix_alpha = (flags & NoFixAlpha) == 0;
    crush.write_output = (flags & NoWrite) == 0;
    crush.max_idat_size = (flags & SmallIdat) ? 7 : 524288;
    crush.output_dir = (flags & OutputDir) ? const_cast<char*>(gOutDir.c_str()) : nullptr;

    char* outName = nullptr;
    if (crush.process(const_cast<char*>(gInput.c_str()), &outName) == 1 && outName) {
        PngCrush again; // the result is a plain PNG now
        again.allow_plain = 1;
        again.write_output = 0;
        again.process(outName, nullptr);
    }
    free(outName);
    return 0;
}
