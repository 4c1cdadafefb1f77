// Image search: templates cut from the screen, exact and fuzzy allowances (in single precision),
// ignored colours, regions as wide as the template, limits and overlapping matches, fractional
// regions, templates whose BMP headers do not fit their file, and the fast scan against the
// literal one on random screens and templates.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "TestSupport.h"
#include "graphic/Bmp.h"
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
using Points = std::vector<std::pair<double, double>>;

Points pointsOf(const std::vector<location_t>& locations) {
    Points points;
    for (const auto& l : locations) points.emplace_back(l.x, l.y);
    return points;
}

void put32(std::string& bytes, size_t at, uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(value >> (8 * i));
}

// A 640 x 960 screen of random colours, and a folder for templates.
class GraphicImageTest : public ::testing::Test {
protected:
    void SetUp() override {
        reset_surface_info();
        linuxp::DeviceProfile profile;
        profile.screenWidth = 320;
        profile.screenHeight = 480;
        profile.scale = 2;
        Platform platform;
        platform.device = std::make_shared<linuxp::ProfileDeviceInfo>(profile, "com.apple.springboard");
        display = std::make_shared<MemoryDisplay>(640, 960);
        display->fillRandom(11);
        platform.display = display;
        Platform::install(platform);
    }
    void TearDown() override {
        Platform::install(Platform{});
        reset_surface_info();
    }

    // Writes a template of the screen's pixels at (x, y), `width` x `height`, changed by `edit`.
    std::string cutTemplate(const std::string& name, uint32_t x, uint32_t y, uint32_t width, uint32_t height,
                            const std::function<void(uint32_t tx, uint32_t ty, uint32_t& rgb)>& edit = nullptr) {
        std::vector<uint8_t> pixels;
        for (uint32_t row = 0; row < height; ++row) {
            const uint32_t ty = height - 1 - row;  // bottom row first
            for (uint32_t tx = 0; tx < width; ++tx) {
                uint32_t rgb = display->pixel(x + tx, y + ty);
                if (edit) edit(tx, ty, rgb);
                pixels.insert(pixels.end(), {static_cast<uint8_t>(rgb), static_cast<uint8_t>(rgb >> 8),
                                             static_cast<uint8_t>(rgb >> 16), 0x00});
            }
        }
        const std::string path = (folder.path() / name).string();
        EXPECT_EQ(save_bmp(path.c_str(), pixels.data(), width, height), 0);
        return path;
    }

    Points find(const std::string& path, int32_t limit, float fuzzy, const std::vector<int32_t>& ignore,
                const region_t* region, int* status = nullptr) {
        std::vector<location_t> results;
        const int ok = find_image(results, path.c_str(), limit, fuzzy, ignore.data(),
                                  static_cast<int32_t>(ignore.size()), region);
        if (status) *status = ok;
        return pointsOf(results);
    }

    std::shared_ptr<MemoryDisplay> display;
    test::TempDir folder{"tw-graphic-image"};
};

TEST_F(GraphicImageTest, TemplateCutFromTheScreenIsFoundWhereItWasCut) {
    const std::string path = cutTemplate("cut.bmp", 100, 200, 3, 3);
    EXPECT_EQ(find(path, 0, 1.0f, {}, nullptr), (Points{{100, 200}}));
    const region_t around{90, 190, 20, 20};
    EXPECT_EQ(find(path, 0, 1.0f, {}, &around), (Points{{100, 200}}));
    const region_t elsewhere{300, 300, 50, 50};
    int status = -1;
    EXPECT_EQ(find(path, 0, 1.0f, {}, &elsewhere, &status), (Points{}));
    EXPECT_EQ(status, 1);
}

