// The virtual display's file as the screen functions find it: its header mapped, its rows read,
// painted and copied into a capture.
#include "FuzzSupport.h"
#include "FuzzTarget.h"
#include "device/VirtualDisplay.h"

TW_FUZZ_TARGET(display_header) {
    using namespace tw;
    const std::string runDir = fuzz::Scratch::dir() + "/run";
    fuzz::writeFile(device::displayPath(runDir), data, size);

    std::string error;
    if (auto framebuffer = device::Framebuffer::open(runDir, &error)) {
        FUZZ_CHECK(framebuffer->bytesPerRow() >= framebuffer->width() * 4ull);
        FUZZ_CHECK(device::kDisplayHeaderSize + static_cast<uint64_t>(framebuffer->bytesPerRow()) *
                                                    framebuffer->height() <= size);
        volatile unsigned sum = 0;
        for (uint32_t y = 0; y < framebuffer->height(); ++y)
            for (uint32_t x = 0; x < framebuffer->width() * 4; ++x)
                sum = sum + framebuffer->pixels()[static_cast<size_t>(y) * framebuffer->bytesPerRow() + x];
        device::Picture picture{3, 2, std::vector<uint8_t>(3 * 2 * 4, 0x7F)};
        framebuffer->show(picture);
    } else {
        FUZZ_CHECK(!error.empty());
    }

    // A capture of a fixed size, whatever size the file claims.
    SurfaceGeometry geometry{8, 6, 4, 0, 8 * 4, 8 * 6 * 4};
    std::vector<uint8_t> capture(geometry.allocSize);
    device::VirtualDisplay display(runDir);
    display.renderDisplay(capture.data(), geometry);
    return 0;
}
