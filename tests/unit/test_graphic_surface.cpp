// Screen geometry, captures and colour reads: the geometry of the known screens, the pixel-format
// probe, older systems' display controller (and its failure line in the error log), bounds tests,
// the byte order and row orders of colour reads, colour packing, and get_colors.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "EngineFixture.h"
#include "graphic/Graphic.h"
#include "graphic/Region.h"
#include "graphic/Surface.h"
#include "platform/DeviceInfo.h"
#include "platform/Display.h"
#include "platform/Platform.h"
#include "platform/linux/ProfileDeviceInfo.h"
#include "ReferenceScans.h"

namespace tw {
namespace {

using reference::MemoryDisplay;

std::shared_ptr<DeviceInfo> deviceWith(double width, double height, double scale, const std::string& version) {
    linuxp::DeviceProfile profile;
    profile.screenWidth = width;
    profile.screenHeight = height;
    profile.scale = scale;
    profile.systemVersion = version;
    return std::make_shared<linuxp::ProfileDeviceInfo>(profile, "com.apple.springboard");
}

std::string formatOf(const surface_info_t& info) { return std::string(info.pixelFormat, 4); }

uint32_t wordOf(const char* text) {
    return static_cast<uint32_t>(static_cast<uint8_t>(text[0])) | static_cast<uint32_t>(static_cast<uint8_t>(text[1])) << 8 |
           static_cast<uint32_t>(static_cast<uint8_t>(text[2])) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(text[3])) << 24;
}

// A device of the given screen and an in-memory display of its pixel size, with a picture.
class GraphicSurfaceTest : public ::testing::Test {
protected:
    void SetUp() override { reset_surface_info(); }
    void TearDown() override {
        Platform::install(Platform{});
        reset_surface_info();
    }

    void useScreen(double width, double height, double scale, const std::string& version = "9.3.5") {
        Platform platform;
        platform.device = deviceWith(width, height, scale, version);
        const double shortSide = width < height ? width : height, longSide = width < height ? height : width;
        display = std::make_shared<MemoryDisplay>(static_cast<uint32_t>(shortSide * scale),
                                                  static_cast<uint32_t>(longSide * scale));
        display->fillRandom(7);
        platform.display = display;
        Platform::install(platform);
    }

    surface_info_t info() {
        surface_info_t out;
        get_surface_info(&out);
        return out;
    }

