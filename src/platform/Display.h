#pragma once
// The device's display, as the screen functions need it: render its current picture into a
// surface of a given geometry, or, on systems before 9.0, open the display controller's default
// layer to learn the geometry from it.
#include <cstdint>
#include <optional>
#include <string>

namespace tw {

// The layout of a surface's pixel rows.
struct SurfaceGeometry {
    uint32_t width = 0;            // pixels per row (the screen's shorter side)
    uint32_t height = 0;           // rows (the longer side)
    uint32_t bytesPerElement = 0;  // bytes per pixel
    uint32_t pixelFormat = 0;      // four format bytes in memory order, read as a little-endian word
    uint32_t bytesPerRow = 0;
    uint32_t allocSize = 0;
};

class Display {
public:
    virtual ~Display() = default;
    // Renders the display's current picture into `base` (geometry.allocSize bytes, rows top first,
    // 4-byte blue, green, red, alpha pixels). False when there is no picture to render.
    virtual bool renderDisplay(uint8_t* base, const SurfaceGeometry& geometry) = 0;
    // Systems before 9.0: the geometry of the default layer surface of the display controller
    // service named `serviceClassName`, or nullopt when there is no such service or it cannot be
    // opened. The virtual device has none.
    virtual std::optional<SurfaceGeometry> openFramebufferLayer(const std::string& serviceClassName) = 0;
};

}  // namespace tw
