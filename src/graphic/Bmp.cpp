#include "graphic/Bmp.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <vector>

#include "core/AtomicFile.h"
#include "core/Helper.h"
#include "core/Paths.h"
#include "platform/Platform.h"
#include "platform/UserInterface.h"

namespace tw {

namespace {

constexpr uint32_t kPixelsPerMetre = 2835;

void put16(uint8_t* at, uint16_t value) {
    at[0] = static_cast<uint8_t>(value);
    at[1] = static_cast<uint8_t>(value >> 8);
}

void put32(uint8_t* at, uint32_t value) {
    for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t get32(const uint8_t* at) {
    return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 | static_cast<uint32_t>(at[2]) << 16 |
           static_cast<uint32_t>(at[3]) << 24;
}

void makeHeader(uint8_t header[kBmpHeaderSize], uint32_t width, uint32_t height) {
    const uint32_t imageSize = width * height * 4;
    std::memset(header, 0, kBmpHeaderSize);
    header[0] = 'B';
    header[1] = 'M';
    put32(header + 2, kBmpHeaderSize + imageSize);
    put32(header + 10, kBmpHeaderSize);
    put32(header + 14, 40);
    put32(header + 18, width);
    put32(header + 22, height);
    put16(header + 26, 1);
    put16(header + 28, 32);
    put32(header + 30, 0);
    put32(header + 34, imageSize);
    put32(header + 38, kPixelsPerMetre);
    put32(header + 42, kPixelsPerMetre);
}

// Writes the picture to a temporary file beside `path`, followed by whatever an older, longer
// file holds beyond the picture's end, and moves it over `path`, keeping the older file's
// permissions. False, with `path` untouched, when that cannot be done (an unwritable folder, a
// path that is a link or no plain file).
bool replaceFile(const std::string& path, const uint8_t* header, const uint8_t* pixels, size_t pixelBytes) {
    struct stat old {};
    if (::lstat(path.c_str(), &old) == 0 ? !S_ISREG(old.st_mode) : errno != ENOENT) return false;
    AtomicFileWriter file(path);
    return file.write(header, kBmpHeaderSize) && file.write(pixels, pixelBytes) && file.keepOldTail() &&
           file.commit();
}

// Overwrites the start of the file where it is (creating it when missing), as a folder that takes
// no new files or a link leaves no other way.
bool overwriteInPlace(const char* path, const uint8_t* header, const uint8_t* pixels, size_t pixelBytes) {
    const int fd = ::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    // Short writes are not looked at, as with any screenshot written in place.
    [[maybe_unused]] ssize_t ignored = ::write(fd, header, kBmpHeaderSize);
    for (size_t done = 0; done < pixelBytes;) {
        const ssize_t n = ::write(fd, pixels + done, pixelBytes - done);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    return true;
}

// Float to integer by truncation toward zero, saturating instead of overflowing.
int64_t truncate(double value) {
    if (!(std::fabs(value) < 9.0e18)) return std::isnan(value) ? 0 : (value < 0 ? INT64_MIN / 2 : INT64_MAX / 2);
    return static_cast<int64_t>(value);
}

}  // namespace

int save_bmp(const char* path, const uint8_t* pixels, uint32_t width, uint32_t height) {
    if (!path) {
        graphic_trace("create image file failed");
        return -1;
    }
    uint8_t header[kBmpHeaderSize];
    makeHeader(header, width, height);
    const size_t pixelBytes = pixels ? static_cast<size_t>(width) * height * 4 : 0;
    if (replaceFile(path, header, pixels, pixelBytes) || overwriteInPlace(path, header, pixels, pixelBytes)) return 0;
    graphic_trace("create image file failed");
    return -1;
}

std::unique_ptr<uint8_t[]> read_file(const char* path, size_t* size) {
    if (size) *size = 0;
    const auto bytes = path ? readWholeFile(path) : std::nullopt;
    if (!bytes) {
        std::fprintf(stderr, "Unable to open file %s\n", path ? path : "(null)");
        return nullptr;
    }
    std::unique_ptr<uint8_t[]> block(new (std::nothrow) uint8_t[bytes->size() + 1]);
    if (!block) {
        std::fprintf(stderr, "Memory error!\n");
        return nullptr;
    }
    std::memcpy(block.get(), bytes->data(), bytes->size());
    if (size) *size = bytes->size();
    return block;
}

std::optional<bmp_header_t> read_bmp_header(const uint8_t* bytes, size_t size) {
    if (!bytes || size < kBmpHeaderSize) return std::nullopt;
    bmp_header_t header;
    header.signature[0] = static_cast<char>(bytes[0]);
    header.signature[1] = static_cast<char>(bytes[1]);
    header.pixelOffset = get32(bytes + 10);
    header.infoSize = get32(bytes + 14);
    header.width = static_cast<int32_t>(get32(bytes + 18));
    header.height = static_cast<int32_t>(get32(bytes + 22));
    header.bitsPerPixel = static_cast<uint16_t>(bytes[28] | bytes[29] << 8);
    header.compression = get32(bytes + 30);
    return header;
}

int read_bmp(const char* path, image_t* out) {
    *out = image_t{};
    size_t size = 0;
    auto block = read_file(path, &size);
    const auto header = read_bmp_header(block.get(), size);
    // Templates are taken as 32-bit pictures with their rows at byte 54, whatever the headers say
    // of that; only sizes that do not fit the file are refused.
    if (!header || header->width <= 0 || header->height <= 0 || header->pixelOffset > size) return 0;
    if (static_cast<uint64_t>(header->width) * static_cast<uint64_t>(header->height) * 4 > size - kBmpHeaderSize)
        return 0;

    std::shared_ptr<const uint8_t[]> buffer(block.release());
    out->kind = kImageBottomRowFirst;
    out->data = buffer.get() + kBmpHeaderSize;
    out->buffer = std::move(buffer);
    out->width = static_cast<uint32_t>(header->width);
    out->height = static_cast<uint32_t>(header->height);
    out->bytesPerPixel = 4;
    out->bytesPerRow = out->width * 4;
    std::memcpy(out->format, "BGRA", 4);
    return 1;
}

std::optional<std::string> make_bmp_save_path(const char* path) {
    if (!path) return std::nullopt;
    std::string result(path);
    if (const size_t dot = result.rfind('.'); dot != std::string::npos) result.resize(dot);
    result += ".bmp";
    return result;
}

int save_screenshot(const std::string& file, const region_t* region) {
    surface_info_t info;
    get_surface_info(&info);
    region_t area{0, 0, static_cast<coord_t>(info.width), static_cast<coord_t>(info.height)};
    if (region && !check_and_wash_region(region, &area)) return 0;

    const auto surface = capture_surface();
    if (!surface) return 0;
    const uint8_t* base = surface->baseAddress();
    const int64_t element = info.bytesPerElement;

    // The rows go bottom row first. A fractional area is copied row for row as the truncated
    // numbers say, each copy kept inside the capture and the buffer.
    const int64_t pixelCount = std::max<int64_t>(0, truncate(area.width * area.height));
    std::vector<uint8_t> buffer(static_cast<size_t>(pixelCount) * 4);
    const auto bufferBytes = static_cast<int64_t>(buffer.size());
    const int64_t areaX = truncate(area.x), areaY = truncate(area.y);
    const int64_t areaWidth = truncate(area.width), areaHeight = truncate(area.height);
    const int64_t rowBytes = truncate(area.width * static_cast<double>(element));
    if (area.height > 0) {
        for (int64_t i = 1;; ++i) {
            const int64_t sourceRow = areaHeight + areaY - i;
            const int64_t from = sourceRow * info.bytesPerRow + areaX * element;
            const int64_t to = (i - 1) * areaWidth * element;
            const int64_t bytes = std::min({rowBytes, static_cast<int64_t>(info.allocSize) - from, bufferBytes - to});
            if (sourceRow >= 0 && from >= 0 && to >= 0 && bytes > 0) std::memcpy(buffer.data() + to, base + from, bytes);
            if (!(static_cast<double>(i) < area.height)) break;
        }
    }

    const auto width = static_cast<uint32_t>(std::max<int64_t>(0, std::min<int64_t>(areaWidth, UINT32_MAX)));
    const auto height = static_cast<uint32_t>(std::max<int64_t>(0, std::min<int64_t>(areaHeight, UINT32_MAX)));
    const bool written = save_bmp(file.c_str(), buffer.data(), width, height) == 0;
    return written ? 1 : 0;
}

int screenshot(const char* path, const region_t* region) {
    if (!path) return 0;
    const std::string device = Paths::devicePath(path);
    const auto savePath = make_bmp_save_path(device.c_str());
    if (!savePath) return 0;
    // Back on the host, under the device root when the path was there.
    return save_screenshot(device == path ? *savePath : Paths::resolve(*savePath), region);
}

std::optional<std::string> take_current_screenshot() {
    if (const auto sounds = Platform::current().sounds) sounds->playSystemSound(kScreenshotSound);
    const std::string name = "/" + localDateTimeText(std::time(nullptr)) + ".bmp";
    const std::string path = Paths::scriptsDir() + name;
    if (screenshot(path.c_str(), nullptr) != 1) return std::nullopt;
    return name;
}

void takeCurrentScreenshot() { take_current_screenshot(); }

}  // namespace tw
