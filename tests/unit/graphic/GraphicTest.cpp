// Colour-pattern and picture searches: clipped and washed regions, allowances, ignored colours,
// and the fast scans against the literal ones on random screens, with either kernel.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "ReferenceScans.h"
#include "TestSupport.h"

namespace tw {
namespace {

using reference::Rows;
using Points = std::vector<std::pair<double, double>>;

Points pointsOf(const std::vector<location_t>& locations) {
    Points points;
    for (const auto& l : locations) points.emplace_back(l.x, l.y);
    return points;
}

TEST(GraphicTest, PatternsAreSearchedWhereEveryEntryLiesInsideTheRegion) {
    const color_point_t spread[] = {{1, 3, -2}, {3, 0, 0}, {2, -4, 6}};  // 7 wide, 8 tall
    region_t search{};
    location_t span{};
    ASSERT_EQ(wash_region_for_find_colors({20, 30, 7, 8}, spread, 3, &search, &span), 1);
    EXPECT_EQ(std::vector<double>({search.x, search.y, search.width, search.height, span.x, span.y}),
              std::vector<double>({24, 32, 0, 0, 7, 8}));
    EXPECT_EQ(wash_region_for_find_colors({20, 30, 6.5, 8}, spread, 3, &search, &span), 0);
    EXPECT_EQ(wash_region_for_find_colors({20, 30, 7, 7.9}, spread, 3, &search, &span), 0);
}

TEST(GraphicTest, IgnoredTemplateColoursNeverCountAsMismatches) {
    reference::InstalledScreen screen(320, 480, 2);
    test::TempDir folder("tw-graphic");
    const std::string path = (folder.path() / "framed.bmp").string();
    Rows framed = reference::cut(*screen.display, 200, 300, 6, 6);
    for (int i = 0; i < 6; ++i) framed[0][i] = framed[5][i] = framed[i][0] = framed[i][5] = 0xFFFFFF;
    ASSERT_TRUE(reference::saveBmp(path, framed));
    const auto find = [&](const std::vector<int32_t>& ignore) {
        const region_t region{190, 290, 30, 30};
        std::vector<location_t> results;
        find_image(results, path.c_str(), 0, 1, ignore.data(), static_cast<int32_t>(ignore.size()), &region);
        return pointsOf(results);
    };
    EXPECT_EQ(find({}), Points{});
    EXPECT_EQ(find({0xFFFFFF}), (Points{{200, 300}}));
    // As the script function lays the list out: a first slot that is no colour ignores nothing.
    EXPECT_EQ(find({-1, 0xFFFFFF}), (Points{{200, 300}}));
    EXPECT_EQ(find({-1}), Points{});
}

}  // namespace

void PrintTo(ScanKernel kernel, std::ostream* out) { *out << (kernel == ScanKernel::Automatic ? "automatic" : "portable"); }

namespace {

class GraphicScanTest : public ::testing::TestWithParam<ScanKernel> {
protected:
    void SetUp() override { select_scan_kernel(GetParam()); }
    void TearDown() override { select_scan_kernel(ScanKernel::Automatic); }
    int uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); }
    // A region inside the screen, sometimes at a fractional origin.
    region_t region(int width, int height) {
        region_t r{static_cast<double>(uniform(0, width / 3)), static_cast<double>(uniform(0, height / 3)), 0, 0};
        if (uniform(0, 3) == 0) r.x += 0.25 * uniform(1, 3), r.y += 0.75;
        return {r.x, r.y, std::floor(width - r.x) - uniform(0, 2), std::floor(height - r.y) - uniform(0, 2)};
    }
    int32_t limit() { return std::vector<int32_t>{-1, 0, 0, 1, 2, 3, 7}[uniform(0, 6)]; }
    std::mt19937 random{20240611};
};

