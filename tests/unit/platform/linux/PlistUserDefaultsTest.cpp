#include "platform/linux/PlistUserDefaults.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

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
    size_t files() const {
        return std::distance(fs::directory_iterator(fs::path(file_).parent_path()), fs::directory_iterator());
    }
    tw::test::TempDir dir_;
    std::string file_ = (dir_.path() / "var/mobile/Library/Preferences/me.tapwright.test.plist").string();
    PlistUserDefaults defaults_{file_};
};

}  // namespace

// The typed reads (UserDefaults) over values stored and read back by another instance.
TEST_F(PlistUserDefaultsTest, StoredValuesKeepTheirKindAndConvertOnTypedReads) {
    const struct {
        const char* name;
        std::optional<DefaultsValue> stored;
        bool asBool;
        int64_t asInteger;
        double asDouble;
        std::optional<std::string> asString;
    } cases[] = {
        {"missing", std::nullopt, false, 0, 0.0, std::nullopt},
        {"true", true, true, 1, 1.0, "1"},
        {"largest integer", kMax, true, kMax, 9223372036854775808.0, "9223372036854775807"},
        {"half", 0.5, true, 0, 0.5, "0.5"},
        {"whole real", 3.0, true, 3, 3.0, "3"},
        {"2^63 as a real", 9223372036854775808.0, true, kMax, 9223372036854775808.0, "9223372036854775808"},
        {"YES", "YES", true, 0, 0.0, "YES"},
        {"TRUE", "TRUE", true, 0, 0.0, "TRUE"},
        {"Yes is not a yes", "Yes", false, 0, 0.0, "Yes"},
        {"number with a unit", " -17.5kg ✓", true, -17, -17.5, " -17.5kg ✓"},
        {"zero text", "0.0", false, 0, 0.0, "0.0"},
        {"hex text", "0x10", false, 0, 0.0, "0x10"},
        {"2^63 as text", "9223372036854775808", true, kMax, 9223372036854775808.0, "9223372036854775808"},
        {"integer text too small", "-99999999999999999999", true, kMin, -1e20, "-99999999999999999999"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        c.stored ? defaults_.setObject("k", *c.stored) : defaults_.removeObjectForKey("k");
        PlistUserDefaults other(file_);
        EXPECT_EQ(other.objectForKey("k"), c.stored);
        EXPECT_EQ(other.boolForKey("k"), c.asBool);
        EXPECT_EQ(other.integerForKey("k"), c.asInteger);
        EXPECT_EQ(other.doubleForKey("k"), c.asDouble);
        EXPECT_EQ(other.stringForKey("k"), c.asString);
    }
    defaults_.setDouble("k", std::nan(""));
    EXPECT_EQ(defaults_.integerForKey("k"), 0);
    EXPECT_EQ(readFile(file_).substr(0, 8), "bplist00");
}

TEST_F(PlistUserDefaultsTest, ReadsAndRemovalsOfAbsentKeysWriteNothing) {
    EXPECT_EQ(defaults_.objectForKey("k"), std::nullopt);
    defaults_.removeObjectForKey("k");
    EXPECT_TRUE(fs::is_empty(dir_.path())) << "no folder, lock or domain file should appear";
    defaults_.setInteger("a", 1);
    struct stat before {}, after {};
    ::stat(file_.c_str(), &before);
    defaults_.removeObjectForKey("b");
    ::stat(file_.c_str(), &after);
    EXPECT_EQ(after.st_ino, before.st_ino) << "the file was rewritten";
}

TEST_F(PlistUserDefaultsTest, DamagedFileReadsEmptyAndIsSetAsideByTheNextWriteWithoutOverwritingEarlierCopies) {
    const struct {
        const char* name;
        std::string contents;
        const char* keptAs;
    } cases[] = {
        {"garbage", "bplist00 this is not really a property list \x01\x02", ".corrupt"},
        {"array root", "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>k</string></array></plist>",
         ".corrupt.1"},
        {"empty file", "", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        writeFile(file_, c.contents);
        EXPECT_EQ(defaults_.objectForKey("k"), std::nullopt);
        defaults_.removeObjectForKey("k");
        EXPECT_EQ(readFile(file_), c.contents) << "a read or a removal touched the damaged file";
        defaults_.setString("k", c.name);
        EXPECT_EQ(PlistUserDefaults(file_).stringForKey("k"), c.name);
        EXPECT_TRUE(!c.keptAs || readFile(file_ + c.keptAs) == c.contents) << "not kept as " << c.keptAs;
    }
    EXPECT_EQ(files(), 4u) << "the empty file was set aside too";
}

TEST_F(PlistUserDefaultsTest, RewritesKeepHandWrittenXmlValuesOfUnmodelledTypesAndTheFilePermissions) {
    writeFile(file_,
              "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>speed</key><integer>4</integer>"
              "<key>list</key><array><string>two</string></array><key>blob</key><data>AAEC</data></dict></plist>");
    fs::permissions(file_, fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(defaults_.integerForKey("speed"), 4);
    EXPECT_EQ(defaults_.objectForKey("list"), std::nullopt);
    defaults_.setInteger("speed", 5);
    EXPECT_EQ(fs::status(file_).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
    const std::string binary = readFile(file_);
    for (const std::string& kept : {std::string("list"), std::string("two"), std::string("\x00\x01\x02", 3)})
        EXPECT_NE(binary.find(kept), std::string::npos) << "lost " << kept;
    EXPECT_FALSE(fs::exists(file_ + ".corrupt"));
}

TEST_F(PlistUserDefaultsTest, ProcessesWritingAtOnceLoseNoKeyAndReadersNeverSeeAPartialFile) {
    defaults_.setString("stable", "here");
    for (int p = 0; p < 3; ++p) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid > 0) continue;
        try {
            PlistUserDefaults mine(file_);
            for (int k = 0; k < 40; ++k) mine.setInteger(std::to_string(p * 100 + k), k);
        } catch (...) {
            ::_exit(1);
        }
        ::_exit(0);
    }
    int missed = 0, status = 0;
    for (int live = 3; live > 0;) {  // reads while they write
        missed += defaults_.stringForKey("stable") != "here";
        const pid_t ended = ::waitpid(-1, &status, WNOHANG);
        EXPECT_TRUE(ended <= 0 || (WIFEXITED(status) && WEXITSTATUS(status) == 0));
        live -= ended > 0 ? 1 : ended < 0 ? live : 0;
    }
    EXPECT_EQ(missed, 0) << "a reader saw the file half written";
    for (int key = 0; key < 300; ++key)
        EXPECT_EQ(defaults_.integerForKey(std::to_string(key)), key % 100 < 40 ? key % 100 : 0) << key;
    EXPECT_EQ(files(), 2u) << "a temporary file was left behind";
}
