// Schedules and settings from the command line: they reach a running device's home screen through
// its commands port, a schedule starts its script there, and the listings read the device's files.
#include <gtest/gtest.h>

#include "Cli.h"

namespace tw {
namespace {

TEST(TimerCommand, ASchedulePlaysOnTheRunningDeviceAndSettingsGoThroughItsPort) {
    test::Cli cli;
    const auto library = cli.root() / "var/mobile/Library/Tapwright";
    std::filesystem::create_directories(library / "Scripts");
    test::writeFile(library / "Scripts/a.lua", "log('scheduled')\n");

    const auto alone = cli.run({"timer", "add", "/a.lua", "--at", "+0"});
    EXPECT_EQ(alone.exitCode, 1);
    EXPECT_NE(alone.err.find("no device runs on"), std::string::npos) << alone.err;
    EXPECT_EQ(cli.run({"timer", "add", "/missing.lua", "--at", "+0"}).exitCode, 1);

    ASSERT_TRUE(cli.startDevice()) << cli.device().err();
    // The home screen takes its port a moment after the input-event role answers.
    ASSERT_TRUE(test::eventually(
        [&] { return cli.run({"settings", "set", "TAPWRIGHT.SETTINGS.LANGUAGE", "3"}).exitCode == 0; }, 10000));
    EXPECT_EQ(cli.run({"settings", "get", "TAPWRIGHT.SETTINGS.LANGUAGE"}).out, "3\n");
    EXPECT_EQ(cli.run({"settings", "get", "TAPWRIGHT.SETTINGS.LOG_ERRORS"}).out, "true\n");
    EXPECT_EQ(cli.run({"settings", "set", "TAPWRIGHT.SETTINGS.LOG_ERRORS", "off"}).exitCode, 0);
    EXPECT_EQ(cli.run({"settings", "get", "TAPWRIGHT.SETTINGS.LOG_ERRORS"}).out, "false\n");
    EXPECT_EQ(cli.run({"settings", "set", "TAPWRIGHT.SETTINGS.WEB_SERVER_AUTO_LAUNCH", "true"}).exitCode, 0);
    EXPECT_EQ(cli.run({"settings", "get", "TAPWRIGHT.SETTINGS.WEB_SERVER_AUTO_LAUNCH"}).out, "true\n");
    EXPECT_EQ(cli.run({"settings", "set", "TAPWRIGHT.SETTINGS.LANGUAGE", "7"}).exitCode, 1);

    const auto added = cli.run({"timer", "add", "a.lua", "--at", "+0", "--repeat", "3600"});
    ASSERT_EQ(added.exitCode, 0) << added.err;
    EXPECT_TRUE(test::eventually([&] {
        return test::readFile(library / "Library/log.log").find(" scheduled\n") != std::string::npos;
    }));
    const auto listed = cli.run({"timers"}).out;
    EXPECT_EQ(listed.rfind("/a.lua  ", 0), 0u) << listed;
    EXPECT_NE(listed.find("  every 3600 s\n"), std::string::npos) << listed;

    EXPECT_EQ(cli.run({"timer", "rm", "/a.lua"}).exitCode, 0);
    EXPECT_EQ(cli.run({"timers"}).out, "");
}

}  // namespace
}  // namespace tw
