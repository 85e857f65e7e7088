#include "PngCrush.h"

#include <libdeflate.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

const unsigned char kSignature[8] = {137, 80, 78, 71, 13, 10, 26, 10};
const unsigned int kTypeCgBI = 0x43674249;
const unsigned int kTypeIHDR = 0x49484452;
const unsigned int kTypeIDAT = 0x49444154;
const unsigned int kTypeIEND = 0x49454E44;

// Adam7 pass tables.
const int kPassStartRow[7] = {0, 0, 4, 0, 2, 0, 1};
const int kPassStartColumn[7] = {0, 4, 0, 2, 0, 1, 0};
const int kPassRowIncrement[7] = {8, 8, 8, 4, 4, 2, 2};
const int kPassColumnIncrement[7] = {8, 8, 4, 4, 2, 2, 1};

// libdeflate level for the recompressed image data: the best size per time spent on
// icon-sized images (measured, see bench/RESULTS.md "PNG compression level").
const int kCompressionLevel = 4;

// The most a DEFLATE stream of n bytes can expand to is 258 bytes for every two
// bits (a one-bit length code plus a one-bit distance code), so about 1032 times;
// the slack covers block headers. A buffer of this size never runs out of room.
uint64_t maxInflatedSize(uint64_t compressedSize)
{
    return compressedSize * 1032 + 4096;
}

// One compressor and one decompressor per thread, reused across files: setting them
// up costs more than converting a small icon.
libdeflate_compressor* compressor()
{
    struct Holder
    {
        libdeflate_compressor* c = libdeflate_alloc_compressor(kCompressionLevel);
        ~Holder() { libdeflate_free_compressor(c); }
    };
    thread_local Holder holder;
    return holder.c;
}

libdeflate_decompressor* decompressor()
{
    struct Holder
    {
        libdeflate_decompressor* d = libdeflate_alloc_decompressor();
        ~Holder() { libdeflate_free_decompressor(d); }
    };
    thread_local Holder holder;
    return holder.d;
}

void writeLong(FILE* f, unsigned int v)
{
    const unsigned char b[4] = {static_cast<unsigned char>(v >> 24),
                                static_cast<unsigned char>(v >> 16),
                                static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
    fwrite(b, 1, 4, f);
}

void writeChunk(FILE* f, const PngChunkRecord& c)
{
    writeLong(f, c.length);
    fwrite(c.data, 1, static_cast<size_t>(c.length) + 4, f);
    writeLong(f, c.crc);
}

// The PNG Paeth predictor (distances of a + b - c to a, b and c, ties in that order).
inline int paeth(int a, int b, int c)
{
    const int pa = std::abs(b - c);
    const int pb = std::abs(a - c);
    const int pc = std::abs(a + b - 2 * c);
    // Written to compile into conditional moves: the rows are mostly Paeth-filtered.
    int best = a;
    int distance = pa;
    if (pb < distance) {
        best = b;
        distance = pb;
    }
    return pc < distance ? c : best;
}

// (v * 255 + a / 2) / a for every alpha a > 0 and colour v, kept to its low 8 bits:
// a lookup instead of three divisions per pixel.
struct DemultiplyTable
{
    unsigned char value[256][256];
    DemultiplyTable()
    {
        for (unsigned a = 0; a < 256; ++a) {
            for (unsigned v = 0; v < 256; ++v)
                value[a][v] = static_cast<unsigned char>(a ? (v * 255 + a / 2) / a : v);
        }
    }
};

const DemultiplyTable& demultiplyTable()
{
    static const DemultiplyTable table;
    return table;
}

// The byte four positions before x[i] in the buffer: for i = 1..3 this reaches back
// over the row's filter byte into the previous row; before the buffer it is 0.
int leftByte(const unsigned char* rows, const unsigned char* x, ptrdiff_t i)
{
    if (i == 0)
        return 0;
    const ptrdiff_t at = (x - rows) + i - 4;
    return at >= 0 ? rows[at] : 0;
}

uint64_t passColumns(int pass, uint64_t width)
{
    return (kPassColumnIncrement[pass] - kPassStartColumn[pass] + width - 1) /
           kPassColumnIncrement[pass];
}

uint64_t passRows(int pass, uint64_t height)
{
    return (kPassRowIncrement[pass] - kPassStartRow[pass] + height - 1) / kPassRowIncrement[pass];
}

// Row filter loops. Each works on one row's bytes x[0..n) (n = 4 x width, a multiple of
// 4), p being the row above. Removal runs forward and depends on the bytes it has just
// restored, so it goes one pixel (four channels) at a time; re-filtering runs backward
// and reads only bytes not yet changed, so it goes 16 bytes at a time. The scalar loops
// finish what the vector loops leave and are the whole story without SSE2.

#if defined(__SSE2__)
inline __m128i load4(const unsigned char* p)
{
    int v;
    memcpy(&v, p, 4);
    return _mm_unpacklo_epi8(_mm_cvtsi32_si128(v), _mm_setzero_si128());
}

inline void store4(unsigned char* p, __m128i v16)
{
    const __m128i bytes = _mm_and_si128(v16, _mm_set1_epi16(0xFF));
    const int v = _mm_cvtsi128_si32(_mm_packus_epi16(bytes, bytes));
    memcpy(p, &v, 4);
}

inline __m128i load8(const unsigned char* p)
{
    return _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)),
                             _mm_setzero_si128());
}

