// Writes the seed corpus of fuzz_pngcrush into the folder given as argument: small
// crushed (and, with the allow-plain option, plain) PNG files of every colour type the
// converter handles, interlaced and not, with every row filter, each prefixed by an
// option byte (FuzzInput.h).

#include "FuzzInput.h"
#include "PngBuilder.h"

using namespace kavreltest;
using namespace fuzzinput;

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: fuzz_png_seeds DIR\n");
        return 2;
    }
    int count = 0;
    auto seed = [&](uint8_t flags, const PngRecipe& recipe) {
        Bytes file = buildPng(recipe);
        file.insert(file.begin(), flags);
        const std::string path = argv[1] + ("/seed" + std::to_string(count++) + ".bin");
        writeFile(path, file.data(), file.size());
    };
    const uint8_t optionSets[] = {0, PrintInfo | Informational, ListChunks | SmallIdat,
                                  OutputDir | NoFixAlpha, AllowPlain | PrintInfo};
    const uint32_t sizes[][2] = {{1, 1}, {3, 2}, {5, 5}, {9, 4}, {16, 16}};
    for (int colorType : {2, 6, 0, 3})
        for (bool interlaced : {false, true})
            for (int filter = -1; filter <= 4; ++filter)
                for (const auto& size : sizes) {
                    // The allow-plain seeds are plain files.
                    PngRecipe recipe{size[0], size[1], colorType, interlaced, count % 5 != 4};
                    recipe.filter = filter;
                    recipe.pixels = testPixels(size[0], size[1], colorType, count);
                    recipe.palette = testPixels(16, 1, 2, 7);
                    recipe.idatSize = (count % 3 == 0) ? 9 : 0;
                    seed(optionSets[count % 5], recipe);
                }
    printf("%d seeds\n", count);
    return 0;
}
