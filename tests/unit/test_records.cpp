// The injector's request records, byte for byte, and their strict decoding.
#include <gtest/gtest.h>

#include "injection/records/KeyRecord.h"
#include "injection/records/OptionRecord.h"
#include "injection/records/TextRecord.h"
#include "injection/records/TouchRecord.h"

namespace tw {
namespace {

TEST(TouchRecord, EncodesTypeFingerAndCoordinatesLittleEndian) {
    const Bytes bytes = TouchRecord{kTouchUp, 3, 100.5, -2.0}.encode();
    const Bytes expected = {
        0x02, 0x00, 0x00, 0x00,                          // type 2 (up)
        0x03, 0x00, 0x00, 0x00,                          // finger 3
        0x00, 0x00, 0x00, 0x00, 0x00, 0x20, 0x59, 0x40,  // 100.5
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0,  // -2.0
    };
    EXPECT_EQ(bytes, expected);
    const Bytes move = TouchRecord{kTouchMove, -1, 0, 0}.encode();
    EXPECT_EQ(move[0], 0x00);  // move is 0
    EXPECT_EQ(Bytes(move.begin() + 4, move.begin() + 8), (Bytes{0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(TouchRecord, DecodesOnlyExactly24Bytes) {
    const TouchRecord original{kTouchDown, 7, 12.25, 640.0};
    auto decoded = TouchRecord::decode(original.encode());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->type, kTouchDown);
    EXPECT_EQ(decoded->finger, 7);
    EXPECT_EQ(decoded->x, 12.25);
    EXPECT_EQ(decoded->y, 640.0);
    EXPECT_FALSE(TouchRecord::decode(Bytes(23)));
    EXPECT_FALSE(TouchRecord::decode(Bytes(25)));
    EXPECT_FALSE(TouchRecord::decode(std::nullopt));
}

TEST(KeyRecord, EncodesUsagePageAndDirection) {
    EXPECT_EQ(KeyRecord({0x40, 12, 1}).encode(), (Bytes{0x40, 0, 0, 0, 0x0C, 0, 0, 0, 0x01, 0, 0, 0}));
    EXPECT_EQ(KeyRecord({0x1E9, 12, 0}).encode(), (Bytes{0xE9, 0x01, 0, 0, 0x0C, 0, 0, 0, 0x00, 0, 0, 0}));
    auto decoded = KeyRecord::decode(KeyRecord({0x12345, 0x1000C, 0x101}).encode());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->usage, 0x12345);  // masking to 16 bits is the injector's business
    EXPECT_EQ(decoded->down, 0x101);
    EXPECT_FALSE(KeyRecord::decode(Bytes(11)));
    EXPECT_FALSE(KeyRecord::decode(Bytes(13)));
}

TEST(OptionRecord, IsOneInt32) {
    EXPECT_EQ(OptionRecord{1}.encode(), (Bytes{1, 0, 0, 0}));
    EXPECT_EQ(OptionRecord{-2}.encode(), (Bytes{0xFE, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(OptionRecord::decode(Bytes{5, 0, 0, 0})->value, 5);
    EXPECT_FALSE(OptionRecord::decode(Bytes{5, 0, 0}));
    EXPECT_FALSE(OptionRecord::decode(Bytes(8)));
}

TEST(TextRecord, IsTheUtf8BytesWithoutTerminator) {
    EXPECT_EQ(TextRecord{"h\xC3\xA9"}.encode(), (Bytes{'h', 0xC3, 0xA9}));
    EXPECT_TRUE(TextRecord{""}.encode().empty());
    EXPECT_EQ(TextRecord::decode(Bytes{'a', 'b'})->text, "ab");
    EXPECT_EQ(TextRecord::decode(Bytes{'a', 0, 'b'})->text, "a");
    EXPECT_FALSE(TextRecord::decode(Bytes{}));
    EXPECT_FALSE(TextRecord::decode(std::nullopt));
}

}  // namespace
}  // namespace tw
