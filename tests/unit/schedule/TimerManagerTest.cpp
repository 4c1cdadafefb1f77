// Schedules: the archive that add and remove keep (one entry per script, the newest last), the
// armed timers, and what a firing does in each state of the player.
#include <gtest/gtest.h>

#include "EngineFixture.h"
#include "core/Global.h"
#include "core/Paths.h"
#include "library/Encrypt.h"
#include "library/FileManager.h"
#include "schedule/TimerManager.h"

namespace tw {
namespace {

using Texts = std::vector<std::string>;

class TimerManagerTest : public test::EngineFixture {
protected:
    static Timer::Clock::time_point later() { return Timer::Clock::now() + std::chrono::hours(1); }
    static Texts archivedPaths() { return TimerManager::archivedScriptPaths(); }
    std::string full(const std::string& path) const { return FileManager::fullPathOfFile(path); }
    std::string triggered(const std::string& path) const {
        return "Auto launching of script " + full(path) + " is triggerd by auto playing timer.";
    }
    std::string busy(const std::string& path) const {
        return "Auto launching of script " + full(path) +
               " was failed to be triggerd by auto playing, for Tapwright is playing/recording/readyToPlay.";
    }
    std::string needsPassword(const std::string& path) const {
        return "The script " + full(path) + " needs decrypt password, auto playing timer stopped.";
    }
    bool playEnded() { return runUntil([&] { return playsEnded > 0; }); }

