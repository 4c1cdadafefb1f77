#pragma once
// Pictures for the virtual display: BMP (24- and 32-bit, either row order) and PNG files, read
// into 4-byte blue, green, red, alpha pixels, rows top first.
#include <cstdint>
#include <string>
#include <vector>

namespace tw::device {

struct Picture {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint8_t> pixels;  // width * height * 4 bytes, B G R A, top row first
};

// Reads a picture; throws std::runtime_error naming the file and what is wrong with it. Headers
// that claim more pixels than the file holds are refused, never read past.
Picture loadPicture(const std::string& path);
Picture decodeBmp(const std::vector<uint8_t>& file, const std::string& name);
Picture decodePng(const std::vector<uint8_t>& file, const std::string& name);

}  // namespace tw::device
