#include "graphic/Surface.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "core/Diagnostics.h"
#include "core/LogToFile.h"
#include "platform/DeviceInfo.h"
#include "platform/Display.h"
#include "platform/Platform.h"

namespace tw {

// "Fialed" is the system's own spelling of this log line; people and tools search the log for it
// as written, so it stays.
constexpr const char* kSurfaceInfoFailure = "Fialed to init surface info for graphic functions.";

namespace {

// The display controllers of older systems, in the order they are tried.
constexpr const char* kDisplayServices[] = {"AppleH1CLCD", "AppleM2CLCD", "AppleCLCD"};

uint32_t formatWord(const char bytes[4]) {
    return static_cast<uint32_t>(static_cast<uint8_t>(bytes[0])) |
           static_cast<uint32_t>(static_cast<uint8_t>(bytes[1])) << 8 |
           static_cast<uint32_t>(static_cast<uint8_t>(bytes[2])) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(bytes[3])) << 24;
}

void formatBytes(uint32_t word, char out[4]) {
    for (int i = 0; i < 4; ++i) out[i] = static_cast<char>((word >> (8 * i)) & 0xFF);
}

// Float to unsigned by truncation, as the phone converts: negative and NaN give 0, too large
// saturates.
uint32_t truncToU32(double value) {
    if (!(value > 0)) return 0;
    if (value >= 4294967295.0) return UINT32_MAX;
    return static_cast<uint32_t>(value);
}

SurfaceGeometry geometryOf(const surface_info_t& info) {
    SurfaceGeometry g;
    g.width = info.width;
    g.height = info.height;
    g.bytesPerElement = info.bytesPerElement;
    g.pixelFormat = formatWord(info.pixelFormat);
    g.bytesPerRow = info.bytesPerRow;
    g.allocSize = info.allocSize;
    return g;
}

// The picture plus a zeroed tail long enough for any read a fractional coordinate can make past
// the last pixel.
size_t blockSize(const surface_info_t& info) {
    return static_cast<size_t>(info.allocSize) + info.bytesPerRow + 64;
}

// Capture memory is recycled: a fresh block of several megabytes costs a page fault per page on
// its first write, which is more than the copy of the picture itself.
class PixelPool {
public:
    static PixelPool& shared() {
        static PixelPool pool;
        return pool;
    }

    // A block of `size` bytes whose last `guard` bytes are zero; nullptr when memory runs out.
    std::unique_ptr<uint8_t[]> take(size_t size, size_t guard) {
        {
            std::lock_guard lock(mutex_);
            if (size_ == size && !free_.empty()) {
                auto block = std::move(free_.back());
                free_.pop_back();
                return block;
            }
        }
        std::unique_ptr<uint8_t[]> block(new (std::nothrow) uint8_t[size]);
        if (block) std::memset(block.get() + (size - guard), 0, guard);
        return block;
    }

    // Takes back a block whose guard tail is still zero.
    void give(std::unique_ptr<uint8_t[]> block, size_t size) {
        std::lock_guard lock(mutex_);
        if (size_ != size) {
            free_.clear();
            size_ = size;
        }
        if (free_.size() < kKept) free_.push_back(std::move(block));
    }

    void clear() {
        std::lock_guard lock(mutex_);
        free_.clear();
        size_ = 0;
    }

private:
    static constexpr size_t kKept = 2;
    std::mutex mutex_;
    size_t size_ = 0;
    std::vector<std::unique_ptr<uint8_t[]>> free_;
};

std::mutex infoMutex;
surface_info_t sharedInfo{};

void setFormat(surface_info_t& info, const char* text) { std::memcpy(info.pixelFormat, text, 4); }

// Renders the display into a zeroed surface of the new geometry: a picture of nothing but zero
// bytes means the display renders in the other byte order.
void probePixelFormat(surface_info_t& info, Display& display) {
    const size_t size = blockSize(info);
    const size_t guard = size - info.allocSize;
    auto block = PixelPool::shared().take(size, guard);
    if (!block) return;
    std::memset(block.get(), 0, info.allocSize);
    display.renderDisplay(block.get(), geometryOf(info));
    const bool allZero =
        info.allocSize == 0 || (block[0] == 0 && std::memcmp(block.get(), block.get() + 1, info.allocSize - 1) == 0);
    if (allZero) setFormat(info, "ARGB");
    PixelPool::shared().give(std::move(block), size);
}

void init_surface_info(surface_info_t& info) {
    info = {};
    const auto device = Platform::current().device;
    const auto display = Platform::current().display;
    if (!device) {
        LogToFile("%s", kSurfaceInfoFailure);
        return;
    }

    if (compareVersions(device->systemVersion(), "9.0") < 0) {
        std::optional<SurfaceGeometry> layer;
        if (display) {
            for (const char* service : kDisplayServices) {
                layer = display->openFramebufferLayer(service);
                if (layer) break;
            }
        }
        if (!layer) {
            LogToFile("%s", kSurfaceInfoFailure);
            return;
        }
        info.width = layer->width;
        info.height = layer->height;
        info.bytesPerElement = layer->bytesPerElement;
        formatBytes(layer->pixelFormat, info.pixelFormat);
        info.bytesPerRow = info.bytesPerElement * info.width;
        info.allocSize = info.height * info.bytesPerRow;
        return;
    }

    info.bytesPerElement = 4;
    const double scale = device->screenScale();
    const double boundsWidth = device->screenWidthPoints();
    const double boundsHeight = device->screenHeightPoints();
    const double shortSide = boundsWidth < boundsHeight ? boundsWidth : boundsHeight;
    const double longSide = boundsWidth < boundsHeight ? boundsHeight : boundsWidth;
    info.width = truncToU32(shortSide * scale);
    info.height = truncToU32(longSide * scale);
    const uint32_t rowBytes = truncToU32(shortSide * scale * 4);
    info.bytesPerRow = rowBytes % 64 == 0 ? rowBytes : (rowBytes / 64 + 1) * 64;
    info.allocSize = info.bytesPerRow * info.height;
    setFormat(info, "BGRA");
    graphic_trace(">>>>>> W:%f, H:%f, b: %d", shortSide * scale, longSide * scale, static_cast<int>(info.bytesPerRow));
    if (display) probePixelFormat(info, *display);
}

int locationOnScreen(const surface_info_t& info, const location_t& location) {
    if (location.x < 0) return 0;
    if (location.y < 0) return 0;
    if (location.x > static_cast<coord_t>(info.width) - 1) return 0;
    if (location.y > static_cast<coord_t>(info.height) - 1) return 0;
    return 1;
}

}  // namespace