    std::shared_ptr<MemoryDisplay> display;
};

struct KnownScreen {
    double points[2];
    double scale;
    uint32_t width, height, bytesPerRow, allocSize;
};

class GraphicSurfaceGeometryTest : public GraphicSurfaceTest, public ::testing::WithParamInterface<KnownScreen> {};

TEST_P(GraphicSurfaceGeometryTest, KnownScreenInPortraitAndLandscapeBounds) {
    const KnownScreen screen = GetParam();
    for (const bool landscape : {false, true}) {
        reset_surface_info();
        useScreen(screen.points[landscape ? 1 : 0], screen.points[landscape ? 0 : 1], screen.scale);
        const surface_info_t geometry = info();
        EXPECT_EQ(geometry.width, screen.width);
        EXPECT_EQ(geometry.height, screen.height);
        EXPECT_EQ(geometry.bytesPerElement, 4u);
        EXPECT_EQ(geometry.bytesPerRow, screen.bytesPerRow);
        EXPECT_EQ(geometry.allocSize, screen.allocSize);
        EXPECT_EQ(formatOf(geometry), "BGRA");
    }
}

INSTANTIATE_TEST_SUITE_P(FiveScreens, GraphicSurfaceGeometryTest,
                         ::testing::Values(KnownScreen{{375, 667}, 2, 750, 1334, 3008, 4012672},
                                           KnownScreen{{320, 480}, 2, 640, 960, 2560, 2457600},
                                           KnownScreen{{320, 568}, 2, 640, 1136, 2560, 2908160},
                                           KnownScreen{{414, 736}, 3, 1242, 2208, 4992, 11022336},
                                           KnownScreen{{768, 1024}, 2, 1536, 2048, 6144, 12582912}));

TEST_F(GraphicSurfaceTest, RowLengthIsRoundedFromTheUntruncatedWidth) {
    // 5.5 points at scale 3: 16.5 pixels make a 16-pixel row, but 66 bytes round up to 128.
    useScreen(5.5, 8, 3);
    const surface_info_t geometry = info();
    EXPECT_EQ(geometry.width, 16u);
    EXPECT_EQ(geometry.height, 24u);
    EXPECT_EQ(geometry.bytesPerRow, 128u);
    EXPECT_EQ(geometry.allocSize, 128u * 24);
}

TEST_F(GraphicSurfaceTest, ProbeOfAnAllZeroRenderSwitchesToArgbForTheProcess) {
    useScreen(320, 480, 2);
    display->fill(0x000000, 0x00);
    EXPECT_EQ(formatOf(info()), "ARGB");
    display->fillRandom(3);  // a picture now, but the choice holds
    EXPECT_EQ(formatOf(info()), "ARGB");
    auto surface = capture_surface();
    ASSERT_TRUE(surface);
    EXPECT_EQ(std::string(surface->image().format, 4), "ARGB");

    reset_surface_info();
    display->fill(0x000000, 0xFF);  // black, but the alpha bytes are not zero
    EXPECT_EQ(formatOf(info()), "BGRA");
}

TEST_F(GraphicSurfaceTest, GeometryIsLearntOnceUntilReset) {
    useScreen(375, 667, 2);
    EXPECT_EQ(info().width, 750u);
    EXPECT_EQ(display->renders, 1);  // the probe
    Platform::current().device = deviceWith(768, 1024, 2, "9.3.5");
    EXPECT_EQ(info().width, 750u);
    EXPECT_EQ(display->renders, 1);
    reset_surface_info();
    EXPECT_EQ(info().width, 1536u);
    EXPECT_EQ(display->renders, 2);
}

TEST_F(GraphicSurfaceTest, OlderSystemsTakeTheFirstDisplayControllerThatOpens) {
    useScreen(320, 480, 2, "8.4.1");
    display->layers["AppleM2CLCD"] = SurfaceGeometry{640, 960, 4, wordOf("ARGB"), 9999, 1};
    display->layers["AppleCLCD"] = SurfaceGeometry{1, 1, 4, wordOf("BGRA"), 4, 4};
    const surface_info_t geometry = info();
    EXPECT_EQ(display->servicesAsked, (std::vector<std::string>{"AppleH1CLCD", "AppleM2CLCD"}));
    EXPECT_EQ(geometry.width, 640u);
    EXPECT_EQ(geometry.height, 960u);
    EXPECT_EQ(geometry.bytesPerElement, 4u);
    EXPECT_EQ(formatOf(geometry), "ARGB");
    EXPECT_EQ(geometry.bytesPerRow, 2560u);  // bytes per element times width, not the layer's own
    EXPECT_EQ(geometry.allocSize, 2457600u);
    EXPECT_EQ(display->renders, 0);  // no probe on this path

    reset_surface_info();
    display->servicesAsked.clear();
    display->layers["AppleH1CLCD"] = SurfaceGeometry{2, 3, 2, wordOf("RGBA"), 0, 0};
    EXPECT_EQ(info().bytesPerRow, 4u);
    EXPECT_EQ(display->servicesAsked, (std::vector<std::string>{"AppleH1CLCD"}));
}

TEST_F(GraphicSurfaceTest, SystemVersionNineTakesTheScreenBoundsPath) {
    useScreen(320, 568, 2, "9.0");
    display->layers["AppleH1CLCD"] = SurfaceGeometry{1, 1, 4, 0, 4, 4};
    EXPECT_EQ(info().width, 640u);
    EXPECT_TRUE(display->servicesAsked.empty());
}

using GraphicSurfaceLogTest = test::EngineFixture;

TEST_F(GraphicSurfaceLogTest, NoDisplayControllerLogsTheFailureAndLeavesEveryTestFailing) {
    reset_surface_info();
    auto display = std::make_shared<MemoryDisplay>(640, 960);
    display->fillRandom(1);
    Platform::current().display = display;
    Platform::current().device = deviceWith(320, 480, 2, "8.4");

    surface_info_t geometry;
    get_surface_info(&geometry);
    EXPECT_EQ(geometry.width, 0u);
    EXPECT_EQ(geometry.height, 0u);
    EXPECT_EQ(geometry.allocSize, 0u);
    EXPECT_EQ(display->servicesAsked, (std::vector<std::string>{"AppleH1CLCD", "AppleM2CLCD", "AppleCLCD"}));
    EXPECT_EQ(logMessages(), (std::vector<std::string>{"Fialed to init surface info for graphic functions."}));

    EXPECT_EQ(check_location({0, 0}), 0);
    region_t clipped{};
    const region_t onScreen{0, 0, 10, 10};
    EXPECT_EQ(check_and_wash_region(&onScreen, &clipped), 0);
    const region_t aboveLeft{-5, -5, 10, 10};
    ASSERT_EQ(check_and_wash_region(&aboveLeft, &clipped), 1);
    EXPECT_LE(clipped.width, 0);
    EXPECT_LE(clipped.height, 0);
    ASSERT_EQ(check_and_wash_region(nullptr, &clipped), 1);
    EXPECT_EQ(clipped.width, 0);
    EXPECT_EQ(clipped.height, 0);

    // A whole-screen search covers nothing; no capture can be made of a zero geometry.
    std::vector<location_t> results{{1, 1}};
    const color_point_t pattern[] = {{0x000000, 0, 0}};
    EXPECT_EQ(find_colors(results, pattern, 1, 0, nullptr), 1);
    EXPECT_TRUE(results.empty());
    EXPECT_FALSE(capture_surface());
    int32_t color = 0;
    const location_t origin{0, 0};
    EXPECT_EQ(get_colors(&origin, 1, &color), 0);
    Platform::current().display.reset();
    reset_surface_info();
}

TEST_F(GraphicSurfaceTest, BoundsIncludeTheLastColumnAndRowOnly) {
    useScreen(375, 667, 2);
    EXPECT_EQ(check_location({0, 0}), 1);
    EXPECT_EQ(check_location({749, 1333}), 1);
    EXPECT_EQ(check_location({748.5, 1332.5}), 1);
    EXPECT_EQ(check_location({750, 0}), 0);
    EXPECT_EQ(check_location({749.5, 0}), 0);
    EXPECT_EQ(check_location({-0.5, 0}), 0);
    EXPECT_EQ(check_location({0, -0.001}), 0);
    EXPECT_EQ(check_location({0, 1333.5}), 0);
    EXPECT_EQ(check_location({0, 1334}), 0);

    EXPECT_EQ(check_locations(nullptr, 0), 1);
    const location_t some[] = {{0, 0}, {749, 1333}, {750, 5}, {1, 1}};
    EXPECT_EQ(check_locations(some, 2), 1);
    EXPECT_EQ(check_locations(some, 4), 0);
    EXPECT_EQ(check_locations(some + 2, 1), 0);
}

// A small image over bytes the test lays out itself.
image_t imageOver(const std::vector<uint8_t>& bytes, uint32_t kind, uint32_t width, uint32_t height) {
    image_t image;
    image.kind = kind;
    image.data = bytes.data();
    image.width = width;
    image.height = height;
    image.bytesPerRow = width * 4;
    image.bytesPerPixel = 4;
    return image;
}

TEST(GraphicColorReadTest, BytesAreBlueGreenRedAlpha) {
    const std::vector<uint8_t> bytes = {0x11, 0x22, 0x33, 0xFF, 0x44, 0x55, 0x66, 0x77};
    const image_t image = imageOver(bytes, kImageTopRowFirst, 2, 1);
    EXPECT_EQ(color_at_location(image, 0, 0), 0x332211u);
    EXPECT_EQ(color_at_location(image, 1, 0), 0x665544u);
}

TEST(GraphicColorReadTest, RowOrdersAndOtherKinds) {
    // Ten rows of one pixel each; row r stored at position r holds colour r + 1.
    std::vector<uint8_t> bytes;
    for (uint8_t r = 0; r < 10; ++r) bytes.insert(bytes.end(), {static_cast<uint8_t>(r + 1), 0, 0, 0});
    const image_t topFirst = imageOver(bytes, kImageTopRowFirst, 1, 10);
    const image_t bottomFirst = imageOver(bytes, kImageBottomRowFirst, 1, 10);
    const image_t other = imageOver(bytes, 3, 1, 10);
    EXPECT_EQ(color_at_location(topFirst, 0, 0), 1u);
    EXPECT_EQ(color_at_location(topFirst, 0, 9), 10u);
    EXPECT_EQ(color_at_location(bottomFirst, 0, 0), 10u);  // y = 0 is the last row stored
    EXPECT_EQ(color_at_location(bottomFirst, 0, 9), 1u);   // y = 9 the first
    EXPECT_EQ(color_at_location(bottomFirst, 0, 3), 7u);
    EXPECT_EQ(color_at_location(other, 0, 7), 1u);
    EXPECT_EQ(color_at_location(other, 0, 0), 1u);
}

TEST(GraphicColorReadTest, FractionalCoordinatesShiftTheReadByBytes) {
    const std::vector<uint8_t> bytes = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
                                        0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10};
    const image_t image = imageOver(bytes, kImageTopRowFirst, 2, 2);
    // x = 0.5: offset 2, the bytes 03 04 05 06 read as one word.
    EXPECT_EQ(color_at_location(image, 0.5, 0), 0x050403u);
    // x = 0.9: offset 3.6 truncates to 3.
    EXPECT_EQ(color_at_location(image, 0.9, 0), 0x060504u);
    // y = 0.25: offset 2 (8 bytes a row).
    EXPECT_EQ(color_at_location(image, 0, 0.25), 0x050403u);
    // x = 0.5, y = 0.5: 4 + 2, not rounded to a pixel first.
    EXPECT_EQ(color_at_location(image, 0.5, 0.5), 0x090807u);
    // A bottom-up read above its first row comes out negative and reads the first byte on.
    const image_t bottomFirst = imageOver(bytes, kImageBottomRowFirst, 2, 2);
    EXPECT_EQ(color_at_location(bottomFirst, 0, 1.5), 0x030201u);
}

