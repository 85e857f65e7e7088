// Writes the seed corpus of fuzz_pngcrush into the folder given as argument: small
// crushed and plain PNG files of every colour type the converter handles, interlaced
// and not, with every row filter, each prefixed by an option byte (FuzzInput.h).

#include "FuzzInput.h"
#include "PngBuilder.h"

#include <cstdio>
#include <string>

using namespace kavreltest;

static int gCount = 0;

static void writeSeed(const std::string& dir, uint8_t flags, const Bytes& file)
{
    const std::string path = dir + "/seed" + std::to_string(gCount++) + ".bin";
    FILE* f = fopen(path.c_str(), "wb");
    if (!f)
        return;
    fputc(flags, f);
    fwrite(file.data(), 1, file.size(), f);
    fclose(f);
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: fuzz_png_seeds DIR\n");
        return 2;
    }
    const std::string dir = argv[1];
    using namespace fuzzinput;
    const uint8_t optionSets[] = {0, PrintInfo | Informational, ListChunks | SmallIdat,
                                  OutputDir | NoFixAlpha, AllowPlain};
    const uint32_t sizes[][2] = {{1, 1}, {3, 2}, {5, 5}, {9, 4}, {16, 16}};
    int option = 0;
    for (int colorType : {2, 6, 0, 3}) {
        for (bool interlaced : {false, true}) {
            for (int filter = -1; filter <= 4; ++filter) {
                for (const auto& size : sizes) {
                    PngSpec spec;
                    spec.width = size[0];
                    spec.height = size[1];
                    spec.colorType = colorType;
                    spec.interlaced = interlaced;
                    spec.filter = filter;
                    spec.pixels = testPixels(spec.width, spec.height, colorType, gCount);
                    if (colorType == 3)
                        spec.palette = testPixels(16, 1, 2, 7);
                    spec.idatSize = (gCount % 3 == 0) ? 9 : 0;
                    writeSeed(dir, optionSets[option++ % 5], buildPng(spec));
                }
            }
        }
    }
    // Plain files, for the allow-plain path.
    for (int colorType : {2, 6}) {
        PngSpec spec;
        spec.width = 7;
        spec.height = 6;
        spec.colorType = colorType;
        spec.crushed = false;
        spec.filter = -1;
        spec.pixels = testPixels(7, 6, colorType, 3);
        writeSeed(dir, AllowPlain, buildPng(spec));
        writeSeed(dir, AllowPlain | PrintInfo, buildPng(spec));
    }
    printf("%d seeds\n", gCount);
    return 0;
}