void get_surface_info(surface_info_t* out) {
    std::lock_guard lock(infoMutex);
    if (sharedInfo.width == 0) init_surface_info(sharedInfo);
    if (out) *out = sharedInfo;
}

void reset_surface_info() {
    {
        std::lock_guard lock(infoMutex);
        sharedInfo = {};
    }
    PixelPool::shared().clear();
}

Surface::Surface(const surface_info_t& info, std::unique_ptr<uint8_t[]> pixels, size_t blockSize)
    : info_(info), pixels_(std::move(pixels)), blockSize_(blockSize) {}

Surface::~Surface() {
    if (pixels_) PixelPool::shared().give(std::move(pixels_), blockSize_);
}

image_t Surface::image() const {
    image_t image;
    image.kind = kImageTopRowFirst;
    image.data = pixels_.get();
    image.width = info_.width;
    image.height = info_.height;
    image.bytesPerRow = info_.bytesPerRow;
    image.bytesPerPixel = info_.bytesPerElement;
    std::memcpy(image.format, info_.pixelFormat, 4);
    return image;
}

std::unique_ptr<Surface> capture_surface() {
    surface_info_t info;
    get_surface_info(&info);
    if (info.width == 0 || info.allocSize == 0) return nullptr;
    const auto display = Platform::current().display;
    if (!display) return nullptr;
    const size_t size = blockSize(info);
    auto block = PixelPool::shared().take(size, size - info.allocSize);
    if (!block) return nullptr;
    if (!display->renderDisplay(block.get(), geometryOf(info))) {
        PixelPool::shared().give(std::move(block), size);
        return nullptr;
    }
    return std::unique_ptr<Surface>(new Surface(info, std::move(block), size));
}

int check_location(const location_t& location) {
    surface_info_t info;
    get_surface_info(&info);
    return locationOnScreen(info, location);
}

int check_locations(const location_t* locations, int32_t count) {
    if (count <= 0) return 1;
    surface_info_t info;
    get_surface_info(&info);
    for (int32_t i = 0; i < count; ++i) {
        if (!locationOnScreen(info, locations[i])) return 0;
    }
    return 1;
}

int get_colors(const location_t* locations, int32_t count, int32_t* out) {
    if (!check_locations(locations, count)) return 0;
    const auto surface = capture_surface();
    if (!surface) return 0;
    const image_t screen = surface->image();
    if (!out) {
        std::printf("Invalid param: colors!\n");
        std::fflush(stdout);
        return 0;
    }
    for (int32_t i = 0; i < count; ++i)
        out[i] = static_cast<int32_t>(color_at_location(screen, locations[i].x, locations[i].y));
    return 1;
}

int32_t rgb_to_hex(int32_t r, int32_t g, int32_t b) {
    const uint32_t value = (static_cast<uint32_t>(r) << 16) + (static_cast<uint32_t>(g) << 8) + static_cast<uint32_t>(b);
    return static_cast<int32_t>(value);
}

void hex_to_rgb(uint8_t* out, int32_t color) {
    const auto value = static_cast<uint32_t>(color);
    out[0] = static_cast<uint8_t>((value >> 16) & 0xFF);
    out[1] = static_cast<uint8_t>((value >> 8) & 0xFF);
    out[2] = static_cast<uint8_t>(value & 0xFF);
}

bool graphic_trace_enabled() {
    static const bool enabled = [] {
        const char* value = std::getenv("TAPWRIGHT_TRACE");
        return value && *value && std::string(value) != "0";
    }();
    return enabled;
}

void graphic_trace(const char* format, ...) {
    if (!graphic_trace_enabled()) return;
    va_list args;
    va_start(args, format);
    writeStderrLine("", format, args);
    va_end(args);
}

}  // namespace tw
