#pragma once
// A minimal PNG writer (stored deflate blocks) for the icons of generated apps.

#include <cstdint>
#include <string>

namespace devsim {

// An RGBA image of one colour with a lighter diagonal band, so icons differ visibly.
std::string makeIconPng(int width, int height, uint32_t rgb);
uint32_t crc32Of(const std::string& bytes, uint32_t crc = 0);

} // namespace devsim