inline __m128i load16(const unsigned char* p)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

inline void store16(unsigned char* p, __m128i v)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
}

inline __m128i abs16(__m128i v)
{
    return _mm_max_epi16(v, _mm_sub_epi16(_mm_setzero_si128(), v));
}

// Paeth on 16-bit lanes holding bytes, with the same tie order as paeth().
inline __m128i paeth16(__m128i a, __m128i b, __m128i c)
{
    const __m128i pa = abs16(_mm_sub_epi16(b, c));
    const __m128i pb = abs16(_mm_sub_epi16(a, c));
    const __m128i pc = abs16(_mm_sub_epi16(_mm_add_epi16(a, b), _mm_add_epi16(c, c)));
    const __m128i smallest = _mm_min_epi16(pc, _mm_min_epi16(pa, pb));
    const __m128i useA = _mm_cmpeq_epi16(smallest, pa);
    const __m128i useB = _mm_andnot_si128(useA, _mm_cmpeq_epi16(smallest, pb));
    const __m128i useC = _mm_andnot_si128(_mm_or_si128(useA, useB), _mm_set1_epi16(-1));
    return _mm_or_si128(_mm_or_si128(_mm_and_si128(useA, a), _mm_and_si128(useB, b)),
                        _mm_and_si128(useC, c));
}

// (a + b) / 2 rounded down, per byte.
inline __m128i floorAverage8(__m128i a, __m128i b)
{
    const __m128i roundedUp = _mm_avg_epu8(a, b);
    return _mm_sub_epi8(roundedUp, _mm_and_si128(_mm_xor_si128(a, b), _mm_set1_epi8(1)));
}
#endif

// x[i] += x[i - 4] for i >= 4.
void removeSub(unsigned char* x, ptrdiff_t n)
{
    for (ptrdiff_t i = 4; i < n; ++i)
        x[i] += x[i - 4];
}

// x[i] += p[i] for every i.
void removeUp(unsigned char* x, const unsigned char* p, ptrdiff_t n)
{
    ptrdiff_t i = 0;
#if defined(__SSE2__)
    for (; i + 16 <= n; i += 16)
        store16(x + i, _mm_add_epi8(load16(x + i), load16(p + i)));
#endif
    for (; i < n; ++i)
        x[i] += p[i];
}

// x[i] += (x[i - 4] + p[i]) / 2 for i >= 4.
void removeAverage(unsigned char* x, const unsigned char* p, ptrdiff_t n)
{
    for (ptrdiff_t i = 4; i < n; ++i)
        x[i] += (x[i - 4] + p[i]) >> 1;
}

// x[i] += Paeth(x[i - 4], p[i], p[i - 4]) for i >= 4.
void removePaeth(unsigned char* x, const unsigned char* p, ptrdiff_t n)
{
    ptrdiff_t i = 4;
#if defined(__SSE2__)
    __m128i a = load4(x);
    __m128i c = load4(p);
    for (; i < n; i += 4) {
        const __m128i b = load4(p + i);
        a = _mm_add_epi16(load4(x + i), paeth16(a, b, c));
        store4(x + i, a);
        a = _mm_and_si128(a, _mm_set1_epi16(0xFF));
        c = b;
    }
#endif
    for (; i < n; ++i)
        x[i] += paeth(x[i - 4], p[i], p[i - 4]);
}

// x[i] -= x[i - 4] for i >= 4, from the last byte back.
void applySub(unsigned char* x, ptrdiff_t n)
{
    ptrdiff_t end = n;
#if defined(__SSE2__)
    for (; end - 16 >= 4; end -= 16)
        store16(x + end - 16, _mm_sub_epi8(load16(x + end - 16), load16(x + end - 20)));
#endif
    for (ptrdiff_t i = end - 1; i >= 4; --i)
        x[i] -= x[i - 4];
}

// x[i] -= x[i - 1] for every i, from the last byte back (x[-1] is the filter byte).
void applyUpSameRow(unsigned char* x, ptrdiff_t n)
{
    ptrdiff_t end = n;
#if defined(__SSE2__)
    for (; end - 16 >= 0; end -= 16)
        store16(x + end - 16, _mm_sub_epi8(load16(x + end - 16), load16(x + end - 17)));
#endif
    for (ptrdiff_t i = end - 1; i >= 0; --i)
        x[i] -= x[i - 1];
}

// x[i] -= (x[i - 4] + p[i]) / 2 for i >= 4, from the last byte back.
void applyAverage(unsigned char* x, const unsigned char* p, ptrdiff_t n)
{
    ptrdiff_t end = n;
#if defined(__SSE2__)
    for (; end - 16 >= 4; end -= 16) {
        const __m128i avg = floorAverage8(load16(x + end - 20), load16(p + end - 16));
        store16(x + end - 16, _mm_sub_epi8(load16(x + end - 16), avg));
    }
#endif
    for (ptrdiff_t i = end - 1; i >= 4; --i)
        x[i] -= (x[i - 4] + p[i]) >> 1;
}

