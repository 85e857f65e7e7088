#include "Png.h"

namespace devsim {

namespace {

void putBe32(std::string& out, uint32_t v)
{
    out += static_cast<char>((v >> 24) & 0xFF);
    out += static_cast<char>((v >> 16) & 0xFF);
    out += static_cast<char>((v >> 8) & 0xFF);
    out += static_cast<char>(v & 0xFF);
}

void putChunk(std::string& out, const char* type, const std::string& data)
{
    putBe32(out, static_cast<uint32_t>(data.size()));
    std::string body = std::string(type, 4) + data;
    out += body;
    putBe32(out, crc32Of(body));
}

uint32_t adler32Of(const std::string& bytes)
{
    uint32_t a = 1, b = 0;
    for (unsigned char c : bytes) {
        a = (a + c) % 65521;
        b = (b + a) % 65521;
    }
    return (b << 16) | a;
}

} // namespace

uint32_t crc32Of(const std::string& bytes, uint32_t crc)
{
    static uint32_t table[256];
    static bool ready = [] {
        for (uint32_t n = 0; n < 256; ++n) {
            uint32_t c = n;
            for (int k = 0; k < 8; ++k)
                c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            table[n] = c;
        }
        return true;
    }();
    (void)ready;
    crc = ~crc;
    for (unsigned char ch : bytes)
        crc = table[(crc ^ ch) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

std::string makeIconPng(int width, int height, uint32_t rgb)
{
    std::string raw;
    for (int y = 0; y < height; ++y) {
        raw += '\0'; // filter: none
        for (int x = 0; x < width; ++x) {
            bool band = (x + y) % (width / 2 + 1) < width / 6 + 1;
            int lift = band ? 60 : 0;
            auto channel = [&](int shift) {
                int v = static_cast<int>((rgb >> shift) & 0xFF) + lift;
                return static_cast<char>(v > 255 ? 255 : v);
            };
            raw += channel(16);
            raw += channel(8);
            raw += channel(0);
            raw += static_cast<char>(0xFF);
        }
    }
    // zlib stream of stored blocks.
    std::string z("\x78\x01", 2);
    size_t pos = 0;
    do {
        size_t n = raw.size() - pos > 65535 ? 65535 : raw.size() - pos;
        bool last = pos + n == raw.size();
        z += static_cast<char>(last ? 1 : 0);
        z += static_cast<char>(n & 0xFF);
        z += static_cast<char>((n >> 8) & 0xFF);
        z += static_cast<char>(~n & 0xFF);
        z += static_cast<char>((~n >> 8) & 0xFF);
        z.append(raw, pos, n);
        pos += n;
    } while (pos < raw.size());
    putBe32(z, adler32Of(raw));

    std::string png("\x89PNG\r\n\x1a\n", 8);
    std::string ihdr;
    putBe32(ihdr, static_cast<uint32_t>(width));
    putBe32(ihdr, static_cast<uint32_t>(height));
    ihdr += '\x08'; // bit depth
    ihdr += '\x06'; // RGBA
    ihdr += std::string("\0\0\0", 3);
    putChunk(png, "IHDR", ihdr);
    putChunk(png, "IDAT", z);
    putChunk(png, "IEND", std::string());
    return png;
}

} // namespace devsim
