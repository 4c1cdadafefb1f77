// Colour search: clipping regions to the screen, the search region of a pattern, scan order,
// limits, refusals, colours with high bits, fractional origins, and the fast scan against the
// literal one on random screens and patterns.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <utility>
#include <vector>

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

// A 320 x 480 points screen at scale 2: 640 x 960 pixels, all white unless a test paints it.
class GraphicColorsTest : public ::testing::Test {
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
        display->fill(0xFFFFFF);
        platform.display = display;
        Platform::install(platform);
        surface_info_t learnt;
        get_surface_info(&learnt);  // the probe's render happens here
    }
    void TearDown() override {
        Platform::install(Platform{});
        reset_surface_info();
    }

    // find_colors, returning the results as points (and the return value in `status`).
    Points find(const std::vector<color_point_t>& pattern, int32_t limit, const region_t* region, int* status = nullptr) {
        std::vector<location_t> results;
        const int ok = find_colors(results, pattern.data(), static_cast<int32_t>(pattern.size()), limit, region);
        if (status) *status = ok;
        return pointsOf(results);
    }

    std::shared_ptr<MemoryDisplay> display;
};

bool sameRegion(const region_t& a, const region_t& b) {
    return a.x == b.x && a.y == b.y && a.width == b.width && a.height == b.height;
}

TEST_F(GraphicColorsTest, ClippingCutsRegionsAtEveryEdge) {
    struct Case {
        region_t in, out;
    };
    const Case cases[] = {
        {{-20, 0, 30, 10}, {0, 0, 10, 10}},          // left
        {{0, -20, 10, 30}, {0, 0, 10, 10}},          // top
        {{639, 0, 5, 5}, {639, 0, 1, 5}},            // right: the last column only
        {{0, 959, 5, 5}, {0, 959, 5, 1}},            // bottom
        {{-10, -10, 2000, 3000}, {0, 0, 640, 960}},  // all four
        {{100.5, 200.25, 50, 60}, {100.5, 200.25, 50, 60}},
        {{-50, 0, 30, 10}, {0, 0, -20, 10}},  // wholly left: kept, with a negative width
        {{0, -40, 10, 40}, {0, 0, 10, 0}},    // wholly above: zero height
    };
    for (const auto& c : cases) {
        region_t out{};
        ASSERT_EQ(check_and_wash_region(&c.in, &out), 1) << c.in.x << "," << c.in.y;
        EXPECT_TRUE(sameRegion(out, c.out)) << out.x << "," << out.y << "," << out.width << "," << out.height;
    }
    region_t whole{};
    ASSERT_EQ(check_and_wash_region(nullptr, &whole), 1);
    EXPECT_TRUE(sameRegion(whole, {0, 0, 640, 960}));
}

TEST_F(GraphicColorsTest, ClippingRefusesEmptySizesAndOriginsPastTheScreen) {
    const region_t refused[] = {
        {0, 0, 0, 10},   {0, 0, -1, 10},    {0, 0, 10, 0},     {0, 0, 10, -0.5},
        {640, 0, 5, 5},  {639.5, 0, 5, 5},  {0, 960, 5, 5},    {0, 959.01, 5, 5},
        {700, 0, 0, 10},  // several reasons at once
        {-5, 2000, -1, -1},
    };
    for (const auto& r : refused) {
        region_t out{1, 2, 3, 4};
        EXPECT_EQ(check_and_wash_region(&r, &out), 0) << r.x << "," << r.y << "," << r.width << "," << r.height;
        EXPECT_TRUE(sameRegion(out, {1, 2, 3, 4}));
    }
}

