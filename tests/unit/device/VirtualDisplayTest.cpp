#include <gmock/gmock.h>

#include <cstring>

#include "TestSupport.h"
#include "device/ImageFile.h"
#include "device/VirtualDisplay.h"

namespace tw::device {
namespace {

void put32(std::string& bytes, size_t at, uint32_t value) { std::memcpy(&bytes[at], &value, 4); }
uint32_t pixel(const uint8_t* bgra) { return bgra[3] * 0x1000000u + bgra[2] * 0x10000u + bgra[1] * 0x100u + bgra[0]; }

// A w x h BMP of 24 or 32 bits a pixel, its word at `patchAt` replaced; pixel (x, y) is blue x, green y, red 7, alpha 0x80.
Picture bmp(int w, int h, int bits, bool topDown = false, size_t patchAt = 0, uint32_t patch = 0) {
    const int stride = (w * bits / 8 + 3) / 4 * 4;
    std::string f(54 + stride * h, '\0');
    f[0] = 'B', f[1] = 'M', f[26] = 1, f[28] = static_cast<char>(bits);
    put32(f, 10, 54), put32(f, 14, 40), put32(f, 18, w), put32(f, 22, topDown ? -h : h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            std::memcpy(&f[54 + (topDown ? y : h - 1 - y) * stride + x * bits / 8], std::string{char(x), char(y), 7, '\x80'}.data(), bits / 8);
    if (patchAt) put32(f, patchAt, patch);
    return decodeBmp({f.begin(), f.end()}, "t.bmp");
}

TEST(ImageFile, BmpHeadersThatLieAreRefused) {
    struct Case { const char* name; size_t at; uint32_t value; const char* reason; } cases[] = {
        {"taller than the file", 22, 6, "t.bmp: the header claims more pixels than the file holds"},
        {"pixels past the end", 10, 0xFFFFFFF0u, "more pixels"},
        {"8 bits a pixel", 28, 8, "only 24- and 32-bit"},
    };
    for (const auto& c : cases)
        EXPECT_THAT([&] { bmp(3, 5, 24, false, c.at, c.value); }, testing::ThrowsMessage<std::runtime_error>(testing::HasSubstr(c.reason))) << c.name;
}

class VirtualDisplayTest : public ::testing::Test {
protected:
    uint32_t at(Framebuffer& fb, uint32_t x, uint32_t y) { return pixel(fb.pixels() + y * fb.bytesPerRow() + x * 4); }
    test::TempDir run{"tw-display"};
};

TEST_F(VirtualDisplayTest, APictureIsShownTopRowFirstOnBlackCroppedAndKeptByARestartedRole) {
    auto fb = Framebuffer::create(run.str(), 2, 3, nullptr);
    ASSERT_TRUE(fb);
    fb->fill(0xFFFFFF);
    fb->show(bmp(1, 1, 32));
    EXPECT_EQ(std::vector<uint32_t>({at(*fb, 0, 0), at(*fb, 1, 0), at(*fb, 0, 1)}), std::vector<uint32_t>({0x80070000u, 0xFF000000u, 0xFF000000u}));
    fb->show(bmp(3, 5, 24, true));
    auto again = Framebuffer::create(run.str(), 2, 3, nullptr), resized = Framebuffer::create(run.str(), 3, 3, nullptr);
    ASSERT_TRUE(again && resized);  // the input-event role came back with the same screen, then with another
    EXPECT_EQ(at(*again, 1, 2), 0xFF070201u);
    EXPECT_EQ(at(*resized, 1, 2), 0xFF000000u);
}

TEST_F(VirtualDisplayTest, AHeaderThatDoesNotFitItsFileIsRefusedNotMapped) {
    auto file = [](const char* magic, uint32_t w, uint32_t h, uint32_t bytesPerRow, size_t pixelBytes) {
        std::string bytes(std::string(magic) + std::string(kDisplayHeaderSize - 8 + pixelBytes, '\x7f'));
        put32(bytes, 8, w), put32(bytes, 12, h), put32(bytes, 16, bytesPerRow);
        return bytes;
    };
    struct Case { const char* name; std::string bytes; bool opens; } cases[] = {
        {"fits", file("TWDISP01", 2, 2, 8, 16), true},
        {"shorter than a header", file("TWDISP01", 2, 2, 8, 16).substr(0, 40), false},
        {"another magic", file("TWDISP02", 2, 2, 8, 16), false},
        {"zero width", file("TWDISP01", 0, 2, 8, 16), false},
        {"zero height", file("TWDISP01", 2, 0, 8, 16), false},
        {"rows shorter than the width", file("TWDISP01", 2, 2, 7, 16), false},
        {"pixels cut short", file("TWDISP01", 2, 2, 8, 15), false},
    };
    for (const auto& c : cases) {
        test::writeFile(displayPath(run.str()), c.bytes);
        std::string error;
        const auto fb = Framebuffer::open(run.str(), &error);
        EXPECT_EQ(fb ? at(*fb, 1, 1) : 0u, c.opens ? 0x7f7f7f7fu : 0u) << c.name;
        EXPECT_EQ(error, c.opens ? "" : "the display at " + displayPath(run.str()) + " is damaged") << c.name;
    }
}

}  // namespace
}  // namespace tw::device
