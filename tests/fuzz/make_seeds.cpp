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
                    PngRecipe recipe;
                    recipe.width = size[0];
                    recipe.height = size[1];
                    recipe.colorType = colorType;
                    recipe.interlaced = interlaced;
                    recipe.filter = filter;
                    recipe.pixels = testPixels(recipe.width, recipe.height, colorType, gCount);
                    if (colorType == 3)
                        recipe.palette = testPixels(16, 1, 2, 7);
                    recipe.idatSize = (gCount % 3 == 0) ? 9 : 0;
                    writeSeed(dir, optionSets[option++ % 5], buildPng(recipe));
                }
            }
        }
    }
    // Plain files, for the allow-plain path.
    for (int colorType : {2, 6}) {
        PngRecipe recipe;
        recipe.width = 7;
        recipe.height = 6;
        recipe.colorType = colorType;
        recipe.crushed = false;
        recipe.filter = -1;
        recipe.pixels = testPixels(7, 6, colorType, 3);
        writeSeed(dir, AllowPlain, buildPng(recipe));
        writeSeed(dir, AllowPlain | PrintInfo, buildPng(recipe));
    }
    printf("%d seeds\n", gCount);
    return 0;
}