TEST_F(GraphicColorsTest, SearchRegionKeepsEveryEntryInsideTheClippedRegion) {
    const color_point_t pair[] = {{0x111111, 10, 10}, {0x222222, 15, 10}};
    region_t search{};
    location_t span{};
    ASSERT_EQ(wash_region_for_find_colors({0, 0, 100, 100}, pair, 2, &search, &span), 1);
    EXPECT_EQ(span.x, 5);
    EXPECT_EQ(span.y, 0);
    EXPECT_TRUE(sameRegion(search, {-10, -10, 95, 100}));

    const color_point_t spread[] = {{1, 3, -2}, {2, -4, 6}, {3, 0, 0}};
    ASSERT_EQ(wash_region_for_find_colors({20, 30, 7, 8}, spread, 3, &search, &span), 1);
    EXPECT_EQ(span.x, 7);
    EXPECT_EQ(span.y, 8);
    EXPECT_TRUE(sameRegion(search, {24, 32, 0, 0}));  // exactly as wide and tall: kept
    EXPECT_EQ(wash_region_for_find_colors({20, 30, 6.5, 8}, spread, 3, &search, &span), 0);
    EXPECT_EQ(wash_region_for_find_colors({20, 30, 7, 7.9}, spread, 3, &search, &span), 0);
}

TEST_F(GraphicColorsTest, ResultsComeRowByRowFromTheTop) {
    display->setPixel(5, 7, 0xFF0000);
    display->setPixel(2, 9, 0xFF0000);
    display->setPixel(600, 7, 0xFF0000);
    display->setPixel(0, 959, 0xFF0000);
    EXPECT_EQ(find({{0xFF0000, 0, 0}}, 0, nullptr), (Points{{5, 7}, {600, 7}, {2, 9}, {0, 959}}));
}

TEST_F(GraphicColorsTest, ResultIsTheTranslationOfThePatternsFrame) {
    display->setPixel(40, 50, 0x0000C1);
    display->setPixel(45, 50, 0x0000C2);
    display->setPixel(70, 50, 0x0000C1);  // without its partner
    const region_t region{0, 0, 100, 100};
    EXPECT_EQ(find({{0x0000C1, 10, 10}, {0x0000C2, 15, 10}}, 0, &region), (Points{{30, 40}}));
    // In screen coordinates an unmoved pattern yields (0, 0).
    EXPECT_EQ(find({{0x0000C1, 40, 50}, {0x0000C2, 45, 50}}, 0, nullptr), (Points{{0, 0}}));
}

TEST_F(GraphicColorsTest, LimitsStopTheScanOrLeaveItWhole) {
    for (uint32_t i = 0; i < 5; ++i) display->setPixel(100 + i * 3, 10 + i, 0x00AA00);
    const Points all{{100, 10}, {103, 11}, {106, 12}, {109, 13}, {112, 14}};
    EXPECT_EQ(find({{0x00AA00, 0, 0}}, 1, nullptr), (Points{{100, 10}}));
    EXPECT_EQ(find({{0x00AA00, 0, 0}}, 2, nullptr), (Points{{100, 10}, {103, 11}}));
    EXPECT_EQ(find({{0x00AA00, 0, 0}}, 5, nullptr), all);
    EXPECT_EQ(find({{0x00AA00, 0, 0}}, 9, nullptr), all);
    EXPECT_EQ(find({{0x00AA00, 0, 0}}, 0, nullptr), all);
    EXPECT_EQ(find({{0x00AA00, 0, 0}}, -3, nullptr), all);
}

