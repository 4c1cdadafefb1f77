// `tapwright play` of a script file with repeats: every run's touches reach the device, and a
// script error ends the play after the run that failed, told on stderr, in the error log and by
// the exit status.
#include <gtest/gtest.h>

#include "Cli.h"

namespace tw {
namespace {

TEST(Play, RunsRepeatTouchTheDeviceAndAScriptErrorEndsThePlayAfterItsRun) {
    test::Cli cli;
    const std::string runs = cli.file("runs.txt").string();
    // Each run counts itself in runs.txt, touches with its run number as finger, and run 2 fails.
    const auto r = cli.play("local f = io.open('" + runs + "', 'a') f:write('x') f:close()\n"
                            "local n = #io.open('" + runs + "'):read('*a')\n"
                            "print('run ' .. n)\n"
                            "touchDown(n, 75 * n, 667) usleep(1000) touchUp(n, 75 * n, 667) usleep(1000)\n"
                            "if n == 2 then error('run ' .. n .. ' broke') end\n",
                            {"--repeat", "3", "--interval", "0"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.out, "run 1\nrun 2\n");
    EXPECT_NE(r.err.find("tapwright: script error: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("script.lua:5: run 2 broke\n"), std::string::npos) << r.err;
    const std::string log = test::readFile(cli.root() / "var/mobile/Library/Tapwright/Library/log.log");
    EXPECT_NE(log.find("script.lua:5: run 2 broke"), std::string::npos) << log;

    // Down and up of finger 1, then of finger 2, in screen fractions; nothing of a third run.
    EXPECT_EQ(cli.touches(), (std::vector<std::string>{
                                 "script 1 at 0.1,0.5 mask 3 touch 1", "script 1 at 0.1,0.5 mask 3 touch 0",
                                 "script 2 at 0.2,0.5 mask 3 touch 1", "script 2 at 0.2,0.5 mask 3 touch 0"}));
    // The file was imported into the library, and the play's own roles ended with it.
    EXPECT_TRUE(std::filesystem::exists(cli.root() / "var/mobile/Library/Tapwright/Scripts/script.lua"));
    EXPECT_TRUE(cli.roles().empty());
}

}  // namespace
}  // namespace tw
