#pragma once
// BMP files: the uncompressed 32-bit pictures screenshots are written as and templates are read
// from (54 bytes of headers, then the rows bottom row first, four bytes a pixel: blue, green, red,
// alpha), and the two screenshot operations.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "graphic/Region.h"
#include "graphic/Surface.h"

namespace tw {

inline constexpr uint32_t kBmpHeaderSize = 54;
// The system sound played as a screenshot of the whole screen is taken.
inline constexpr uint32_t kScreenshotSound = 1108;

// Writes the headers and width * height * 4 bytes of `pixels` (rows bottom first) to `path`,
// created with mode 0644 when missing. An older, longer file keeps its bytes beyond the new end.
// The file is replaced in one step where the folder allows it, so no reader sees half a picture.
// Returns 0, or -1 when the file cannot be opened ("create image file failed" in the trace).
int save_bmp(const char* path, const uint8_t* pixels, uint32_t width, uint32_t height);

// The whole file in a new block one byte longer than the file (the extra byte not set), its
// length in `size`. nullptr when it cannot be opened ("Unable to open file <path>" on standard
// error) or memory runs out ("Memory error!").
std::unique_ptr<uint8_t[]> read_file(const char* path, size_t* size = nullptr);

// The fields of a BMP file's headers, little-endian at their fixed offsets.
struct bmp_header_t {
    char signature[2];      // byte 0: "BM"
    uint32_t pixelOffset;   // byte 10
    uint32_t infoSize;      // byte 14: 40 or more
    int32_t width;          // byte 18
    int32_t height;         // byte 22: positive for rows bottom first, negative for rows top first
    uint16_t bitsPerPixel;  // byte 28
    uint32_t compression;   // byte 30: 0 none, 3 bit fields
};

// The headers at the start of `bytes`, as they stand (nothing is checked); nullopt when there are
// fewer than 54 bytes. Every reader of BMP files starts here.
std::optional<bmp_header_t> read_bmp_header(const uint8_t* bytes, size_t size);

// Reads a BMP for matching into `out`: kind 2, the pixels from byte 54, width and height from
// bytes 18 and 22, four bytes a pixel, "BGRA". The signature, bit depth and compression are not
// looked at, but headers that do not fit the file (not positive sizes, more pixels than bytes, a
// pixel offset past the end, under 54 bytes) are refused: 0 with `out` empty. 1 otherwise.
int read_bmp(const char* path, image_t* out);

// `path` with ".bmp" in place of everything from its last "." on (a dot in a folder name counts
// too), or with ".bmp" added when it has none; nullopt for a null path.
std::optional<std::string> make_bmp_save_path(const char* path);

// Writes `region` (nullptr: the whole screen), clipped to the screen, of a new capture to `path`
// with its extension made ".bmp" by make_bmp_save_path. The rule sees the path as the system does,
// from the device root's "/" down: a dotted folder inside the device counts, the folders above the
// device root never do. 1 when the file was written; 0 when the region is refused, there is no
// capture or the file cannot be written.
int screenshot(const char* path, const region_t* region);

// The same capture written to exactly `file` (no extension rule).
int save_screenshot(const std::string& file, const region_t* region);

// Plays the screenshot sound and writes the whole screen to "<yyyy-MM-dd HH:mm:ss>.bmp" (local
// time) in the script library.
void takeCurrentScreenshot();
// The same, telling where the picture went: its library path ("/2026-11-23 10:20:30.bmp"), or
// nullopt when nothing was written.
std::optional<std::string> take_current_screenshot();

}  // namespace tw