// x[i] -= Paeth(x[i - 4], x[i - 1], x[i - 5]) for i >= 4, from the last byte back.
void applyPaethSameRow(unsigned char* x, ptrdiff_t n)
{
    ptrdiff_t end = n;
#if defined(__SSE2__)
    for (; end - 8 >= 4; end -= 8) {
        unsigned char* at = x + end - 8;
        const __m128i pred = paeth16(load8(at - 4), load8(at - 1), load8(at - 5));
        const __m128i result = _mm_and_si128(_mm_sub_epi16(load8(at), pred), _mm_set1_epi16(0xFF));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(at), _mm_packus_epi16(result, result));
    }
#endif
    for (ptrdiff_t i = end - 1; i >= 4; --i)
        x[i] -= paeth(x[i - 4], x[i - 1], x[i - 5]);
}

struct ImageHeader
{
    unsigned int width = 0;
    unsigned int height = 0;
    int depth = 0;
    int colorType = 0;
    int compression = 0;
    int filter = 0;
    int interlace = 0;
    int bitsPerPixel = 0;
    uint64_t bytesPerLine = 0;
    uint64_t filterBytes = 0;
    uint64_t expectedSize = 0;
};

// The state of one call of process(): messages with the name-prefix rule, the
// header, the image buffers. Its destructor closes and frees everything, so every
// return path cleans up.
// One RGBA byte's prediction as PNG defines the five filters: a left, b above, c above
// left, each 0 outside the image.
inline int predict(int filter, int a, int b, int c)
{
    switch (filter) {
    case 1:
        return a;
    case 2:
        return b;
    case 3:
        return (a + b) >> 1;
    case 4:
        return paeth(a, b, c);
    default:
        return 0;
    }
}

// Undoes, demultiplies and re-applies the row filters exactly as PNG defines them, so
// standard decoders see the demultiplied pixels. Rows keep their filter types.
void refilterStandard(int width, int height, unsigned char* rows)
{
    const ptrdiff_t n = 4 * static_cast<ptrdiff_t>(width);
    const ptrdiff_t stride = n + 1;
    std::vector<unsigned char> raw(static_cast<size_t>(n) * height);
    for (int y = 0; y < height; ++y) {
        const unsigned char* x = rows + y * stride + 1;
        unsigned char* r = raw.data() + y * n;
        const unsigned char* up = y > 0 ? r - n : nullptr;
        for (ptrdiff_t i = 0; i < n; ++i) {
            const int a = i >= 4 ? r[i - 4] : 0;
            const int b = up ? up[i] : 0;
            const int c = up && i >= 4 ? up[i - 4] : 0;
            r[i] = static_cast<unsigned char>(x[i] + predict(x[-1], a, b, c));
        }
    }
    // Demultiplied in a buffer laid out as the library's row operations expect.
    std::vector<unsigned char> plain(static_cast<size_t>(stride) * height, 0);
    for (int y = 0; y < height; ++y)
        memcpy(plain.data() + y * stride + 1, raw.data() + y * n, static_cast<size_t>(n));
    PngCrush::demultiplyAlpha(width, height, plain.data());
    for (int y = 0; y < height; ++y) {
        unsigned char* x = rows + y * stride + 1;
        const unsigned char* r = plain.data() + y * stride + 1;
        const unsigned char* up = y > 0 ? r - stride : nullptr;
        for (ptrdiff_t i = 0; i < n; ++i) {
            const int a = i >= 4 ? r[i - 4] : 0;
            const int b = up ? up[i] : 0;
            const int c = up && i >= 4 ? up[i - 4] : 0;
            x[i] = static_cast<unsigned char>(r[i] - predict(x[-1], a, b, c));
        }
    }
}

class Conversion
{
public:
    Conversion(PngCrush& crush, const char* file) : mCrush(crush), mFile(file) {}
    ~Conversion();
    int run(char** outName);

private:
    bool readChunks();
    bool readRemainingChunks();
    void checkCrcs();
    bool checkHeader();
    bool checkBitDepth();
    void computeSizes();
    void printHeader() const;
    bool checkIdat();
    bool decompress();
    bool fixPixels();
    bool checkRowFilters(unsigned char* rows, uint64_t columns, uint64_t rowCount);
    void fixImage(unsigned char* rows, uint64_t columns, uint64_t rowCount);
    bool recompress();
    int write(char** outName);
    char* outputName() const;
    void writeIdat(FILE* out);

    // "%s : " until the name was printed, four blanks afterwards.
    void prefix();
    // "%s :\n" unless the name was printed already.
    void nameLine();
    void fail(const char* text);

    PngCrush& mCrush;
    const char* mFile;
    FILE* mIn = nullptr;
    long mSize = 0;
    unsigned int mFileSize = 0;
    bool mNamePrinted = false;
    bool mCrushed = false;
    ImageHeader mHeader;
    int mFirstIdat = -1;
    int mIdatEnd = -1;
    uint64_t mIdatTotal = 0;
    unsigned char* mIdat = nullptr;
    unsigned char* mInflated = nullptr;
    size_t mInflatedSize = 0;
    unsigned char* mDeflated = nullptr; // compressed stream starts at offset 4
    size_t mDeflatedSize = 0;
};

