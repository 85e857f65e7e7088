#include "PngBuilder.h"

#include <libdeflate.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace kavreltest {

namespace {

const uint8_t kSignature[8] = {137, 80, 78, 71, 13, 10, 26, 10};
const int kStartRow[7] = {0, 0, 4, 0, 2, 0, 1};
const int kStartColumn[7] = {0, 4, 0, 2, 0, 1, 0};
const int kRowStep[7] = {8, 8, 8, 4, 4, 2, 2};
const int kColumnStep[7] = {8, 8, 4, 4, 2, 2, 1};

void putLong(Bytes& out, uint32_t v)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(uint8_t(v >> shift));
}

} // namespace

int channels(int colorType)
{
    return colorType == 2 ? 3 : colorType == 4 ? 2 : colorType == 6 ? 4 : 1;
}

int paeth(int a, int b, int c)
{
    const int p = a + b - c;
    const int pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
    if (pa <= pb && pa <= pc)
        return a;
    return pb <= pc ? b : c;
}

Bytes chunk(const std::string& type, const Bytes& data)
{
    Bytes out;
    putLong(out, uint32_t(data.size()));
    out.insert(out.end(), type.begin(), type.begin() + 4);
    out.insert(out.end(), data.begin(), data.end());
    putLong(out, libdeflate_crc32(0, out.data() + 4, data.size() + 4));
    return out;
}

Bytes ihdr(uint32_t width, uint32_t height, int depth, int colorType, int interlace)
{
    Bytes d;
    putLong(d, width);
    putLong(d, height);
    d.insert(d.end(), {uint8_t(depth), uint8_t(colorType), 0, 0, uint8_t(interlace)});
    return chunk("IHDR", d);
}

uint8_t premultiplied(uint8_t v, uint8_t a)
{
    return uint8_t((v * a + 127) / 255);
}

Bytes convertedPixels(const PngRecipe& recipe, bool fixAlpha)
{
    Bytes px = recipe.pixels;
    for (size_t i = 0; recipe.colorType == 6 && i < px.size(); i += 4) {
        const unsigned a = px[i + 3];
        for (int c = 0; c < 3; ++c) {
            const unsigned stored = recipe.premultiply ? premultiplied(px[i + c], a) : px[i + c];
            px[i + c] = uint8_t(fixAlpha && a ? (stored * 255 + a / 2) / a : stored);
        }
    }
    return px;
}

// Standard row filter of one row in place; prev is the unfiltered row above or null.
static void filterRow(int type, uint8_t* row, const uint8_t* prev, size_t length, int bpp)
{
    // Right to left, so every prediction still sees unfiltered neighbours.
    for (size_t j = length; j-- > 0;) {
        const int a = j >= size_t(bpp) ? row[j - bpp] : 0;
        const int b = prev ? prev[j] : 0;
        const int c = prev && j >= size_t(bpp) ? prev[j - bpp] : 0;
        const int predicted[5] = {0, a, b, (a + b) / 2, paeth(a, b, c)};
        row[j] = uint8_t(row[j] - predicted[type]);
    }
}

static long residuals(const Bytes& row)
{
    long sum = 0;
    for (uint8_t v : row)
        sum += v < 128 ? v : 256 - v;
    return sum;
}