TEST(GraphicColorPackingTest, RgbToHexDoesNotMaskItsParts) {
    EXPECT_EQ(rgb_to_hex(255, 0, 0), 0xFF0000);
    EXPECT_EQ(rgb_to_hex(0x12, 0x34, 0x56), 0x123456);
    EXPECT_EQ(rgb_to_hex(0, 256, 0), 0x10000);
    EXPECT_EQ(rgb_to_hex(0, 0, 300), 300);
    EXPECT_EQ(rgb_to_hex(1, 0, -1), 0xFFFF);
    EXPECT_EQ(rgb_to_hex(256, 0, 0), 0x1000000);
}

TEST(GraphicColorPackingTest, HexToRgbSplitsTheLowThreeBytes) {
    uint8_t rgb[3] = {};
    hex_to_rgb(rgb, 0x123456);
    EXPECT_EQ(rgb[0], 0x12);
    EXPECT_EQ(rgb[1], 0x34);
    EXPECT_EQ(rgb[2], 0x56);
    hex_to_rgb(rgb, static_cast<int32_t>(0xFFABCDEFu));
    EXPECT_EQ(rgb[0], 0xAB);
    EXPECT_EQ(rgb[1], 0xCD);
    EXPECT_EQ(rgb[2], 0xEF);
}