Conversion::~Conversion()
{
    if (mIn)
        fclose(mIn);
    free(mIdat);
    free(mInflated);
    free(mDeflated);
    mCrush.reset_chunks();
}

void Conversion::prefix()
{
    if (mNamePrinted) {
        fputs("    ", stdout);
    } else {
        printf("%s : ", mFile);
        mNamePrinted = true;
    }
}

void Conversion::nameLine()
{
    if (!mNamePrinted) {
        printf("%s :\n", mFile);
        mNamePrinted = true;
    }
}

void Conversion::fail(const char* text)
{
    prefix();
    puts(text);
}

int Conversion::run(char** outName)
{
    if (!readChunks())
        return 0;
    checkCrcs();
    if (!checkHeader() || !checkIdat())
        return 0;
    const bool converts = mHeader.depth == 8 && (mHeader.colorType == 2 || mHeader.colorType == 6);
    if (converts && (!decompress() || !fixPixels() || !recompress()))
        return 0;
    return write(outName);
}

bool Conversion::readChunks()
{
    mIn = fopen(mFile, "rb");
    if (!mIn) {
        printf("%s : not found or could not be opened\n", mFile);
        return false;
    }
    fseek(mIn, 0, SEEK_END);
    mSize = ftell(mIn);
    fseek(mIn, 0, SEEK_SET);
    mFileSize =
        mSize < 0 ? 0u : static_cast<unsigned int>(std::min<long long>(mSize, 0xFFFFFFFFll));

    unsigned char signature[8];
    if (fread(signature, 1, 8, mIn) != 8 || memcmp(signature, kSignature, 8) != 0) {
        printf("%s : not a PNG file\n", mFile);
        return false;
    }
    const int r = mCrush.init_chunk(mIn, mFileSize);
    if (r < 0 || mCrush.chunk_count == 0) {
        fclose(mIn);
        mIn = nullptr;
        if (r == -2)
            printf("%s : out of memory\n", mFile);
        else if (r == -1)
            printf("%s : invalid chunk size\n", mFile);
        else
            printf("%s : premature end of file\n", mFile);
        return false;
    }
    mCrushed = mCrush.chunks[0].type == kTypeCgBI;
    if (!mCrushed) {
        printf("%s : not an -iphone crushed PNG file\n", mFile);
        if (!mCrush.allow_plain)
            return false;
        mNamePrinted = true;
    }
    if (!readRemainingChunks())
        return false;
    if (ftell(mIn) < mSize) {
        fail("Extra data after IEND, very suspicious! Excluded from conversion");
        mNamePrinted = true;
    }
    fclose(mIn);
    mIn = nullptr;
    return true;
}

bool Conversion::readRemainingChunks()
{
    while (mCrush.chunks[mCrush.chunk_count - 1].type != kTypeIEND) {
        const int before = mCrush.chunk_count;
        const int r = mCrush.init_chunk(mIn, mFileSize);
        if (r < 0) {
            prefix();
            if (r == -2)
                puts("out of memory");
            else if (r == -1)
                puts("invalid chunk size");
            else if (r == -3)
                puts("premature end of file");
            else
                printf("error code %d\n", r);
            return false;
        }
        if (mCrush.chunk_count == before) {
            fail("missing IEND chunk");
            return false;
        }
    }
    return true;
}

void Conversion::checkCrcs()
{
    for (int i = 0; i < mCrush.chunk_count; ++i) {
        PngChunkRecord& c = mCrush.chunks[i];
        const unsigned int computed = static_cast<unsigned int>(
            libdeflate_crc32(0, c.data, static_cast<size_t>(c.length) + 4));
        const bool valid = computed == c.crc;
        if (!mCrush.list_chunks && valid)
            continue;
        nameLine();
        printf("    chunk : %c%c%c%c  length %6u  CRC32 %08X", c.data[0], c.data[1], c.data[2],
               c.data[3], c.length, c.crc);
        if (mCrush.list_chunks) {
            if (!valid)
                printf(" --> CRC32 check invalid! Should be %08X", computed);
            putchar('\n');
        } else {
            printf(" -> invalid, changed to %08X\n", computed);
            c.crc = computed;
        }
    }
}

bool Conversion::checkHeader()
{
    const int index = mCrushed ? 1 : 0;
    if (mCrush.chunk_count <= index || mCrush.chunks[index].type != kTypeIHDR) {
        fail("no IHDR chunk found");
        return false;
    }
    const PngChunkRecord& ihdr = mCrush.chunks[index];
    if (ihdr.length != 13) {
        fail("IHDR chunk length incorrect");
        return false;
    }
    const unsigned char* d = ihdr.data + 4;
    ImageHeader& h = mHeader;
    h.width = PngCrush::read_long(const_cast<unsigned char*>(d));
    h.height = PngCrush::read_long(const_cast<unsigned char*>(d + 4));
    h.depth = d[8];
    h.colorType = d[9];
    h.compression = d[10];
    h.filter = d[11];
    h.interlace = d[12];
    if (h.width == 0 || h.height == 0 || h.width >= 0x80000000u || h.height >= 0x80000000u) {
        fail("image dimensions invalid");
        return false;
    }
    const struct
    {
        bool bad;
        const char* format;
        int value;
    } methods[] = {{h.compression != 0, "unknown compression type %d\n", h.compression},
                   {h.filter != 0, "unknown filter type %d\n", h.filter},
                   {h.interlace > 1, "unknown interlace type %d\n", h.interlace},
                   {h.colorType > 6, "unknown color type %d\n", h.colorType}};
    for (const auto& m : methods) {
        if (m.bad) {
            prefix();
            printf(m.format, m.value);
            return false;
        }
    }
    if (!checkBitDepth())
        return false;
    computeSizes();
    if (mCrush.print_info)
        printHeader();
    return true;
}

