// The virtual device's services behind the system script functions: the shared pasteboard, apps
// as role processes with pid files, the supervisor's restart policy, app bundle information, and
// the speaker with its players and trace lines.
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <future>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "TestSupport.h"
#include "device/DeviceApps.h"
#include "device/DeviceBundles.h"
#include "device/DevicePasteboard.h"
#include "device/DeviceSpeaker.h"
#include "device/HidHubClient.h"
#include "roles/Supervisor.h"
#include "device/VirtualHidSystem.h"
#include "platform/linux/AsioRunLoop.h"
#include "ui/HeadlessUserInterface.h"

namespace tw {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;

// An executable shell script in `dir`.
std::string writeScript(const fs::path& dir, const std::string& name, const std::string& body) {
    const fs::path path = dir / name;
    test::writeFile(path, "#!/bin/sh\n" + body);
    fs::permissions(path, fs::perms::owner_all | fs::perms::group_read | fs::perms::others_read);
    return path.string();
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        if (!line.empty()) out.push_back(line);
    return out;
}

// ---------------------------------------------------------------------------------------------
// Pasteboard

TEST(DevicePasteboard, IsSharedByEveryInstanceOnTheSameRoot) {
    test::TempDir root("tw-pboard");
    device::DevicePasteboard mine(root.str()), theirs(root.str());
    EXPECT_EQ(theirs.string(), std::nullopt);  // nothing copied yet

    mine.setString("h\xC3\xA9llo");
    EXPECT_EQ(theirs.string(), "h\xC3\xA9llo");
    theirs.setString(std::string("a\0b\nc", 5));
    EXPECT_EQ(mine.string(), std::string("a\0b\nc", 5));
    mine.setString("");
    EXPECT_EQ(theirs.string(), "");  // empty text is text, not "nothing"

    // Replacing leaves exactly the one file behind: no half-written companions.
    const fs::path folder = fs::path(mine.path()).parent_path();
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1);
    EXPECT_EQ(mine.path(), root.str() + "/var/mobile/Library/Pasteboard/general");

    test::TempDir other("tw-pboard");
    EXPECT_EQ(device::DevicePasteboard(other.str()).string(), std::nullopt);
}

// ---------------------------------------------------------------------------------------------
// Apps

linuxp::DeviceProfile appProfile() {
    linuxp::DeviceProfile profile;
    profile.serialNumber = "C39PQ0ABG5MR";
    profile.apps = {{"me.tapwright.demo.notes", "Notes", "1.0"},
                    {"com.example.stubborn", "Stubborn", "2.0"},
                    {"com.example.broken", "Broken", "0.1"}};
    return profile;
}

class DeviceAppsTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Stands in for `tapwright role`: notes its arguments and waits to be ended; the stubborn
        // app ignores SIGTERM, the broken one cannot start.
        executable = writeScript(tools.path(), "fake-role",
                                 "echo \"$@\" > \"" + tools.str() + "/$2.args\"\n"
                                 "case \"$2\" in\n"
                                 "  com.example.stubborn) trap '' TERM ;;\n"
                                 "  com.example.broken) exit 1 ;;\n"
                                 "esac\n"
                                 "exec sleep 30\n");
    }
    void TearDown() override { device::stopRunningApps(root.str(), 200ms); }

    test::TempDir root{"tw-apps"};
    test::TempDir tools{"tw-apps-bin"};
    std::string executable;
};

TEST(ProcessStartTime, CountsLiveProcessesOnlyNotZombiesOrTheReaped) {
    EXPECT_TRUE(device::processStartTime(static_cast<int>(::getpid())).has_value());
    EXPECT_FALSE(device::processStartTime(0).has_value());
    EXPECT_FALSE(device::processStartTime(-1).has_value());

    const pid_t child = ::fork();
    if (child == 0) _exit(0);
    ASSERT_GT(child, 0);
    // Unreaped, the child is a zombie: it does not run any more.
    ASSERT_TRUE(test::eventually([&] {
        const std::string stat = test::readFile("/proc/" + std::to_string(child) + "/stat");
        const size_t close = stat.rfind(')');
        return close != std::string::npos && stat.compare(close + 2, 1, "Z") == 0;
    }, 5000));
    EXPECT_FALSE(device::processStartTime(child).has_value());
    ::waitpid(child, nullptr, 0);
    EXPECT_FALSE(device::processStartTime(child).has_value());
}