    TimerManager manager;
};

TEST_F(TimerManagerTest, AddingAgainKeepsOneEntryAtTheEndAndRemovingDisarmsEveryTimerOfTheScript) {
    ASSERT_TRUE(manager.add(Timer("/a.lua", later(), false, 0)));
    ASSERT_TRUE(manager.add(Timer("/b.lua", later(), false, 0)));
    ASSERT_TRUE(manager.add(Timer("/a.lua", later(), true, 60)));
    EXPECT_EQ(archivedPaths(), (Texts{"/b.lua", "/a.lua"}));
    EXPECT_TRUE(TimerManager::readArchive().back().repeat);
    // The first schedule of /a.lua stays armed in this process, until its script is removed.
    ASSERT_EQ(manager.nstimers().size(), 3u);
    auto first = manager.nstimers().front().timer;
    ASSERT_TRUE(manager.remove("/a.lua"));
    EXPECT_FALSE(first->isValid());
    ASSERT_EQ(manager.nstimers().size(), 1u);
    EXPECT_EQ(manager.nstimers().front().userInfo.at("scriptFilePath"), "/b.lua");
    EXPECT_EQ(archivedPaths(), Texts{"/b.lua"});
    EXPECT_TRUE(manager.remove("/none.lua"));  // written back as it was
    EXPECT_EQ(archivedPaths(), Texts{"/b.lua"});
}

TEST_F(TimerManagerTest, AddFailsAndArmsNothingWhenTheArchiveCannotBeWritten) {
    std::filesystem::create_directories(Paths::resolve(kTimersPath));  // a folder where the file goes
    EXPECT_FALSE(manager.add(Timer("/a.lua", later(), false, 0)));
    EXPECT_TRUE(manager.nstimers().empty());
}

TEST_F(TimerManagerTest, APastFireDatePlaysAtOnceWithoutTheFinishedAlert) {
    const std::string path = addScript("a.lua", "log('ran')");
    ASSERT_TRUE(manager.add(Timer(path, Timer::Clock::now() - std::chrono::hours(24), false, 0)));
    ASSERT_TRUE(playEnded());
    EXPECT_EQ(logMessages(), (Texts{triggered(path), "ran"}));
    EXPECT_TRUE(ui->alerts().empty());
    EXPECT_EQ(archivedPaths(), Texts{path});  // a one-shot schedule stays until removed
}

TEST_F(TimerManagerTest, RestoredSchedulesFireWithoutPlaying) {
    const std::string path = addScript("a.lua", "log('ran')");
    ASSERT_TRUE(TimerManager::writeArchive({Timer(path, Timer::Clock::now(), false, 0)}));
    manager.launch();
    ASSERT_EQ(manager.nstimers().size(), 1u);
    ASSERT_TRUE(runUntil([&] { return !manager.nstimers().front().timer->isValid(); }));  // it fired
    EXPECT_EQ(playsEnded, 0);
    EXPECT_TRUE(logMessages().empty());
}

// One firing of forwardToPlay in a given state of the player and the library.
struct Firing {
    const char* name;
    const char* script;       // library path of the schedule
    bool scriptExists;
    void (*state)(Global&);   // the player's state at the firing
    bool rememberPassword;    // for "e": the right password is remembered
    // What follows: the error log (%s is the script's full path, see expectedLog), whether the
    // schedule is still archived, whether a play starts.
    const char* log;
    bool kept;
    bool plays;
};

void PrintTo(const Firing& c, std::ostream* os) { *os << c.name; }

void idle(Global&) {}

class FiringTest : public TimerManagerTest, public ::testing::WithParamInterface<Firing> {};

TEST_P(FiringTest, FiringActsOnTheStateOfThePlayer) {
    const Firing& firing = GetParam();
    const std::string path = firing.script;
    const bool encrypted = FileManager::lowerExtension(path) == "e";
    if (firing.scriptExists && !encrypted) addScript(path.substr(1), "log('ran')");
    if (firing.scriptExists && encrypted) {  // "/s.e" from the plain "/s"
        const std::string plain = path.substr(0, path.size() - 2);
        addScript(plain.substr(1), "log('ran')");
        ASSERT_EQ(Encrypt::encryptScript(full(plain), "secret"), CryptError::none);
        if (firing.rememberPassword) defaults->setString(Encrypt::passwordKeyOf(path), "secret");
    }
    ASSERT_TRUE(TimerManager::writeArchive({Timer(path, Timer::Clock::now(), false, 0)}));
    auto& global = Global::sharedInstance();
    firing.state(global);

    manager.forwardToPlay({{"scriptFilePath", path}});
    if (firing.plays) {
        ASSERT_TRUE(playEnded());
        EXPECT_TRUE(ui->alerts().empty());
    }
    EXPECT_EQ(playsEnded, firing.plays ? 1 : 0);
    Texts expected;
    const std::string log = firing.log;
    if (log == "triggered") expected = {triggered(path), "ran"};
    if (log == "triggered" && encrypted) expected.insert(expected.begin(), "error:");  // what a decryption logs
    if (log == "busy") expected = {busy(path)};
    if (log == "password") expected = {needsPassword(path)};
    EXPECT_EQ(logMessages(), expected);
    EXPECT_EQ(archivedPaths(), firing.kept ? Texts{path} : Texts{});
    global.init();
}

INSTANTIATE_TEST_SUITE_P(
    Timers, FiringTest,
    ::testing::Values(
        Firing{"PlainScriptPlays", "/a.lua", true, idle, false, "triggered", true, true},
        Firing{"ExtensionInUpperCasePlays", "/A.LUA", true, idle, false, "triggered", true, true},
        Firing{"DeletedScriptIsDroppedSilently", "/gone.lua", false, idle, false, "", false, false},
        Firing{"WhilePlaying", "/a.lua", true, [](Global& g) { g.setIsPlaying(true); }, false, "busy", true, false},
        Firing{"WhileRecording", "/a.lua", true, [](Global& g) { g.setIsRecording(true); }, false, "busy", true, false},
        Firing{"WhileReadyToPlay", "/a.lua", true, [](Global& g) { g.setIsReadyToPlay(true); }, false, "busy", true,
               false},
        Firing{"EncryptedWithRememberedPasswordPlays", "/s.e", true, idle, true, "triggered", true, true},
        Firing{"EncryptedWithoutPasswordIsKept", "/s.e", true, idle, false, "password", true, false},
        Firing{"OtherFileDoesNothing", "/notes.txt", true, idle, false, "", true, false}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tw
