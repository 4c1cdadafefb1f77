// The system and device script functions played with `tapwright play` on the virtual device:
// apps started and ended as role processes, the pasteboard kept between plays, device facts from
// the profile, sounds in the event trace, and the fake-location table.
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <signal.h>
#include <sndfile.h>

#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "TestSupport.h"

namespace tw {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kNotes = "me.tapwright.demo.notes";
constexpr const char* kProductApp = "me.tapwright.Tapwright.ios8";

std::vector<json> soundLines(const fs::path& trace) {
    std::vector<json> out;
    std::istringstream in(test::readFile(trace));
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty()) continue;
        auto j = json::parse(line);
        if (j.value("kind", "") == "sound") out.push_back(std::move(j));
    }
    return out;
}

class SystemFunctionsCli : public ::testing::Test {
protected:
    test::ProcessResult play(const std::string& lua, std::vector<std::string> extra = {}) {
        const fs::path script = scripts.path() / "system.lua";
        test::writeFile(script, lua);
        std::vector<std::string> args = {TW_BINARY, "play", script.string(), "--root", root.str(), "--trace",
                                         trace().string()};
        args.insert(args.end(), extra.begin(), extra.end());
        return test::runProcess(args, {}, 60);
    }
    fs::path trace() const { return scripts.path() / "trace.jsonl"; }
    // Pids of this root's role processes of `bundleId`.
    std::vector<pid_t> roleProcesses(const std::string& bundleId) const {
        return test::findProcesses({"role", bundleId, "--root", root.str()});
    }
    test::TempDir root{"tw-sys-root"};
    test::TempDir scripts{"tw-sys"};
};

TEST_F(SystemFunctionsCli, AppsAreStartedAndEndedAsRoleProcesses) {
    const std::string lua = std::string("local id = '") + kProductApp + "'\n" +
                            "print('before', appState(id))\n"
                            "appRun(id)\n"
                            "print('launched', appState(id))\n"
                            "appKill(id)\n"
                            "for i = 1, 250 do if appState(id) ~= 'running' then break end usleep(20000) end\n"
                            "print('killed', appState(id))\n"
                            "appKill(id)\n"  // not running any more: nothing happens
                            "print('unknown', appState('com.example.none'))\n"
                            "print('notes', appState('" + kNotes + "'))\n";
    auto r = play(lua);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out,
              "before\tnot running\n"
              "launched\trunning\n"
              "killed\tnot running\n"
              "unknown\tnil\n"
              "notes\trunning\n")  // the play's own app role
        << r.err;
    EXPECT_TRUE(roleProcesses(kProductApp).empty());
    EXPECT_FALSE(fs::exists(root.path() / "run/apps" / (std::string(kProductApp) + ".pid")));
}

TEST_F(SystemFunctionsCli, AppsLaunchedDuringAPlayEndWithThePlaysRoles) {
    auto r = play(std::string("appRun('") + kProductApp + "') print(appState('" + kProductApp + "'))");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "running\n");
    EXPECT_TRUE(roleProcesses(kProductApp).empty());
    EXPECT_TRUE(test::findProcesses({"role", root.str()}).empty());
}

TEST_F(SystemFunctionsCli, ARunningDeviceKeepsAKilledAppDownAndEndsLaunchedAppsOnShutdown) {
    test::BackgroundProcess device({TW_BINARY, "device", "--root", root.str()});
    ASSERT_TRUE(test::eventually([&] { return device.err().find("ready") != std::string::npos; }, 10000)) << device.err();
    const auto notes = roleProcesses(kNotes);
    ASSERT_EQ(notes.size(), 1u);

    // Killed on purpose, the device's own app role is not restarted.
    auto killed = play(std::string("appKill('") + kNotes + "')\n"
                       "for i = 1, 250 do if appState('" + kNotes + "') ~= 'running' then break end usleep(20000) end\n"
                       "print(appState('" + kNotes + "'))");
    ASSERT_EQ(killed.exitCode, 0) << killed.err;
    EXPECT_EQ(killed.out, "not running\n");
    ASSERT_TRUE(test::eventually([&] { return device.err().find("ended; it stays down") != std::string::npos; }, 5000))
        << device.err();
    usleep(300000);  // several rounds of the supervisor
    EXPECT_TRUE(roleProcesses(kNotes).empty());

    // Launched again by a script, it runs detached from the play, and the device ends it.
    auto launched = play(std::string("appRun('") + kNotes + "') print(appState('" + kNotes + "'))");
    ASSERT_EQ(launched.exitCode, 0) << launched.err;
    EXPECT_EQ(launched.out, "running\n");
    const auto relaunched = roleProcesses(kNotes);
    ASSERT_EQ(relaunched.size(), 1u);
    EXPECT_NE(relaunched[0], notes[0]);

    EXPECT_EQ(device.stop(SIGINT), 0) << device.err();
    EXPECT_TRUE(test::findProcesses({"role", root.str()}).empty());
}