TEST_P(GraphicScanTest, FastScansMatchTheLiteralOnesOnRandomScreens) {
    const float fuzzies[] = {1.0f, 0.0f, 1.5f, 0.9f, 0.8f, 0.75f, 0.6f, 0.5f, 0.3f, 0.95f, 0.99f};
    int colourMatches = 0, pictureMatches = 0;
    for (int trial = 0; trial < 600; ++trial) {
        SCOPED_TRACE(trial);
        // A screen of a few colours, so that searches match often, its rows at times padded.
        const int width = uniform(6, 90), height = uniform(6, 40);
        std::vector<uint32_t> palette;
        for (int c = uniform(2, 4); c > 0; --c) palette.push_back(random() & 0xFFFFFF);
        const auto stride = static_cast<uint32_t>(width * 4 + (uniform(0, 2) == 0 ? 4 * uniform(1, 9) : 0));
        image_t shot = reference::randomScreen(random, width, height, stride, palette);

        // A pattern taken from around a point of the screen, at times with fractional offsets.
        const int x = uniform(0, width - 1), y = uniform(0, height - 1);
        const double shift = uniform(0, 4) == 0 ? 0.5 : 0;
        std::vector<color_point_t> pattern;
        for (int i = uniform(1, 5); i > 0; --i) {
            const int px = std::clamp(x + uniform(-3, 3), 0, width - 1), py = std::clamp(y + uniform(-3, 3), 0, height - 1);
            const uint32_t color = color_at_location(shot, px, py) | (uniform(0, 40) == 0 ? 0x01000000u : 0);
            pattern.push_back({static_cast<int32_t>(color), px - x + 7 + (i % 2) * shift, py - y - 2.0});
        }
        region_t s;
        std::vector<location_t> fast, literal;
        const auto n = static_cast<int32_t>(pattern.size());
        if (wash_region_for_find_colors(region(width, height), pattern.data(), n, &s, nullptr)) {
            const int32_t max = limit();
            ASSERT_EQ(do_find_colors(fast, shot, pattern.data(), n, s, max), 1);
            reference::find_colors_scan(literal, shot, pattern.data(), n, s, max);
            ASSERT_EQ(pointsOf(fast), pointsOf(literal));
            colourMatches += !literal.empty();
        }

        // A template cut from the screen, a few pixels changed.
        const int tw = uniform(1, std::min(24, width - 1)), th = uniform(1, std::min(16, height - 1));
        const int cx = uniform(0, width - tw), cy = uniform(0, height - th);
        Rows cut = reference::cut(shot, cx, cy, tw, th);
        for (int changes = uniform(0, 3); changes > 0; --changes)
            cut[uniform(0, th - 1)][uniform(0, tw - 1)] = palette[random() % palette.size()] ^ (uniform(0, 1) ? 0x10 : 0);
        const image_t tmpl = reference::bottomUpImage(cut);
        std::vector<int32_t> ignore;
        if (uniform(0, 2) == 0) ignore = {-1, static_cast<int32_t>(palette[random() % palette.size()])};
        if (uniform(0, 9) == 0) shot.kind = kImageBottomRowFirst;  // an unusual screen: the slow way
        const float fuzzy = fuzzies[uniform(0, 10)];
        const int32_t max = limit(), count = static_cast<int32_t>(ignore.size());
        if (!wash_region_for_find_image(region(width, height), tmpl, &s)) continue;
        ASSERT_EQ(do_find_image(fast, shot, tmpl, s.x, s.y, s.width, s.height, max, fuzzy, ignore.data(), count), 1);
        reference::do_find_image(literal, shot, tmpl, s.x, s.y, s.width, s.height, max, fuzzy, ignore.data(), count);
        ASSERT_EQ(pointsOf(fast), pointsOf(literal));
        pictureMatches += !literal.empty();
    }
    // The random cases do match.
    EXPECT_GT(colourMatches, 200);
    EXPECT_GT(pictureMatches, 200);
}

INSTANTIATE_TEST_SUITE_P(Kernels, GraphicScanTest, ::testing::Values(ScanKernel::Automatic, ScanKernel::Portable),
                         [](const auto& info) { return info.param == ScanKernel::Automatic ? "Automatic" : "Portable"; });

}  // namespace
}  // namespace tw
