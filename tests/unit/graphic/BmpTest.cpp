// BMP files and screenshots: the file a screenshot writes, writing over older files, reading
// templates back and refusing headers that do not fit their file, and the whole-screen shot.
#include <sys/stat.h>

#include <regex>

#include "EngineFixture.h"
#include "ReferenceScans.h"
#include "core/Paths.h"
#include "graphic/Bmp.h"

namespace fs = std::filesystem;

namespace tw {
namespace {

using reference::Rows;

void put32(std::string& bytes, size_t at, uint32_t value) {
    for (size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(value >> (8 * i));
}

// The picture of a BMP file as read_bmp reads it; empty when it refuses the file.
Rows readBack(const std::string& path) {
    image_t image;
    return read_bmp(path.c_str(), &image) ? reference::cut(image, 0, 0, image.width, image.height) : Rows{};
}

// A 640 x 960 screen of random colours, and a folder.
class BmpTest : public ::testing::Test {
protected:
    std::string in(const std::string& name) { return (folder.path() / name).string(); }
    reference::InstalledScreen screen{320, 480, 2};
    reference::MemoryDisplay& display = *screen.display;
    test::TempDir folder{"tw-bmp"};
};

TEST_F(BmpTest, TwoByTwoScreenshotOverALongerFileIsSeventyBytesBottomRowFirstThenTheOldTail) {
    display.setPixel(10, 20, 0x112233, 0x44);
    display.setPixel(11, 20, 0x556677, 0x88);
    display.setPixel(10, 21, 0x99AABB, 0xCC);
    display.setPixel(11, 21, 0xDDEEFF, 0x00);
    std::string old(1000, '\0');
    for (size_t i = 0; i < old.size(); ++i) old[i] = static_cast<char>(i * 7);
    test::writeFile(in("two.bmp"), old);
    ::chmod(in("two.bmp").c_str(), 0600);
    const region_t region{10, 20, 2, 2};
    ASSERT_EQ(screenshot(in("two.bmp").c_str(), &region), 1);
    const uint8_t expected[70] = {
        'B', 'M', 70, 0, 0, 0, 0, 0, 0, 0, 54, 0, 0, 0, 40, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 1, 0, 32, 0, 0, 0, 0, 0,
        16, 0, 0, 0, 0x13, 0x0B, 0, 0, 0x13, 0x0B, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  // 2835 pixels a metre
        0xBB, 0xAA, 0x99, 0xCC, 0xFF, 0xEE, 0xDD, 0x00, 0x33, 0x22, 0x11, 0x44, 0x77, 0x66, 0x55, 0x88};
    EXPECT_EQ(test::readFile(in("two.bmp")), std::string(expected, expected + 70) + old.substr(70));
    struct stat st {};
    EXPECT_TRUE(::stat(in("two.bmp").c_str(), &st) == 0 && (st.st_mode & 0777) == 0600);

    // A shorter older file is wholly replaced, nothing is left behind in the folder, and a link
    // is written through.
    test::writeFile(in("two.bmp"), std::string(60, 'x'));
    fs::create_symlink(in("two.bmp"), in("link.bmp"));
    ASSERT_EQ(screenshot(in("two.bmp").c_str(), &region), 1);
    EXPECT_EQ(test::readFile(in("two.bmp")).size(), 70u);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()), 2);
    const region_t corner{0, 0, 1, 1};
    ASSERT_EQ(screenshot(in("link.bmp").c_str(), &corner), 1);
    EXPECT_TRUE(fs::is_symlink(in("link.bmp")));
    EXPECT_EQ(test::readFile(in("two.bmp")).substr(58), std::string(expected + 58, expected + 70));
    EXPECT_EQ(screenshot(in("missing/a.bmp").c_str(), &corner), 0);
}

TEST_F(BmpTest, ScreenshotsReadBackAsTheClippedAreaOfTheScreen) {
    struct Case { const char* name; region_t region; uint32_t x, y, width, height; };
    const Case cases[] = {
        {"inside", {100, 200, 40, 30}, 100, 200, 40, 30},
        {"clipped above and left", {-20, -10, 30, 20}, 0, 0, 10, 10},
        {"clipped below and right", {630, 955, 100, 100}, 630, 955, 10, 5},
        {"fractions truncated", {0.5, 0.5, 2.5, 2.5}, 0, 0, 2, 2},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(screenshot(in(std::string(c.name) + ".bmp").c_str(), &c.region), 1) << c.name;
        EXPECT_EQ(readBack(in(std::string(c.name) + ".bmp")), reference::cut(display, c.x, c.y, c.width, c.height)) << c.name;
    }
    const region_t offLeft{-50, 0, 30, 10}, pastRight{640, 0, 5, 5};
    ASSERT_EQ(screenshot(in("empty.bmp").c_str(), &offLeft), 1);
    EXPECT_EQ(test::readFile(in("empty.bmp")).size(), 54u);
    EXPECT_EQ(screenshot(in("refused.bmp").c_str(), &pastRight), 0);
    EXPECT_FALSE(fs::exists(in("refused.bmp")));
}

TEST_F(BmpTest, TemplatesWhoseHeadersDoNotFitTheirFileAreRefused) {
    ASSERT_TRUE(reference::saveBmp(in("good.bmp"), reference::cut(display, 20, 30, 2, 2)));
    const std::string good = test::readFile(in("good.bmp"));
    struct Case { const char* name; std::vector<std::pair<size_t, uint32_t>> puts; size_t size; bool read; };
    const Case cases[] = {
        {"as written", {}, 70, true},
        {"signature, header size, depth, compression not looked at", {{0, 0x5858}, {14, 12}, {28, 24}, {30, 3}}, 70, true},
        {"pixel offset at the end", {{10, 70}}, 70, true},
        {"pixel offset past the end", {{10, 71}}, 70, false},
        {"zero width", {{18, 0}}, 70, false},
        {"zero height", {{22, 0}}, 70, false},
        {"sizes whose product overflows 32 bits", {{18, 0x40000000}, {22, 0x40000000}}, 70, false},
        {"a byte short", {}, 69, false},
    };
    for (const auto& c : cases) {
        std::string bytes = good;
        for (const auto& [at, value] : c.puts) put32(bytes, at, value);
        bytes.resize(c.size);
        test::writeFile(in("t.bmp"), bytes);
        EXPECT_EQ(readBack(in("t.bmp")), c.read ? reference::cut(display, 20, 30, 2, 2) : Rows{}) << c.name;
    }

    std::string header(54, 'X');
    for (const auto& [at, value] : {std::pair<size_t, uint32_t>{10, 11}, {14, 22}, {18, 3}, {22, -4u}, {28, 24}, {30, 5}})
        put32(header, at, value);
    const auto fields = read_bmp_header(reinterpret_cast<const uint8_t*>(header.data()), 54);
    ASSERT_TRUE(fields);
    EXPECT_EQ(std::make_tuple(fields->signature[1], fields->pixelOffset, fields->infoSize, fields->width, fields->height,
                              fields->bitsPerPixel, fields->compression),
              std::make_tuple('X', 11u, 22u, 3, -4, uint16_t{24}, 5u));
    EXPECT_FALSE(read_bmp_header(reinterpret_cast<const uint8_t*>(header.data()), 53));
}

using BmpScreenshotTest = test::EngineFixture;

TEST_F(BmpScreenshotTest, CurrentScreenshotPlaysTheSoundAndWritesTheWholeScreenToTheLibrary) {
    reference::InstalledScreen screen(320, 480, 2);
    takeCurrentScreenshot();
    EXPECT_EQ(sounds->sounds(), std::vector<uint32_t>{1108});
    const std::vector<fs::path> files(fs::directory_iterator(Paths::scriptsDir()), fs::directory_iterator{});
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(std::regex_match(files[0].filename().string(), std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.bmp)")));
    EXPECT_EQ(readBack(files[0]), reference::cut(*screen.display, 0, 0, 640, 960));
}

}  // namespace
}  // namespace tw