bool Conversion::checkBitDepth()
{
    ImageHeader& h = mHeader;
    bool valid = false;
    switch (h.colorType) {
    case 0:
        valid = h.depth == 1 || h.depth == 2 || h.depth == 4 || h.depth == 8 || h.depth == 16;
        h.bitsPerPixel = h.depth;
        break;
    case 2:
        valid = h.depth == 8 || h.depth == 16;
        h.bitsPerPixel = 3 * h.depth;
        break;
    case 3:
        valid = h.depth == 1 || h.depth == 2 || h.depth == 4 || h.depth == 8;
        h.bitsPerPixel = h.depth;
        break;
    case 4:
        valid = h.depth == 8 || h.depth == 16;
        h.bitsPerPixel = 2 * h.depth;
        break;
    case 6:
        valid = h.depth == 8 || h.depth == 16;
        h.bitsPerPixel = 4 * h.depth;
        break;
    default:
        prefix();
        printf("unknown color type %d\n", h.colorType);
        return false;
    }
    if (!valid) {
        prefix();
        printf("invalid bit depth %d for color type %d\n", h.depth, h.colorType);
        return false;
    }
    return true;
}

void Conversion::computeSizes()
{
    ImageHeader& h = mHeader;
    // 64-bit throughout: declared dimensions up to 2^31 - 1 overflow 32 bits here.
    h.bytesPerLine = (static_cast<uint64_t>(h.bitsPerPixel) * h.width + 7) / 8;
    if (h.interlace == 0) {
        h.filterBytes = h.height;
    } else {
        h.filterBytes = 0;
        for (int p = 0; p < 7; ++p)
            h.filterBytes += passRows(p, h.height);
    }
    h.expectedSize = h.bytesPerLine * h.height + h.filterBytes;
}

void Conversion::printHeader() const
{
    const ImageHeader& h = mHeader;
    const_cast<Conversion*>(this)->nameLine();
    printf("    image width        : %u\n", h.width);
    printf("    image height       : %u\n", h.height);
    printf("    bit depth          : %u\n", h.depth);
    printf("    color type         : %u\n", h.colorType);
    printf("    compression        : %u\n", h.compression);
    printf("    filter             : %u\n", h.filter);
    printf("    interlace          : %u\n", h.interlace);
    printf("    bits per pixel     : %d\n", h.bitsPerPixel);
    printf("    bytes per line     : %llu\n", static_cast<unsigned long long>(h.bytesPerLine));
    if (h.interlace) {
        puts("    Adam7 interlacing:");
        for (int p = 0; p < 7; ++p)
            printf("      pass %d: %llu x %llu\n", p,
                   static_cast<unsigned long long>(passColumns(p, h.width)),
                   static_cast<unsigned long long>(passRows(p, h.height)));
    }
    printf("    row filter bytes   : %llu\n", static_cast<unsigned long long>(h.filterBytes));
    printf("    expected data size : %llu bytes\n",
           static_cast<unsigned long long>(h.expectedSize));
}

bool Conversion::checkIdat()
{
    const PngChunkRecord* c = mCrush.chunks;
    const int n = mCrush.chunk_count;
    mFirstIdat = 0;
    while (mFirstIdat < n && c[mFirstIdat].type != kTypeIDAT)
        ++mFirstIdat;
    if (mFirstIdat == n) {
        fail("no IDAT chunks found");
        return false;
    }
    mIdatEnd = mFirstIdat;
    mIdatTotal = 0;
    while (mIdatEnd < n && c[mIdatEnd].type == kTypeIDAT)
        mIdatTotal += c[mIdatEnd++].length;
    for (int i = mIdatEnd; i < n; ++i) {
        if (c[i].type == kTypeIDAT) {
            fail("IDAT chunks are not consecutive");
            return false;
        }
    }
    if (mIdatTotal == 0) {
        fail("all IDAT chunks are empty");
        return false;
    }
    return true;
}

