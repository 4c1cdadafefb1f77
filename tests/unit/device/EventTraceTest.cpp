#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <thread>

#include "TestSupport.h"
#include "device/EventTrace.h"

namespace tw::device {
namespace {

using namespace hid;

TEST(EventTrace, EachKindOfEventIsOneLineOfItsFields) {
    HidEvent hand = createDisplayHandEvent(24, 0x0000000100000236ULL), other;
    hand.appendEvent(createDigitizerFingerEvent(1, 2, 2, 4, 0.5, 0.1 + 0.2, 0, 0, 0, true, false, 0));
    other.type = 1, other.timestamp = 5, other.hardware = true;
    EXPECT_EQ(traceLine(hand), R"({"kind":"digitizer","time":1000,"sender":"0x0000000100000236","builtIn":1,)"
                               R"("displayIntegrated":1,"mask":0,"range":0,"touch":0,"x":0.0,"y":0.0,"children":[{"index":2,)"
                               R"("identity":2,"mask":4,"x":0.5,"y":0.30000000000000004,"range":1,"touch":0}]})");
    EXPECT_EQ(traceLine(other), R"({"kind":"other","type":1,"time":208,"hardware":true})");  // 5 ticks
    EXPECT_EQ(test::withoutTime(textTraceLine("b\xff", "say \"hi\" \\ two\nlines\x01 日本 ok\xc3(end\xe6\x97")),
              "{\"kind\":\"text\",\"bundle\":\"b\xEF\xBF\xBD\",\"field\":\"say \\\"hi\\\" \\\\ two\\nlines\\u0001 日本 "
              "ok\xEF\xBF\xBD(end\xEF\xBF\xBD\"}");
}

TEST(EventTrace, EventLinesReadBackAsTheirEventsWithTheTicksExactAndOtherLinesDoNot) {
    HidEvent hand = createDisplayHandEvent(123456789012345, 0x0000000100000236ULL);
    hand.appendEvent(createDigitizerFingerEvent(hand.timestamp, 3, 2, 6, 0.25, 0.75, 0, 0, 0, true, true, 0));
    HidEvent key = createKeyboardEvent(7, 12, 0x40, true, 0);
    key.hardware = true;
    for (const HidEvent& event : {hand, key}) {
        const auto back = eventFromTraceLine(traceLine(event));
        ASSERT_TRUE(back.has_value());
        EXPECT_EQ(traceLine(*back), traceLine(event));
        EXPECT_EQ(back->timestamp, event.timestamp);
    }
    for (const char* line : {R"({"kind":"text","time":1})", R"({"kind":"keyboard","usage":"x"})", "[1]", "{"})
        EXPECT_FALSE(eventFromTraceLine(line).has_value()) << line;
}

TEST(EventTrace, WritersAppendWholeLinesEachInItsOwnOrder) {
    test::TempDir dir("tw-trace");
    test::writeFile(dir.path() / "trace", "earlier\n");
    auto writer = [&](char who) {
        TraceFile trace(dir.str() + "/trace");
        for (int i = 0; i < 1000; ++i) trace.append(who + std::to_string(i) + std::string(who == 'A' ? 3000 : 5000, who));
    };
    std::thread first(writer, 'A'), second(writer, 'B');
    first.join(), second.join();
    std::istringstream in(test::readFile(dir.path() / "trace"));
    std::map<char, int> next{{'e', 0}, {'A', 0}, {'B', 0}};
    for (std::string line; std::getline(in, line);) {
        ASSERT_TRUE(next.count(line.empty() ? '?' : line[0])) << line.substr(0, 20);
        const int i = next[line[0]]++;
        ASSERT_EQ(line, line[0] == 'e' ? "earlier" : line[0] + std::to_string(i) + std::string(line[0] == 'A' ? 3000 : 5000, line[0]));
    }
    EXPECT_EQ(next, (std::map<char, int>{{'e', 1}, {'A', 1000}, {'B', 1000}}));
}

}  // namespace
}  // namespace tw::device
