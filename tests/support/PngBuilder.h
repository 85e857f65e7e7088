#pragma once
// Builds PNG files from known pixels for tests and fuzzing seeds: standard files and
// Apple's crushed variant (CgBI chunk, BGR(A) order, premultiplied alpha, raw deflate).
// Plain C++ and libdeflate only, so the fuzzing build can use it without Qt.

#include <cstdint>
#include <string>
#include <vector>

namespace kavreltest {

using Bytes = std::vector<uint8_t>;

struct PngRecipe
{
    uint32_t width = 1;
    uint32_t height = 1;
    int colorType = 6; // 0 grey, 2 RGB, 3 palette, 4 grey+alpha, 6 RGBA; 8-bit samples
    bool interlaced = false;
    bool crushed = true;     // CgBI chunk, channel swap, premultiply, raw deflate
    bool premultiply = true; // crushed RGBA only
    int filter = 0;          // filter of every row; -1: row y of each pass uses y % 5; -2: adaptive
    Bytes pixels;            // straight samples, row-major, channels as the colour type has
    Bytes palette;           // PLTE data for colour type 3
    size_t idatSize = 0;     // split the compressed stream into IDAT chunks of this size (0: one)
    int level = 6;           // compression level (the benchmark's icons use 9)
};

// Samples per pixel of an 8-bit colour type.
int channels(int colorType);
// One chunk: length, type, data, CRC.
Bytes chunk(const std::string& type, const Bytes& data);
Bytes ihdr(uint32_t width, uint32_t height, int depth, int colorType, int interlace);
// Raw deflate data when crushed, else a zlib stream.
Bytes compress(const Bytes& raw, bool crushed, int level = 6);
// The whole file.
Bytes buildPng(const PngRecipe& recipe);
// The value a crushed file stores for colour v under alpha a.
uint8_t premultiplied(uint8_t v, uint8_t a);

// The pixels a standard decoder shows once a crushed recipe is converted: the stored
// colours (premultiplied unless the recipe says otherwise) demultiplied with rounding
// when fixAlpha is set (visible pixels only), low 8 bits kept.
Bytes convertedPixels(const PngRecipe& recipe, bool fixAlpha);

// The Paeth predictor of the PNG row filters.
int paeth(int a, int b, int c);

// Pixels (width x height x channels) of a pseudo-random but reproducible image.
Bytes testPixels(uint32_t width, uint32_t height, int colorType, uint32_t seed);

struct ParsedChunk
{
    std::string type;
    Bytes data;
    uint32_t storedCrc;
    bool crcValid;
};
// Splits a PNG file into chunks; false when the signature is wrong or a chunk runs
// past the end.
bool parseChunks(const Bytes& file, std::vector<ParsedChunk>& chunks);

} // namespace kavreltest