bool Conversion::decompress()
{
    if (mCrush.print_info && mCrushed)
        puts("    swapping BGR(A) to RGB(A)");
    if (mCrush.informational)
        printf("    informational : total idat size: %llu\n",
               static_cast<unsigned long long>(mIdatTotal));

    libdeflate_decompressor* d = decompressor();
    mIdat = static_cast<unsigned char*>(malloc(mIdatTotal));
    // A stream of this many bytes can never fill more than maxInflatedSize(): when the
    // declared image is larger, a buffer of that size gives the same (short) result
    // without reserving memory for dimensions the data cannot back.
    const uint64_t capacity = std::min(mHeader.expectedSize, maxInflatedSize(mIdatTotal));
    mInflated = static_cast<unsigned char*>(malloc(static_cast<size_t>(capacity)));
    if (!d || !mIdat || !mInflated) {
        fail("out of memory");
        return false;
    }
    unsigned char* at = mIdat;
    for (int i = mFirstIdat; i < mIdatEnd; ++i) {
        memcpy(at, mCrush.chunks[i].data + 4, mCrush.chunks[i].length);
        at += mCrush.chunks[i].length;
    }

    size_t actual = 0;
    const libdeflate_result r =
        mCrushed ? libdeflate_deflate_decompress(d, mIdat, mIdatTotal, mInflated, capacity, &actual)
                 : libdeflate_zlib_decompress(d, mIdat, mIdatTotal, mInflated, capacity, &actual);
    if (r != LIBDEFLATE_SUCCESS || actual == 0) {
        fail("unspecified decompression error");
        return false;
    }
    if (actual != mHeader.expectedSize) {
        prefix();
        printf("decompression error, expected %llu but got %llu bytes\n",
               static_cast<unsigned long long>(mHeader.expectedSize),
               static_cast<unsigned long long>(actual));
        return false;
    }
    mInflatedSize = actual;
    if (mCrush.print_info)
        printf("    uncompressed size  : %llu bytes\n", static_cast<unsigned long long>(actual));
    return true;
}

bool Conversion::checkRowFilters(unsigned char* rows, uint64_t columns, uint64_t rowCount)
{
    const uint64_t stride = 1 + columns * (mHeader.bitsPerPixel / 8);
    for (uint64_t y = 0; y < rowCount; ++y) {
        const int filter = rows[y * stride];
        if (filter > 4) {
            prefix();
            printf("unknown row filter type (%d)\n", filter);
            return false;
        }
    }
    return true;
}

// Swaps BGR(A) to RGB(A) on the still-filtered bytes (every filter predicts a byte
// from bytes of the same channel only, so the swap commutes with the filters), then
// undoes the premultiplication of a crushed RGBA image.
void Conversion::fixImage(unsigned char* rows, uint64_t columns, uint64_t rowCount)
{
    if (columns == 0 || rowCount == 0)
        return;
    const int bpp = mHeader.bitsPerPixel / 8;
    const uint64_t stride = 1 + columns * bpp;
    for (uint64_t y = 0; y < rowCount; ++y) {
        unsigned char* px = rows + y * stride + 1;
        for (uint64_t x = 0; x < columns; ++x, px += bpp)
            std::swap(px[0], px[2]);
    }
    if (mCrushed && mHeader.colorType == 6 && mCrush.fix_alpha) {
        const int w = static_cast<int>(columns);
        const int h = static_cast<int>(rowCount);
        if (mCrush.standard_filters) {
            refilterStandard(w, h, rows);
            return;
        }
        PngCrush::removeRowFilters(w, h, rows);
        PngCrush::demultiplyAlpha(w, h, rows);
        PngCrush::applyRowFilters(w, h, rows);
    }
}

bool Conversion::fixPixels()
{
    const ImageHeader& h = mHeader;
    const int bpp = h.bitsPerPixel / 8;
    if (h.interlace == 0) {
        if (!checkRowFilters(mInflated, h.width, h.height))
            return false;
        fixImage(mInflated, h.width, h.height);
        return true;
    }
    // Adam7: the seven passes follow each other in the buffer, each a small image.
    unsigned char* pass[7];
    uint64_t columns[7], rows[7];
    unsigned char* at = mInflated;
    for (int p = 0; p < 7; ++p) {
        columns[p] = passColumns(p, h.width);
        rows[p] = passRows(p, h.height);
        pass[p] = at;
        at += rows[p] * (1 + columns[p] * bpp);
    }
    for (int p = 0; p < 7; ++p) {
        if (!checkRowFilters(pass[p], columns[p], rows[p]))
            return false;
    }
    for (int p = 0; p < 7; ++p)
        fixImage(pass[p], columns[p], rows[p]);
    return true;
}

bool Conversion::recompress()
{
    libdeflate_compressor* c = compressor();
    if (!c) {
        fail("out of memory");
        return false;
    }
    // Twice the data, the first 4 bytes kept free for the first IDAT's type. That is
    // room enough for anything but the tiniest images, whose zlib header and trailer
    // alone exceed it: those fail as a compression error.
    const size_t capacity = 2 * mInflatedSize;
    mDeflated = static_cast<unsigned char*>(malloc(capacity));
    if (!mDeflated) {
        fail("out of memory");
        return false;
    }
    mDeflatedSize = capacity > 4 ? libdeflate_zlib_compress(c, mInflated, mInflatedSize,
                                                            mDeflated + 4, capacity - 4)
                                 : 0;
    if (mDeflatedSize == 0) {
        fail("unspecified compression error");
        return false;
    }
    if (mCrush.print_info)
        printf("    repacked size: %llu bytes\n", static_cast<unsigned long long>(mDeflatedSize));
    return true;
}

