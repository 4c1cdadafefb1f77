#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "device/EventTrace.h"
#include "platform/HidEvent.h"

using namespace tw;
using namespace tw::hid;
using tw::device::textTraceLine;
using tw::device::TraceFile;
using tw::device::traceLine;

namespace {

// A hand event the way the injector builds one for two fingers.
HidEvent twoFingerHand() {
    HidEvent hand = createDigitizerEvent(123456789, kTransducerTypeHand, 0, 1, 0, 0, 0, 0, 0, 0, 0, false, false, 0);
    hand.setIntegerValue(kFieldDigitizerIsDisplayIntegrated, 1);
    hand.setIntegerValue(kFieldIsBuiltIn, 1);
    hand.setSenderID(0x0000000100000236ULL);
    hand.appendEvent(createDigitizerFingerEvent(123456789, 1, 2, 3, 0.25, 0.75, 0, 0, 0, true, true, 0));
    hand.appendEvent(createDigitizerFingerEvent(123456789, 2, 2, 4, 0.5, 0.125, 0, 0, 0, false, false, 0));
    hand.setFloatValue(kFieldDigitizerX, 0.375);
    hand.setFloatValue(kFieldDigitizerY, 0.4375);
    hand.setIntegerValue(kFieldDigitizerEventMask, 0x27);
    hand.setIntegerValue(kFieldDigitizerRange, 1);
    hand.setIntegerValue(kFieldDigitizerTouch, 1);
    return hand;
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace

// --- Event lines ---------------------------------------------------------------------------------

TEST(EventTraceLine, HandEventWithTwoFingers) {
    EXPECT_EQ(traceLine(twoFingerHand()),
              R"({"kind":"digitizer","time":123456789,"sender":"0x0000000100000236","builtIn":1,)"
              R"("displayIntegrated":1,"mask":39,"range":1,"touch":1,"x":0.375,"y":0.4375,"children":[)"
              R"({"index":1,"identity":2,"mask":3,"x":0.25,"y":0.75,"range":1,"touch":1},)"
              R"({"index":2,"identity":2,"mask":4,"x":0.5,"y":0.125,"range":0,"touch":0}]})");
}

TEST(EventTraceLine, DigitizerWithoutChildrenHasEmptyArrayAndMissingFieldsAsZero) {
    HidEvent bare;
    bare.type = kEventTypeDigitizer;
    bare.timestamp = 7;
    EXPECT_EQ(traceLine(bare),
              R"({"kind":"digitizer","time":7,"sender":"0x0000000000000000","builtIn":0,"displayIntegrated":0,)"
              R"("mask":0,"range":0,"touch":0,"x":0.0,"y":0.0,"children":[]})");
}

TEST(EventTraceLine, CoordinatesKeepFullPrecisionAndTimesTheFullUnsignedRange) {
    HidEvent hand = twoFingerHand();
    hand.timestamp = std::numeric_limits<uint64_t>::max();
    hand.setFloatValue(kFieldDigitizerX, 1.0 / 3.0);
    hand.setFloatValue(kFieldDigitizerY, 0.1 + 0.2);  // not 0.3 in binary
    hand.children[1].setFloatValue(kFieldDigitizerX, 2.0 / 3.0);

    const auto parsed = nlohmann::json::parse(traceLine(hand));
    EXPECT_EQ(parsed["time"].get<uint64_t>(), std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(parsed["x"].get<double>(), 1.0 / 3.0);
    EXPECT_EQ(parsed["y"].get<double>(), 0.1 + 0.2);
    EXPECT_EQ(parsed["children"][1]["x"].get<double>(), 2.0 / 3.0);
}

TEST(EventTraceLine, KeyboardEventsDownAndUp) {
    HidEvent down = createKeyboardEvent(42, 7, 0x2A, true, 0);
    down.setSenderID(0xDEFACEDBEEFFECE5ULL);
    EXPECT_EQ(traceLine(down),
              R"({"kind":"keyboard","time":42,"sender":"0xDEFACEDBEEFFECE5","usagePage":7,"usage":42,"down":1})");

    HidEvent up = createKeyboardEvent(43, 12, 0xE9, false, 0);
    up.setSenderID(0xABC);
    EXPECT_EQ(traceLine(up),
              R"({"kind":"keyboard","time":43,"sender":"0x0000000000000ABC","usagePage":12,"usage":233,"down":0})");
}

TEST(EventTraceLine, HardwareFlagComesLastOnEveryKind) {
    HidEvent key = createKeyboardEvent(1, 12, 0x40, true, 0);
    key.setSenderID(0x000000010000027EULL);
    key.hardware = true;
    EXPECT_EQ(traceLine(key), R"({"kind":"keyboard","time":1,"sender":"0x000000010000027E","usagePage":12,)"
                              R"("usage":64,"down":1,"hardware":true})");

    HidEvent hand = twoFingerHand();
    hand.hardware = true;
    const std::string line = traceLine(hand);
    const std::string suffix = R"(}],"hardware":true})";
    ASSERT_GE(line.size(), suffix.size());
    EXPECT_EQ(line.substr(line.size() - suffix.size()), suffix);
    EXPECT_EQ(nlohmann::ordered_json::parse(line).items().begin().key(), "kind");

    HidEvent other;
    other.type = 1;
    other.timestamp = 5;
    EXPECT_EQ(traceLine(other), R"({"kind":"other","type":1,"time":5})");
    other.hardware = true;
    EXPECT_EQ(traceLine(other), R"({"kind":"other","type":1,"time":5,"hardware":true})");
}

// --- Text lines --------------------------------------------------------------------------------

TEST(EventTraceText, QuotesControlCharactersAndUnicodeStayOnOneLine) {
    EXPECT_EQ(textTraceLine("com.example.notes", "plain"),
              R"({"kind":"text","bundle":"com.example.notes","field":"plain"})");
    EXPECT_EQ(textTraceLine("b", "say \"hi\" \\ back"), R"({"kind":"text","bundle":"b","field":"say \"hi\" \\ back"})");
    EXPECT_EQ(textTraceLine("b", "two\nlines\tand\x01"),
              R"({"kind":"text","bundle":"b","field":"two\nlines\tand\u0001"})");
    EXPECT_EQ(textTraceLine("b", "ünï — 日本 🎉"), "{\"kind\":\"text\",\"bundle\":\"b\",\"field\":\"ünï — 日本 🎉\"}");
}

TEST(EventTraceText, InvalidUtf8IsReplacedNotThrown) {
    std::string line;
    ASSERT_NO_THROW(line = textTraceLine("b\xff", "ok\xc3(end"));
    EXPECT_EQ(line, "{\"kind\":\"text\",\"bundle\":\"b\xEF\xBF\xBD\",\"field\":\"ok\xEF\xBF\xBD(end\"}");
    EXPECT_NO_THROW(nlohmann::json::parse(line));
    // A truncated multi-byte sequence at the very end.
    EXPECT_NO_THROW(nlohmann::json::parse(textTraceLine("b", "x\xe6\x97")));
}

// --- Trace file --------------------------------------------------------------------------------

TEST(EventTraceFile, CreatesWithMode0644AndAppendsAfterExistingContent) {
    tw::test::TempDir dir("tw-trace");
    const auto path = dir.path() / "trace.jsonl";
    tw::test::writeFile(path, "earlier\n");
    {
        TraceFile trace(path.string());
        ASSERT_TRUE(trace.isOpen());
        trace.append(R"({"a":1})");
        trace.append(R"({"b":2})");
    }
    {
        TraceFile again(path.string());
        again.append(R"({"c":3})");
    }
    EXPECT_EQ(tw::test::readFile(path), "earlier\n{\"a\":1}\n{\"b\":2}\n{\"c\":3}\n");

    const auto fresh = dir.path() / "fresh.jsonl";
    const mode_t mask = ::umask(0);
    ::umask(mask);
    TraceFile created(fresh.string());
    struct stat info {};
    ASSERT_EQ(::stat(fresh.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u & ~mask);
}

TEST(EventTraceFile, UnopenablePathIsIgnoredSilently) {
    tw::test::TempDir dir("tw-trace");
    const auto path = dir.path() / "missing" / "trace.jsonl";
    TraceFile trace(path.string());
    EXPECT_FALSE(trace.isOpen());
    EXPECT_NO_THROW(trace.append("{}"));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(EventTraceFile, TwoWritersAppendWholeLines) {
    tw::test::TempDir dir("tw-trace");
    const auto path = dir.path() / "trace.jsonl";
    constexpr int kLines = 2000;
    // Long enough that a line split in two writes would show up as interleaving.
    const std::string padA(3000, 'a'), padB(5000, 'b');
    auto writer = [&](char who, const std::string& pad) {
        TraceFile trace(path.string());
        for (int i = 0; i < kLines; ++i) trace.append(std::string(1, who) + std::to_string(i) + ":" + pad);
    };
    std::thread first(writer, 'A', padA);
    std::thread second(writer, 'B', padB);
    first.join();
    second.join();

    const auto lines = splitLines(tw::test::readFile(path));
    ASSERT_EQ(lines.size(), 2u * kLines);
    std::map<char, int> next{{'A', 0}, {'B', 0}};
    for (const auto& line : lines) {
        ASSERT_FALSE(line.empty());
        const char who = line[0];
        ASSERT_TRUE(who == 'A' || who == 'B') << line.substr(0, 20);
        // Each writer's lines are whole and in its own order.
        EXPECT_EQ(line, std::string(1, who) + std::to_string(next[who]) + ":" + (who == 'A' ? padA : padB));
        ++next[who];
    }
    EXPECT_EQ(next['A'], kLines);
    EXPECT_EQ(next['B'], kLines);
}