TEST_F(GraphicImageTest, FuzzyAllowsItsShareOfDifferingPixelsAndNoMore) {
    // 10 x 10 at 0.9: (1 - 0.9) * 100 in single precision is 10.000002, so 10 pixels may differ.
    auto differing = [](int count) {
        return [count](uint32_t tx, uint32_t ty, uint32_t& rgb) {
            if (static_cast<int>(ty * 10 + tx) < count) rgb ^= 0x808080;
        };
    };
    const region_t region{40, 50, 40, 40};
    EXPECT_EQ(find(cutTemplate("ten.bmp", 50, 60, 10, 10, differing(10)), 0, 0.9f, {}, &region), (Points{{50, 60}}));
    EXPECT_EQ(find(cutTemplate("eleven.bmp", 50, 60, 10, 10, differing(11)), 0, 0.9f, {}, &region), (Points{}));
    // 0.8: 19.999998 truncates to 19; 0.99: 0.999999 truncates to 0.
    EXPECT_EQ(find(cutTemplate("nineteen.bmp", 50, 60, 10, 10, differing(19)), 0, 0.8f, {}, &region), (Points{{50, 60}}));
    EXPECT_EQ(find(cutTemplate("twenty.bmp", 50, 60, 10, 10, differing(20)), 0, 0.8f, {}, &region), (Points{}));
    const std::string one = cutTemplate("one.bmp", 50, 60, 10, 10, differing(1));
    EXPECT_EQ(find(one, 0, 0.99f, {}, &region), (Points{}));
    EXPECT_EQ(find(one, 0, 0.98f, {}, &region), (Points{{50, 60}}));
}

TEST_F(GraphicImageTest, FuzzyOutsideZeroToOneMeansExact) {
    const region_t region{40, 50, 40, 40};
    const std::string same = cutTemplate("same.bmp", 50, 60, 10, 10);
    const std::string one = cutTemplate("one.bmp", 50, 60, 10, 10, [](uint32_t tx, uint32_t ty, uint32_t& rgb) {
        if (tx == 9 && ty == 9) rgb ^= 1;
    });
    for (const float fuzzy : {0.0f, 1.0f, 1.5f, -0.5f}) {
        EXPECT_EQ(find(same, 0, fuzzy, {}, &region), (Points{{50, 60}})) << fuzzy;
        EXPECT_EQ(find(one, 0, fuzzy, {}, &region), (Points{})) << fuzzy;
    }
    EXPECT_EQ(find(one, 0, 0.5f, {}, &region), (Points{{50, 60}}));
}

TEST_F(GraphicImageTest, IgnoredColoursNeverCountAsMismatches) {
    const uint32_t ignoredColour = 0x00FF00;
    // A frame of the ignored colour around the cut: whatever the screen shows there is skipped.
    const auto framed = [&](uint32_t tx, uint32_t ty, uint32_t& rgb) {
        if (tx == 0 || ty == 0 || tx == 5 || ty == 5) rgb = ignoredColour;
    };
    const std::string path = cutTemplate("framed.bmp", 200, 300, 6, 6, framed);
    const region_t region{190, 290, 30, 30};
    EXPECT_EQ(find(path, 0, 1.0f, {}, &region), (Points{}));
    EXPECT_EQ(find(path, 0, 1.0f, {static_cast<int32_t>(ignoredColour)}, &region), (Points{{200, 300}}));

    // As the script function builds the list: its first slot holds no colour, the colours follow.
    const int32_t noColour = static_cast<int32_t>(0xFF000000u);
    EXPECT_EQ(find(path, 0, 1.0f, {noColour, static_cast<int32_t>(ignoredColour)}, &region), (Points{{200, 300}}));
    // Only `count` slots are looked at.
    std::vector<location_t> results;
    const int32_t list[] = {0x123456, static_cast<int32_t>(ignoredColour)};
    ASSERT_EQ(find_image(results, path.c_str(), 0, 1.0f, list, 1, &region), 1);
    EXPECT_TRUE(results.empty());
    ASSERT_EQ(find_image(results, path.c_str(), 0, 1.0f, list + 1, 1, &region), 1);
    EXPECT_EQ(pointsOf(results), (Points{{200, 300}}));
    ASSERT_EQ(find_image(results, path.c_str(), 0, 1.0f, list, 0, &region), 1);
    EXPECT_TRUE(results.empty());

    // A slot that is no colour ignores nothing: a white template pixel still counts.
    const std::string white = cutTemplate("white.bmp", 200, 300, 2, 2, [](uint32_t tx, uint32_t, uint32_t& rgb) {
        if (tx == 0) rgb = 0xFFFFFF;
    });
    EXPECT_EQ(find(white, 0, 1.0f, {-1}, &region), (Points{}));
    EXPECT_EQ(find(white, 0, 1.0f, {-1, 0xFFFFFF}, &region), (Points{{200, 300}}));
}

