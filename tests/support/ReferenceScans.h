#pragma once
// The two screen scans written out as plainly as they are described, one position and one pixel
// at a time through color_at_location: the yardstick the fast scans of graphic.cpp are tested
// against and timed against. Also an in-memory display for tests and benchmarks, a device and
// display to install for the screen functions, and pictures to search for.
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "graphic/Graphic.h"
#include "graphic/Region.h"
#include "graphic/Surface.h"
#include "platform/DeviceInfo.h"
#include "platform/Display.h"

namespace tw::reference {

// The scan of find_colors: rows outer, columns inner, coordinate floats stepping by 1 from the
// search region's origin; every entry read and compared exactly; stop once `limit` >= 1 results.
int find_colors_scan(std::vector<location_t>& results, const image_t& screen, const color_point_t* pattern, int32_t n,
                     const region_t& search, int32_t limit);

// The scan of find_image: integer positions from the truncated origin; template pixels row by
// row, ignored colours skipped, a position rejected as soon as its mismatches pass the allowance.
int do_find_image(std::vector<location_t>& results, const image_t& screen, const image_t& tmpl, coord_t x, coord_t y,
                  coord_t width, coord_t height, int32_t limit, float fuzzy, const int32_t* ignoreColors,
                  int32_t ignoreCount);

// A display whose picture is a framebuffer in memory (rows top first, blue, green, red, alpha),
// with rows padded to 64 bytes as the device's surfaces are. Rendering into a surface of the
// same layout is one memcpy.
class MemoryDisplay : public Display {
public:
    MemoryDisplay(uint32_t width, uint32_t height);

    uint32_t width() const { return width_; }
    uint32_t height() const { return height_; }
    uint32_t bytesPerRow() const { return bytesPerRow_; }
    uint8_t* pixels() { return pixels_.data(); }

    // Sets a pixel's colour (0xRRGGBB) and alpha byte.
    void setPixel(uint32_t x, uint32_t y, uint32_t rgb, uint8_t alpha = 0xFF);
    uint32_t pixel(uint32_t x, uint32_t y) const;  // 0xRRGGBB
    void fill(uint32_t rgb, uint8_t alpha = 0xFF);
    // Every pixel a colour drawn from `palette` (or any 24-bit colour when it is empty), with a
    // random alpha byte.
    void fillRandom(uint32_t seed, const std::vector<uint32_t>& palette = {});

    // Layers that openFramebufferLayer offers, by service name.
    std::map<std::string, SurfaceGeometry> layers;
    // Services asked for, in order.
    std::vector<std::string> servicesAsked;
    // When false, renderDisplay has no picture.
    bool rendering = true;
    int renders = 0;

    bool renderDisplay(uint8_t* base, const SurfaceGeometry& geometry) override;
    std::optional<SurfaceGeometry> openFramebufferLayer(const std::string& serviceClassName) override;

private:
    uint32_t width_, height_, bytesPerRow_;
    std::vector<uint8_t> pixels_;
};

// An image of kind 1 over `pixels` (width * height, rows `bytesPerRow` apart) that owns a copy of
// them plus `slack` zero bytes behind the last row.
image_t makeTopDownImage(const uint8_t* pixels, uint32_t width, uint32_t height, uint32_t bytesPerRow,
                         size_t slack = 0);

// A device whose screen is `widthPoints` x `heightPoints` at `scale`, running system `version`.
std::shared_ptr<DeviceInfo> makeDevice(double widthPoints, double heightPoints, double scale,
                                       const std::string& version = "9.3.5");

// Such a device and a MemoryDisplay of its size in pixels (portrait, random colours), put into
// the current platform for the object's lifetime. The learnt screen geometry is forgotten when it
// comes and when it goes.
class InstalledScreen {
public:
    InstalledScreen(double widthPoints, double heightPoints, double scale, const std::string& version = "9.3.5");
    ~InstalledScreen();
    InstalledScreen(const InstalledScreen&) = delete;
    InstalledScreen& operator=(const InstalledScreen&) = delete;
    std::shared_ptr<MemoryDisplay> display;
};

// Colours 0xRRGGBB, top row first.
using Rows = std::vector<std::vector<uint32_t>>;
// The colours of `display` (or of `image`, read with color_at_location) in the given rectangle.
Rows cut(const MemoryDisplay& display, uint32_t x, uint32_t y, uint32_t width, uint32_t height);
Rows cut(const image_t& image, uint32_t x, uint32_t y, uint32_t width, uint32_t height);
// The picture as read_bmp gives it (kind 2, alpha bytes 0x7F), and written as a BMP file by
// save_bmp (alpha bytes 0); true when the file was written.
image_t bottomUpImage(const Rows& rows);
bool saveBmp(const std::string& path, const Rows& rows);

// A screen image (kind 1) of colours drawn from `palette`, its alpha and padding bytes random,
// rows `stride` bytes apart, with a row and more of zeros behind it for fractional reads.
image_t randomScreen(std::mt19937& random, uint32_t width, uint32_t height, uint32_t stride,
                     const std::vector<uint32_t>& palette);

}  // namespace tw::reference
