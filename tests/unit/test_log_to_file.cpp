// The error log: line format, creation and appending, the message cut, verbatim messages.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "EngineFixture.h"
#include "core/LogToFile.h"
#include "core/Paths.h"

namespace tw {
namespace {

using LogToFileTest = test::EngineFixture;

TEST_F(LogToFileTest, FirstCallCreatesTheFileWithExactlyOneLine) {
    ASSERT_FALSE(std::filesystem::exists(Paths::logFile()));
    LogToFile("Auto launching of script %s is triggerd by auto playing timer.", "/a.lua");
    const std::string content = test::readFile(Paths::logFile());
    EXPECT_TRUE(std::regex_match(content, std::regex(R"(\d\d-\d\d \d\d:\d\d:\d\d Auto launching of script /a\.lua is triggerd by auto playing timer\.\n)")))
        << content;
}

TEST_F(LogToFileTest, LaterCallsAppendAndKeepEarlierLines) {
    LogMessageToFile("one");
    LogMessageToFile("two");
    LogToFile("%d", 3);
    EXPECT_EQ(logMessages(), (std::vector<std::string>{"one", "two", "3"}));
}

TEST_F(LogToFileTest, LongMessagesAreCutTo4094Bytes) {
    const std::string longMessage(5000, 'x');
    LogMessageToFile(longMessage);
    LogToFile("%s", longMessage.c_str());
    auto lines = logMessages();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], std::string(4094, 'x'));
    EXPECT_EQ(lines[1], std::string(4094, 'x'));
}

TEST_F(LogToFileTest, ACutInsideAMultiByteCharacterLogsTheNullForm) {
    // 4093 ASCII bytes then a 3-byte character: the cut keeps only its first byte.
    std::string message(4093, 'a');
    message += "\xE2\x82\xAC";
    LogMessageToFile(message);
    LogMessageToFile(std::string(4091, 'a') + "\xE2\x82\xAC");  // fits exactly: kept whole
    auto lines = logMessages();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "(null)");
    EXPECT_EQ(lines[1], std::string(4091, 'a') + "\xE2\x82\xAC");
}

TEST_F(LogToFileTest, VerbatimFormKeepsPercentSignsWhilePrintfFormInterpretsThem) {
    LogMessageToFile("100% done %d %s");
    LogToFile("%d%%", 7);
    EXPECT_EQ(logMessages(), (std::vector<std::string>{"100% done %d %s", "7%"}));
}

TEST_F(LogToFileTest, AMissingFolderLosesTheLineSilently) {
    std::filesystem::remove_all(Paths::libraryDir());
    LogMessageToFile("lost");
    EXPECT_FALSE(std::filesystem::exists(Paths::logFile()));
}

TEST(Utf8Check, AcceptsTextAndRejectsBrokenSequences) {
    EXPECT_TRUE(isValidUtf8("plain"));
    EXPECT_TRUE(isValidUtf8("\xE6\x97\xA5\xE6\x9C\xAC"));   // 日本
    EXPECT_TRUE(isValidUtf8("\xF0\x9F\x98\x80"));           // an emoji
    EXPECT_FALSE(isValidUtf8("\xE6\x97"));                   // cut short
    EXPECT_FALSE(isValidUtf8("\xC0\xAF"));                   // overlong
    EXPECT_FALSE(isValidUtf8("\xED\xA0\x80"));               // a surrogate
    EXPECT_FALSE(isValidUtf8("\xFF"));
}

}  // namespace
}  // namespace tw
