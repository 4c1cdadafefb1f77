// BMP files and screenshots: the exact file of a small screenshot, rows bottom first, writing
// over longer and shorter files, reading files back, the ".bmp" path rule, clipped and refused
// regions, and the time-stamped screenshot of the whole screen with its sound.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "EngineFixture.h"
#include "TestSupport.h"
#include "graphic/Bmp.h"
#include "graphic/Region.h"
#include "graphic/Surface.h"
#include "library/FileManager.h"
#include "platform/DeviceInfo.h"
#include "platform/Display.h"
#include "platform/Platform.h"
#include "platform/linux/ProfileDeviceInfo.h"
#include "ReferenceScans.h"

namespace fs = std::filesystem;

namespace tw {
namespace {

using reference::MemoryDisplay;

uint32_t u32At(const std::string& bytes, size_t at) {
    return static_cast<uint32_t>(static_cast<uint8_t>(bytes[at])) |
           static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 1])) << 8 |
           static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 2])) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 3])) << 24;
}

uint16_t u16At(const std::string& bytes, size_t at) {
    return static_cast<uint16_t>(static_cast<uint8_t>(bytes[at]) | static_cast<uint8_t>(bytes[at + 1]) << 8);
}

// The engine on a temporary device root with a 640 x 960 in-memory screen of random pixels.
class GraphicBmpTest : public test::EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        reset_surface_info();
        linuxp::DeviceProfile profile;
        profile.screenWidth = 320;
        profile.screenHeight = 480;
        profile.scale = 2;
        Platform::current().device = std::make_shared<linuxp::ProfileDeviceInfo>(profile, "com.apple.springboard");
        display = std::make_shared<MemoryDisplay>(640, 960);
        display->fillRandom(21);
        Platform::current().display = display;
    }
    void TearDown() override {
        EngineFixture::TearDown();
        reset_surface_info();
    }

    std::string inLibrary(const std::string& name) { return FileManager::rootPath() + "/" + name; }

    std::shared_ptr<MemoryDisplay> display;
};

TEST_F(GraphicBmpTest, TwoByTwoScreenshotIsTheSeventyByteFile) {
    display->setPixel(10, 20, 0x112233, 0x44);
    display->setPixel(11, 20, 0x556677, 0x88);
    display->setPixel(10, 21, 0x99AABB, 0xCC);
    display->setPixel(11, 21, 0xDDEEFF, 0x00);
    const region_t region{10, 20, 2, 2};
    ASSERT_EQ(screenshot(inLibrary("two.bmp").c_str(), &region), 1);
    const std::string file = test::readFile(inLibrary("two.bmp"));
    ASSERT_EQ(file.size(), 70u);
    EXPECT_EQ(file.substr(0, 2), "BM");
    EXPECT_EQ(u32At(file, 2), 70u);
    EXPECT_EQ(u16At(file, 6), 0);
    EXPECT_EQ(u16At(file, 8), 0);
    EXPECT_EQ(u32At(file, 10), 54u);
    EXPECT_EQ(u32At(file, 14), 40u);
    EXPECT_EQ(u32At(file, 18), 2u);
    EXPECT_EQ(u32At(file, 22), 2u);
    EXPECT_EQ(u16At(file, 26), 1);
    EXPECT_EQ(u16At(file, 28), 32);
    EXPECT_EQ(u32At(file, 30), 0u);
    EXPECT_EQ(u32At(file, 34), 16u);
    EXPECT_EQ(u32At(file, 38), 2835u);
    EXPECT_EQ(u32At(file, 42), 2835u);
    EXPECT_EQ(u32At(file, 46), 0u);
    EXPECT_EQ(u32At(file, 50), 0u);
    // The bottom row first, each pixel blue, green, red and the alpha byte as captured.
    const std::string pixels(
        "\xBB\xAA\x99\xCC"
        "\xFF\xEE\xDD\x00"
        "\x33\x22\x11\x44"
        "\x77\x66\x55\x88",
        16);
    EXPECT_EQ(file.substr(54), pixels);
}

TEST_F(GraphicBmpTest, OverwritingALongerFileKeepsItsTail) {
    const std::string path = inLibrary("old.bmp");
    std::string old(1000, '\0');
    for (size_t i = 0; i < old.size(); ++i) old[i] = static_cast<char>(i * 7);
    test::writeFile(path, old);
    ::chmod(path.c_str(), 0600);

    const region_t region{0, 0, 2, 2};
    ASSERT_EQ(screenshot(path.c_str(), &region), 1);
    const std::string file = test::readFile(path);
    ASSERT_EQ(file.size(), 1000u);
    EXPECT_EQ(u32At(file, 2), 70u);
    EXPECT_EQ(u32At(file, 54) & 0xFFFFFF, display->pixel(0, 1));
    EXPECT_EQ(file.substr(70), old.substr(70));
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    // A shorter older file is wholly replaced; nothing is left behind in the folder.
    test::writeFile(path, std::string(60, 'x'));
    ASSERT_EQ(screenshot(path.c_str(), &region), 1);
    EXPECT_EQ(test::readFile(path).size(), 70u);
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(FileManager::rootPath())) names.push_back(entry.path().filename());
    EXPECT_EQ(names, std::vector<std::string>{"old.bmp"});
}

