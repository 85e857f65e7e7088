// Measures PngCrush conversions per second, the floor of the same work (libdeflate
// inflate + deflate of the image data alone), and the compression levels.
//
//   bench_png make DIR                      writes DIR/icon180.png and DIR/icon1024.png
//   bench_png convert FILE OUTDIR SECONDS   PngCrush::process, FILE -> OUTDIR
//   bench_png floor FILE CONVERTED SECONDS  inflate FILE's image data + deflate CONVERTED's
//   bench_png levels FILE...                size and time of every libdeflate level
//
// Rates are printed as conversions per CPU second on standard output.

#include "PngBuilder.h"
#include "PngCrush.h"

#include <libdeflate.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <time.h>
#include <unistd.h>

using namespace kavreltest;

namespace {

const int kLevel = 4; // keep in step with PngCrush.cpp

// A plausible app icon: rounded square with anti-aliased transparent corners, a
// diagonal gradient, a soft disc in the middle and a little noise.
Bytes iconPixels(uint32_t side)
{
    Bytes px(size_t(side) * side * 4);
    const double radius = side * 0.18;
    uint32_t seed = 12345;
    for (uint32_t y = 0; y < side; ++y) {
        for (uint32_t x = 0; x < side; ++x) {
            const double fx = x + 0.5, fy = y + 0.5;
            const double cx = std::min(std::max(fx, radius), side - radius);
            const double cy = std::min(std::max(fy, radius), side - radius);
            const double outside = std::hypot(fx - cx, fy - cy) - radius;
            const double coverage = std::min(1.0, std::max(0.0, 0.5 - outside));
            const double u = double(x) / side, v = double(y) / side;
            double r = 30 + 170 * u, g = 90 + 120 * v, b = 220 - 90 * u * v;
            const double d = std::hypot(u - 0.5, v - 0.5);
            const double disc = std::min(1.0, std::max(0.0, (0.28 - d) * side / 2));
            r += (250 - r) * disc;
            g += (245 - g) * disc;
            b += (235 - b) * disc;
            // Sparse one-step noise, as left by dithering in real artwork.
            seed = seed * 1103515245u + 12345u;
            const int noise = ((seed >> 16) & 15) == 0 ? int((seed >> 20) & 2) - 1 : 0;
            uint8_t* p = &px[(size_t(y) * side + x) * 4];
            p[0] = uint8_t(std::min(255.0, std::max(0.0, r + noise)));
            p[1] = uint8_t(std::min(255.0, std::max(0.0, g + noise)));
            p[2] = uint8_t(std::min(255.0, std::max(0.0, b + noise)));
            p[3] = uint8_t(std::lround(coverage * 255));
        }
    }
    return px;
}

Bytes readAll(const std::string& path)
{
    Bytes data;
    FILE* f = fopen(path.c_str(), "rb");
    if (!f)
        return data;
    unsigned char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        data.insert(data.end(), buf, buf + n);
    fclose(f);
    return data;
}

bool writeAll(const std::string& path, const Bytes& data)
{
    FILE* f = fopen(path.c_str(), "wb");
    if (!f)
        return false;
    const bool ok = fwrite(data.data(), 1, data.size(), f) == data.size();
    return fclose(f) == 0 && ok;
}

// CPU time of the whole process (user + system): other work on a shared machine
// stretches wall-clock time but not this.
double cpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

// Runs fn until `limit` CPU seconds have passed (after one warm-up call); returns calls
// per CPU second.
template <typename Fn> double rate(double limit, Fn fn)
{
    fn();
    long n = 0;
    const double start = cpuSeconds();
    double elapsed = 0;
    do {
        fn();
        ++n;
        elapsed = cpuSeconds() - start;
    } while (elapsed < limit);
    return n / elapsed;
}

// The image data and its inflated size, read from a crushed or a plain file.
bool imageData(const std::string& path, Bytes& idat, size_t& rawSize, bool& crushed)
{
    std::vector<ParsedChunk> chunks;
    if (!parseChunks(readAll(path), chunks) || chunks.empty())
        return false;
    crushed = chunks[0].type == "CgBI";
    uint32_t width = 0, height = 0;
    idat.clear();
    for (const ParsedChunk& c : chunks) {
        if (c.type == "IHDR") {
            width = uint32_t(c.data[0]) << 24 | uint32_t(c.data[1]) << 16 |
                    uint32_t(c.data[2]) << 8 | c.data[3];
            height = uint32_t(c.data[4]) << 24 | uint32_t(c.data[5]) << 16 |
                     uint32_t(c.data[6]) << 8 | c.data[7];
        }
        if (c.type == "IDAT")
            idat.insert(idat.end(), c.data.begin(), c.data.end());
    }
    rawSize = size_t(height) * (1 + size_t(width) * 4); // 8-bit RGBA, not interlaced
    return width && height;
}

int make(const std::string& dir)
{
    for (uint32_t side : {180u, 1024u}) {
        PngRecipe recipe;
        recipe.width = side;
        recipe.height = side;
        recipe.colorType = 6;
        recipe.filter = -2;
        recipe.level = 9;
        recipe.pixels = iconPixels(side);
        if (!writeAll(dir + "/icon" + std::to_string(side) + ".png", buildPng(recipe)))
            return 1;
    }
    return 0;
}

int convert(const std::string& file, const std::string& outDir, double limit)
{
    // The converter reports on stdout; keep the result line apart from that noise.
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    if (!freopen("/dev/null", "w", stdout))
        return 1;
    PngCrush crush;
    crush.output_dir = const_cast<char*>(outDir.c_str());
    std::string name = file;
    bool ok = true;
    const double r = rate(limit, [&] { ok = crush.process(&name[0], nullptr) == 1 && ok; });
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    FILE* out = fdopen(dup(STDOUT_FILENO), "w");
    if (!ok) {
        fprintf(stderr, "bench_png: conversion of %s failed\n", file.c_str());
        return 1;
    }
    fprintf(out, "%.1f\n", r);
    fclose(out);
    return 0;
}

// The work no converter can avoid: inflate the crushed image data, and deflate the
// converted image data (taken from PngCrush's output, so both compress the same bytes).
int floorRate(const std::string& file, const std::string& converted, double limit)
{
    Bytes idat, convertedIdat;
    size_t rawSize = 0, convertedSize = 0;
    bool crushed = false, convertedCrushed = true;
    if (!imageData(file, idat, rawSize, crushed) || !crushed ||
        !imageData(converted, convertedIdat, convertedSize, convertedCrushed) || convertedCrushed ||
        convertedSize != rawSize)
        return 1;
    libdeflate_decompressor* d = libdeflate_alloc_decompressor();
    libdeflate_compressor* c = libdeflate_alloc_compressor(kLevel);
    Bytes raw(rawSize), target(rawSize), packed(libdeflate_zlib_compress_bound(c, rawSize));
    size_t got = 0;
    bool ok = libdeflate_zlib_decompress(d, convertedIdat.data(), convertedIdat.size(),
                                         target.data(), target.size(), &got) == LIBDEFLATE_SUCCESS;
    const double r = rate(limit, [&] {
        ok = libdeflate_deflate_decompress(d, idat.data(), idat.size(), raw.data(), raw.size(),
                                           &got) == LIBDEFLATE_SUCCESS &&
             got == rawSize && ok;
        ok = libdeflate_zlib_compress(c, target.data(), target.size(), packed.data(),
                                      packed.size()) > 0 &&
             ok;
    });
    libdeflate_free_compressor(c);
    libdeflate_free_decompressor(d);
    if (!ok)
        return 1;
    printf("%.1f\n", r);
    return 0;
}

int levels(int count, char** files)
{
    printf("| level |");
    for (int i = 0; i < count; ++i)
        printf(" %s bytes | %s ms |",
               strrchr(files[i], '/') ? strrchr(files[i], '/') + 1 : files[i],
               strrchr(files[i], '/') ? strrchr(files[i], '/') + 1 : files[i]);
    printf("\n|---|");
    for (int i = 0; i < count; ++i)
        printf("---|---|");
    printf("\n");
    std::vector<Bytes> raws;
    libdeflate_decompressor* d = libdeflate_alloc_decompressor();
    for (int i = 0; i < count; ++i) {
        Bytes idat;
        size_t rawSize = 0;
        bool crushed = false;
        if (!imageData(files[i], idat, rawSize, crushed))
            return 1;
        Bytes raw(rawSize);
        size_t got = 0;
        const auto r = crushed ? libdeflate_deflate_decompress(d, idat.data(), idat.size(),
                                                               raw.data(), rawSize, &got)
                               : libdeflate_zlib_decompress(d, idat.data(), idat.size(), raw.data(),
                                                            rawSize, &got);
        if (r != LIBDEFLATE_SUCCESS || got != rawSize)
            return 1;
        raws.push_back(raw);
    }
    libdeflate_free_decompressor(d);
    for (int level = 1; level <= 12; ++level) {
        libdeflate_compressor* c = libdeflate_alloc_compressor(level);
        printf("| %d |", level);
        for (const Bytes& raw : raws) {
            Bytes packed(libdeflate_zlib_compress_bound(c, raw.size()));
            size_t size = 0;
            const double perSecond = rate(raw.size() > 1000000 ? 2.0 : 1.0, [&] {
                size = libdeflate_zlib_compress(c, raw.data(), raw.size(), packed.data(),
                                                packed.size());
            });
            printf(" %zu | %.3f |", size, 1000.0 / perSecond);
        }
        printf("\n");
        libdeflate_free_compressor(c);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "make" && argc == 3)
        return make(argv[2]);
    if (mode == "convert" && argc == 5)
        return convert(argv[2], argv[3], atof(argv[4]));
    if (mode == "floor" && argc == 5)
        return floorRate(argv[2], argv[3], atof(argv[4]));
    if (mode == "levels" && argc >= 3)
        return levels(argc - 2, argv + 2);
    fprintf(
        stderr,
        "usage: bench_png make DIR | convert FILE OUTDIR SECONDS | floor FILE CONVERTED SECONDS | "
        "levels FILE...\n");
    return 2;
}
