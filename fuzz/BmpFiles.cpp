// Picture files: the BMP reader of templates (headers, then the pixels a template match reads) and
// the virtual display's BMP and PNG decoders.
#include <stdexcept>

#include "FuzzSupport.h"
#include "FuzzTarget.h"
#include "device/ImageFile.h"
#include "graphic/Bmp.h"
#include "graphic/Graphic.h"
#include "graphic/Region.h"

namespace {

using namespace tw;

// Reads every pixel the image claims, so the sanitizer sees a read past the block.
unsigned touchAll(const image_t& image) {
    unsigned sum = 0;
    for (uint32_t y = 0; y < image.height; ++y)
        for (uint32_t x = 0; x < image.width * image.bytesPerPixel; ++x) sum += image.data[y * image.bytesPerRow + x];
    return sum;
}

void matchOnSmallScreen(const image_t& tmpl) {
    static const std::vector<uint8_t> pixels(16 * 16 * 4, 0x80);
    image_t screen;
    screen.kind = kImageTopRowFirst;
    screen.data = pixels.data();
    screen.width = screen.height = 16;
    screen.bytesPerPixel = 4;
    screen.bytesPerRow = 16 * 4;
    // The positions where the template fits on the screen, as find_image searches them.
    region_t search;
    if (!wash_region_for_find_image(region_t{0, 0, 16, 16}, tmpl, &search)) return;
    std::vector<location_t> results;
    do_find_image(results, screen, tmpl, search.x, search.y, search.width, search.height, 4, 0.5f, nullptr, 0);
}

}  // namespace

TW_FUZZ_TARGET(bmp_files) {
    using namespace tw;
    if (auto header = read_bmp_header(data, size)) FUZZ_CHECK(size >= kBmpHeaderSize);

    const std::string path = fuzz::Scratch::dir() + "/template.bmp";
    fuzz::writeFile(path, data, size);
    image_t image;
    if (read_bmp(path.c_str(), &image) == 1) {
        FUZZ_CHECK(image.width > 0 && image.height > 0);
        FUZZ_CHECK(static_cast<uint64_t>(image.width) * image.height * 4 <= size - kBmpHeaderSize);
        volatile unsigned sum = touchAll(image);
        (void)sum;
        if (static_cast<uint64_t>(image.width) * image.height <= 4096) matchOnSmallScreen(image);
    }

    const std::vector<uint8_t> bytes(data, data + size);
    for (auto decode : {&device::decodeBmp, &device::decodePng}) {
        try {
            const device::Picture picture = decode(bytes, "input");
            FUZZ_CHECK(picture.pixels.size() == static_cast<size_t>(picture.width) * picture.height * 4);
        } catch (const std::runtime_error&) {
        }
    }
    return 0;
}
