// The screen functions through `tapwright play --screen`: colours, colour patterns, a template
// cut from the screen by screenshot(), and a refused region, checked from what the script prints.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <filesystem>

#include "TestSupport.h"

namespace tw {
namespace {

namespace fs = std::filesystem;

// A 24-bit BMP of 100 x 100 whose pixel (x, y) is red 2x, green 3y mod 256, blue x + y mod 256.
std::string pictureBmp() {
    const uint32_t w = 100, h = 100, stride = 300;
    std::string f(54 + stride * h, '\0');
    auto put32 = [&](size_t at, uint32_t v) { std::memcpy(&f[at], &v, 4); };
    f[0] = 'B';
    f[1] = 'M';
    put32(2, static_cast<uint32_t>(f.size()));
    put32(10, 54);
    put32(14, 40);
    put32(18, w);
    put32(22, h);
    f[26] = 1;
    f[28] = 24;
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) {
            char* p = &f[54 + (h - 1 - y) * stride + x * 3];
            p[0] = static_cast<char>((x + y) % 256);
            p[1] = static_cast<char>(3 * y % 256);
            p[2] = static_cast<char>(2 * x % 256);
        }
    return f;
}

TEST(CliScreen, ScriptsReadAndSearchThePictureOnTheDisplay) {
    test::TempDir root("tw-screen-root");
    test::TempDir work("tw-screen");
    test::writeFile(work.path() / "screen.bmp", pictureBmp());
    test::writeFile(work.path() / "screen.lua", R"(
local c = getColors({{0, 0}, {5, 3}, {749, 1333}})
print(string.format("%06X %06X %06X", c[1], c[2], c[3]))
local r = findColors({{0x0A0908, 0, 0}, {0x0C0909, 1, 0}}, 0, nil)
print(#r, r[1][1], r[1][2])
screenshot("tmpl.bmp", {20, 30, 8, 8})
local m = findImage("tmpl.bmp", 2, 1, {}, nil)
print(#m, m[1][1], m[1][2])
local refused = findColors({{0x123456, 0, 0}}, 0, {10, 10, 0, 5})
print(type(refused), #refused, refused[3])
local w, h = getScreenSize()
print(w, h, getScreenScale(), getScreenBitDepth())
)");
    auto r = test::runProcess({TW_BINARY, "play", (work.path() / "screen.lua").string(), "--root", root.str(),
                               "--screen", (work.path() / "screen.bmp").string()},
                              {}, 60);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out,
              "000000 0A0908 000000\n"
              "1\t5\t3\n"
              "1\t20\t30\n"
              "table\t4\t0\n"
              "375\t667\t2\t32\n");
    EXPECT_TRUE(fs::exists(root.path() / "var/mobile/Library/Tapwright/Scripts/tmpl.bmp"));
}

TEST(CliScreen, ScreenSetPaintsARunningDeviceAndScreenshotsReadItBack) {
    test::TempDir root("tw-screen-root");
    test::TempDir work("tw-screen");
    test::writeFile(work.path() / "screen.bmp", pictureBmp());
    test::BackgroundProcess device({TW_BINARY, "device", "--root", root.str()});
    ASSERT_TRUE(test::eventually([&] { return device.err().find("ready") != std::string::npos; }, 10000)) << device.err();
    auto set = test::runProcess({TW_BINARY, "screen", "set", (work.path() / "screen.bmp").string(), "--root", root.str()});
    ASSERT_EQ(set.exitCode, 0) << set.err;
    test::writeFile(work.path() / "probe.lua", "local c = getColors({{99, 99}}) print(string.format('%06X', c[1]))");
    auto r = test::runProcess({TW_BINARY, "play", (work.path() / "probe.lua").string(), "--root", root.str()});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "C629C6\n");  // red 198, green 297 mod 256 = 41, blue 198
    // The command line's screenshot is the script function's: a 32-bit BMP of the whole screen.
    const std::string shot = (work.path() / "shot.bmp").string();
    auto saved = test::runProcess({TW_BINARY, "screenshot", shot, "--root", root.str()});
    ASSERT_EQ(saved.exitCode, 0) << saved.err;
    const std::string bmp = test::readFile(shot);
    ASSERT_EQ(bmp.size(), 54u + 750u * 1334u * 4u);
    // Bottom row first: (99, 99) is in stored row 1334 - 1 - 99.
    const size_t at = 54 + (1334 - 1 - 99) * 750 * 4 + 99 * 4;
    EXPECT_EQ(static_cast<uint8_t>(bmp[at]), 0xC6);
    EXPECT_EQ(static_cast<uint8_t>(bmp[at + 1]), 0x29);
    EXPECT_EQ(static_cast<uint8_t>(bmp[at + 2]), 0xC6);
    auto bad = test::runProcess({TW_BINARY, "screen", "set", (work.path() / "probe.lua").string(), "--root", root.str()});
    EXPECT_NE(bad.exitCode, 0);
    EXPECT_NE(bad.err.find("neither a BMP nor a PNG"), std::string::npos) << bad.err;
    EXPECT_EQ(device.stop(SIGINT), 0);
}

}  // namespace
}  // namespace tw
