#pragma once
// The virtual device's screen: a framebuffer in shared memory, the file "<root>/run/display",
// that the input-event role creates, `tapwright screen set` paints, and every capture of the
// screen functions copies.
//
// Layout: a 64-byte header ("TWDISP01", then little-endian u32 width, height, bytesPerRow), then
// `height` rows of `bytesPerRow` bytes, top row first, 4-byte blue, green, red, alpha pixels.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "device/ImageFile.h"
#include "platform/Display.h"

namespace tw::device {

inline constexpr size_t kDisplayHeaderSize = 64;

std::string displayPath(const std::string& runDir);

class Framebuffer {
public:
    // Maps the framebuffer of `runDir`, creating it (black) when missing or of another size.
    static std::unique_ptr<Framebuffer> create(const std::string& runDir, uint32_t width, uint32_t height,
                                               std::string* error);
    // Maps an existing framebuffer; nullptr (with `error`) when there is none or it is damaged.
    static std::unique_ptr<Framebuffer> open(const std::string& runDir, std::string* error);
    ~Framebuffer();

    uint32_t width() const { return width_; }
    uint32_t height() const { return height_; }
    uint32_t bytesPerRow() const { return bytesPerRow_; }
    uint8_t* pixels() { return base_ + kDisplayHeaderSize; }
    const uint8_t* pixels() const { return base_ + kDisplayHeaderSize; }
    // Paints `picture` at the top left on black; a larger picture is cropped.
    void show(const Picture& picture);
    void fill(uint32_t rgb);
    // The inode of the mapped file: a new one means the framebuffer was made again.
    uint64_t identity() const { return inode_; }

private:
    Framebuffer() = default;
    uint8_t* base_ = nullptr;
    size_t size_ = 0;
    uint32_t width_ = 0, height_ = 0, bytesPerRow_ = 0;
    uint64_t inode_ = 0;
};

// The display controller service the virtual device offers to systems before 9.0, which learn the
// screen's geometry from its default layer instead of from the screen's bounds.
inline constexpr const char* kVirtualDisplayService = "AppleCLCD";

// The Display seam over the framebuffer: every render copies the current picture.
class VirtualDisplay : public Display {
public:
    explicit VirtualDisplay(std::string runDir) : runDir_(std::move(runDir)) {}
    bool renderDisplay(uint8_t* base, const SurfaceGeometry& geometry) override;
    // The framebuffer's geometry (rows of exactly width * 4 bytes, "BGRA") for the service
    // kVirtualDisplayService; nullopt for other names or while the device has no framebuffer.
    std::optional<SurfaceGeometry> openFramebufferLayer(const std::string& serviceClassName) override;

private:
    std::string runDir_;
    std::unique_ptr<Framebuffer> mapped_;
};

}  // namespace tw::device