TEST_F(GraphicSurfaceTest, EveryCaptureIsAFreshPictureOfItsOwn) {
    useScreen(320, 480, 2);
    display->setPixel(10, 20, 0xABCDEF);
    auto first = capture_surface();
    ASSERT_TRUE(first);
    const image_t firstImage = first->image();
    EXPECT_EQ(firstImage.kind, kImageTopRowFirst);
    EXPECT_EQ(firstImage.width, 640u);
    EXPECT_EQ(firstImage.height, 960u);
    EXPECT_EQ(firstImage.bytesPerRow, 2560u);
    EXPECT_EQ(firstImage.bytesPerPixel, 4u);
    EXPECT_EQ(std::string(firstImage.format, 4), "BGRA");
    EXPECT_EQ(color_at_location(firstImage, 10, 20), 0xABCDEFu);

    display->setPixel(10, 20, 0x123456);
    auto second = capture_surface();
    ASSERT_TRUE(second);
    EXPECT_NE(second->baseAddress(), first->baseAddress());
    EXPECT_EQ(color_at_location(second->image(), 10, 20), 0x123456u);
    EXPECT_EQ(color_at_location(firstImage, 10, 20), 0xABCDEFu);  // the first keeps its picture

    // Released captures are recycled, but each capture renders anew.
    first.reset();
    second.reset();
    display->setPixel(10, 20, 0x0F0F0F);
    auto third = capture_surface();
    ASSERT_TRUE(third);
    EXPECT_EQ(color_at_location(third->image(), 10, 20), 0x0F0F0Fu);
    // Past the picture the block is zero, also after recycling.
    const uint8_t* tail = third->baseAddress() + third->info().allocSize;
    for (uint32_t i = 0; i < third->info().bytesPerRow + 64; ++i) ASSERT_EQ(tail[i], 0) << i;
}