char* Conversion::outputName() const
{
    const char* dir = mCrush.output_dir;
    if (!dir || !*dir)
        return strdup(mFile);
    const char* slash = strrchr(mFile, '/');
    const char* base = slash ? slash + 1 : mFile;
    const size_t dirLength = strlen(dir);
    const size_t baseLength = strlen(base);
    char* name = static_cast<char*>(malloc(dirLength + 1 + baseLength + 1));
    if (name) {
        memcpy(name, dir, dirLength);
        name[dirLength] = '/';
        memcpy(name + dirLength + 1, base, baseLength + 1);
    }
    return name;
}

// Splits the recompressed stream into IDAT chunks of at most max_idat_size bytes.
// The four bytes before each piece are overwritten with the type (the previous piece
// is already written), so type and data go out, and are checksummed, in one run.
void Conversion::writeIdat(FILE* out)
{
    const size_t limit =
        mCrush.max_idat_size > 0 ? static_cast<size_t>(mCrush.max_idat_size) : mDeflatedSize;
    for (size_t offset = 0; offset < mDeflatedSize; offset += limit) {
        const size_t piece = std::min(limit, mDeflatedSize - offset);
        unsigned char* run = mDeflated + offset;
        memcpy(run, "IDAT", 4);
        writeLong(out, static_cast<unsigned int>(piece));
        fwrite(run, 1, piece + 4, out);
        writeLong(out, static_cast<unsigned int>(libdeflate_crc32(0, run, piece + 4)));
    }
}

int Conversion::write(char** outName)
{
    if (!mCrush.write_output) {
        if (!mNamePrinted)
            puts(mFile);
        return 0;
    }
    char* name = outputName();
    if (!name) {
        fail("failed to allocate memory for output file name ...");
        return 0;
    }
    if (!mNamePrinted) {
        printf("%s : ", mFile);
        mNamePrinted = true;
    }
    if (outName)
        *outName = name;
    FILE* out = fopen(name, "wb");
    if (!outName)
        free(name);
    if (!out) {
        puts("    failed to create output file!");
        return 0;
    }
    fwrite(kSignature, 1, 8, out);
    const PngChunkRecord* c = mCrush.chunks;
    for (int i = 0; i < mFirstIdat; ++i) {
        if (i == 0 && mCrushed)
            continue;
        writeChunk(out, c[i]);
    }
    if (mDeflated) {
        writeIdat(out);
    } else {
        for (int i = mFirstIdat; i < mIdatEnd; ++i)
            writeChunk(out, c[i]);
    }
    for (int i = mIdatEnd; i < mCrush.chunk_count; ++i)
        writeChunk(out, c[i]);
    fclose(out);
    return 1;
}

} // namespace

PngCrush::PngCrush()
    : chunk_count(0),
      chunk_capacity(0),
      chunks(nullptr),
      print_info(0),
      allow_plain(0),
      list_chunks(0),
      informational(0),
      fix_alpha(1),
      max_idat_size(524288),
      write_output(1),
      output_dir(nullptr),
      standard_filters(0)
{
}

PngCrush::~PngCrush()
{
    reset_chunks();
    free(chunks);
}

int PngCrush::process(char* file, char** outName)
{
    if (!file)
        return 0;
    Conversion conversion(*this, file);
    const int result = conversion.run(outName);
    fflush(stdout);
    return result;
}

int PngCrush::init_chunk(FILE* f, unsigned int fileSize)
{
    unsigned char head[4];
    if (fread(head, 1, 4, f) != 4) {
        if (feof(f))
            return 0;
        if (informational)
            puts("    informational : failed to read chunk length");
        return -3;
    }
    const unsigned int length = read_long(head);
    // The bound is the whole file, not what is left of it; a short read catches the rest.
    if (static_cast<long long>(length) > static_cast<long long>(fileSize) - 4) {
        if (informational)
            printf("    informational : chunk length %u larger than file\n", length);
        return -1;
    }
    const size_t size = static_cast<size_t>(length) + 4;
    unsigned char* data = static_cast<unsigned char*>(malloc(size));
    if (!data) {
        if (informational)
            printf("    informational : no memory for chunk length %u\n", length);
        return -2;
    }
    if (fread(data, 1, size, f) != size) {
        free(data);
        if (informational)
            printf("    informational : failed to read chunk length %u\n", length);
        return -3;
    }
    unsigned char crc[4];
    if (fread(crc, 1, 4, f) != 4) {
        free(data);
        if (informational)
            puts("    informational : failed to read chunk crc32");
        return -3;
    }
    if (chunk_count == chunk_capacity) {
        auto* grown = static_cast<PngChunkRecord*>(
            realloc(chunks, sizeof(PngChunkRecord) * (static_cast<size_t>(chunk_capacity) + 8)));
        if (!grown) {
            free(data);
            if (informational)
                printf("    informational : no memory for chunk length %u\n", length);
            return -2;
        }
        chunks = grown;
        chunk_capacity += 8;
    }
    chunks[chunk_count++] = {length, read_long(data), data, read_long(crc)};
    return 0;
}

