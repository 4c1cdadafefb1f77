// A picture shown with `tapwright screen set` is what `tapwright screenshot` saves and what a
// script's getColors and findColors see.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>

#include "Cli.h"
#include "graphic/Bmp.h"

namespace tw {
namespace {

TEST(Screen, AShownPictureIsWhatScreenshotsSaveAndScriptsSee) {
    test::Cli cli;
    ASSERT_TRUE(cli.startDevice()) << cli.device().err();
    // 100 x 100 pixels, (x, y) of red 2x, green 3y and blue x + y; rows bottom first, BGRA.
    std::vector<uint8_t> pixels(100 * 100 * 4);
    for (int y = 0; y < 100; ++y)
        for (int x = 0; x < 100; ++x) {
            uint8_t* p = &pixels[((99 - y) * 100 + x) * 4];
            p[0] = static_cast<uint8_t>(x + y);
            p[1] = static_cast<uint8_t>(3 * y);
            p[2] = static_cast<uint8_t>(2 * x);
            p[3] = 255;
        }
    const std::string picture = cli.file("picture.bmp").string();
    ASSERT_EQ(save_bmp(picture.c_str(), pixels.data(), 100, 100), 0);
    const auto set = cli.run({"screen", "set", picture});
    ASSERT_EQ(set.exitCode, 0) << set.err;

    const std::string shot = cli.file("shot.bmp").string();
    const auto saved = cli.run({"screenshot", shot});
    ASSERT_EQ(saved.exitCode, 0) << saved.err;
    const std::string bmp = test::readFile(shot);
    ASSERT_EQ(bmp.size(), 54u + 750u * 1334u * 4u);
    // As RRGGBB; rows are stored bottom first, and the screen is black beyond the picture.
    auto colorAt = [&](size_t x, size_t y) {
        const auto* p = reinterpret_cast<const uint8_t*>(&bmp[54 + ((1333 - y) * 750 + x) * 4]);
        char text[8];
        std::snprintf(text, sizeof text, "%02X%02X%02X", p[2], p[1], p[0]);
        return std::string(text);
    };
    EXPECT_EQ(colorAt(0, 0), "000000");
    EXPECT_EQ(colorAt(5, 3), "0A0908");
    EXPECT_EQ(colorAt(99, 99), "C629C6");  // green 297 wraps to 41
    EXPECT_EQ(colorAt(100, 0), "000000");

    const auto r = cli.play("local c = getColors({{5, 3}, {99, 99}, {100, 0}})\n"
                            "print(string.format('%06X %06X %06X', c[1], c[2], c[3]))\n"
                            "local found = findColors({{0x0A0908, 0, 0}, {0x0C0909, 1, 0}}, 0, nil)\n"
                            "print(#found, found[1][1], found[1][2])\n");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "0A0908 C629C6 000000\n1\t5\t3\n");

    // Without a file, the home screen takes it as its screenshot button does: a click, then a
    // whole screen in the library named by the time.
    const auto taken = cli.run({"screenshot"});
    ASSERT_EQ(taken.exitCode, 0) << taken.err;
    EXPECT_TRUE(test::eventually([&] {
        for (const auto& l : cli.traceLines("sound")) if (l.value("systemSound", 0) == 1108) return true;
        return false;
    }));
    std::vector<std::string> named;
    for (const auto& f : std::filesystem::directory_iterator(cli.root() / "var/mobile/Library/Tapwright/Scripts"))
        if (std::regex_match(f.path().filename().string(), std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.bmp)")) &&
            f.file_size() == bmp.size())
            named.push_back(f.path().filename());
    EXPECT_EQ(named.size(), 1u) << taken.out;
}

}  // namespace
}  // namespace tw
