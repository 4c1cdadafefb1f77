#include <gtest/gtest.h>
#include <sys/wait.h>

#include "TestSupport.h"
#include "device/DeviceApps.h"

namespace tw::device {
namespace {

using namespace std::chrono_literals;
const std::string kNotes = "me.tapwright.demo.notes", kStubborn = "com.example.stubborn";

class DeviceAppsTest : public ::testing::Test {
protected:
    void SetUp() override {  // the role: the stubborn app ignores SIGTERM; each notes its arguments once ready
        test::writeFile(bin.path() / "role", "#!/bin/sh\ncase $2 in " + kStubborn + ") trap '' TERM ;; esac\necho \"$@\" > " +
                                                 bin.str() + "/$2.tmp\nmv " + bin.str() + "/$2.tmp " + bin.str() + "/$2\nexec sleep 30\n");
        std::filesystem::permissions(bin.path() / "role", std::filesystem::perms::owner_all);
    }
    void TearDown() override { stopRunningApps(root.str(), 200ms); }
    bool ready(const std::string& id) { return test::eventually([&] { return std::filesystem::exists(bin.path() / id); }); }

    test::TempDir root{"tw-apps"}, bin{"tw-apps-bin"};
    DeviceApps apps{root.str(), {.apps = {{kNotes, "Notes", "1.0"}, {kStubborn, "Stubborn", "2.0"}}}, bin.str() + "/role"};
};

TEST_F(DeviceAppsTest, ALaunchedAppRunsDetachedAndEveryInstanceSeesIt) {
    EXPECT_FALSE(apps.launchApplication("com.example.none", false) || apps.applicationWithBundleIdentifier("../" + kNotes));
    ASSERT_TRUE(apps.launchApplication(kNotes, false));
    DeviceApps elsewhere(root.str(), {.apps = {{kNotes, "Notes", "1.0"}}}, bin.str() + "/role");  // another process's view
    const auto notes = elsewhere.applicationWithDisplayIdentifier(kNotes);
    ASSERT_TRUE(notes && notes->activationState == "running");
    EXPECT_NE(::getsid(notes->pid), ::getsid(0));  // a session of its own: it outlives the launcher
    ASSERT_TRUE(ready(kNotes));
    EXPECT_EQ(test::readFile(bin.path() / kNotes),
              "role " + kNotes + " --root " + root.str() + " --profile " + root.str() + "/run/apps/profile.json\n");
    ASSERT_TRUE(elsewhere.launchApplication(kNotes, true));  // running already: nothing new starts
    EXPECT_EQ(runningAppPid(root.str(), kNotes), notes->pid);
    apps.sendSignal(notes->pid, SIGTERM);
    EXPECT_TRUE(test::eventually([&] { return runningAppPid(root.str(), kNotes) == 0; }));
    EXPECT_EQ(apps.applicationWithBundleIdentifier(kNotes).value_or(ApplicationRecord{}).activationState, "not running");
}

TEST_F(DeviceAppsTest, APidFileCountsOnlyWhileItsProcessLivesNotForAReusedPidOrAZombie) {
    const std::string file = appPidFile(root.str(), kNotes);
    const auto start = processStartTime(::getpid());
    ASSERT_TRUE(start);
    test::writeFile(file, std::to_string(::getpid()) + " " + std::to_string(*start + 1));  // a pid used again
    EXPECT_EQ(runningAppPid(root.str(), kNotes), 0);
    {
        RunningAppMarker marker(root.str(), kNotes);
        EXPECT_EQ(runningAppPid(root.str(), kNotes), ::getpid());
    }
    EXPECT_FALSE(std::filesystem::exists(file));  // the marker takes its file with it, unless another process took over
    {
        RunningAppMarker marker(root.str(), kNotes);
        test::writeFile(file, "12345 67\n");
    }
    EXPECT_TRUE(std::filesystem::exists(file) && appPidFile(root.str(), "..").empty());
    const pid_t child = ::fork();
    if (child == 0) _exit(0);
    EXPECT_TRUE(test::eventually([&] { return !processStartTime(child); }));  // a zombie, not reaped yet
    ::waitpid(child, nullptr, 0);
}

TEST_F(DeviceAppsTest, StoppingTheAppsEndsEveryOneEvenAStubbornOneAndClearsThePidFiles) {
    ASSERT_TRUE(apps.launchApplication(kNotes, false) && apps.launchApplication(kStubborn, false));
    ASSERT_TRUE(ready(kStubborn));  // its trap is set
    const int stubborn = runningAppPid(root.str(), kStubborn);
    test::writeFile(appPidFile(root.str(), "com.example.gone"), "999999999 5\n");  // stale
    EXPECT_EQ(stopRunningApps(root.str(), 300ms).size(), 2u);
    EXPECT_FALSE(processStartTime(stubborn));
    for (const auto& entry : std::filesystem::directory_iterator(appsRunDir(root.str()))) EXPECT_NE(entry.path().extension(), ".pid");
}

}  // namespace
}  // namespace tw::device
