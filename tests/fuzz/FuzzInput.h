#pragma once
// Shared by the fuzz targets and the seed writer: the scratch file an input is written
// to, and the option byte that starts a PngCrush input (the rest is the file).

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzzinput {

// Option bits; SmallIdat splits the output into IDAT chunks of 7 bytes.
constexpr uint8_t AllowPlain = 1, ListChunks = 2, PrintInfo = 4, Informational = 8, NoFixAlpha = 16,
                  NoWrite = 32, SmallIdat = 64, OutputDir = 128;

// A fresh folder, in memory (/dev/shm) where there is one: every input is written to a
// file, and the disk is the bottleneck otherwise.
inline std::string scratchDir(const std::string& name)
{
    for (std::string dir : {"/dev/shm/" + name + ".XXXXXX", "/tmp/" + name + ".XXXXXX"})
        if (mkdtemp(&dir[0]))
            return dir;
    abort();
}

inline bool writeFile(const std::string& path, const uint8_t* data, size_t size)
{
    FILE* f = fopen(path.c_str(), "wb");
    if (!f)
        return false;
    const bool ok = fwrite(data, 1, size, f) == size;
    return fclose(f) == 0 && ok;
}

} // namespace fuzzinput