TEST_F(SystemFunctionsCli, ThePasteboardKeepsItsTextBetweenPlays) {
    auto empty = play("print(clipText())");
    ASSERT_EQ(empty.exitCode, 0) << empty.err;
    EXPECT_EQ(empty.out, "nil\n");
    auto copy = play("copyText('shared \\xE2\\x9C\\x93 text')");
    ASSERT_EQ(copy.exitCode, 0) << copy.err;
    auto clip = play("print(clipText())");
    ASSERT_EQ(clip.exitCode, 0) << clip.err;
    EXPECT_EQ(clip.out, "shared \xE2\x9C\x93 text\n");
}

TEST_F(SystemFunctionsCli, SerialNumberAndVersionComeFromTheProfile) {
    auto r = play("print(getSN()) print(getVersion())");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "C39PQ0ABG5MR\n1.0.0\n");
    auto other = play("print(getSN())", {"--profile", "iphone4"});
    ASSERT_EQ(other.exitCode, 0) << other.err;
    EXPECT_EQ(other.out, "C38FK2LJDP0N\n");
}

TEST_F(SystemFunctionsCli, VibrationAndThePlayerShowInTheTrace) {
    const fs::path wav = scripts.path() / "chime.wav";
    SF_INFO info{};
    info.samplerate = 8000;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open(wav.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr);
    std::vector<short> samples(8000);  // one second
    for (size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<short>(6000 * std::sin(i * 0.2));
    sf_writef_short(file, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(file);

    auto r = play("vibrate()\n"
                  "playAudio('" + wav.string() + "', 1) usleep(100000)\n"
                  "pauseAudio() resumeAudio() stopAudio()\n"
                  "playAudio('" + (scripts.path() / "missing.wav").string() + "')\n"
                  "playAudio('" + trace().string() + "')\n"  // not a sound file
                  "usleep(300000)");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const auto sounds = soundLines(trace());
    // The play itself may vibrate at its start and end; the script's sounds come in between.
    size_t first = 0;
    while (first < sounds.size() && !sounds[first].contains("player")) ++first;
    ASSERT_GE(first, 1u) << test::readFile(trace());
    ASSERT_LE(first + 4, sounds.size()) << test::readFile(trace());
    EXPECT_EQ(sounds[first - 1], (json{{"kind", "sound"}, {"systemSound", 4095}}));
    const std::string path = wav.string();
    EXPECT_EQ(sounds[first], (json{{"kind", "sound"}, {"player", "play"}, {"file", path}, {"loops", 1}}));
    EXPECT_EQ(sounds[first + 1], (json{{"kind", "sound"}, {"player", "pause"}, {"file", path}}));
    EXPECT_EQ(sounds[first + 2], (json{{"kind", "sound"}, {"player", "resume"}, {"file", path}}));
    EXPECT_EQ(sounds[first + 3], (json{{"kind", "sound"}, {"player", "stop"}, {"file", path}}));
    // Files that cannot be played make no sound at all.
    for (size_t i = first + 4; i < sounds.size(); ++i) EXPECT_FALSE(sounds[i].contains("player")) << sounds[i];
}

TEST_F(SystemFunctionsCli, FakeLocationFillsTheLocationsTable) {
    auto r = play("fakeLocation('com.example.maps', 48.8584, 2.2945)\n"
                  "fakeLocation('com.example.run')\n"
                  "fakeLocation('com.example.gone', 1, 2) clearFakeLocation('com.example.gone')\n");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const std::string bytes = test::readFile(root.path() / "Applications/Tapwright.app/locations");
    plist_t table = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &table);
    ASSERT_NE(table, nullptr) << bytes;
    ASSERT_EQ(plist_get_node_type(table), PLIST_DICT);
    EXPECT_EQ(plist_dict_get_size(table), 2u);
    auto pair = [&](const char* id) {
        std::vector<double> out;
        plist_t entry = plist_dict_get_item(table, id);
        for (uint32_t i = 0; entry && i < plist_array_get_size(entry); ++i) {
            double d = 0;
            plist_get_real_val(plist_array_get_item(entry, i), &d);
            out.push_back(d);
        }
        return out;
    };
    EXPECT_EQ(pair("com.example.maps"), (std::vector<double>{48.8584, 2.2945}));
    EXPECT_EQ(pair("com.example.run"), (std::vector<double>{0, 0}));
    EXPECT_TRUE(pair("com.example.gone").empty());
    plist_free(table);
}

}  // namespace
}  // namespace tw
