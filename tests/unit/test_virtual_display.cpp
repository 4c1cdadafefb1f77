// The virtual display: pictures from BMP and PNG files, the shared framebuffer, and renders into
// surfaces whose rows are longer than the screen's.
#include <gtest/gtest.h>

#include <png.h>

#include <cstring>

#include "TestSupport.h"
#include "device/ImageFile.h"
#include "device/VirtualDisplay.h"

namespace tw::device {
namespace {

// A BMP file of w x h with `bits` 24 or 32; pixel (x, y) has blue x, green y, red 7.
std::vector<uint8_t> makeBmp(int32_t w, int32_t h, uint16_t bits, bool topDown = false) {
    const uint32_t stride = (static_cast<uint32_t>(w) * bits / 8 + 3) / 4 * 4;
    std::vector<uint8_t> f(54 + stride * static_cast<uint32_t>(h), 0);
    auto put32 = [&](size_t at, uint32_t v) { std::memcpy(f.data() + at, &v, 4); };
    f[0] = 'B';
    f[1] = 'M';
    put32(2, static_cast<uint32_t>(f.size()));
    put32(10, 54);
    put32(14, 40);
    put32(18, static_cast<uint32_t>(w));
    put32(22, static_cast<uint32_t>(topDown ? -h : h));
    f[26] = 1;
    f[28] = static_cast<uint8_t>(bits);
    for (int32_t y = 0; y < h; ++y) {
        const int32_t stored = topDown ? y : h - 1 - y;
        for (int32_t x = 0; x < w; ++x) {
            uint8_t* p = f.data() + 54 + stored * stride + x * bits / 8;
            p[0] = static_cast<uint8_t>(x);
            p[1] = static_cast<uint8_t>(y);
            p[2] = 7;
            if (bits == 32) p[3] = 0x80;
        }
    }
    return f;
}

uint32_t rgbAt(const Picture& p, uint32_t x, uint32_t y) {
    const uint8_t* px = p.pixels.data() + (y * p.width + x) * 4;
    return px[2] << 16 | px[1] << 8 | px[0];
}

TEST(PictureFiles, BmpRowsComeOutTopFirstWhateverTheStoredOrder) {
    for (uint16_t bits : {24, 32}) {
        for (bool topDown : {false, true}) {
            const Picture p = decodeBmp(makeBmp(3, 5, bits, topDown), "t.bmp");
            ASSERT_EQ(p.width, 3u);
            ASSERT_EQ(p.height, 5u);
            EXPECT_EQ(rgbAt(p, 0, 0), 0x070000u) << bits << topDown;
            EXPECT_EQ(rgbAt(p, 2, 4), 0x070402u) << bits << topDown;
            EXPECT_EQ(p.pixels[3], bits == 32 ? 0x80 : 0xFF);
        }
    }
}

TEST(PictureFiles, LyingOrUnsupportedBmpHeadersAreRefusedWithTheReason) {
    auto tooTall = makeBmp(4, 4, 32);
    const int32_t claim = 4000;
    std::memcpy(tooTall.data() + 22, &claim, 4);
    EXPECT_THROW(
        {
            try {
                decodeBmp(tooTall, "tall.bmp");
            } catch (const std::runtime_error& e) {
                EXPECT_NE(std::string(e.what()).find("tall.bmp"), std::string::npos);
                EXPECT_NE(std::string(e.what()).find("more pixels"), std::string::npos);
                throw;
            }
        },
        std::runtime_error);
    auto zeroWidth = makeBmp(4, 4, 32);
    std::memset(zeroWidth.data() + 18, 0, 4);
    EXPECT_THROW(decodeBmp(zeroWidth, "z.bmp"), std::runtime_error);
    auto farOffset = makeBmp(4, 4, 32);
    const uint32_t offset = 0xFFFFFFF0u;
    std::memcpy(farOffset.data() + 10, &offset, 4);
    EXPECT_THROW(decodeBmp(farOffset, "o.bmp"), std::runtime_error);
    auto eightBit = makeBmp(4, 4, 32);
    eightBit[28] = 8;
    EXPECT_THROW(decodeBmp(eightBit, "8.bmp"), std::runtime_error);
    EXPECT_THROW(decodeBmp(std::vector<uint8_t>(20, 'B'), "short.bmp"), std::runtime_error);
}

TEST(PictureFiles, PngFilesAreReadAndDamagedOnesRefused) {
    test::TempDir dir;
    const std::string path = (dir.path() / "p.png").string();
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = 2;
    image.height = 2;
    image.format = PNG_FORMAT_RGB;
    const uint8_t rgb[] = {0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0x70, 0x80, 0x90, 0xA0, 0xB0, 0xC0};
    ASSERT_TRUE(png_image_write_to_file(&image, path.c_str(), 0, rgb, 0, nullptr));
    const Picture p = loadPicture(path);
    EXPECT_EQ(rgbAt(p, 0, 0), 0x102030u);
    EXPECT_EQ(rgbAt(p, 1, 1), 0xA0B0C0u);

    auto bytes = test::readFile(path);
    test::writeFile(dir.path() / "cut.png", bytes.substr(0, bytes.size() / 2));
    EXPECT_THROW(loadPicture((dir.path() / "cut.png").string()), std::runtime_error);
    test::writeFile(dir.path() / "text.png", "hello");
    EXPECT_THROW(loadPicture((dir.path() / "text.png").string()), std::runtime_error);
    EXPECT_THROW(loadPicture((dir.path() / "missing.png").string()), std::runtime_error);
}

class FramebufferTest : public ::testing::Test {
protected:
    test::TempDir run{"tw-display"};
};

TEST_F(FramebufferTest, APictureIsPlacedTopLeftOnBlackAndCroppedWhenLarger) {
    auto fb = Framebuffer::create(run.str(), 4, 3, nullptr);
    ASSERT_TRUE(fb);
    fb->fill(0xFFFFFF);
    Picture small;
    small.width = 2;
    small.height = 1;
    small.pixels = {1, 2, 3, 255, 4, 5, 6, 255};
    fb->show(small);
    auto at = [&](uint32_t x, uint32_t y) {
        const uint8_t* p = fb->pixels() + y * fb->bytesPerRow() + x * 4;
        return static_cast<uint32_t>(p[2] << 16 | p[1] << 8 | p[0]);
    };
    EXPECT_EQ(at(0, 0), 0x030201u);
    EXPECT_EQ(at(1, 0), 0x060504u);
    EXPECT_EQ(at(2, 0), 0u);
    EXPECT_EQ(at(0, 1), 0u);

    Picture large = decodeBmp(makeBmp(10, 10, 24), "l.bmp");
    fb->show(large);
    EXPECT_EQ(at(3, 2), 0x070203u);
}

TEST_F(FramebufferTest, AnotherProcessSeesTheSamePixelsAndARestartKeepsThem) {
    auto fb = Framebuffer::create(run.str(), 8, 8, nullptr);
    fb->fill(0x123456);
    auto other = Framebuffer::open(run.str(), nullptr);
    ASSERT_TRUE(other);
    EXPECT_EQ(other->pixels()[0], 0x56);
    EXPECT_EQ(other->identity(), fb->identity());
    auto again = Framebuffer::create(run.str(), 8, 8, nullptr);  // same size: kept
    EXPECT_EQ(again->pixels()[2], 0x12);
    auto resized = Framebuffer::create(run.str(), 6, 8, nullptr);  // another size: a new black one
    EXPECT_NE(resized->identity(), fb->identity());
    EXPECT_EQ(resized->pixels()[0], 0);
}

TEST_F(FramebufferTest, DamagedOrMissingDisplaysAreReported) {
    std::string error;
    EXPECT_FALSE(Framebuffer::open(run.str(), &error));
    EXPECT_NE(error.find("no device has run"), std::string::npos);
    test::writeFile(run.path() / "display", std::string(100, 'x'));
    EXPECT_FALSE(Framebuffer::open(run.str(), &error));
    EXPECT_NE(error.find("damaged"), std::string::npos);
}

TEST_F(FramebufferTest, RendersFillSurfacesWithPaddedRowsAndFollowANewFramebuffer) {
    auto fb = Framebuffer::create(run.str(), 3, 2, nullptr);
    fb->fill(0xAABBCC);
    VirtualDisplay display(run.str());
    SurfaceGeometry g{3, 3, 4, 0, 64, 64 * 3};
    std::vector<uint8_t> surface(g.allocSize, 0x55);
    ASSERT_TRUE(display.renderDisplay(surface.data(), g));
    EXPECT_EQ(surface[0], 0xCC);
    EXPECT_EQ(surface[64 + 8 + 2], 0xAA);  // row 1, pixel 2, red
    EXPECT_EQ(surface[12], 0);              // past the screen's row: cleared
    EXPECT_EQ(surface[128], 0);             // a row the screen does not have: cleared

    std::filesystem::remove(run.path() / "display");
    EXPECT_FALSE(display.renderDisplay(surface.data(), g));
    auto replaced = Framebuffer::create(run.str(), 3, 2, nullptr);
    replaced->fill(0x010203);
    ASSERT_TRUE(display.renderDisplay(surface.data(), g));
    EXPECT_EQ(surface[0], 0x03);
    EXPECT_FALSE(display.openFramebufferLayer("AppleCLCD"));
}

}  // namespace
}  // namespace tw::device