TEST_F(GraphicImageTest, ARegionExactlyAsWideAsTheTemplateHasNoPosition) {
    const std::string path = cutTemplate("cut.bmp", 100, 200, 3, 3);
    int status = -1;
    const region_t exact{100, 200, 3, 3};
    EXPECT_EQ(find(path, 0, 1.0f, {}, &exact, &status), (Points{}));
    EXPECT_EQ(status, 1);
    const region_t oneMore{100, 200, 4, 4};
    EXPECT_EQ(find(path, 0, 1.0f, {}, &oneMore, &status), (Points{{100, 200}}));
    const region_t narrower{100, 200, 2, 3};
    EXPECT_EQ(find(path, 0, 1.0f, {}, &narrower, &status), (Points{}));
    EXPECT_EQ(status, 0);
    const region_t shorter{100, 200, 3, 2.5};
    find(path, 0, 1.0f, {}, &shorter, &status);
    EXPECT_EQ(status, 0);
    // The whole screen never puts the template on its last column or row.
    const std::string corner = cutTemplate("corner.bmp", 637, 957, 3, 3);
    EXPECT_EQ(find(corner, 0, 1.0f, {}, nullptr, &status), (Points{}));
    EXPECT_EQ(status, 1);
    const std::string nearCorner = cutTemplate("near.bmp", 636, 956, 3, 3);
    EXPECT_EQ(find(nearCorner, 0, 1.0f, {}, nullptr), (Points{{636, 956}}));
}

TEST_F(GraphicImageTest, LimitsAndOverlappingMatchesInScanOrder) {
    for (uint32_t y = 10; y < 16; ++y)
        for (uint32_t x = 10; x < 17; ++x) display->setPixel(x, y, 0x5A5A5A);
    const std::string path = cutTemplate("flat.bmp", 10, 10, 2, 2);
    const region_t region{10, 10, 5, 4};  // positions x 10..12, y 10..11
    const Points all{{10, 10}, {11, 10}, {12, 10}, {10, 11}, {11, 11}, {12, 11}};
    EXPECT_EQ(find(path, 2, 1.0f, {}, &region), (Points{{10, 10}, {11, 10}}));
    EXPECT_EQ(find(path, 1, 1.0f, {}, &region), (Points{{10, 10}}));
    EXPECT_EQ(find(path, 4, 1.0f, {}, &region), (Points(all.begin(), all.begin() + 4)));
    EXPECT_EQ(find(path, 0, 1.0f, {}, &region), all);
    EXPECT_EQ(find(path, -2, 1.0f, {}, &region), all);
    EXPECT_EQ(find(path, 6, 1.0f, {}, &region), all);
}

TEST_F(GraphicImageTest, FractionalRegionsStartAtTheTruncatedOriginAndEndAtTheirFraction) {
    for (uint32_t y = 0; y < 30; ++y)
        for (uint32_t x = 0; x < 30; ++x) display->setPixel(x, y, 0x5A5A5A);
    const std::string path = cutTemplate("flat.bmp", 0, 0, 2, 2);
    // Search region {10.5, 10.5, 3, 2}: x from 10 while x < 13.5, y from 10 while y < 12.5.
    const region_t region{10.5, 10.5, 5, 4};
    Points expected;
    for (int y = 10; y <= 12; ++y)
        for (int x = 10; x <= 13; ++x) expected.emplace_back(x, y);
    EXPECT_EQ(find(path, 0, 1.0f, {}, &region), expected);
}

