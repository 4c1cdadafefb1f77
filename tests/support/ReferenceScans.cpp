#include "ReferenceScans.h"

#include <algorithm>
#include <cstring>
#include <random>

#include "graphic/Bmp.h"
#include "platform/Platform.h"
#include "platform/linux/ProfileDeviceInfo.h"

namespace tw::reference {

int find_colors_scan(std::vector<location_t>& results, const image_t& screen, const color_point_t* pattern, int32_t n,
                     const region_t& search, int32_t limit) {
    results.clear();
    results.reserve(16);
    for (coord_t Y = search.y; Y < search.y + search.height; Y += 1) {
        for (coord_t X = search.x; X < search.x + search.width; X += 1) {
            bool matched = true;
            for (int32_t i = 0; i < n; ++i) {
                const uint32_t color = color_at_location(screen, X + pattern[i].x, Y + pattern[i].y);
                if (color != static_cast<uint32_t>(pattern[i].color)) {
                    matched = false;
                    break;
                }
            }
            if (matched) results.push_back({X, Y});
            if (limit >= 1 && static_cast<int64_t>(results.size()) >= limit) return 1;
        }
    }
    return 1;
}

int do_find_image(std::vector<location_t>& results, const image_t& screen, const image_t& tmpl, coord_t x, coord_t y,
                  coord_t width, coord_t height, int32_t limit, float fuzzy, const int32_t* ignoreColors,
                  int32_t ignoreCount) {
    results.clear();
    results.reserve(16);
    uint32_t allowed = 0;
    if (fuzzy > 0 && fuzzy < 1) allowed = static_cast<uint32_t>((1.0f - fuzzy) * static_cast<float>(tmpl.width * tmpl.height));
    for (int64_t Y = static_cast<int64_t>(y); Y < y + height; Y += 1) {
        for (int64_t X = static_cast<int64_t>(x); X < x + width; X += 1) {
            uint32_t mismatches = 0;
            bool rejected = false;
            for (uint32_t ty = 0; ty < tmpl.height && !rejected; ++ty) {
                for (uint32_t tx = 0; tx < tmpl.width; ++tx) {
                    const uint32_t t = color_at_location(tmpl, tx, ty);
                    const int32_t* ignoreEnd = ignoreColors + std::max(ignoreCount, 0);
                    if (std::find(ignoreColors, ignoreEnd, static_cast<int32_t>(t)) != ignoreEnd) continue;
                    if (t != color_at_location(screen, static_cast<coord_t>(X + tx), static_cast<coord_t>(Y + ty))) {
                        mismatches += 1;
                        if (mismatches > allowed) {
                            rejected = true;
                            break;
                        }
                    }
                }
            }
            if (rejected) continue;
            results.push_back({static_cast<coord_t>(X), static_cast<coord_t>(Y)});
            if (limit >= 1 && static_cast<int64_t>(results.size()) >= limit) return 1;
        }
    }
    return 1;
}

MemoryDisplay::MemoryDisplay(uint32_t width, uint32_t height)
    : width_(width), height_(height), bytesPerRow_((width * 4 + 63) / 64 * 64),
      pixels_(static_cast<size_t>(bytesPerRow_) * height) {}

void MemoryDisplay::setPixel(uint32_t x, uint32_t y, uint32_t rgb, uint8_t alpha) {
    uint8_t* at = pixels_.data() + static_cast<size_t>(y) * bytesPerRow_ + static_cast<size_t>(x) * 4;
    at[0] = static_cast<uint8_t>(rgb);
    at[1] = static_cast<uint8_t>(rgb >> 8);
    at[2] = static_cast<uint8_t>(rgb >> 16);
    at[3] = alpha;
}

uint32_t MemoryDisplay::pixel(uint32_t x, uint32_t y) const {
    const uint8_t* at = pixels_.data() + static_cast<size_t>(y) * bytesPerRow_ + static_cast<size_t>(x) * 4;
    return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 | static_cast<uint32_t>(at[2]) << 16;
}

void MemoryDisplay::fill(uint32_t rgb, uint8_t alpha) {
    for (uint32_t y = 0; y < height_; ++y)
        for (uint32_t x = 0; x < width_; ++x) setPixel(x, y, rgb, alpha);
}

void MemoryDisplay::fillRandom(uint32_t seed, const std::vector<uint32_t>& palette) {
    std::mt19937 random(seed);
    for (uint32_t y = 0; y < height_; ++y) {
        for (uint32_t x = 0; x < width_; ++x) {
            const uint32_t word = random();
            const uint32_t rgb = palette.empty() ? (word & 0xFFFFFF) : palette[word % palette.size()];
            setPixel(x, y, rgb, static_cast<uint8_t>(word >> 24));
        }
    }
}

bool MemoryDisplay::renderDisplay(uint8_t* base, const SurfaceGeometry& geometry) {
    ++renders;
    if (!rendering) return false;
    if (geometry.bytesPerRow == bytesPerRow_ && geometry.height == height_ &&
        geometry.allocSize == pixels_.size()) {
        std::memcpy(base, pixels_.data(), pixels_.size());
        return true;
    }
    for (uint32_t y = 0; y < geometry.height; ++y) {
        uint8_t* row = base + static_cast<size_t>(y) * geometry.bytesPerRow;
        const size_t copied = y < height_ ? std::min(geometry.bytesPerRow, bytesPerRow_) : 0;
        if (copied) std::memcpy(row, pixels_.data() + static_cast<size_t>(y) * bytesPerRow_, copied);
        std::memset(row + copied, 0, geometry.bytesPerRow - copied);
    }
    return true;
}

std::optional<SurfaceGeometry> MemoryDisplay::openFramebufferLayer(const std::string& serviceClassName) {
    servicesAsked.push_back(serviceClassName);
    const auto found = layers.find(serviceClassName);
    if (found == layers.end()) return std::nullopt;
    return found->second;
}

image_t makeTopDownImage(const uint8_t* pixels, uint32_t width, uint32_t height, uint32_t bytesPerRow, size_t slack) {
    const size_t bytes = static_cast<size_t>(bytesPerRow) * height;
    std::shared_ptr<uint8_t[]> copy(new uint8_t[bytes + slack]());
    std::memcpy(copy.get(), pixels, bytes);
    image_t image;
    image.kind = kImageTopRowFirst;
    image.data = copy.get();
    image.buffer = std::move(copy);
    image.width = width;
    image.height = height;
    image.bytesPerRow = bytesPerRow;
    image.bytesPerPixel = 4;
    std::memcpy(image.format, "BGRA", 4);
    return image;
}

std::shared_ptr<DeviceInfo> makeDevice(double widthPoints, double heightPoints, double scale, const std::string& version) {
    linuxp::DeviceProfile profile;
    profile.screenWidth = widthPoints;
    profile.screenHeight = heightPoints;
    profile.scale = scale;
    profile.systemVersion = version;
    return std::make_shared<linuxp::ProfileDeviceInfo>(profile, "com.apple.springboard");
}

InstalledScreen::InstalledScreen(double widthPoints, double heightPoints, double scale, const std::string& version) {
    reset_surface_info();
    const double shortSide = std::min(widthPoints, heightPoints), longSide = std::max(widthPoints, heightPoints);
    display = std::make_shared<MemoryDisplay>(static_cast<uint32_t>(shortSide * scale),
                                              static_cast<uint32_t>(longSide * scale));
    display->fillRandom(7);
    Platform::current().device = makeDevice(widthPoints, heightPoints, scale, version);
    Platform::current().display = display;
}

InstalledScreen::~InstalledScreen() {
    Platform::current().device.reset();
    Platform::current().display.reset();
    reset_surface_info();
}

Rows cut(const MemoryDisplay& display, uint32_t x, uint32_t y, uint32_t width, uint32_t height) {
    Rows rows(height, std::vector<uint32_t>(width));
    for (uint32_t ty = 0; ty < height; ++ty)
        for (uint32_t tx = 0; tx < width; ++tx) rows[ty][tx] = display.pixel(x + tx, y + ty);
    return rows;
}

Rows cut(const image_t& image, uint32_t x, uint32_t y, uint32_t width, uint32_t height) {
    Rows rows(height, std::vector<uint32_t>(width));
    for (uint32_t ty = 0; ty < height; ++ty)
        for (uint32_t tx = 0; tx < width; ++tx) rows[ty][tx] = color_at_location(image, x + tx, y + ty);
    return rows;
}

namespace {

// The rows bottom row first, four bytes a pixel: blue, green, red, `alpha`.
std::vector<uint8_t> bottomUpBytes(const Rows& rows, uint8_t alpha) {
    std::vector<uint8_t> bytes;
    for (auto row = rows.rbegin(); row != rows.rend(); ++row)
        for (const uint32_t rgb : *row)
            bytes.insert(bytes.end(), {static_cast<uint8_t>(rgb), static_cast<uint8_t>(rgb >> 8),
                                       static_cast<uint8_t>(rgb >> 16), alpha});
    return bytes;
}

}  // namespace

image_t bottomUpImage(const Rows& rows) {
    const std::vector<uint8_t> bytes = bottomUpBytes(rows, 0x7F);
    std::shared_ptr<uint8_t[]> block(new uint8_t[bytes.size() + 1]);
    std::memcpy(block.get(), bytes.data(), bytes.size());
    image_t image;
    image.kind = kImageBottomRowFirst;
    image.data = block.get();
    image.buffer = std::move(block);
    image.height = static_cast<uint32_t>(rows.size());
    image.width = rows.empty() ? 0 : static_cast<uint32_t>(rows[0].size());
    image.bytesPerRow = image.width * 4;
    image.bytesPerPixel = 4;
    std::memcpy(image.format, "BGRA", 4);
    return image;
}

bool saveBmp(const std::string& path, const Rows& rows) {
    const std::vector<uint8_t> bytes = bottomUpBytes(rows, 0);
    const auto width = rows.empty() ? 0u : static_cast<uint32_t>(rows[0].size());
    return save_bmp(path.c_str(), bytes.data(), width, static_cast<uint32_t>(rows.size())) == 0;
}

image_t randomScreen(std::mt19937& random, uint32_t width, uint32_t height, uint32_t stride,
                     const std::vector<uint32_t>& palette) {
    std::vector<uint8_t> pixels(static_cast<size_t>(stride) * height);
    for (auto& b : pixels) b = static_cast<uint8_t>(random());
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            const uint32_t rgb = palette[random() % palette.size()];
            uint8_t* at = pixels.data() + static_cast<size_t>(y) * stride + static_cast<size_t>(x) * 4;
            at[0] = static_cast<uint8_t>(rgb);
            at[1] = static_cast<uint8_t>(rgb >> 8);
            at[2] = static_cast<uint8_t>(rgb >> 16);
        }
    }
    return makeTopDownImage(pixels.data(), width, height, stride, stride + 64);
}

}  // namespace tw::reference
