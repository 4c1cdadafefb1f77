// The script library edited with `tapwright library`, a script in it encrypted with `tapwright
// encrypt`, played with its password (then remembered) and decrypted back.
#include <gtest/gtest.h>

#include "Cli.h"

namespace tw {
namespace {

TEST(LibraryAndCrypt, ALibraryScriptIsEditedEncryptedPlayedWithItsPasswordAndDecrypted) {
    test::Cli cli;
    const auto scripts = cli.root() / "var/mobile/Library/Tapwright/Scripts";
    const std::string text = "print('secret ' .. 6 * 7)\n";
    EXPECT_EQ(cli.run({"library", "mkdir", "/folder"}).exitCode, 0);
    EXPECT_EQ(cli.run({"library", "new", "draft.lua"}).exitCode, 0);  // the leading "/" may be left out
    test::writeFile(scripts / "draft.lua", text);
    EXPECT_EQ(cli.run({"library", "new", "/folder/old.lua"}).exitCode, 0);
    EXPECT_EQ(cli.run({"library", "ls"}).out, "/folder/\n/draft.lua\n");
    EXPECT_EQ(cli.run({"library", "rm", "/folder/old.lua"}).exitCode, 0);
    const auto moved = cli.run({"library", "mv", "/draft.lua", "/folder/s.lua"});
    ASSERT_EQ(moved.exitCode, 0) << moved.err;
    EXPECT_EQ(cli.run({"library", "cat", "/folder/s.lua"}).out, text);

    const auto encrypted = cli.run({"encrypt", "/folder/s.lua", "--password", "open sesame"});
    ASSERT_EQ(encrypted.exitCode, 0) << encrypted.err;
    EXPECT_EQ(encrypted.out, (std::filesystem::canonical(scripts) / "folder/s.lua.e").string() + "\n");
    EXPECT_EQ(cli.run({"library", "rm", "/folder/s.lua"}).exitCode, 0);
    EXPECT_EQ(cli.run({"library", "ls", "/folder"}).out, "/folder/s.lua.e\n");

    const auto first = cli.run({"play", "/folder/s.lua.e", "--password", "open sesame"});
    EXPECT_EQ(first.exitCode, 0) << first.err;
    EXPECT_EQ(first.out, "secret 42\n");
    const auto wrong = cli.run({"play", "/folder/s.lua.e", "--password", "open sesam"});
    EXPECT_EQ(wrong.exitCode, 1);
    EXPECT_EQ(wrong.out, "");
    EXPECT_EQ(wrong.err, "tapwright: cannot decrypt /folder/s.lua.e: wrong password, or the file was changed\n");
    // The password that worked is remembered; the wrong one given since did not replace it.
    const auto remembered = cli.run({"play", "/folder/s.lua.e"});
    EXPECT_EQ(remembered.exitCode, 0) << remembered.err;
    EXPECT_EQ(remembered.out, "secret 42\n");

    const auto refused = cli.run({"decrypt", "/folder/s.lua.e", "--password", "open sesam"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_FALSE(std::filesystem::exists(scripts / "folder/s.lua"));
    const auto decrypted = cli.run({"decrypt", "/folder/s.lua.e", "--password", "open sesame"});
    ASSERT_EQ(decrypted.exitCode, 0) << decrypted.err;
    EXPECT_EQ(test::readFile(scripts / "folder/s.lua"), text);

    // A link inside the library to a folder beside it (whose name starts like the library's) is
    // not a way out, for any command.
    const auto outside = scripts.parent_path() / "Scripts-old";
    std::filesystem::create_directory(outside);
    test::writeFile(outside / "x.lua", text);
    std::filesystem::create_directory_symlink(outside, scripts / "out");
    for (const std::vector<std::string>& args : {std::vector<std::string>{"library", "cat", "/out/x.lua"},
                                                 {"library", "ls", "/out"}, {"library", "new", "/out/y.lua"},
                                                 {"library", "mkdir", "/out/d"}, {"encrypt", "/out/x.lua", "--password", "p"}}) {
        const auto r = cli.run(args);
        EXPECT_NE(r.exitCode, 0) << args[1];
        EXPECT_EQ(r.out, "") << args[1];
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(outside), {}), 1);
}

}  // namespace
}  // namespace tw
