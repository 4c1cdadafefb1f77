// Screen geometry, captures, colour reads and colour packing.
#include <array>

#include "EngineFixture.h"
#include "ReferenceScans.h"

namespace tw {
namespace {

using reference::InstalledScreen;

surface_info_t learnt() {
    surface_info_t out;
    get_surface_info(&out);
    return out;
}

std::vector<uint32_t> sizesOf(const surface_info_t& info) {
    return {info.width, info.height, info.bytesPerElement, info.bytesPerRow, info.allocSize};
}

TEST(SurfaceTest, GeometryComesFromTheScreenBoundsInEitherOrientation) {
    struct Case { const char* name; double width, height, scale; uint32_t pixelsWide, pixelsHigh, bytesPerRow; };
    const Case cases[] = {
        {"rows padded to 64 bytes", 375, 667, 2, 750, 1334, 3008},
        {"landscape bounds", 667, 375, 2, 750, 1334, 3008},
        {"row bytes rounded from the untruncated width", 5.5, 8, 3, 16, 24, 128},
    };
    for (const auto& c : cases) {
        InstalledScreen screen(c.width, c.height, c.scale);
        const std::vector<uint32_t> expected{c.pixelsWide, c.pixelsHigh, 4, c.bytesPerRow, c.bytesPerRow * c.pixelsHigh};
        EXPECT_EQ(sizesOf(learnt()), expected) << c.name;
    }
}

TEST(SurfaceTest, AnAllZeroProbeRenderMeansArgb) {
    InstalledScreen screen(320, 480, 2);
    screen.display->fill(0x000000, 0x00);
    EXPECT_EQ(std::string(learnt().pixelFormat, 4), "ARGB");
    reset_surface_info();
    screen.display->fill(0x000000, 0xFF);  // black, but the alpha bytes are not zero
    EXPECT_EQ(std::string(learnt().pixelFormat, 4), "BGRA");
}

using SurfaceLogTest = test::EngineFixture;

TEST_F(SurfaceLogTest, OlderSystemsTakeTheFirstDisplayControllerThatOpensOrLogTheFailure) {
    InstalledScreen screen(320, 480, 2, "8.4.1");
    EXPECT_EQ(sizesOf(learnt()), std::vector<uint32_t>(5, 0));
    EXPECT_EQ(logMessages(), (std::vector<std::string>{"Fialed to init surface info for graphic functions."}));
    reset_surface_info();
    screen.display->layers["AppleM2CLCD"] = SurfaceGeometry{640, 960, 4, 0x42475241 /* "ARGB" */, 9999, 1};
    screen.display->layers["AppleCLCD"] = SurfaceGeometry{1, 1, 4, 0, 4, 4};
    // The row is bytes per element times width, not the layer's own.
    EXPECT_EQ(sizesOf(learnt()), std::vector<uint32_t>({640, 960, 4, 2560, 2457600}));
    EXPECT_EQ(std::string(learnt().pixelFormat, 4), "ARGB");

    InstalledScreen nine(320, 568, 2, "9.0");
    nine.display->layers["AppleH1CLCD"] = SurfaceGeometry{1, 1, 4, 0, 4, 4};
    EXPECT_EQ(learnt().height, 1136u);
}

TEST(SurfaceTest, ColourReadsFollowByteOrderRowOrderAndFractionalOffsets) {
    const uint8_t bytes[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};  // 2 x 2, 8 bytes a row
    struct Case { const char* name; uint32_t kind; coord_t x, y; uint32_t color; };
    const Case cases[] = {
        {"blue, green, red; alpha dropped", kImageTopRowFirst, 1, 0, 0x070605},
        {"bottom row first: y 0 is the last row stored", kImageBottomRowFirst, 0, 0, 0x0B0A09},
        {"x 0.9, y 0.5: 7.6 bytes on, truncated", kImageTopRowFirst, 0.9, 0.5, 0x0A0908},
        {"a negative offset reads the first byte", kImageBottomRowFirst, 0, 1.5, 0x030201},
    };
    for (const auto& c : cases) {
        const image_t image{.kind = c.kind, .data = bytes, .width = 2, .height = 2, .bytesPerRow = 8, .bytesPerPixel = 4};
        EXPECT_EQ(color_at_location(image, c.x, c.y), c.color) << c.name;
    }
}

TEST(SurfaceTest, RgbPackingCoversTheWholeRangeAndDoesNotMask) {
    const std::pair<std::array<int32_t, 3>, int32_t> cases[] = {
        {{0, 0, 0}, 0x000000},    {{255, 255, 255}, 0xFFFFFF}, {{0x12, 0x34, 0x56}, 0x123456},
        {{256, 0, 0}, 0x1000000}, {{0, 256, 0}, 0x10000},      {{1, 0, -1}, 0xFFFF}};
    for (const auto& [rgb, hex] : cases) EXPECT_EQ(rgb_to_hex(rgb[0], rgb[1], rgb[2]), hex) << hex;
    uint8_t rgb[3] = {};
    hex_to_rgb(rgb, static_cast<int32_t>(0xFFABCDEFu));
    EXPECT_EQ(std::vector<int>(rgb, rgb + 3), (std::vector<int>{0xAB, 0xCD, 0xEF}));
}

TEST(SurfaceTest, EveryCaptureRendersAnewIntoABlockWithAZeroTail) {
    InstalledScreen screen(320, 480, 2);
    ASSERT_TRUE(capture_surface());  // its block goes back to be recycled
    screen.display->setPixel(10, 20, 0x0F0F0F);
    const auto capture = capture_surface();
    ASSERT_TRUE(capture);
    EXPECT_EQ(color_at_location(capture->image(), 10, 20), 0x0F0F0Fu);
    const uint8_t* tail = capture->baseAddress() + capture->info().allocSize;
    EXPECT_EQ(std::vector<uint8_t>(tail, tail + 2560 + 64), std::vector<uint8_t>(2560 + 64, 0));
    screen.display->rendering = false;
    EXPECT_FALSE(capture_surface());
}

}  // namespace
}  // namespace tw
