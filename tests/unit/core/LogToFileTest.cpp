// The error log: the first call creates it, later calls append, long messages are cut to 4094
// bytes, and a script's own text is written as it is.
#include <regex>

#include "EngineFixture.h"
#include "core/LogToFile.h"
#include "core/Paths.h"

namespace tw {
namespace {

using LogToFileTest = test::ScriptFunctionFixture;

TEST_F(LogToFileTest, FirstCallCreatesTheFileWithOneStampedLineAndLaterCallsAppend) {
    ASSERT_FALSE(std::filesystem::exists(Paths::logFile()));
    LogToFile("Auto launching of script %s is triggerd by auto playing timer.", "/a.lua");
    const std::string first = test::readFile(Paths::logFile());
    EXPECT_TRUE(std::regex_match(first, std::regex(R"(\d\d-\d\d \d\d:\d\d:\d\d Auto launching of script /a\.lua is triggerd by auto playing timer\.\n)")))
        << first;
    ASSERT_EQ(run("log('100% done %s %n %d')"), "");  // a script's text is no format
    LogToFile("%d%%", 7);
    EXPECT_EQ(logMessages(), (std::vector<std::string>{"Auto launching of script /a.lua is triggerd by auto playing timer.",
                                                       "100% done %s %n %d", "7%"}));
}

TEST_F(LogToFileTest, MessagesAreCutTo4094BytesAndABrokenCharacterLogsTheNullForm) {
    const std::string euro = "\xE2\x82\xAC";
    LogMessageToFile(std::string(5000, 'x'));
    LogToFile("%s", std::string(5000, 'y').c_str());
    LogMessageToFile(std::string(4091, 'a') + euro);  // exactly 4094 bytes: kept whole
    LogMessageToFile(std::string(4093, 'a') + euro);  // the cut keeps 1 of the character's 3 bytes
    EXPECT_EQ(logMessages(), (std::vector<std::string>{std::string(4094, 'x'), std::string(4094, 'y'),
                                                       std::string(4091, 'a') + euro, "(null)"}));
}

TEST(Utf8Check, AcceptsTextAndRejectsBrokenSequences) {
    for (const char* text : {"plain", "\xE6\x97\xA5\xE6\x9C\xAC", "\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF"})
        EXPECT_TRUE(isValidUtf8(text)) << text;
    const char* broken[] = {"\xE6\x97", "\xC0\xAF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF", "a\xC3("};
    for (const char* text : broken) EXPECT_FALSE(isValidUtf8(text)) << testing::PrintToString(std::string(text));
}

}  // namespace
}  // namespace tw
