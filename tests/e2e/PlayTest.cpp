// `tapwright play` of a script file with repeats: every run's touches reach the device, and a
// script error ends the play after the run that failed, told on stderr, in the error log and by
// the exit status.
#include <gtest/gtest.h>

#include <csignal>
#include <set>

#include "Cli.h"

namespace tw {
namespace {

TEST(Play, RunsRepeatTouchTheDeviceAndAScriptErrorEndsThePlayAfterItsRun) {
    test::Cli cli;
    // A folder where the settings file belongs: settings cannot be read or stored, the play goes on.
    std::filesystem::create_directories(cli.root() / "var/mobile/Library/Preferences/com.apple.springboard.plist");
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
    // The script is named as the phone sees it, from the device root down.
    EXPECT_NE(r.err.find("tapwright: script error: /var/mobile/Library/Tapwright/Scripts/script.lua:5: run 2 broke\n"),
              std::string::npos) << r.err;
    const std::string log = test::readFile(cli.root() / "var/mobile/Library/Tapwright/Library/log.log");
    EXPECT_NE(log.find("script.lua:5: run 2 broke"), std::string::npos) << log;
    EXPECT_NE(log.find("Failed to save the setting"), std::string::npos) << log;

    // Down and up of finger 1, then of finger 2, in screen fractions; nothing of a third run.
    EXPECT_EQ(cli.touches(), (std::vector<std::string>{
                                 "script 1 at 0.1,0.5 mask 3 touch 1", "script 1 at 0.1,0.5 mask 3 touch 0",
                                 "script 2 at 0.2,0.5 mask 3 touch 1", "script 2 at 0.2,0.5 mask 3 touch 0"}));
    // The file was imported into the library, and the play's own roles ended with it.
    EXPECT_TRUE(std::filesystem::exists(cli.root() / "var/mobile/Library/Tapwright/Scripts/script.lua"));
    EXPECT_TRUE(cli.roles().empty());
}

// However a play ends, the roles it started end with it, and what they leave behind in the run
// folder never blocks the next play.
TEST(Play, AKilledPlayTakesItsRolesAlongAndTheNextPlayStartsAfresh) {
    test::Cli cli;
    auto play = cli.start({"play", cli.file("loop.lua", "print('looping') io.stdout:flush() while true do usleep(1000) end"),
                           "--trace", cli.trace().string()});
    ASSERT_TRUE(test::eventually([&] { return play->out() == "looping\n" && !cli.roles().empty(); })) << play->err();
    EXPECT_EQ(play->stop(SIGKILL), 128 + SIGKILL);
    EXPECT_TRUE(test::eventually([&] { return cli.roles().empty(); }));
    const auto next = cli.play("print('again')");
    EXPECT_EQ(next.exitCode, 0) << next.err;
    EXPECT_EQ(next.out, "again\n");
}

// Names that scripts written for this kind of tool call everywhere, on the oldest profile (its
// screen comes through the older display service), with what the device shows of them.
TEST(Play, ScriptsInTheWildRunUnchangedOnTheOldestProfile) {
    test::Cli cli;
    ASSERT_TRUE(cli.startDevice({"--profile", "iphone4"})) << cli.device().err();
    const auto r = cli.play("print(getScreenSize()) print(getScreenResolution())\n"
                            "print(getColor(0, 0), #findColor(0, 1), intToRgb(0x0A0908)) print(rgbToInt(10, 9, 8))\n"
                            "appActivate('me.tapwright.demo.notes') print(frontMostAppId(), appIsActive('me.tapwright.demo.notes'))\n"
                            "fakeLocation('me.tapwright.demo.notes', 1.5, -2.25)\n"
                            "toast('hi', 3, 'top') openURL('https://example.org/a?b') screenshot('full')\n"
                            "print(findImage('missing.bmp', 0))\n");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "320\t480\n640\t960\n0\t1\t10\t9\t8\n657672\nme.tapwright.demo.notes\ttrue\nnil\n");
    EXPECT_NE(r.err.find("Unable to open file"), std::string::npos) << r.err;
    EXPECT_TRUE(std::filesystem::exists(cli.root() / "var/mobile/Library/Tapwright/Scripts/full.bmp"));
    const std::string log = test::readFile(cli.root() / "var/mobile/Library/Tapwright/Library/log.log");
    EXPECT_EQ(log.find("surface"), std::string::npos) << log;

    // The app reads its own entry of the location table, as it started and when it changed.
    EXPECT_TRUE(test::eventually([&] {
        for (const auto& l : cli.traceLines("location"))
            if (l["bundle"] == "me.tapwright.demo.notes" && l["latitude"] == 1.5 && l["longitude"] == -2.25) return true;
        return false;
    })) << test::readFile(cli.trace());
    std::set<std::string> shown;  // a toast does not wait: in either order
    for (auto line : cli.traceLines()) if (line["kind"] == "toast" || line["kind"] == "openURL") shown.insert(test::withoutTime(line.dump()));
    EXPECT_EQ(shown, (std::set<std::string>{R"({"kind":"toast","position":"top","seconds":3.0,"text":"hi"})",
                                            R"({"kind":"openURL","url":"https://example.org/a?b"})"}));
}

}  // namespace
}  // namespace tw
