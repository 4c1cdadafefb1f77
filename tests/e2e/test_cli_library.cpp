// `tapwright library` as a user runs it: listings, the file operations with their reasons and
// exit status, and renames and deletes keeping the device's play settings in step.
#include <gtest/gtest.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include <filesystem>

#include "TestSupport.h"

namespace tw {
namespace {

namespace fs = std::filesystem;

class CliLibraryTest : public ::testing::Test {
protected:
    test::ProcessResult library(std::vector<std::string> args) {
        std::vector<std::string> command = {TW_BINARY, "library"};
        command.insert(command.end(), args.begin(), args.end());
        command.push_back("--root");
        command.push_back(root.str());
        return test::runProcess(command);
    }
    fs::path scripts() const { return root.path() / "var/mobile/Library/Tapwright/Scripts"; }
    fs::path database() const { return root.path() / "var/mobile/Library/Tapwright/Library/data.sqlite3"; }

    // Rows of the device's database, as "<title>" or "<event>=<title>".
    std::vector<std::string> rows(const std::string& sql) {
        SQLite::Database db(database().string(), SQLite::OPEN_READWRITE);
        SQLite::Statement q(db, sql);
        std::vector<std::string> out;
        while (q.executeStep()) out.push_back(q.getColumn(0).getString());
        return out;
    }
    void exec(const std::string& sql) {
        SQLite::Database db(database().string(), SQLite::OPEN_READWRITE);
        db.exec(sql);
    }

    test::TempDir root{"tw-cli-library"};
};

TEST_F(CliLibraryTest, MakesListsPrintsAndDeletesEntries) {
    auto made = library({"mkdir", "/folder"});
    EXPECT_EQ(made.exitCode, 0) << made.err;
    EXPECT_EQ(library({"new", "hello.lua"}).exitCode, 0);  // the leading "/" may be left out
    EXPECT_EQ(library({"new", "/folder/inner.lua"}).exitCode, 0);
    test::writeFile(scripts() / "hello.lua", "print('hi')\n");

    auto ls = library({"ls"});
    EXPECT_EQ(ls.exitCode, 0) << ls.err;
    EXPECT_EQ(ls.out, "/folder/\n/hello.lua\n");
    EXPECT_EQ(library({"ls", "/folder"}).out, "/folder/inner.lua\n");

    auto longForm = library({"ls", "--long"});
    EXPECT_NE(longForm.out.find("12.0B"), std::string::npos) << longForm.out;
    EXPECT_NE(longForm.out.find("/hello.lua"), std::string::npos) << longForm.out;

    auto cat = library({"cat", "/hello.lua"});
    EXPECT_EQ(cat.exitCode, 0);
    EXPECT_EQ(cat.out, "print('hi')\n");

    EXPECT_EQ(library({"rm", "/folder"}).exitCode, 0);
    EXPECT_FALSE(fs::exists(scripts() / "folder"));
}

TEST_F(CliLibraryTest, FailuresPrintTheirReasonAndExitNonZero) {
    ASSERT_EQ(library({"new", "/a.lua"}).exitCode, 0);
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"new", "/a.lua"}, "File already exists."},
        {{"mkdir", "/a.lua"}, "File already exists."},
        {{"rm", "/none.lua"}, "File does not exist."},
        {{"new", "/missing/b.lua"}, "Unknown reason."},
        {{"cat", "/none.lua"}, "No such file or directory"},
        {{"mv", "/none.lua", "/b.lua"}, "No such file or directory"},
        {{"rm", "/"}, "Invalid file path."},
        {{"cat", "/../../etc/passwd"}, "Invalid file path."},
        {{"ls", "/missing"}, "No such file or directory"},
    };
    for (const auto& [args, reason] : cases) {
        auto r = library(args);
        EXPECT_EQ(r.exitCode, 1) << args[0] << " " << args[1];
        EXPECT_NE(r.err.find(reason), std::string::npos) << args[0] << " " << args[1] << ": " << r.err;
        EXPECT_TRUE(r.out.empty()) << r.out;
    }
    EXPECT_TRUE(fs::exists(scripts() / "a.lua"));
}

TEST_F(CliLibraryTest, MoveCarriesSettingsAndBindingsAndDeleteDropsSettings) {
    ASSERT_EQ(library({"new", "/a.lua"}).exitCode, 0);  // also makes the tables
    exec("INSERT INTO PLAY_SETTINGS (SCRIPT_TITLE, PLAY_DIRECTLY, TIME, INTERVAL, SPEED) VALUES ('/a.lua', 1, 3, 1, 1.0);");
    exec("INSERT INTO ACTIVATOR_TRIGGER (EVENT_NAME, FOR_WHAT, SCRIPT_TITLE) VALUES ('shake', 3, '/a.lua');");

    auto moved = library({"mv", "/a.lua", "/b.lua"});
    EXPECT_EQ(moved.exitCode, 0) << moved.err;
    EXPECT_TRUE(fs::exists(scripts() / "b.lua"));
    EXPECT_EQ(rows("SELECT SCRIPT_TITLE FROM PLAY_SETTINGS"), std::vector<std::string>{"/b.lua"});
    EXPECT_EQ(rows("SELECT SCRIPT_TITLE FROM ACTIVATOR_TRIGGER"), std::vector<std::string>{"/b.lua"});
    EXPECT_NE(library({"ls", "-l"}).out.find("/b.lua [plays directly] [trigger]"), std::string::npos);

    ASSERT_EQ(library({"new", "/c.lua"}).exitCode, 0);
    auto onto = library({"mv", "/b.lua", "/c.lua"});
    EXPECT_EQ(onto.exitCode, 1);
    EXPECT_NE(onto.err.find("File exists"), std::string::npos) << onto.err;
    EXPECT_EQ(rows("SELECT SCRIPT_TITLE FROM PLAY_SETTINGS"), std::vector<std::string>{"/b.lua"});

    EXPECT_EQ(library({"rm", "/b.lua"}).exitCode, 0);
    EXPECT_TRUE(rows("SELECT SCRIPT_TITLE FROM PLAY_SETTINGS").empty());
    EXPECT_EQ(rows("SELECT SCRIPT_TITLE FROM ACTIVATOR_TRIGGER"), std::vector<std::string>{"/b.lua"});
}

TEST_F(CliLibraryTest, HelpIsThereForEachOperation) {
    auto top = test::runProcess({TW_BINARY, "library", "--help"});
    EXPECT_EQ(top.exitCode, 0);
    for (const char* sub : {"ls", "new", "mkdir", "rm", "mv", "cat"}) {
        EXPECT_NE(top.out.find(sub), std::string::npos) << sub;
        auto help = test::runProcess({TW_BINARY, "library", sub, "--help"});
        EXPECT_EQ(help.exitCode, 0) << sub;
        EXPECT_NE(help.out.find("--root"), std::string::npos) << sub << ": " << help.out;
    }
    EXPECT_NE(library({"mv", "/only-one.lua"}).exitCode, 0);
}

}  // namespace
}  // namespace tw