TEST_F(GraphicImageTest, NoCaptureOrARefusedRegionIsAFailedSearch) {
    const std::string path = cutTemplate("cut.bmp", 100, 200, 3, 3);
    int status = -1;
    display->rendering = false;
    EXPECT_EQ(find(path, 0, 1.0f, {}, nullptr, &status), (Points{}));
    EXPECT_EQ(status, 0);
    display->rendering = true;
    const region_t pastBottom{0, 960, 10, 10};
    find(path, 0, 1.0f, {}, &pastBottom, &status);
    EXPECT_EQ(status, 0);
}

TEST_F(GraphicImageTest, TemplatesWhoseHeadersDoNotFitTheirFileFailTheSearch) {
    // A valid 2 x 2 template of a screen spot, then the same bytes with lying headers.
    const std::string good = cutTemplate("good.bmp", 20, 30, 2, 2);
    const std::string bytes = test::readFile(good);
    ASSERT_EQ(bytes.size(), 70u);
    EXPECT_EQ(find(good, 0, 1.0f, {}, nullptr), (Points{{20, 30}}));

    struct Lie {
        const char* name;
        std::function<void(std::string&)> edit;
    };
    const std::vector<Lie> lies = {
        {"large.bmp",
         [](std::string& b) {
             put32(b, 18, 100);
             put32(b, 22, 100);
         }},
        {"onemore.bmp", [](std::string& b) { put32(b, 22, 3); }},
        {"negwidth.bmp", [](std::string& b) { put32(b, 18, static_cast<uint32_t>(-2)); }},
        {"negheight.bmp", [](std::string& b) { put32(b, 22, static_cast<uint32_t>(-2)); }},
        {"zerowidth.bmp", [](std::string& b) { put32(b, 18, 0); }},
        {"zeroheight.bmp", [](std::string& b) { put32(b, 22, 0); }},
        {"overflow.bmp",
         [](std::string& b) {
             put32(b, 18, 0x40000000);
             put32(b, 22, 0x40000000);
         }},
        {"offset.bmp", [](std::string& b) { put32(b, 10, 71); }},
        {"short.bmp", [](std::string& b) { b.resize(40); }},
        {"cut.bmp", [](std::string& b) { b.resize(69); }},
        {"empty.bmp", [](std::string& b) { b.clear(); }},
    };
    for (const auto& lie : lies) {
        std::string edited = bytes;
        lie.edit(edited);
        const std::string path = (folder.path() / lie.name).string();
        test::writeFile(path, edited);
        image_t image;
        EXPECT_EQ(read_bmp(path.c_str(), &image), 0) << lie.name;
        EXPECT_EQ(image.data, nullptr);
        EXPECT_EQ(image.kind, 0u);
        int status = -1;
        EXPECT_EQ(find(path, 0, 0.5f, {}, nullptr, &status), (Points{})) << lie.name;
        EXPECT_EQ(status, 0) << lie.name;
    }

    // What the reader does not look at: signature, header size, depth, compression, an offset
    // that is inside the file.
    std::string unusual = bytes;
    unusual[0] = 'X';
    put32(unusual, 10, 0);
    put32(unusual, 14, 12);
    unusual[28] = 24;
    put32(unusual, 30, 3);
    const std::string path = (folder.path() / "unusual.bmp").string();
    test::writeFile(path, unusual);
    EXPECT_EQ(find(path, 0, 1.0f, {}, nullptr), (Points{{20, 30}}));

    const std::string missing = (folder.path() / "missing.bmp").string();
    testing::internal::CaptureStderr();
    int status = -1;
    EXPECT_EQ(find(missing, 0, 1.0f, {}, nullptr, &status), (Points{}));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unable to open file " + missing + "\n");
    EXPECT_EQ(status, 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(find(folder.str(), 0, 1.0f, {}, nullptr, &status), (Points{}));
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(status, 0);
}

// An image of kind 2 in memory: `rows` given top row first, stored bottom row first.
image_t bottomUpImage(const std::vector<std::vector<uint32_t>>& rows) {
    const auto height = static_cast<uint32_t>(rows.size());
    const auto width = static_cast<uint32_t>(rows[0].size());
    std::shared_ptr<uint8_t[]> bytes(new uint8_t[static_cast<size_t>(width) * height * 4]);
    for (uint32_t ty = 0; ty < height; ++ty) {
        uint8_t* row = bytes.get() + static_cast<size_t>(height - 1 - ty) * width * 4;
        for (uint32_t tx = 0; tx < width; ++tx) {
            const uint32_t rgb = rows[ty][tx];
            row[tx * 4] = static_cast<uint8_t>(rgb);
            row[tx * 4 + 1] = static_cast<uint8_t>(rgb >> 8);
            row[tx * 4 + 2] = static_cast<uint8_t>(rgb >> 16);
            row[tx * 4 + 3] = 0x7F;
        }
    }
    image_t image;
    image.kind = kImageBottomRowFirst;
    image.data = bytes.get();
    image.buffer = std::move(bytes);
    image.width = width;
    image.height = height;
    image.bytesPerRow = width * 4;
    image.bytesPerPixel = 4;
    return image;
}

class GraphicImageFastScanTest : public ::testing::TestWithParam<ScanKernel> {
protected:
    void TearDown() override { select_scan_kernel(ScanKernel::Automatic); }
};

TEST_P(GraphicImageFastScanTest, MatchesTheLiteralScanOnRandomScreensAndTemplates) {
    select_scan_kernel(GetParam());
    std::mt19937 random(77031);
    auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
    const float fuzzies[] = {1.0f, 0.0f, 1.5f, 0.9f, 0.8f, 0.75f, 0.5f, 0.3f, 0.95f, 0.99f};
    int withResults = 0, limited = 0, fuzzyHits = 0;
    for (int trial = 0; trial < 500; ++trial) {
        const auto width = static_cast<uint32_t>(uniform(6, 70));
        const auto height = static_cast<uint32_t>(uniform(6, 30));
        const uint32_t stride = width * 4 + 4 * static_cast<uint32_t>(uniform(0, 2) == 0 ? uniform(1, 5) : 0);
        std::vector<uint32_t> palette;
        for (int c = uniform(2, 3); c > 0; --c) palette.push_back(random() & 0xFFFFFF);
        std::vector<uint8_t> pixels(static_cast<size_t>(stride) * height);
        for (auto& b : pixels) b = static_cast<uint8_t>(random());
        std::vector<std::vector<uint32_t>> colours(height, std::vector<uint32_t>(width));
        for (uint32_t y = 0; y < height; ++y) {
            for (uint32_t x = 0; x < width; ++x) {
                const uint32_t rgb = palette[random() % palette.size()];
                colours[y][x] = rgb;
                uint8_t* at = pixels.data() + y * stride + x * 4;
                at[0] = static_cast<uint8_t>(rgb);
                at[1] = static_cast<uint8_t>(rgb >> 8);
                at[2] = static_cast<uint8_t>(rgb >> 16);
            }
        }
        const image_t screen = reference::makeTopDownImage(pixels.data(), width, height, stride, stride + 64);

        // A template cut from the screen, a few pixels changed.
        const int tw = uniform(1, std::min<int>(12, static_cast<int>(width) - 1));
        const int th = uniform(1, std::min<int>(6, static_cast<int>(height) - 1));
        const int cx = uniform(0, static_cast<int>(width) - tw), cy = uniform(0, static_cast<int>(height) - th);
        std::vector<std::vector<uint32_t>> cut(th, std::vector<uint32_t>(tw));
        for (int ty = 0; ty < th; ++ty)
            for (int tx = 0; tx < tw; ++tx) cut[ty][tx] = colours[cy + ty][cx + tx];
        for (int changes = uniform(0, 3); changes > 0; --changes) {
            const int ty = uniform(0, th - 1), tx = uniform(0, tw - 1);
            const uint32_t rgb = palette[random() % palette.size()];
            cut[ty][tx] = uniform(0, 1) ? rgb : rgb ^ 0x10;
        }
        const image_t tmpl = bottomUpImage(cut);

        std::vector<int32_t> ignore;
        if (uniform(0, 2) == 0) {
            if (uniform(0, 1)) ignore.push_back(static_cast<int32_t>(0xFF000000u));
            ignore.push_back(static_cast<int32_t>(palette[random() % palette.size()]));
        }
        const float fuzzy = fuzzies[uniform(0, 9)];
        const int32_t limit = std::vector<int32_t>{-1, 0, 0, 1, 2, 5}[uniform(0, 5)];

        region_t clipped;
        clipped.x = uniform(0, static_cast<int>(width) / 3);
        clipped.y = uniform(0, static_cast<int>(height) / 3);
        if (uniform(0, 3) == 0) {
            clipped.x += 0.5;
            clipped.y += 0.25;
        }
        clipped.width = std::floor(width - clipped.x) - uniform(0, 1);
        clipped.height = std::floor(height - clipped.y) - uniform(0, 1);
        region_t search;
        if (!wash_region_for_find_image(clipped, tmpl, &search)) continue;

        std::vector<location_t> fast, literal;
        ASSERT_EQ(do_find_image(fast, screen, tmpl, search.x, search.y, search.width, search.height, limit, fuzzy,
                                ignore.data(), static_cast<int32_t>(ignore.size())),
                  1);
        ASSERT_EQ(reference::do_find_image(literal, screen, tmpl, search.x, search.y, search.width, search.height, limit,
                                           fuzzy, ignore.data(), static_cast<int32_t>(ignore.size())),
                  1);
        ASSERT_EQ(pointsOf(fast), pointsOf(literal)) << "trial " << trial;
        withResults += !literal.empty();
        limited += limit >= 1 && static_cast<int32_t>(literal.size()) == limit;
        fuzzyHits += fuzzy > 0 && fuzzy < 1 && !literal.empty();
    }
    EXPECT_GT(withResults, 150);
    EXPECT_GT(limited, 40);
    EXPECT_GT(fuzzyHits, 60);
}

TEST_P(GraphicImageFastScanTest, MatchesTheLiteralScanWithWideTemplatesOnAWholeScreen) {
    select_scan_kernel(GetParam());
    MemoryDisplay display(320, 200);
    display.fillRandom(5, {0x0A0A0A, 0x0B0B0B});
    const image_t screen = reference::makeTopDownImage(display.pixels(), 320, 200, display.bytesPerRow(), 4096);
    std::vector<std::vector<uint32_t>> cut(16, std::vector<uint32_t>(24));
    for (uint32_t ty = 0; ty < 16; ++ty)
        for (uint32_t tx = 0; tx < 24; ++tx) cut[ty][tx] = display.pixel(100 + tx, 50 + ty);
    const image_t tmpl = bottomUpImage(cut);
    for (const float fuzzy : {1.0f, 0.7f, 0.6f, 0.55f}) {
        std::vector<location_t> fast, literal;
        ASSERT_EQ(do_find_image(fast, screen, tmpl, 0, 0, 320 - 24, 200 - 16, 0, fuzzy, nullptr, 0), 1);
        ASSERT_EQ(reference::do_find_image(literal, screen, tmpl, 0, 0, 320 - 24, 200 - 16, 0, fuzzy, nullptr, 0), 1);
        EXPECT_FALSE(literal.empty());
        EXPECT_EQ(pointsOf(fast), pointsOf(literal)) << fuzzy;
    }
    // A screen image that is not top-down goes the one-position-at-a-time way, with the same results.
    image_t flipped = screen;
    flipped.kind = kImageBottomRowFirst;
    std::vector<location_t> fast, literal;
    ASSERT_EQ(do_find_image(fast, flipped, tmpl, 0, 0, 50, 50, 0, 0.6f, nullptr, 0), 1);
    ASSERT_EQ(reference::do_find_image(literal, flipped, tmpl, 0, 0, 50, 50, 0, 0.6f, nullptr, 0), 1);
    EXPECT_EQ(pointsOf(fast), pointsOf(literal));
}

INSTANTIATE_TEST_SUITE_P(Kernels, GraphicImageFastScanTest,
                         ::testing::Values(ScanKernel::Automatic, ScanKernel::Portable),
                         [](const auto& info) { return info.param == ScanKernel::Automatic ? "Automatic" : "Portable"; });

}  // namespace
}  // namespace tw
