#pragma once
// How a fuzzing input maps onto a PngCrush run: the first byte selects the options,
// the rest is the file. Shared by the target and the seed writer.

#include <cstdint>

namespace fuzzinput {

enum Flag : uint8_t
{
    AllowPlain = 1,
    ListChunks = 2,
    PrintInfo = 4,
    Informational = 8,
    NoFixAlpha = 16,
    NoWrite = 32,
    SmallIdat = 64, // split the output into IDAT chunks of 7 bytes
    OutputDir = 128,
};

} // namespace fuzzinput