TEST_F(DeviceAppsTest, OnlyTheProfilesAppsAreKnown) {
    device::DeviceApps apps(root.str(), appProfile(), executable);
    EXPECT_FALSE(apps.applicationWithBundleIdentifier("com.example.none"));
    EXPECT_FALSE(apps.applicationWithDisplayIdentifier("com.apple.springboard"));
    EXPECT_FALSE(apps.launchApplication("com.example.none", false));
    EXPECT_FALSE(apps.launchApplication("../me.tapwright.demo.notes", false));

    auto notes = apps.applicationWithBundleIdentifier("me.tapwright.demo.notes");
    ASSERT_TRUE(notes);
    EXPECT_EQ(notes->bundleIdentifier, "me.tapwright.demo.notes");
    EXPECT_EQ(notes->pid, 0);
    EXPECT_EQ(notes->activationState, "not running");
    EXPECT_EQ(apps.applicationWithDisplayIdentifier("me.tapwright.demo.notes")->activationState, "not running");
}

TEST_F(DeviceAppsTest, ALaunchedAppRunsDetachedAndEveryInstanceSeesIt) {
    device::DeviceApps apps(root.str(), appProfile(), executable);
    ASSERT_TRUE(apps.launchApplication("me.tapwright.demo.notes", false));

    device::DeviceApps elsewhere(root.str(), appProfile(), executable);  // another process's view
    auto notes = elsewhere.applicationWithBundleIdentifier("me.tapwright.demo.notes");
    ASSERT_TRUE(notes);
    EXPECT_EQ(notes->activationState, "running");
    ASSERT_GT(notes->pid, 0);
    EXPECT_EQ(device::runningAppPid(root.str(), "me.tapwright.demo.notes"), notes->pid);
    EXPECT_NE(::getsid(notes->pid), ::getsid(0));  // a session of its own: it outlives the launcher

    // It was started as the app's role on this root, with the profile written beside the pid files.
    const fs::path argsFile = tools.path() / "me.tapwright.demo.notes.args";
    ASSERT_TRUE(test::eventually([&] { return fs::exists(argsFile); }, 5000));
    const std::string profileFile = root.str() + "/run/apps/profile.json";
    EXPECT_EQ(test::readFile(argsFile),
              "role me.tapwright.demo.notes --root " + root.str() + " --profile " + profileFile + "\n");
    const auto profile = linuxp::loadDeviceProfile(profileFile);
    EXPECT_EQ(profile.serialNumber, "C39PQ0ABG5MR");
    ASSERT_EQ(profile.apps.size(), 3u);
    EXPECT_EQ(profile.apps[1].bundleId, "com.example.stubborn");
    EXPECT_EQ(profile.apps[1].version, "2.0");

    // A second launch finds it running and starts nothing.
    ASSERT_TRUE(elsewhere.launchApplication("me.tapwright.demo.notes", true));
    EXPECT_EQ(device::runningAppPid(root.str(), "me.tapwright.demo.notes"), notes->pid);

    apps.sendSignal(notes->pid, SIGTERM);
    EXPECT_TRUE(test::eventually(
        [&] { return apps.applicationWithBundleIdentifier("me.tapwright.demo.notes")->activationState == "not running"; },
        5000));
    EXPECT_EQ(apps.applicationWithBundleIdentifier("me.tapwright.demo.notes")->pid, 0);
}

TEST_F(DeviceAppsTest, AnAppWhoseProcessCannotRunIsNotRunning) {
    device::DeviceApps apps(root.str(), appProfile(), executable);
    apps.launchApplication("com.example.broken", false);
    EXPECT_TRUE(test::eventually([&] { return device::runningAppPid(root.str(), "com.example.broken") == 0; }, 5000));

    device::DeviceApps missing(root.str(), appProfile(), (tools.path() / "no-such-program").string());
    missing.launchApplication("me.tapwright.demo.notes", false);
    EXPECT_TRUE(test::eventually([&] { return device::runningAppPid(root.str(), "me.tapwright.demo.notes") == 0; }, 5000));
}