void PngCrush::reset_chunks()
{
    for (int i = 0; i < chunk_count; ++i)
        free(chunks[i].data);
    chunk_count = 0;
}

unsigned int PngCrush::crc32s(unsigned char* buf, int len)
{
    if (len < 1 || !buf)
        return 0;
    return static_cast<unsigned int>(libdeflate_crc32(0, buf, static_cast<size_t>(len)));
}

unsigned int PngCrush::read_long(void* p)
{
    const unsigned char* b = static_cast<const unsigned char*>(p);
    return (static_cast<unsigned int>(b[0]) << 24) | (static_cast<unsigned int>(b[1]) << 16) |
           (static_cast<unsigned int>(b[2]) << 8) | b[3];
}

// Rows from the first to the last, each from its first byte on, so p (the row above)
// is already restored. Two departures from the textbook filters are kept because
// files converted so far depend on them: Average adds half the row's own filter byte
// to byte 0, and Paeth takes bytes 1..3's left neighbour from four bytes back in the
// buffer (over the filter byte) instead of 0.
void PngCrush::removeRowFilters(int width, int height, unsigned char* rows)
{
    if (width <= 0 || height <= 0 || !rows)
        return;
    const ptrdiff_t n = 4 * static_cast<ptrdiff_t>(width);
    const ptrdiff_t stride = n + 1;
    for (int y = 0; y < height; ++y) {
        unsigned char* x = rows + y * stride + 1;
        const unsigned char* p = y > 0 ? x - stride : nullptr;
        const int filter = x[-1];
        switch (filter) {
        case 0:
            break;
        case 1:
            removeSub(x, n);
            break;
        case 2:
            if (p)
                removeUp(x, p, n);
            break;
        case 3:
            if (!p) {
                for (ptrdiff_t i = 4; i < n; ++i)
                    x[i] += x[i - 4] >> 1;
            } else {
                // p[4 * width] is this row's own filter byte.
                x[0] += p[n] >> 1;
                removeAverage(x, p, n);
            }
            break;
        case 4:
            for (ptrdiff_t i = 0; i < 4; ++i) {
                const int a = leftByte(rows, x, i);
                x[i] += p ? paeth(a, p[i], 0) : a;
            }
            if (p)
                removePaeth(x, p, n);
            else
                removeSub(x, n);
            break;
        default:
            printf("removerowfilter() : Unknown row filter %d\n", filter);
            break;
        }
    }
}

void PngCrush::demultiplyAlpha(int width, int height, unsigned char* rows)
{
    if (width <= 0 || height <= 0 || !rows)
        return;
    const ptrdiff_t stride = 4 * static_cast<ptrdiff_t>(width) + 1;
    const DemultiplyTable& table = demultiplyTable();
    for (int y = 0; y < height; ++y) {
        unsigned char* px = rows + y * stride + 1;
        for (int x = 0; x < width; ++x, px += 4) {
            const unsigned int a = px[3];
            // Alpha 0 keeps its colours; alpha 255 divides to the same value.
            if (a == 0 || a == 255)
                continue;
            // No clamping: a colour above its alpha keeps the low 8 bits.
            const unsigned char* row = table.value[a];
            px[0] = row[px[0]];
            px[1] = row[px[1]];
            px[2] = row[px[2]];
        }
    }
}

// Rows from the first to the last, each from its last byte back, so the row above has
// already been re-filtered when it is used. The result matches what removeRowFilters
// undoes only for None and Sub rows; Up, Average and Paeth rows are re-filtered the
// way this converter always has (Up and Paeth against bytes of the same row, Average's
// first byte against a byte of the row above chosen by the previous filtered row).
void PngCrush::applyRowFilters(int width, int height, unsigned char* rows)
{
    if (width <= 0 || height <= 0 || !rows)
        return;
    const ptrdiff_t n = 4 * static_cast<ptrdiff_t>(width);
    const ptrdiff_t stride = n + 1;
    // Where the last re-filtering loop stopped; before any, the row's own filter byte.
    ptrdiff_t k = n;
    for (int y = 0; y < height; ++y) {
        unsigned char* x = rows + y * stride + 1;
        const unsigned char* p = y > 0 ? x - stride : nullptr;
        const int filter = x[-1];
        switch (filter) {
        case 0:
            break;
        case 1:
            applySub(x, n);
            k = 3;
            break;
        case 2:
            if (p) {
                applyUpSameRow(x, n);
                k = -1;
            }
            break;
        case 3:
            if (!p) {
                for (ptrdiff_t i = n - 1; i >= 4; --i)
                    x[i] -= x[i - 4] >> 1;
            } else {
                x[0] -= p[k] >> 1;
                applyAverage(x, p, n);
            }
            k = 3;
            break;
        case 4:
            if (p)
                applyPaethSameRow(x, n);
            else
                applySub(x, n);
            for (ptrdiff_t i = 3; i >= 0; --i) {
                const int a = leftByte(rows, x, i);
                x[i] -= p ? paeth(a, x[i - 1], 0) : a;
            }
            k = -1;
            break;
        default:
            printf("applyrowfilter : Unknown row filter %d\n", filter);
            break;
        }
    }
}
