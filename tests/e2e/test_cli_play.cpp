// `tapwright play` as a user runs it: output, alerts, exit status, library import, and the
// requests that reach an injector on the same device root.
#include <gtest/gtest.h>

#include <filesystem>

#include "EngineFixture.h"
#include "injection/records/MessageIds.h"
#include "injection/records/TouchRecord.h"
#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/UnixMessagePorts.h"

namespace tw {
namespace {

namespace fs = std::filesystem;

class CliPlayTest : public ::testing::Test {
protected:
    test::ProcessResult play(std::vector<std::string> extra) {
        std::vector<std::string> args = {TW_BINARY, "play"};
        args.insert(args.end(), extra.begin(), extra.end());
        args.push_back("--root");
        args.push_back(root.str());
        return test::runProcess(args);
    }
    fs::path library() const { return root.path() / "var/mobile/Library/Tapwright/Scripts"; }
    std::string script(const std::string& name, const std::string& lua) {
        const fs::path p = scripts.path() / name;
        test::writeFile(p, lua);
        return p.string();
    }
    test::TempDir root{"tw-cli-root"};
    test::TempDir scripts{"tw-cli-scripts"};
};

TEST_F(CliPlayTest, PrintsScriptOutputAndTheFinishedAlertAndExitsZero) {
    auto r = play({script("hello.lua", "print('hello ' .. 6 * 7) print(rootDir())"), "--repeat", "2", "--interval", "0"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "hello 42\n" + library().string() + "/\nhello 42\n" + library().string() + "/\n");
    EXPECT_NE(r.err.find("[alert] Tapwright: Playing Finished! [OK]"), std::string::npos) << r.err;
    // Imported into the library root under its file name; the device got its app folder.
    EXPECT_TRUE(fs::exists(library() / "hello.lua"));
    EXPECT_TRUE(fs::exists(root.path() / "Applications/Tapwright.app/Extensions.lua"));
}

TEST_F(CliPlayTest, AScriptErrorExitsOneWithTheErrorPrintedAndLogged) {
    auto r = play({script("bad.lua", "print('before')\nerror('it broke')\nprint('after')"), "--repeat", "3"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.out, "before\n");
    EXPECT_NE(r.err.find("bad.lua:2: it broke"), std::string::npos) << r.err;
    const std::string log = test::readFile(root.path() / "var/mobile/Library/Tapwright/Library/log.log");
    EXPECT_NE(log.find("bad.lua:2: it broke"), std::string::npos) << log;
}

TEST_F(CliPlayTest, LibraryPathsAreFoundAndMissingScriptsAreExplained) {
    test::writeFile(library() / "lib.lua", "print('from the library')");
    auto r = play({"/lib.lua"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "from the library\n");

    auto missing = play({"/nowhere/none.lua"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.err.find("no script '/nowhere/none.lua'"), std::string::npos) << missing.err;
}

TEST_F(CliPlayTest, BadOptionsAreRefusedWithHelp) {
    auto r = play({script("a.lua", ""), "--speed", "5"});
    EXPECT_NE(r.exitCode, 0);
    EXPECT_NE(r.err.find("--speed"), std::string::npos) << r.err;
    auto help = test::runProcess({TW_BINARY, "play", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("--repeat"), std::string::npos);
    EXPECT_NE(help.out.find("Exit status"), std::string::npos);
}

TEST_F(CliPlayTest, RequestsReachAnInjectorOnTheSameRoot) {
    auto loop = std::make_shared<linuxp::AsioRunLoop>();
    linuxp::UnixMessagePortService ports((fs::canonical(root.path()) / "run/ports").string());
    test::FakeInjector injector(ports);
    ASSERT_TRUE(injector.listening());
    auto r = play({script("touch.lua", "touchDown(4, 30, 40) usleep(1000) touchUp(4, 30, 40) keyDown(KEY_TYPE.HOME_BUTTON)")});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    ASSERT_TRUE(injector.waitForMessages(6));
    std::vector<int32_t> ids;
    for (const auto& m : injector.messages()) ids.push_back(m.msgid);
    // Scale flag, down, sync (usleep), up, key, then the last sync of the run.
    EXPECT_EQ(ids, (std::vector<int32_t>{kMsgScaleScreen, kMsgTouch, kMsgSync, kMsgTouch, kMsgKey, kMsgSync}));
    EXPECT_EQ(injector.messages()[1].data, TouchRecord({kTouchDown, 4, 30, 40}).encode());
}

}  // namespace
}  // namespace tw