TEST_F(DeviceAppsTest, APidFileCountsOnlyWhileItsProcessLives) {
    const std::string file = device::appPidFile(root.str(), "me.tapwright.demo.notes");
    const auto myStart = device::processStartTime(static_cast<int>(::getpid()));
    ASSERT_TRUE(myStart);
    const std::string me = std::to_string(::getpid());

    test::writeFile(file, me + " " + std::to_string(*myStart + 1) + "\n");  // a reused pid
    EXPECT_EQ(device::runningAppPid(root.str(), "me.tapwright.demo.notes"), 0);
    test::writeFile(file, "garbage\n");
    EXPECT_EQ(device::runningAppPid(root.str(), "me.tapwright.demo.notes"), 0);
    test::writeFile(file, "1 " + std::to_string(*myStart) + "\n");
    EXPECT_EQ(device::runningAppPid(root.str(), "me.tapwright.demo.notes"), 0);

    {
        device::RunningAppMarker marker(root.str(), "me.tapwright.demo.notes");
        EXPECT_EQ(device::runningAppPid(root.str(), "me.tapwright.demo.notes"), ::getpid());
        EXPECT_EQ(test::readFile(file), me + " " + std::to_string(*myStart) + "\n");
    }
    EXPECT_FALSE(fs::exists(file));  // the marker takes its file with it

    {
        device::RunningAppMarker marker(root.str(), "me.tapwright.demo.notes");
        test::writeFile(file, "12345 67\n");  // meanwhile another process of the app took over
    }
    EXPECT_EQ(test::readFile(file), "12345 67\n");

    EXPECT_EQ(device::appPidFile(root.str(), ""), "");
    EXPECT_EQ(device::appPidFile(root.str(), ".."), "");
    EXPECT_EQ(device::appPidFile(root.str(), "a/b"), "");
}

TEST_F(DeviceAppsTest, StoppingTheAppsEndsEveryRunningAppAndClearsThePidFiles) {
    device::DeviceApps apps(root.str(), appProfile(), executable);
    ASSERT_TRUE(apps.launchApplication("me.tapwright.demo.notes", false));
    ASSERT_TRUE(apps.launchApplication("com.example.stubborn", false));
    ASSERT_TRUE(test::eventually([&] { return fs::exists(tools.path() / "com.example.stubborn.args"); }, 5000));
    std::this_thread::sleep_for(100ms);  // let the stubborn one set its trap
    const int stubborn = device::runningAppPid(root.str(), "com.example.stubborn");
    ASSERT_GT(stubborn, 0);
    test::writeFile(device::appPidFile(root.str(), "com.example.gone"), "999999999 5\n");  // stale

    const auto started = std::chrono::steady_clock::now();
    auto stopped = device::stopRunningApps(root.str(), 300ms);
    std::sort(stopped.begin(), stopped.end());
    EXPECT_EQ(stopped, (std::vector<std::string>{"com.example.stubborn", "me.tapwright.demo.notes"}));
    // The stubborn app outlived its grace and was killed.
    EXPECT_GE(std::chrono::steady_clock::now() - started, 300ms);
    EXPECT_FALSE(device::processStartTime(stubborn).has_value());
    EXPECT_EQ(apps.applicationWithBundleIdentifier("com.example.stubborn")->activationState, "not running");
    std::vector<std::string> left;
    for (const auto& entry : fs::directory_iterator(device::appsRunDir(root.str())))
        if (entry.path().extension() == ".pid") left.push_back(entry.path().filename().string());
    EXPECT_TRUE(left.empty()) << left.front();
}

TEST(DeviceProfileJson, ReadsBackAsTheSameProfile) {
    linuxp::DeviceProfile profile;
    profile.name = "tablet";
    profile.systemVersion = "8.4.1";
    profile.coreFoundationVersionNumber = 1144.17;
    profile.screenWidth = 768;
    profile.screenHeight = 1024;
    profile.scale = 2;
    profile.orientation = 3;
    profile.serialNumber = "DMPK83XRF182";
    profile.languages = {"ja", "en"};
    profile.apps = {{"me.tapwright.Tapwright.ios8", "Tapwright", "1.0.0"}, {"com.example.x", "", ""}};
    const auto back = linuxp::parseDeviceProfile(device::deviceProfileJson(profile));
    EXPECT_EQ(back.name, "tablet");
    EXPECT_EQ(back.systemVersion, "8.4.1");
    EXPECT_EQ(back.coreFoundationVersionNumber, 1144.17);
    EXPECT_EQ(back.screenWidth, 768);
    EXPECT_EQ(back.screenHeight, 1024);
    EXPECT_EQ(back.scale, 2);
    EXPECT_EQ(back.orientation, 3);
    EXPECT_EQ(back.serialNumber, "DMPK83XRF182");
    EXPECT_EQ(back.languages, (std::vector<std::string>{"ja", "en"}));
    ASSERT_EQ(back.apps.size(), 2u);
    EXPECT_EQ(back.apps[0].name, "Tapwright");
    EXPECT_EQ(back.apps[0].version, "1.0.0");
    EXPECT_EQ(back.apps[1].bundleId, "com.example.x");
}

