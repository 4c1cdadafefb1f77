// `tapwright encrypt`, `decrypt` and `play --password` as a user runs them: round trips, wrong
// passwords, refusals to overwrite, and encrypted scripts played with a remembered password.
#include <gtest/gtest.h>

#include <filesystem>

#include "TestSupport.h"
#include "library/Encrypt.h"

namespace tw {
namespace {

namespace fs = std::filesystem;

class CliEncryptTest : public ::testing::Test {
protected:
    test::ProcessResult run(std::vector<std::string> args) {
        args.insert(args.begin(), TW_BINARY);
        args.push_back("--root");
        args.push_back(root.str());
        return test::runProcess(args, {}, 60);
    }
    fs::path library() const { return root.path() / "var/mobile/Library/Tapwright/Scripts"; }
    fs::path file(const std::string& name, const std::string& content) {
        const fs::path p = files.path() / name;
        test::writeFile(p, content);
        return p;
    }
    test::TempDir root{"tw-cli-root"};
    test::TempDir files{"tw-cli-files"};
};

TEST_F(CliEncryptTest, EncryptThenDecryptGivesBackTheSameBytes) {
    std::string content = "-- a script\nprint('hi')\n";
    for (int i = 0; i < 20000; ++i) content += static_cast<char>(i * 7 % 256);  // binary too, 20 kB
    const fs::path plain = file("big.lua", content);

    auto enc = run({"encrypt", plain.string(), "--password", "s3cret"});
    ASSERT_EQ(enc.exitCode, 0) << enc.err;
    EXPECT_EQ(enc.out, plain.string() + ".e\n");
    ASSERT_TRUE(fs::exists(plain.string() + ".e"));
    EXPECT_EQ(test::readFile(plain), content) << "the plain file stays";
    EXPECT_NE(test::readFile(plain.string() + ".e"), content);

    // The library's own reader takes what the command wrote.
    const std::string e = test::readFile(plain.string() + ".e");
    const Decrypted direct = Encrypt::decryptData(Bytes(e.begin(), e.end()), "s3cret");
    ASSERT_TRUE(direct);
    EXPECT_EQ(std::string(direct.plaintext.begin(), direct.plaintext.end()), content);

    const fs::path out = files.path() / "back.lua";
    auto dec = run({"decrypt", plain.string() + ".e", "--password", "s3cret", "--out", out.string()});
    ASSERT_EQ(dec.exitCode, 0) << dec.err;
    EXPECT_EQ(dec.out, out.string() + "\n");
    EXPECT_EQ(test::readFile(out), content);
}

TEST_F(CliEncryptTest, DecryptWritesBesideTheFileButNeverOverAnExistingOneUnlessAsked) {
    const fs::path plain = file("s.lua", "print(1)");
    ASSERT_EQ(run({"encrypt", plain.string(), "--password", "pw"}).exitCode, 0);

    auto refused = run({"decrypt", plain.string() + ".e", "--password", "pw"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err, "tapwright: " + plain.string() + " exists; name the output with --out to replace it\n");

    test::writeFile(plain, "changed");
    auto replaced = run({"decrypt", plain.string() + ".e", "--password", "pw", "--out", plain.string()});
    EXPECT_EQ(replaced.exitCode, 0) << replaced.err;
    EXPECT_EQ(test::readFile(plain), "print(1)");

    fs::remove(plain);
    auto beside = run({"decrypt", plain.string() + ".e", "--password", "pw"});
    EXPECT_EQ(beside.exitCode, 0) << beside.err;
    EXPECT_EQ(test::readFile(plain), "print(1)");
}

TEST_F(CliEncryptTest, WrongPasswordsAndDamagedFilesFailWithOneLineAndTouchNothing) {
    const fs::path plain = file("w.lua", "print('w')");
    ASSERT_EQ(run({"encrypt", plain.string(), "--password", "right"}).exitCode, 0);
    const fs::path out = file("keep.txt", "keep me");

    auto wrong = run({"decrypt", plain.string() + ".e", "--password", "wrong", "--out", out.string()});
    EXPECT_EQ(wrong.exitCode, 1);
    EXPECT_EQ(wrong.out, "");
    EXPECT_EQ(wrong.err, "tapwright: cannot decrypt " + plain.string() + ".e: wrong password, or the file was changed\n");
    EXPECT_EQ(test::readFile(out), "keep me");

    const fs::path notEncrypted = file("n.e", "print('not encrypted')");
    auto bad = run({"decrypt", notEncrypted.string(), "--password", "right", "--out", out.string()});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_NE(bad.err.find("format version is not 3"), std::string::npos) << bad.err;
    EXPECT_EQ(test::readFile(out), "keep me");

    std::string e = test::readFile(plain.string() + ".e");
    test::writeFile(files.path() / "cut.e", e.substr(0, 50));
    auto cut = run({"decrypt", (files.path() / "cut.e").string(), "--password", "right", "--out", out.string()});
    EXPECT_EQ(cut.exitCode, 1);
    EXPECT_NE(cut.err.find("too short"), std::string::npos) << cut.err;
    EXPECT_EQ(test::readFile(out), "keep me");
    EXPECT_EQ(std::count(cut.err.begin(), cut.err.end(), '\n'), 1);

    auto missing = run({"encrypt", (files.path() / "none.lua").string(), "--password", "x"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.err, "tapwright: no file '" + (files.path() / "none.lua").string() + "'\n");

    auto noPassword = run({"decrypt", plain.string() + ".e"});
    EXPECT_NE(noPassword.exitCode, 0);
    EXPECT_NE(noPassword.err.find("--password"), std::string::npos) << noPassword.err;

    auto help = test::runProcess({TW_BINARY, "decrypt", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("--out"), std::string::npos);
    EXPECT_NE(help.out.find("version 3"), std::string::npos);
}

TEST_F(CliEncryptTest, LibraryPathsNameScriptsOfTheDeviceLibrary) {
    test::writeFile(library() / "lib.lua", "print('lib')");
    auto enc = run({"encrypt", "/lib.lua", "--password", "pw"});
    ASSERT_EQ(enc.exitCode, 0) << enc.err;
    EXPECT_TRUE(fs::exists(library() / "lib.lua.e"));
    auto dec = run({"decrypt", "/lib.lua.e", "--password", "pw", "--out", (files.path() / "lib.lua").string()});
    EXPECT_EQ(dec.exitCode, 0) << dec.err;
    EXPECT_EQ(test::readFile(files.path() / "lib.lua"), "print('lib')");
}

TEST_F(CliEncryptTest, PlayDecryptsRemembersThePasswordAndRefusesAWrongOne) {
    const fs::path plain = file("secret.lua", "print('secret ' .. 6 * 7)");
    ASSERT_EQ(run({"encrypt", plain.string(), "--password", "open sesame"}).exitCode, 0);
    const std::string encrypted = plain.string() + ".e";

    // Nothing remembered yet and no password: refused before anything plays.
    auto none = run({"play", encrypted});
    EXPECT_EQ(none.exitCode, 1);
    EXPECT_EQ(none.out, "");
    EXPECT_NE(none.err.find("tapwright: cannot decrypt /secret.lua.e: wrong password, or the file was changed (give it "
                            "with --password)"),
              std::string::npos)
        << none.err;

    auto wrong = run({"play", encrypted, "--password", "open sesam"});
    EXPECT_EQ(wrong.exitCode, 1);
    EXPECT_EQ(wrong.out, "");
    EXPECT_NE(wrong.err.find("cannot decrypt /secret.lua.e: wrong password"), std::string::npos) << wrong.err;

    auto first = run({"play", encrypted, "--password", "open sesame"});
    EXPECT_EQ(first.exitCode, 0) << first.err;
    EXPECT_EQ(first.out, "secret 42\n");
    EXPECT_TRUE(fs::exists(library() / "secret.lua.e"));
    EXPECT_FALSE(fs::exists(library() / "secret.lua")) << "the plain text never reaches the library";

    // The password is remembered for the library path; a second play needs none.
    auto second = run({"play", "/secret.lua.e"});
    EXPECT_EQ(second.exitCode, 0) << second.err;
    EXPECT_EQ(second.out, "secret 42\n");
    const std::string prefs = test::readFile(root.path() / "var/mobile/Library/Preferences/com.apple.springboard.plist");
    EXPECT_NE(prefs.find("script.password./secret.lua.e"), std::string::npos);

    // A script re-encrypted with another password: the remembered one fails and is forgotten.
    test::writeFile(plain, "print('new')");
    ASSERT_EQ(run({"encrypt", plain.string(), "--password", "changed"}).exitCode, 0);
    auto stale = run({"play", encrypted});
    EXPECT_EQ(stale.exitCode, 1);
    EXPECT_NE(stale.err.find("(the remembered password was forgotten)"), std::string::npos) << stale.err;
    auto again = run({"play", "/secret.lua.e"});
    EXPECT_NE(again.err.find("(give it with --password)"), std::string::npos) << again.err;
    auto fresh = run({"play", "/secret.lua.e", "--password", "changed"});
    EXPECT_EQ(fresh.exitCode, 0) << fresh.err;
    EXPECT_EQ(fresh.out, "new\n");
}

TEST_F(CliEncryptTest, APlayOfNonAsciiEncryptedTextIsRefused) {
    const fs::path plain = file("u.lua", "print('caf\xC3\xA9')");
    ASSERT_EQ(run({"encrypt", plain.string(), "--password", "pw"}).exitCode, 0);
    auto r = run({"play", plain.string() + ".e", "--password", "pw"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("not ASCII"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace tw