TEST_F(GraphicColorsTest, SearchesStayInsideTheirClippedRegion) {
    const uint32_t marks[][2] = {{0, 0}, {9, 9}, {10, 0}, {639, 3}, {630, 3}, {0, 959}, {5, 950}, {639, 959}};
    for (const auto& m : marks) display->setPixel(m[0], m[1], 0x123456);
    const color_point_t one{0x123456, 0, 0};

    const region_t left{-20, 0, 30, 10};
    EXPECT_EQ(find({one}, 0, &left), (Points{{0, 0}, {9, 9}}));
    const region_t right{631, 0, 100, 10};
    EXPECT_EQ(find({one}, 0, &right), (Points{{639, 3}}));
    const region_t bottom{0, 955, 10, 100};
    EXPECT_EQ(find({one}, 0, &bottom), (Points{{0, 959}}));
    const region_t top{5, -100, 10, 104};
    EXPECT_EQ(find({one}, 0, &top), (Points{{10, 0}}));

    // A two-entry pattern whose right entry reaches the last column, and one that would need a
    // column past it.
    display->setPixel(634, 400, 0xABCDEF);
    display->setPixel(639, 400, 0xFEDCBA);
    EXPECT_EQ(find({{0xABCDEF, 0, 0}, {0xFEDCBA, 5, 0}}, 0, nullptr), (Points{{634, 400}}));
    EXPECT_EQ(find({{0xFEDCBA, 0, 0}, {0xABCDEF, 1, 0}}, 0, nullptr), (Points{}));

    // A region that ends at the screen's left edge clips to width 0: a search without
    // positions. One that ends further left clips to a negative width, which no pattern fits.
    int status = -1;
    const region_t toLeftEdge{-30, 0, 30, 10};
    EXPECT_EQ(find({one}, 0, &toLeftEdge, &status), (Points{}));
    EXPECT_EQ(status, 1);
    const region_t offLeft{-50, 0, 30, 10};
    EXPECT_EQ(find({one}, 0, &offLeft, &status), (Points{}));
    EXPECT_EQ(status, 0);
}