// ---------------------------------------------------------------------------------------------
// Supervisor

TEST(SupervisorRestarts, OnlyRolesThatDiedAbnormally) {
    test::TempDir dir("tw-supervisor");
    const std::string script = writeScript(dir.path(), "fake-role",
                                           "echo $$ >> \"" + dir.str() + "/$2.starts\"\n"
                                           "case \"$2\" in\n"
                                           "  clean) exit 0 ;;\n"
                                           "  failing) exit 3 ;;\n"
                                           "  terminated) kill -TERM $$; sleep 5 ;;\n"
                                           "  interrupted) kill -INT $$; sleep 5 ;;\n"
                                           "  crashing) kill -KILL $$; sleep 5 ;;\n"
                                           "esac\n");
    const std::vector<std::string> roles = {"clean", "failing", "terminated", "interrupted", "crashing"};
    roles::Supervisor supervisor(script, {});
    for (const auto& role : roles) supervisor.addRole(role);
    ASSERT_TRUE(supervisor.startAll());

    std::set<std::string> exited;
    ASSERT_TRUE(test::eventually([&] {
        for (const auto& id : supervisor.reap(true)) exited.insert(id);
        return exited.size() == roles.size();
    }, 10000));
    auto starts = [&](const std::string& role) { return lines(test::readFile(dir.path() / (role + ".starts"))).size(); };
    // The failing and the crashing role come back; the others ended on purpose and stay down.
    EXPECT_TRUE(test::eventually([&] { return starts("failing") >= 2 && starts("crashing") >= 2; }, 5000));
    for (const char* down : {"clean", "terminated", "interrupted"}) {
        EXPECT_EQ(starts(down), 1u) << down;
        EXPECT_EQ(supervisor.pidOf(down), -1) << down;
    }
    supervisor.stopAll(500ms);
}

TEST_F(DeviceAppsTest, StoppingASupervisorEndsTheAppsLaunchedOnItsRoot) {
    const std::string role = writeScript(tools.path(), "fake-device-role", "exec sleep 30\n");
    roles::Supervisor supervisor(role, {"--root", root.str()});
    supervisor.addRole("com.apple.backboardd");
    ASSERT_TRUE(supervisor.startAll());
    device::DeviceApps apps(root.str(), appProfile(), executable);
    ASSERT_TRUE(apps.launchApplication("me.tapwright.demo.notes", false));
    const int app = device::runningAppPid(root.str(), "me.tapwright.demo.notes");
    ASSERT_GT(app, 0);

    supervisor.stopAll(1000ms);
    EXPECT_EQ(supervisor.pidOf("com.apple.backboardd"), -1);
    EXPECT_FALSE(device::processStartTime(app).has_value());
    EXPECT_EQ(device::runningAppPid(root.str(), "me.tapwright.demo.notes"), 0);
}

// ---------------------------------------------------------------------------------------------
// App bundles

std::map<std::string, std::string> readInfo(const fs::path& path) {
    std::map<std::string, std::string> out;
    const std::string bytes = test::readFile(path);
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    if (!root) return out;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(root, &it);
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(root, it, &key, &value);
        if (!key) break;
        char* text = nullptr;
        if (plist_get_node_type(value) == PLIST_STRING) plist_get_string_val(value, &text);
        out[key] = text ? text : "<not text>";
        std::free(text);
        std::free(key);
    }
    std::free(it);
    plist_free(root);
    return out;
}