TEST_F(GraphicBmpTest, NewFilesAreReadableByAllAndLinksAreWrittenThrough) {
    const std::string path = inLibrary("new.bmp");
    const uint8_t pixels[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_EQ(save_bmp(path.c_str(), pixels, 2, 1), 0);
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(test::readFile(path).size(), 62u);

    const std::string link = inLibrary("link.bmp");
    fs::create_symlink(path, link);
    const uint8_t other[4] = {9, 9, 9, 9};
    ASSERT_EQ(save_bmp(link.c_str(), other, 1, 1), 0);
    EXPECT_TRUE(fs::is_symlink(link));
    const std::string file = test::readFile(path);
    ASSERT_EQ(file.size(), 62u);  // 58 new bytes over 62
    EXPECT_EQ(u32At(file, 18), 1u);
    EXPECT_EQ(file.substr(54, 4), std::string(4, '\x09'));
    EXPECT_EQ(file.substr(58, 4), std::string("\x05\x06\x07\x08", 4));
}

TEST_F(GraphicBmpTest, UnwritablePathsFail) {
    const std::string path = inLibrary("missing/folder/a.bmp");
    const uint8_t pixels[4] = {};
    EXPECT_EQ(save_bmp(path.c_str(), pixels, 1, 1), -1);
    EXPECT_EQ(save_bmp(nullptr, pixels, 1, 1), -1);
    const region_t region{0, 0, 1, 1};
    EXPECT_EQ(screenshot(path.c_str(), &region), 0);
    EXPECT_FALSE(fs::exists(inLibrary("missing")));
}

TEST_F(GraphicBmpTest, ScreenshotReadsBackPixelForPixel) {
    const region_t region{100, 200, 40, 30};
    ASSERT_EQ(screenshot(inLibrary("area.bmp").c_str(), &region), 1);
    image_t image;
    ASSERT_EQ(read_bmp(inLibrary("area.bmp").c_str(), &image), 1);
    EXPECT_EQ(image.kind, kImageBottomRowFirst);
    EXPECT_EQ(image.width, 40u);
    EXPECT_EQ(image.height, 30u);
    EXPECT_EQ(image.bytesPerRow, 160u);
    EXPECT_EQ(image.bytesPerPixel, 4u);
    EXPECT_EQ(std::string(image.format, 4), "BGRA");
    ASSERT_TRUE(image.buffer);
    EXPECT_EQ(image.data, image.buffer.get() + 54);
    EXPECT_EQ(color_at_location(image, 0, 0), display->pixel(100, 200));
    for (uint32_t y = 0; y < 30; ++y)
        for (uint32_t x = 0; x < 40; ++x) ASSERT_EQ(color_at_location(image, x, y), display->pixel(100 + x, 200 + y));

    // The whole screen, without a region.
    ASSERT_EQ(screenshot(inLibrary("whole.bmp").c_str(), nullptr), 1);
    ASSERT_EQ(read_bmp(inLibrary("whole.bmp").c_str(), &image), 1);
    EXPECT_EQ(image.width, 640u);
    EXPECT_EQ(image.height, 960u);
    EXPECT_EQ(color_at_location(image, 0, 0), display->pixel(0, 0));
    EXPECT_EQ(color_at_location(image, 639, 959), display->pixel(639, 959));
    EXPECT_EQ(color_at_location(image, 17, 600), display->pixel(17, 600));
}

TEST_F(GraphicBmpTest, ScreenshotRegionsAreClippedOrRefused) {
    const region_t pastRight{640, 0, 5, 5};
    EXPECT_EQ(screenshot(inLibrary("refused.bmp").c_str(), &pastRight), 0);
    EXPECT_FALSE(fs::exists(inLibrary("refused.bmp")));

    const region_t aboveLeft{-20, -10, 30, 20};
    ASSERT_EQ(screenshot(inLibrary("clipped.bmp").c_str(), &aboveLeft), 1);
    image_t image;
    ASSERT_EQ(read_bmp(inLibrary("clipped.bmp").c_str(), &image), 1);
    EXPECT_EQ(image.width, 10u);
    EXPECT_EQ(image.height, 10u);
    EXPECT_EQ(color_at_location(image, 9, 9), display->pixel(9, 9));

    const region_t bottomRight{630, 955, 100, 100};
    ASSERT_EQ(screenshot(inLibrary("corner.bmp").c_str(), &bottomRight), 1);
    ASSERT_EQ(read_bmp(inLibrary("corner.bmp").c_str(), &image), 1);
    EXPECT_EQ(image.width, 10u);
    EXPECT_EQ(image.height, 5u);
    EXPECT_EQ(color_at_location(image, 9, 4), display->pixel(639, 959));

    display->rendering = false;
    EXPECT_EQ(screenshot(inLibrary("none.bmp").c_str(), nullptr), 0);
    EXPECT_FALSE(fs::exists(inLibrary("none.bmp")));
}

TEST_F(GraphicBmpTest, FractionalRegionsCopyTheTruncatedArea) {
    // {0.5, 0.5, 2.5, 2.5}: a 2 x 2 file of the pixels (0..1, 0..1), bottom row first.
    const region_t region{0.5, 0.5, 2.5, 2.5};
    ASSERT_EQ(screenshot(inLibrary("fraction.bmp").c_str(), &region), 1);
    const std::string file = test::readFile(inLibrary("fraction.bmp"));
    ASSERT_EQ(file.size(), 70u);
    EXPECT_EQ(u32At(file, 54) & 0xFFFFFF, display->pixel(0, 1));
    EXPECT_EQ(u32At(file, 58) & 0xFFFFFF, display->pixel(1, 1));
    EXPECT_EQ(u32At(file, 62) & 0xFFFFFF, display->pixel(0, 0));
    EXPECT_EQ(u32At(file, 66) & 0xFFFFFF, display->pixel(1, 0));

    // A region wholly left of the screen writes an empty picture.
    const region_t offLeft{-50, 0, 30, 10};
    ASSERT_EQ(screenshot(inLibrary("empty.bmp").c_str(), &offLeft), 1);
    EXPECT_EQ(test::readFile(inLibrary("empty.bmp")).size(), 54u);
}

TEST_F(GraphicBmpTest, ScreenshotPathsAlwaysEndInBmp) {
    fs::create_directories(inLibrary("shots"));
    const region_t region{0, 0, 1, 1};
    ASSERT_EQ(screenshot(inLibrary("shots/a.png").c_str(), &region), 1);
    EXPECT_TRUE(fs::exists(inLibrary("shots/a.bmp")));
    EXPECT_FALSE(fs::exists(inLibrary("shots/a.png")));

    EXPECT_EQ(make_bmp_save_path("a.png"), "a.bmp");
    EXPECT_EQ(make_bmp_save_path("a"), "a.bmp");
    EXPECT_EQ(make_bmp_save_path("a.tar.gz"), "a.tar.bmp");
    EXPECT_EQ(make_bmp_save_path("shots.old/last"), "shots.bmp");
    EXPECT_EQ(make_bmp_save_path("/x/y.bmp"), "/x/y.bmp");
    EXPECT_EQ(make_bmp_save_path(""), ".bmp");
    EXPECT_EQ(make_bmp_save_path(nullptr), std::nullopt);
}

TEST_F(GraphicBmpTest, CurrentScreenshotPlaysTheSoundAndWritesTheWholeScreen) {
    takeCurrentScreenshot();
    EXPECT_EQ(sounds->sounds(), std::vector<uint32_t>{1108});
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(FileManager::rootPath())) files.push_back(entry.path());
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(std::regex_match(files[0].filename().string(),
                                 std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.bmp)")))
        << files[0];
    EXPECT_EQ(fs::file_size(files[0]), 54u + 640u * 960u * 4u);
    image_t image;
    ASSERT_EQ(read_bmp(files[0].c_str(), &image), 1);
    EXPECT_EQ(color_at_location(image, 320, 480), display->pixel(320, 480));
}

TEST_F(GraphicBmpTest, ReadFileGivesTheWholeFileOrReportsWhyNot) {
    const std::string path = inLibrary("data.bin");
    test::writeFile(path, std::string("\x00\x01\x02hello", 8));
    size_t size = 0;
    const auto block = read_file(path.c_str(), &size);
    ASSERT_TRUE(block);
    EXPECT_EQ(size, 8u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(block.get()), size), std::string("\x00\x01\x02hello", 8));

    const std::string missing = inLibrary("nothing.bmp");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(read_file(missing.c_str(), &size));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unable to open file " + missing + "\n");
    EXPECT_EQ(size, 0u);
    image_t image;
    testing::internal::CaptureStderr();
    EXPECT_EQ(read_bmp(missing.c_str(), &image), 0);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(image.data, nullptr);
}

}  // namespace
}  // namespace tw