TEST_F(GraphicColorsTest, RefusedRegionsAndPatternsThatDoNotFitCaptureNothing) {
    display->setPixel(3, 3, 0x0000FF);
    const int rendersBefore = display->renders;
    int status = -1;

    const region_t pastRight{640, 0, 5, 5};
    EXPECT_EQ(find({{0x0000FF, 0, 0}}, 0, &pastRight, &status), (Points{}));
    EXPECT_EQ(status, 0);
    const region_t noWidth{0, 0, 0, 5};
    find({{0x0000FF, 0, 0}}, 0, &noWidth, &status);
    EXPECT_EQ(status, 0);

    // Wider, then taller than the region.
    const region_t small{0, 0, 10, 10};
    find({{0x0000FF, 0, 0}, {0x0000FF, 11, 0}}, 0, &small, &status);
    EXPECT_EQ(status, 0);
    find({{0x0000FF, 0, -6}, {0x0000FF, 0, 5}}, 0, &small, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(display->renders, rendersBefore);

    // A pattern spanning the region's width less one has one column of positions; spanning the
    // whole width it fits, but no position is left.
    const region_t four{0, 0, 4, 10};
    display->setPixel(3, 4, 0x0000FE);
    EXPECT_EQ(find({{0x0000FF, 0, 0}, {0x0000FE, 0, 1}}, 0, &four, &status), (Points{{3, 3}}));
    EXPECT_EQ(find({{0x0000FF, 3, 0}, {0x0000FE, 3, 1}}, 0, &four, &status), (Points{{0, 3}}));
    EXPECT_EQ(status, 1);
    EXPECT_EQ(find({{0x0000FF, 3, 0}, {0x0000FE, 0, 1}}, 0, &four, &status), (Points{}));
    EXPECT_EQ(status, 1);
    display->setPixel(0, 3, 0x0000FF);
    display->setPixel(3, 4, 0x0000FE);
    EXPECT_EQ(find({{0x0000FF, 0, 0}, {0x0000FE, 3, 1}}, 0, &four, &status), (Points{{0, 3}}));
    EXPECT_EQ(find({{0x0000FF, 0, 0}, {0x0000FE, 4, 1}}, 0, &four, &status), (Points{}));
    EXPECT_EQ(status, 1);
}

TEST_F(GraphicColorsTest, NoCaptureIsASearchWithoutResults) {
    display->rendering = false;
    int status = -1;
    EXPECT_EQ(find({{0xFFFFFF, 0, 0}}, 0, nullptr, &status), (Points{}));
    EXPECT_EQ(status, 1);
}

TEST_F(GraphicColorsTest, ColoursWithHighBitsNeverMatch) {
    display->setPixel(7, 8, 0x00FF00, 0xFF);
    EXPECT_EQ(find({{0x00FF00, 0, 0}}, 0, nullptr), (Points{{7, 8}}));
    EXPECT_EQ(find({{static_cast<int32_t>(0xFF00FF00u), 0, 0}}, 0, nullptr), (Points{}));
    EXPECT_EQ(find({{0x0100FF00, 0, 0}}, 0, nullptr), (Points{}));
    EXPECT_EQ(find({{0xFFFFFF, 0, 0}, {static_cast<int32_t>(0x80FFFFFFu), 1, 0}}, 1, nullptr), (Points{}));
}

TEST_F(GraphicColorsTest, FractionalOriginsKeepTheirFractionAndReadAcrossPixels) {
    // Every byte of the first rows 0x44: whatever the offset, a read gives 0x444444. (A
    // quarter row down is 160 pixels along.)
    for (uint32_t y = 0; y < 10; ++y)
        for (uint32_t x = 0; x < 640; ++x) display->setPixel(x, y, 0x444444, 0x44);
    const region_t region{2.5, 3.25, 3, 2};
    EXPECT_EQ(find({{0x444444, 0, 0}}, 0, &region),
              (Points{{2.5, 3.25}, {3.5, 3.25}, {4.5, 3.25}, {2.5, 4.25}, {3.5, 4.25}, {4.5, 4.25}}));

    // x = 0.5 reads the red and alpha bytes of pixel 0 and the blue and green of pixel 1.
    display->setPixel(0, 20, 0x030201, 0x04);
    display->setPixel(1, 20, 0x070605, 0x08);
    const region_t half{0.5, 20, 1, 1};
    EXPECT_EQ(find({{0x050403, 0, 0}}, 0, &half), (Points{{0.5, 20}}));
    EXPECT_EQ(find({{0x030201, 0, 0}}, 0, &half), (Points{}));
}

// The scans on random screens: a few colours so that patterns match often, patterns taken from
// the screen (so most have matches), some coordinates fractional, all limits.
class GraphicColorsFastScanTest : public ::testing::TestWithParam<ScanKernel> {
protected:
    void TearDown() override { select_scan_kernel(ScanKernel::Automatic); }
};

TEST_P(GraphicColorsFastScanTest, MatchesTheLiteralScanOnRandomScreens) {
    select_scan_kernel(GetParam());
    std::mt19937 random(20240611);
    auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
    int withResults = 0, limited = 0;
    for (int trial = 0; trial < 600; ++trial) {
        const auto width = static_cast<uint32_t>(uniform(4, 90));
        const auto height = static_cast<uint32_t>(uniform(4, 40));
        const uint32_t stride = width * 4 + 4 * static_cast<uint32_t>(uniform(0, 3) == 0 ? uniform(1, 9) : 0);
        std::vector<uint32_t> palette;
        for (int c = uniform(1, 4); c > 0; --c) palette.push_back(random() & 0xFFFFFF);
        std::vector<uint8_t> pixels(static_cast<size_t>(stride) * height);
        for (auto& b : pixels) b = static_cast<uint8_t>(random());
        for (uint32_t y = 0; y < height; ++y) {
            for (uint32_t x = 0; x < width; ++x) {
                const uint32_t rgb = palette[random() % palette.size()];
                uint8_t* at = pixels.data() + y * stride + x * 4;
                at[0] = static_cast<uint8_t>(rgb);
                at[1] = static_cast<uint8_t>(rgb >> 8);
                at[2] = static_cast<uint8_t>(rgb >> 16);
            }
        }
        const image_t screen = reference::makeTopDownImage(pixels.data(), width, height, stride, stride + 64);

        const bool fractional = uniform(0, 4) == 0;
        const int n = uniform(1, 5);
        const int anchorX = uniform(0, static_cast<int>(width) - 1), anchorY = uniform(0, static_cast<int>(height) - 1);
        std::vector<color_point_t> pattern;
        for (int i = 0; i < n; ++i) {
            const int dx = uniform(-3, 3), dy = uniform(-3, 3);
            const int px = std::clamp(anchorX + dx, 0, static_cast<int>(width) - 1);
            const int py = std::clamp(anchorY + dy, 0, static_cast<int>(height) - 1);
            auto color = static_cast<int32_t>(color_at_location(screen, px, py));
            if (uniform(0, 40) == 0) color = static_cast<int32_t>(static_cast<uint32_t>(color) | 0x01000000u);
            const double shift = fractional && uniform(0, 1) ? 0.5 : 0;
            pattern.push_back({color, static_cast<double>(px - anchorX) + 7 + shift, static_cast<double>(py - anchorY) - 2});
        }

        region_t clipped;
        clipped.x = uniform(0, static_cast<int>(width) / 2);
        clipped.y = uniform(0, static_cast<int>(height) / 2);
        if (fractional) {
            clipped.x += uniform(0, 3) * 0.25;
            clipped.y += uniform(0, 1) * 0.75;
        }
        clipped.width = std::floor(width - clipped.x) - uniform(0, 2);
        clipped.height = std::floor(height - clipped.y) - uniform(0, 2);
        region_t search;
        if (!wash_region_for_find_colors(clipped, pattern.data(), n, &search, nullptr)) continue;
        const int32_t limit = std::vector<int32_t>{-1, 0, 0, 1, 2, 3, 7}[uniform(0, 6)];

        std::vector<location_t> fast, literal;
        ASSERT_EQ(do_find_colors(fast, screen, pattern.data(), n, search, limit), 1);
        ASSERT_EQ(reference::find_colors_scan(literal, screen, pattern.data(), n, search, limit), 1);
        ASSERT_EQ(pointsOf(fast), pointsOf(literal)) << "trial " << trial;
        withResults += !literal.empty();
        limited += limit >= 1 && static_cast<int32_t>(literal.size()) == limit;
    }
    // The random cases really exercise matches and limits.
    EXPECT_GT(withResults, 200);
    EXPECT_GT(limited, 50);
}

TEST_P(GraphicColorsFastScanTest, MatchesTheLiteralScanOnAWholeScreen) {
    select_scan_kernel(GetParam());
    MemoryDisplay display(640, 960);
    display.fillRandom(99, {0x101010, 0x202020, 0x303030});
    const image_t screen = reference::makeTopDownImage(display.pixels(), 640, 960, display.bytesPerRow(), 4096);
    const std::vector<color_point_t> pattern = {
        {0x202020, 0, 0}, {0x101010, 1, 0}, {0x303030, 0, 1}, {0x202020, -2, 3}, {0x101010, 4, -1}};
    region_t search;
    ASSERT_EQ(wash_region_for_find_colors({0, 0, 640, 960}, pattern.data(), 5, &search, nullptr), 1);
    std::vector<location_t> fast, literal;
    ASSERT_EQ(do_find_colors(fast, screen, pattern.data(), 5, search, 0), 1);
    ASSERT_EQ(reference::find_colors_scan(literal, screen, pattern.data(), 5, search, 0), 1);
    EXPECT_GT(literal.size(), 500u);
    EXPECT_EQ(pointsOf(fast), pointsOf(literal));
}

INSTANTIATE_TEST_SUITE_P(Kernels, GraphicColorsFastScanTest,
                         ::testing::Values(ScanKernel::Automatic, ScanKernel::Portable),
                         [](const auto& info) { return info.param == ScanKernel::Automatic ? "Automatic" : "Portable"; });

}  // namespace
}  // namespace tw