TEST(DeviceBundles, EveryProfileAppGetsAnInfoPropertyListThatLookupsRead) {
    test::TempDir root("tw-bundles");
    linuxp::DeviceProfile profile;
    profile.apps = {{"me.tapwright.demo.notes", "Notes", "1.0"},
                    {"me.tapwright.Tapwright.ios8", "Tapwright", "1.0.0"},
                    {"com.example.nameless", "", "2.0"},
                    {"com.example.notes", "Notes", "3.0"},  // the name is taken
                    {"com.example.slash", "A/B", "4.0"}};
    std::string error;
    ASSERT_TRUE(device::writeAppBundles(root.str(), profile, &error)) << error;

    const fs::path apps = root.path() / "Applications";
    using Info = std::map<std::string, std::string>;
    EXPECT_EQ(readInfo(apps / "Tapwright.app/Info.plist"),
              (Info{{"CFBundleIdentifier", "me.tapwright.Tapwright.ios8"}, {"CFBundleName", "Tapwright"},
                    {"CFBundleShortVersionString", "1.0.0"}, {"CFBundleVersion", "1.0.0"}}));
    EXPECT_EQ(readInfo(apps / "Notes.app/Info.plist")["CFBundleIdentifier"], "me.tapwright.demo.notes");
    EXPECT_EQ(readInfo(apps / "com.example.nameless.app/Info.plist")["CFBundleName"], "com.example.nameless");
    EXPECT_EQ(readInfo(apps / "com.example.notes.app/Info.plist")["CFBundleShortVersionString"], "3.0");
    EXPECT_EQ(readInfo(apps / "A_B.app/Info.plist")["CFBundleIdentifier"], "com.example.slash");

    test::writeFile(apps / "Junk.app/Info.plist", "not a property list");
    device::DeviceBundleInfo bundles(root.str());
    EXPECT_EQ(bundles.infoDictionaryString("me.tapwright.Tapwright.ios8", "CFBundleShortVersionString"), "1.0.0");
    EXPECT_EQ(bundles.infoDictionaryString("com.example.notes", "CFBundleShortVersionString"), "3.0");
    EXPECT_EQ(bundles.infoDictionaryString("com.example.none", "CFBundleShortVersionString"), std::nullopt);
    EXPECT_EQ(bundles.infoDictionaryString("me.tapwright.Tapwright.ios8", "CFBundleExecutable"), std::nullopt);
    EXPECT_EQ(device::DeviceBundleInfo((root.path() / "elsewhere").string())
                  .infoDictionaryString("me.tapwright.Tapwright.ios8", "CFBundleShortVersionString"),
              std::nullopt);
}

TEST(DeviceBundles, AreRewrittenOnlyWhenTheProfileChangesThem) {
    test::TempDir root("tw-bundles");
    linuxp::DeviceProfile profile;
    profile.apps = {{"me.tapwright.Tapwright.ios8", "Tapwright", "1.0.0"}};
    ASSERT_TRUE(device::writeAppBundles(root.str(), profile));
    const fs::path info = root.path() / "Applications/Tapwright.app/Info.plist";
    struct stat before {};
    ASSERT_EQ(::stat(info.c_str(), &before), 0);

    ASSERT_TRUE(device::writeAppBundles(root.str(), profile));
    struct stat same {};
    ASSERT_EQ(::stat(info.c_str(), &same), 0);
    EXPECT_EQ(same.st_ino, before.st_ino);

    profile.apps[0].version = "1.1.0";
    ASSERT_TRUE(device::writeAppBundles(root.str(), profile));
    EXPECT_EQ(device::DeviceBundleInfo(root.str()).infoDictionaryString("me.tapwright.Tapwright.ios8",
                                                                        "CFBundleShortVersionString"),
              "1.1.0");

    // A root where the bundle cannot be written reports it.
    test::writeFile(root.path() / "blocked/Applications", "a file, not a folder");
    std::string error;
    EXPECT_FALSE(device::writeAppBundles((root.path() / "blocked").string(), profile, &error));
    EXPECT_NE(error.find("Info.plist"), std::string::npos) << error;
}

// ---------------------------------------------------------------------------------------------
// Speaker

