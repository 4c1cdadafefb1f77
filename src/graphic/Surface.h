#pragma once
// The screen as the screen functions read it: the framebuffer geometry (learnt once per process),
// fresh captures of the display, and colours read out of any picture in memory.
//
// Coordinates are framebuffer pixels in portrait orientation, x to the right and y downward from
// the top left. Pixels are four bytes, blue, green, red, alpha; a colour is 0xRRGGBB.
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>

namespace tw {

// The coordinate type of the platform (its 64-bit build uses double precision).
using coord_t = double;

// The framebuffer geometry. Not yet learnt is recognised by width == 0.
struct surface_info_t {
    uint32_t width;            // pixels per row: the screen's shorter side
    uint32_t height;           // rows: the longer side
    uint32_t bytesPerElement;  // bytes per pixel
    char pixelFormat[4];       // format bytes in memory order ("BGRA", or "ARGB" after the probe)
    uint32_t bytesPerRow;
    uint32_t allocSize;        // bytesPerRow * height
};

// Row orders of an image_t.
inline constexpr uint32_t kImageTopRowFirst = 1;     // screen captures
inline constexpr uint32_t kImageBottomRowFirst = 2;  // BMP files

// A picture in memory. Any kind other than the two row orders reads every pixel as the first.
struct image_t {
    uint32_t kind = 0;
    const uint8_t* data = nullptr;            // first byte of the pixel rows
    std::shared_ptr<const uint8_t[]> buffer;  // the block the image keeps alive (a BMP's whole file)
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t bytesPerRow = 0;
    uint32_t bytesPerPixel = 0;
    char format[4] = {};
};

struct location_t {
    coord_t x;
    coord_t y;
};

// Copies the framebuffer geometry into `out`, learning it first while it is not known: from
// system version 9.0 on from the main screen's bounds and scale (rows padded to 64 bytes, then a
// probe render picks the pixel format); before 9.0 from the display controller's default layer.
// When neither works, "Fialed to init surface info for graphic functions." goes to the error log
// and the geometry stays zero.
void get_surface_info(surface_info_t* out);

// Forgets the learnt geometry (and the pooled capture memory), so that the next call learns it
// again from the platform installed then.
void reset_surface_info();

// One capture of the display: a picture of its own, which later captures do not change.
class Surface {
public:
    ~Surface();
    Surface(const Surface&) = delete;
    Surface& operator=(const Surface&) = delete;

    const surface_info_t& info() const { return info_; }
    // The first byte of the pixel rows. At least bytesPerRow + 64 zero bytes follow the
    // allocSize bytes of the picture, so reads a fractional coordinate shifts past the last
    // pixel stay inside the block.
    const uint8_t* baseAddress() const { return pixels_.get(); }
    // The capture as an image of kind 1.
    image_t image() const;

private:
    friend std::unique_ptr<Surface> capture_surface();
    Surface(const surface_info_t& info, std::unique_ptr<uint8_t[]> pixels, size_t blockSize);
    surface_info_t info_;
    std::unique_ptr<uint8_t[]> pixels_;
    size_t blockSize_;
};

// A new capture of the display, or nullptr when the geometry is unknown, there is no display or
// the display has no picture to render.
std::unique_ptr<Surface> capture_surface();

// The colour at (x, y) of `image`. The byte offset is computed in coord_t and truncated toward
// zero, so a fractional x moves the read by a fraction of a pixel; no bounds are checked.
inline uint32_t color_at_location(const image_t& image, coord_t x, coord_t y) {
    coord_t offset;
    if (image.kind == kImageTopRowFirst)
        offset = y * image.bytesPerRow + x * image.bytesPerPixel;
    else if (image.kind == kImageBottomRowFirst)
        offset = (static_cast<coord_t>(image.height - 1u) - y) * image.bytesPerRow + x * image.bytesPerPixel;
    else
        offset = 0;
    // The phone's conversion saturates: a negative (or NaN) offset reads the first byte.
    const uint64_t at = offset > 0 ? (offset < 1.8e19 ? static_cast<uint64_t>(offset) : UINT64_MAX) : 0;
    uint32_t word;
    std::memcpy(&word, image.data + at, sizeof word);
    if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap32(word);
    return word & 0xFFFFFFu;
}

// 1 when the location lies on the framebuffer (edges included), else 0.
int check_location(const location_t& location);
// 1 when `count` <= 0 or every location passes check_location, else 0.
int check_locations(const location_t* locations, int32_t count);

// Captures the screen once and writes the colour of each location, in order, to `out`.
// 0 (without capturing) when a location is off the framebuffer; 0 when there is no capture or
// `out` is null ("Invalid param: colors!" on standard output); else 1.
int get_colors(const location_t* locations, int32_t count, int32_t* out);

// (r << 16) + (g << 8) + b, the parts not masked.
int32_t rgb_to_hex(int32_t r, int32_t g, int32_t b);
// out[0] = red (bits 16-23), out[1] = green (bits 8-15), out[2] = blue (bits 0-7).
void hex_to_rgb(uint8_t* out, int32_t color);

// The screen code's trace lines, written to standard error when TAPWRIGHT_TRACE is set (and not
// "0") in the environment.
bool graphic_trace_enabled();
void graphic_trace(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tw