TEST_F(GraphicSurfaceTest, NoPictureOrNoDisplayMeansNoCapture) {
    useScreen(320, 480, 2);
    display->rendering = false;
    EXPECT_FALSE(capture_surface());
    display->rendering = true;
    EXPECT_TRUE(capture_surface());
    Platform::current().display.reset();
    EXPECT_FALSE(capture_surface());
}

TEST_F(GraphicSurfaceTest, GetColorsReadsEveryLocationFromOneCapture) {
    useScreen(320, 480, 2);
    display->setPixel(0, 0, 0x010203);
    display->setPixel(639, 959, 0xFFFEFD);
    display->setPixel(100, 200, 0x00FF00, 0x00);
    info();
    const int rendersBefore = display->renders;
    const location_t locations[] = {{100, 200}, {0, 0}, {639, 959}, {100, 200}};
    int32_t colors[4] = {};
    ASSERT_EQ(get_colors(locations, 4, colors), 1);
    EXPECT_EQ(colors[0], 0x00FF00);
    EXPECT_EQ(colors[1], 0x010203);
    EXPECT_EQ(colors[2], 0xFFFEFD);
    EXPECT_EQ(colors[3], 0x00FF00);
    EXPECT_EQ(display->renders, rendersBefore + 1);

    EXPECT_EQ(get_colors(nullptr, 0, colors), 1);
    EXPECT_EQ(display->renders, rendersBefore + 2);
}

TEST_F(GraphicSurfaceTest, GetColorsRefusesOffScreenLocationsWithoutCapturing) {
    useScreen(320, 480, 2);
    info();
    const int rendersBefore = display->renders;
    const location_t locations[] = {{1, 1}, {640, 0}};
    int32_t colors[2] = {7, 7};
    EXPECT_EQ(get_colors(locations, 2, colors), 0);
    EXPECT_EQ(display->renders, rendersBefore);
    EXPECT_EQ(colors[0], 7);
}

TEST_F(GraphicSurfaceTest, GetColorsFailsWithoutACaptureOrAnOutputArray) {
    useScreen(320, 480, 2);
    const location_t location{1, 1};
    int32_t color = 0;
    display->rendering = false;
    EXPECT_EQ(get_colors(&location, 1, &color), 0);
    display->rendering = true;
    testing::internal::CaptureStdout();
    EXPECT_EQ(get_colors(&location, 1, nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Invalid param: colors!\n");
}

}  // namespace
}  // namespace tw
