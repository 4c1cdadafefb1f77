#include "device/ImageFile.h"

#include <png.h>

#include <cstring>
#include <stdexcept>

#include "core/AtomicFile.h"
#include "graphic/Bmp.h"

namespace tw::device {

namespace {

[[noreturn]] void fail(const std::string& name, const std::string& why) {
    throw std::runtime_error("cannot read the picture " + name + ": " + why);
}

}  // namespace

Picture decodeBmp(const std::vector<uint8_t>& f, const std::string& name) {
    const auto header = read_bmp_header(f.data(), f.size());
    if (!header || header->signature[0] != 'B' || header->signature[1] != 'M') fail(name, "not a BMP file");
    const uint32_t offset = header->pixelOffset;
    if (header->infoSize < 40) fail(name, "unsupported BMP header");
    const int32_t width = header->width;
    const int32_t rawHeight = header->height;
    const uint16_t bits = header->bitsPerPixel;
    const uint32_t compression = header->compression;
    if (bits != 24 && bits != 32) fail(name, "only 24- and 32-bit BMP files are supported");
    if (compression != 0 && compression != 3) fail(name, "compressed BMP files are not supported");
    if (width <= 0 || rawHeight == 0 || rawHeight == INT32_MIN) fail(name, "bad picture size in the header");
    const bool topDown = rawHeight < 0;
    const uint64_t height = topDown ? static_cast<uint64_t>(-static_cast<int64_t>(rawHeight)) : static_cast<uint64_t>(rawHeight);
    const uint64_t bytesPerPixel = bits / 8;
    const uint64_t stride = (static_cast<uint64_t>(width) * bytesPerPixel + 3) / 4 * 4;
    if (offset > f.size() || stride * height > f.size() - offset) fail(name, "the header claims more pixels than the file holds");

    Picture p;
    p.width = static_cast<uint32_t>(width);
    p.height = static_cast<uint32_t>(height);
    p.pixels.resize(static_cast<size_t>(p.width) * p.height * 4);
    for (uint64_t y = 0; y < height; ++y) {
        const uint64_t sourceRow = topDown ? y : height - 1 - y;
        const uint8_t* src = f.data() + offset + sourceRow * stride;
        uint8_t* dst = p.pixels.data() + y * p.width * 4;
        for (uint32_t x = 0; x < p.width; ++x) {
            dst[x * 4 + 0] = src[x * bytesPerPixel + 0];
            dst[x * 4 + 1] = src[x * bytesPerPixel + 1];
            dst[x * 4 + 2] = src[x * bytesPerPixel + 2];
            dst[x * 4 + 3] = bytesPerPixel == 4 ? src[x * 4 + 3] : 0xFF;
        }
    }
    return p;
}

Picture decodePng(const std::vector<uint8_t>& f, const std::string& name) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, f.data(), f.size())) fail(name, image.message);
    image.format = PNG_FORMAT_BGRA;
    Picture p;
    p.width = image.width;
    p.height = image.height;
    if (p.width == 0 || p.height == 0 || static_cast<uint64_t>(p.width) * p.height > (1u << 28)) {
        png_image_free(&image);
        fail(name, "bad picture size");
    }
    p.pixels.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, p.pixels.data(), 0, nullptr)) fail(name, image.message);
    return p;
}

Picture loadPicture(const std::string& path) {
    const auto file = readWholeFile(path);
    if (!file) fail(path, "no such file");
    const std::vector<uint8_t> bytes(file->begin(), file->end());
    if (bytes.size() >= 8 && std::memcmp(bytes.data(), "\x89PNG\r\n\x1a\n", 8) == 0) return decodePng(bytes, path);
    if (bytes.size() >= 2 && bytes[0] == 'B' && bytes[1] == 'M') return decodeBmp(bytes, path);
    fail(path, "neither a BMP nor a PNG file");
}

}  // namespace tw::device