// A mono 16-bit WAV file of `seconds` at 8000 Hz.
void writeWav(const std::string& path, double seconds) {
    SF_INFO info{};
    info.samplerate = 8000;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    const auto frames = static_cast<sf_count_t>(seconds * info.samplerate);
    std::vector<short> samples(static_cast<size_t>(frames));
    for (size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<short>(8000 * std::sin(i * 0.3));
    EXPECT_EQ(sf_writef_short(file, samples.data(), frames), frames);
    sf_close(file);
}

class DeviceSpeakerTest : public ::testing::Test {
protected:
    device::DeviceSpeaker speaker() {
        return device::DeviceSpeaker([this](const std::string& line) { published.push_back(json::parse(line)); },
                                     next, [this] { return now; });
    }
    json take() {
        json out = json::array();
        for (auto& j : published) out.push_back(std::move(j));
        published.clear();
        return out;
    }
    static json player(const std::string& action, const std::string& file, std::optional<int> loops = std::nullopt) {
        json j = {{"kind", "sound"}, {"player", action}, {"file", file}};
        if (loops) j["loops"] = *loops;
        return j;
    }

    test::TempDir dir{"tw-speaker"};
    std::vector<json> published;
    std::shared_ptr<RecordingSoundService> next = std::make_shared<RecordingSoundService>();
    std::chrono::steady_clock::time_point now{std::chrono::hours(1)};
};

TEST_F(DeviceSpeakerTest, AGeneratedWavIsPlayableATextFileIsNot) {
    const std::string wav = (dir.path() / "beep.wav").string();
    writeWav(wav, 0.5);
    const auto info = device::probeSoundFile(wav);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->frames, 4000);
    EXPECT_EQ(info->sampleRate, 8000);
    EXPECT_EQ(info->channels, 1);
    EXPECT_DOUBLE_EQ(info->durationSeconds(), 0.5);

    test::writeFile(dir.path() / "notes.txt", "this is not a sound\n");
    test::writeFile(dir.path() / "fake.wav", "RIFF\x24\0\0\0WAVEfmt ");  // a header cut short
    auto s = speaker();
    EXPECT_NE(s.createPlayer(wav), nullptr);
    EXPECT_EQ(s.createPlayer((dir.path() / "notes.txt").string()), nullptr);
    EXPECT_EQ(s.createPlayer((dir.path() / "fake.wav").string()), nullptr);
    EXPECT_EQ(s.createPlayer((dir.path() / "missing.wav").string()), nullptr);
    EXPECT_EQ(s.createPlayer(dir.str()), nullptr);
    EXPECT_EQ(s.createPlayer(""), nullptr);
    EXPECT_TRUE(take().empty());  // making a player (or failing to) is silent
}

TEST_F(DeviceSpeakerTest, APlayerPlaysForTheFilesDurationTimesItsLoops) {
    const std::string wav = (dir.path() / "beep.wav").string();
    writeWav(wav, 0.5);
    auto s = speaker();

    auto once = s.createPlayer(wav);
    once->play();
    EXPECT_EQ(take(), json::array({player("play", wav, 0)}));
    now += 400ms;
    EXPECT_TRUE(once->isPlaying());
    now += 100ms;
    EXPECT_FALSE(once->isPlaying());
    once.reset();  // a sound that has ended is not stopped again
    EXPECT_TRUE(take().empty());

    auto thrice = s.createPlayer(wav);
    thrice->setNumberOfLoops(2);
    thrice->play();
    EXPECT_EQ(take(), json::array({player("play", wav, 2)}));
    now += 1400ms;
    EXPECT_TRUE(thrice->isPlaying());
    now += 100ms;
    EXPECT_FALSE(thrice->isPlaying());
    thrice->play();  // played again from the start
    EXPECT_EQ(take(), json::array({player("play", wav, 2)}));
    EXPECT_TRUE(thrice->isPlaying());

    auto endless = s.createPlayer(wav);
    endless->setNumberOfLoops(-1);
    endless->play();
    now += std::chrono::hours(5);
    EXPECT_TRUE(endless->isPlaying());
    endless->stop();
    EXPECT_FALSE(endless->isPlaying());
    EXPECT_EQ(take(), json::array({player("play", wav, -1), player("stop", wav)}));
}

