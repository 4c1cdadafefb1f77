// Atomic file replacement and whole-file reads: nothing but the target is ever left behind.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "core/AtomicFile.h"

namespace tw {
namespace {

namespace fs = std::filesystem;

struct AtomicFileTest : ::testing::Test {
    size_t entries() const { return static_cast<size_t>(std::distance(fs::directory_iterator(dir.path()), {})); }
    test::TempDir dir{"tw-atomic"};
    const std::string path = dir.str() + "/file";
};

TEST_F(AtomicFileTest, ReadsAWholeFileAndReplacesItKeepingItsPermissionsAndLeavesNoTemporary) {
    test::writeFile(path, std::string(200000, 'o'));
    EXPECT_EQ(readWholeFile(path), std::string(200000, 'o'));  // more than one read
    ::chmod(path.c_str(), 0600);
    std::string error = "untouched";
    ASSERT_TRUE(writeFileAtomically(path, "short", &error));
    EXPECT_EQ(error, "untouched");
    EXPECT_EQ(test::readFile(path), "short");
    EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    ASSERT_TRUE(writeFileAtomically(dir.str() + "/new", ""));
    EXPECT_EQ(fs::status(dir.str() + "/new").permissions(), static_cast<fs::perms>(0644));
    EXPECT_EQ(entries(), 2u);
}

TEST_F(AtomicFileTest, FailuresSayWhyAndLeaveTheTargetAndNoTemporaryAndReadsFailOnAMissingFileAndAFolder) {
    int code = 0;
    EXPECT_FALSE(readWholeFile(path, &code));
    EXPECT_EQ(code, ENOENT);
    EXPECT_FALSE(readWholeFile(dir.str(), &code));
    EXPECT_EQ(code, EISDIR);
    std::string error;
    EXPECT_FALSE(writeFileAtomically(dir.str() + "/missing/file", "x", &error, &code));
    EXPECT_EQ(code, ENOENT);
    EXPECT_EQ(error, "cannot create a file beside " + dir.str() + "/missing/file: No such file or directory");
    fs::create_directory(path);  // a folder in the way: the rename fails after the write
    EXPECT_FALSE(writeFileAtomically(path, "x", &error, &code));
    EXPECT_EQ(code, EISDIR);
    EXPECT_EQ(error.rfind("cannot replace " + path, 0), 0u) << error;
    EXPECT_TRUE(fs::is_directory(path));
    EXPECT_EQ(entries(), 1u);
}

TEST_F(AtomicFileTest, KeepOldTailLeavesTheOldBytesPastTheNewContent) {
    test::writeFile(path, "0123456789");
    AtomicFileWriter writer(path);
    ASSERT_TRUE(writer.ok() && writer.write("ab") && writer.keepOldTail() && writer.commit()) << writer.error();
    EXPECT_EQ(test::readFile(path), "ab23456789");
    AtomicFileWriter fresh(dir.str() + "/new");
    ASSERT_TRUE(fresh.write("ab") && fresh.keepOldTail() && fresh.commit()) << fresh.error();  // nothing old: fine
    EXPECT_EQ(test::readFile(dir.str() + "/new"), "ab");
}

}  // namespace
}  // namespace tw
