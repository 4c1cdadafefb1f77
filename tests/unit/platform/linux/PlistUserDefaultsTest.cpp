#include "platform/linux/PlistUserDefaults.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "TestSupport.h"

namespace fs = std::filesystem;
using tw::DefaultsValue;
using tw::linuxp::PlistUserDefaults;
using tw::test::readFile;
using tw::test::writeFile;

namespace {

constexpr int64_t kMin = std::numeric_limits<int64_t>::min(), kMax = std::numeric_limits<int64_t>::max();

class PlistUserDefaultsTest : public testing::Test {
protected:
    size_t files() const { return std::distance(fs::directory_iterator(fs::path(file_).parent_path()), fs::directory_iterator()); }
    tw::test::TempDir dir_;
    std::string file_ = (dir_.path() / "var/mobile/Library/Preferences/me.tapwright.test.plist").string();
    PlistUserDefaults defaults_{file_};
};

}  // namespace

// The typed reads over values stored by one instance and read back by another.
TEST_F(PlistUserDefaultsTest, StoredValuesKeepTheirKindAndConvertOnTypedReads) {
    const struct { const char* name; std::optional<DefaultsValue> stored; bool asBool; int64_t asInteger; double asDouble;
                   std::optional<std::string> asString; } cases[] = {
        {"missing", std::nullopt, false, 0, 0.0, std::nullopt}, {"true", true, true, 1, 1.0, "1"},
        {"largest integer", kMax, true, kMax, 9223372036854775808.0, "9223372036854775807"},
        {"2^63 as a real", 9223372036854775808.0, true, kMax, 9223372036854775808.0, "9223372036854775808"},
        {"half", 0.5, true, 0, 0.5, "0.5"}, {"YES", "YES", true, 0, 0.0, "YES"}, {"Yes is not a yes", "Yes", false, 0, 0.0, "Yes"},
        {"number with a unit", " -17.5kg ✓", true, -17, -17.5, " -17.5kg ✓"}, {"hex text", "0x10", false, 0, 0.0, "0x10"},
        {"integer text too small", "-99999999999999999999", true, kMin, -1e20, "-99999999999999999999"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_TRUE(c.stored ? defaults_.setObject("k", *c.stored) : defaults_.removeObjectForKey("k"));
        PlistUserDefaults other(file_);
        EXPECT_EQ(other.objectForKey("k"), c.stored);
        EXPECT_EQ(std::tuple(other.boolForKey("k"), other.integerForKey("k"), other.doubleForKey("k"), other.stringForKey("k")),
                  std::tuple(c.asBool, c.asInteger, c.asDouble, c.asString));
    }
}

// A damaged file, or a value the engine does not model, reads as absent; a write sets the damaged file
// aside and keeps what it does not model.
TEST_F(PlistUserDefaultsTest, DamagedFileIsSetAsideByTheNextWriteWithoutOverwritingEarlierCopiesAndUnmodelledValuesSurvive) {
    EXPECT_TRUE(defaults_.removeObjectForKey("k"));
    EXPECT_TRUE(fs::is_empty(dir_.path())) << "removing an absent key left a folder, lock or domain file";
    const std::string xml = "<?xml version=\"1.0\"?><plist version=\"1.0\">", blob("\x00\x01\x02", 3);
    const struct { const char* name; std::string contents; const char* keptAs; std::string survivor; } cases[] = {
        {"garbage", "bplist00 this is not really a property list \x01\x02", ".corrupt", ""},
        {"array root", xml + "<array><string>k</string></array></plist>", ".corrupt.1", ""}, {"empty file", "", nullptr, ""},
        {"unmodelled values", xml + "<dict><key>k</key><array/><key>b</key><data>AAEC</data></dict></plist>", nullptr, blob}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        writeFile(file_, c.contents);
        EXPECT_EQ(defaults_.objectForKey("k"), std::nullopt);
        EXPECT_TRUE(defaults_.removeObjectForKey("absent"));
        EXPECT_EQ(readFile(file_), c.contents) << "a read or a removal touched the file";
        EXPECT_TRUE(defaults_.setString("s", c.name));
        EXPECT_EQ(PlistUserDefaults(file_).stringForKey("s"), c.name);
        EXPECT_TRUE(!c.keptAs || readFile(file_ + c.keptAs) == c.contents) << "not kept as " << c.keptAs;
        EXPECT_NE(readFile(file_).find(c.survivor), std::string::npos);
    }
    EXPECT_EQ(files(), 4u) << "the empty file was set aside too";
}

TEST_F(PlistUserDefaultsTest, WriteThatCannotReachTheFileAnswersFalseWithTheReason) {
    for (const bool folderInTheWay : {true, false}) {
        SCOPED_TRACE(folderInTheWay ? "a folder in place of the file" : "a file in place of its folder");
        const fs::path inTheWay = folderInTheWay ? fs::path(file_) : fs::path(file_).parent_path();
        fs::remove_all(dir_.path() / "var");
        folderInTheWay ? (void)fs::create_directories(inTheWay) : writeFile(inTheWay, "");
        EXPECT_FALSE(defaults_.setInteger("k", 1));
        EXPECT_NE(defaults_.lastError().find(inTheWay.string()), std::string::npos) << defaults_.lastError();
        EXPECT_EQ(defaults_.objectForKey("k"), std::nullopt);
    }
}

TEST_F(PlistUserDefaultsTest, ProcessesWritingAtOnceLoseNoKeyAndReadersNeverSeeAPartialFile) {
    defaults_.setString("stable", "here");
    for (int p = 0; p < 3; ++p) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid > 0) continue;
        PlistUserDefaults mine(file_);
        for (int k = 0; k < 40; ++k) mine.setInteger(std::to_string(p * 100 + k), k);
        ::_exit(0);
    }
    int missed = 0;
    for (int status = 0; ::waitpid(-1, &status, WNOHANG) >= 0;)  // reads while they write, until none is left
        missed += defaults_.stringForKey("stable") != "here";
    EXPECT_EQ(missed, 0) << "a reader saw the file half written";
    for (int key = 0; key < 300; ++key)
        EXPECT_EQ(defaults_.integerForKey(std::to_string(key)), key % 100 < 40 ? key % 100 : 0) << key;
    EXPECT_EQ(files(), 2u) << "a temporary file was left behind";
}