TEST_F(DeviceSpeakerTest, PausedTimeDoesNotCountAndEveryChangeIsTraced) {
    const std::string wav = (dir.path() / "beep.wav").string();
    writeWav(wav, 0.5);
    auto s = speaker();
    auto p = s.createPlayer(wav);
    p->play();
    now += 300ms;
    p->pause();
    EXPECT_FALSE(p->isPlaying());
    p->pause();  // paused already: nothing to trace
    now += std::chrono::minutes(10);
    p->play();
    EXPECT_TRUE(p->isPlaying());
    now += 150ms;
    EXPECT_TRUE(p->isPlaying());  // 450 ms of sound so far
    now += 50ms;
    EXPECT_FALSE(p->isPlaying());
    EXPECT_EQ(take(), json::array({player("play", wav, 0), player("pause", wav), player("resume", wav)}));

    // Releasing a player that is playing or paused stops its sound.
    auto playing = s.createPlayer(wav);
    playing->play();
    playing.reset();
    auto paused = s.createPlayer(wav);
    paused->play();
    paused->pause();
    paused.reset();
    EXPECT_EQ(take(), json::array({player("play", wav, 0), player("stop", wav), player("play", wav, 0),
                                   player("pause", wav), player("stop", wav)}));
}

TEST_F(DeviceSpeakerTest, RelativePathsAreTracedAbsoluteAndSystemSoundsAreTracedAndPassedOn) {
    writeWav((dir.path() / "beep.wav").string(), 0.5);
    const fs::path before = fs::current_path();
    fs::current_path(dir.path());
    auto s = speaker();
    auto p = s.createPlayer("./beep.wav");
    fs::current_path(before);
    ASSERT_NE(p, nullptr);
    p->play();
    s.playSystemSound(4095);
    s.playSystemSound(1108);
    EXPECT_EQ(take(), json::array({player("play", (dir.path() / "beep.wav").string(), 0),
                                   json{{"kind", "sound"}, {"systemSound", 4095}},
                                   json{{"kind", "sound"}, {"systemSound", 1108}}}));
    EXPECT_EQ(next->sounds(), (std::vector<uint32_t>{4095, 1108}));
}

TEST(SoundTraceLines, AreOneJsonObjectEvenForPathsThatAreNotUtf8) {
    EXPECT_EQ(device::systemSoundTraceLine(4095), R"({"kind":"sound","systemSound":4095})");
    EXPECT_EQ(device::playerTraceLine("play", "/a \"b\".wav", 3),
              R"({"kind":"sound","player":"play","file":"/a \"b\".wav","loops":3})");
    EXPECT_EQ(device::playerTraceLine("stop", "/x.wav", std::nullopt), R"({"kind":"sound","player":"stop","file":"/x.wav"})");
    const auto odd = json::parse(device::playerTraceLine("pause", "/s\xff.wav", std::nullopt));
    EXPECT_EQ(odd["file"], "/s\xEF\xBF\xBD.wav");
}

// The speaker's lines reach the trace of a running device, and find it again after it restarts.
TEST(HubTracePublisher, PutsLinesIntoTheDevicesTraceAndFollowsItsRestart) {
    test::TempDir dir("tw-hub-pub");
    const std::string runDir = (dir.path() / "run").string();
    device::HubTracePublisher publisher(runDir);
    EXPECT_FALSE(publisher.publish(device::systemSoundTraceLine(4095)));  // no device: dropped

    for (int generation = 0; generation < 2; ++generation) {
        const std::string tracePath = (dir.path() / ("trace" + std::to_string(generation) + ".jsonl")).string();
        auto loop = std::make_shared<linuxp::AsioRunLoop>();
        auto system = std::make_unique<device::VirtualHidSystem>(*loop, runDir, device::ScreenPixels{750, 1334}, tracePath);
        std::string error;
        ASSERT_TRUE(system->start(&error)) << error;
        std::thread thread([&] { loop->run(); });

        device::DeviceSpeaker speaker([&](const std::string& line) { publisher.publish(line); });
        speaker.playSystemSound(4095);
        EXPECT_TRUE(test::eventually([&] { return !test::readFile(tracePath).empty(); }, 5000)) << generation;

        loop->stop();
        thread.join();
        system->stop();
        EXPECT_EQ(lines(test::readFile(tracePath)), std::vector<std::string>{R"({"kind":"sound","systemSound":4095})"});
    }
}

}  // namespace
}  // namespace tw
