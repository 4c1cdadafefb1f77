// The injector's request records, byte for byte; each decodes only from its exact size.
#include <gtest/gtest.h>

#include "injection/records/KeyRecord.h"
#include "injection/records/OptionRecord.h"
#include "injection/records/TextRecord.h"
#include "injection/records/TouchRecord.h"

namespace tw {
namespace {

// Each row's record encodes to its bytes, which decode to the same fields; other sizes are refused.
template <typename Record, typename Fields>
void expectLayouts(std::initializer_list<std::tuple<const char*, Record, Bytes>> rows, Fields fields) {
    for (const auto& [name, record, bytes] : rows) {
        EXPECT_EQ(record.encode(), bytes) << name;
        const auto back = Record::decode(bytes);
        EXPECT_EQ(back ? std::optional(fields(*back)) : std::nullopt, fields(record)) << name;
        for (size_t n : {size_t{0}, bytes.size() - 1, bytes.size() + 1}) EXPECT_FALSE(Record::decode(Bytes(n, 1))) << n;
    }
}

TEST(InjectorRecordsTest, TouchIsTypeFingerXAndYLittleEndianIn24Bytes) {
    const Bytes up = {2, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0x20, 0x59, 0x40, 0, 0, 0, 0, 0, 0, 0x84, 192};
    expectLayouts<TouchRecord>({{"up", {kTouchUp, -1, 100.5, -640}, up}, {"move", {kTouchMove, 0, 0, 0}, Bytes(24, 0)}},
                               [](const TouchRecord& r) { return std::tuple(r.type, r.finger, r.x, r.y); });
}

TEST(InjectorRecordsTest, KeyIsUsagePageAndDirectionAsSentIn12Bytes) {
    expectLayouts<KeyRecord>({{"down", {0x1E9, 12, 1}, {0xE9, 0x01, 0, 0, 0x0C, 0, 0, 0, 1, 0, 0, 0}},
                              {"high bits", {0x12345, 0x1000C, 0x100}, {0x45, 0x23, 1, 0, 0x0C, 0, 1, 0, 0, 1, 0, 0}}},
                             [](const KeyRecord& r) { return std::tuple(r.usage, r.usagePage, r.down); });
}

TEST(InjectorRecordsTest, OptionIsOneInt32) {
    expectLayouts<OptionRecord>({{"on", {1}, {1, 0, 0, 0}}, {"negative", {-2}, {0xFE, 0xFF, 0xFF, 0xFF}}},
                                [](const OptionRecord& r) { return r.value; });
}

TEST(InjectorRecordsTest, TextIsItsUtf8BytesWithoutATerminator) {
    EXPECT_EQ(TextRecord{"h\xC3\xA9"}.encode(), (Bytes{'h', 0xC3, 0xA9}));
    EXPECT_EQ(TextRecord::decode(Bytes{'a', 0, 'b'}).value_or(TextRecord{"none"}).text, "a");  // up to a NUL
    EXPECT_FALSE(TextRecord::decode(Bytes{}) || TextRecord::decode(std::nullopt));
}

}  // namespace
}  // namespace tw