// The scanlines (filter byte + filtered bytes, Adam7 passes one after the other) the
// recipe's pixels give, as stored before compression.
static Bytes scanlines(const PngRecipe& recipe)
{
    const int n = channels(recipe.colorType);
    // Crushed files store BGR(A), with colours premultiplied unless the recipe says otherwise.
    const Bytes stored = recipe.crushed ? convertedPixels(recipe, false) : recipe.pixels;
    const bool swap = recipe.crushed && (recipe.colorType == 2 || recipe.colorType == 6);
    Bytes out;
    const int passes = recipe.interlaced ? 7 : 1;
    for (int p = 0; p < passes; ++p) {
        const uint32_t x0 = recipe.interlaced ? kStartColumn[p] : 0;
        const uint32_t y0 = recipe.interlaced ? kStartRow[p] : 0;
        const uint32_t dx = recipe.interlaced ? kColumnStep[p] : 1;
        const uint32_t dy = recipe.interlaced ? kRowStep[p] : 1;
        const uint32_t columns = recipe.width > x0 ? (recipe.width - x0 + dx - 1) / dx : 0;
        const uint32_t rows = recipe.height > y0 ? (recipe.height - y0 + dy - 1) / dy : 0;
        if (columns == 0 || rows == 0)
            continue;
        Bytes previous, current(size_t(columns) * n);
        for (uint32_t r = 0; r < rows; ++r) {
            const uint32_t y = y0 + r * dy;
            for (uint32_t c = 0; c < columns; ++c) {
                uint8_t* px = &current[size_t(c) * n];
                memcpy(px, &stored[(size_t(y) * recipe.width + x0 + c * dx) * n], n);
                if (swap)
                    std::swap(px[0], px[2]);
            }
            const uint8_t* above = previous.empty() ? nullptr : previous.data();
            int type = recipe.filter == -1 ? int(r % 5) : recipe.filter;
            Bytes filtered = current;
            // Adaptive, as the usual encoders choose: the smallest sum of absolute residuals.
            for (int t = 0; recipe.filter == -2 && t <= 4; ++t) {
                Bytes candidate = current;
                filterRow(t, candidate.data(), above, candidate.size(), n);
                if (t == 0 || residuals(candidate) < residuals(filtered)) {
                    type = t;
                    filtered = candidate;
                }
            }
            if (recipe.filter != -2)
                filterRow(type, filtered.data(), above, filtered.size(), n);
            out.push_back(uint8_t(type));
            out.insert(out.end(), filtered.begin(), filtered.end());
            previous = current;
        }
    }
    return out;
}

Bytes compress(const Bytes& raw, bool crushed, int level)
{
    libdeflate_compressor* c = libdeflate_alloc_compressor(level);
    Bytes packed(libdeflate_zlib_compress_bound(c, raw.size()));
    packed.resize(
        crushed
            ? libdeflate_deflate_compress(c, raw.data(), raw.size(), packed.data(), packed.size())
            : libdeflate_zlib_compress(c, raw.data(), raw.size(), packed.data(), packed.size()));
    libdeflate_free_compressor(c);
    return packed;
}

Bytes buildPng(const PngRecipe& recipe)
{
    const Bytes packed = compress(scanlines(recipe), recipe.crushed, recipe.level);
    Bytes file(kSignature, kSignature + 8);
    auto append = [&file](const Bytes& b) { file.insert(file.end(), b.begin(), b.end()); };
    if (recipe.crushed)
        append(chunk("CgBI", {0x50, 0x00, 0x20, 0x06}));
    append(ihdr(recipe.width, recipe.height, 8, recipe.colorType, recipe.interlaced ? 1 : 0));
    if (recipe.colorType == 3)
        append(chunk("PLTE", recipe.palette));
    const size_t piece = recipe.idatSize ? recipe.idatSize : packed.size();
    for (size_t at = 0; at < packed.size(); at += piece) {
        const size_t n = std::min(piece, packed.size() - at);
        append(chunk("IDAT", Bytes(packed.begin() + at, packed.begin() + at + n)));
    }
    append(chunk("IEND", {}));
    return file;
}

Bytes testPixels(uint32_t width, uint32_t height, int colorType, uint32_t seed)
{
    const int n = channels(colorType);
    Bytes px(size_t(width) * height * n);
    uint32_t s = seed * 2654435761u + 1;
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            uint8_t* p = &px[(size_t(y) * width + x) * n];
            for (int c = 0; c < n; ++c) {
                s = s * 1103515245u + 12345u;
                // Smooth gradients with some noise, like real icons.
                p[c] = uint8_t((x * (c + 1) * 7 + y * 5 + ((s >> 16) & 15)) & 0xFF);
            }
            if (colorType == 6)
                p[3] = uint8_t(255 - ((x + y) * 3 & 0xFF));
        }
    }
    return px;
}

bool parseChunks(const Bytes& file, std::vector<ParsedChunk>& chunks)
{
    chunks.clear();
    if (file.size() < 8 || memcmp(file.data(), kSignature, 8) != 0)
        return false;
    auto be32 = [](const uint8_t* p) {
        return uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3];
    };
    size_t at = 8;
    while (at < file.size()) {
        const uint32_t length = file.size() - at < 12 ? 0 : be32(&file[at]);
        if (file.size() - at < 12 || file.size() - at - 12 < length)
            return false;
        const uint8_t* t = &file[at + 4];
        const uint32_t stored = be32(t + 4 + length);
        chunks.push_back({std::string(reinterpret_cast<const char*>(t), 4),
                          Bytes(t + 4, t + 4 + length), stored,
                          stored == libdeflate_crc32(0, t, length + 4)});
        at += 12 + size_t(length);
    }
    return true;
}

} // namespace kavreltest
