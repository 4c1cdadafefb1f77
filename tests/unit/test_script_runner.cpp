// The play loop and the Lua bridge: repeats, intervals, stops, errors and the state kept per play.
#include <gtest/gtest.h>

#include <filesystem>

#include "EngineFixture.h"
#include "core/Global.h"
#include "store/PlaySettings.h"
#include "core/Paths.h"
#include "core/Settings.h"
#include "injection/records/MessageIds.h"
#include "play/LuaBridge.h"
#include "play/ScriptManager.h"

namespace tw {
namespace {

constexpr uint64_t kHalfSecond = 500000;
constexpr uint64_t kLastSync = 16000;

std::shared_ptr<PlaySettings> textPlay(const std::string& lua, int64_t repeat = 1, int64_t interval = 1) {
    auto s = std::make_shared<PlaySettings>();
    s->playType = 1;
    s->scriptContent = lua;
    s->repeatTime = repeat;
    s->repeatInterval = interval;
    return s;
}

class ScriptRunnerTest : public test::EngineFixture {
protected:
    // The sleeps of the play loop itself, with usleep's own waits filtered out by the caller.
    std::vector<uint64_t> sleeps() { return sleeper->sleeps(); }
};

TEST_F(ScriptRunnerTest, RepeatCountAndIntervalGiveRunsAndPausesInOrder) {
    ASSERT_TRUE(playToEnd(textPlay("log('run')", 3, 2)));
    EXPECT_EQ(logMessages(), (std::vector<std::string>{"run", "run", "run"}));
    // Half a second before the first run, the interval only between runs, half a second at the end;
    // every run ends with its last sync wait.
    EXPECT_EQ(sleeps(), (std::vector<uint64_t>{kHalfSecond, kLastSync, 2000000, kLastSync, 2000000, kLastSync, kHalfSecond}));
    EXPECT_FALSE(Global::sharedInstance().isPlaying());
    EXPECT_FALSE(Global::sharedInstance().luaBridge());
    EXPECT_FALSE(Global::sharedInstance().currentPlaySettings());
}

TEST_F(ScriptRunnerTest, PlayOfAFileRunsTheLibraryScript) {
    auto settings = std::make_shared<PlaySettings>();
    settings->filePath = addScript("hello.lua", "log('from file ' .. 6 * 7)");
    ASSERT_TRUE(playToEnd(settings));
    EXPECT_EQ(logMessages(), std::vector<std::string>{"from file 42"});
    EXPECT_TRUE(errors.empty());
}

TEST_F(ScriptRunnerTest, EndlessRepeatRunsUntilAStop) {
    int runs = 0;
    sleeper->setHook([&](uint64_t us) {
        if (us == kLastSync && ++runs == 4) ScriptManager::stopPlaying();
    });
    ASSERT_TRUE(playToEnd(textPlay("log('again')", 0, 0)));
    EXPECT_EQ(logMessages().size(), 4u);
    EXPECT_TRUE(errors.empty());
}

TEST_F(ScriptRunnerTest, AStopDuringARunEndsItWithInterruptedAndReportsNothing) {
    sleeper->setHook([](uint64_t us) {
        if (us == 7) ScriptManager::stopPlaying();  // the script's own usleep(7)
    });
    ASSERT_TRUE(playToEnd(textPlay("usleep(7) while true do end", 5, 0)));
    EXPECT_TRUE(errors.empty());
    EXPECT_FALSE(std::filesystem::exists(Paths::logFile()));
    // Only the finished alert: no error alert.
    auto alerts = ui->alerts();
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].message, "Playing Finished!");
    EXPECT_EQ(alerts[0].title, "Tapwright");
    EXPECT_EQ(alerts[0].buttons, std::vector<std::string>{"OK"});
}

TEST_F(ScriptRunnerTest, AStopBetweenRunsDoesNotStopTheNextRun) {
    sleeper->setHook([](uint64_t us) {
        if (us == 5000000) ScriptManager::stopPlaying();  // during the interval before run 2
    });
    ASSERT_TRUE(playToEnd(textPlay("log('run') usleep(1) log('end')", 3, 5)));
    // Run 2 still runs in full; run 3 does not start.
    EXPECT_EQ(logMessages(), (std::vector<std::string>{"run", "end", "run", "end"}));
    EXPECT_TRUE(errors.empty());
}

TEST_F(ScriptRunnerTest, AnErrorInTheFirstOfFiveRunsIsReportedOnceAndEndsThePlay) {
    ASSERT_TRUE(playToEnd(textPlay("error('boom')", 5, 0)));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], "[string \"error('boom')\"]:1: boom");
    EXPECT_EQ(logMessages(), std::vector<std::string>{errors[0]});
    runUntil([&] { return ui->alerts().size() >= 2; });
    auto alerts = ui->alerts();
    ASSERT_EQ(alerts.size(), 2u);
    EXPECT_EQ(alerts[0].title, "");
    EXPECT_EQ(alerts[0].message, errors[0]);
    EXPECT_EQ(alerts[0].buttons, std::vector<std::string>{"OK"});
    EXPECT_EQ(alerts[1].message, "Playing Finished!");
}

TEST_F(ScriptRunnerTest, ErrorReportingFollowsTheLogAndAlertSettings) {
    defaults->setBool(settings::kLogErrors, false);
    defaults->setBool(settings::kShowErrorsByAlert, false);
    defaults->setBool(settings::kShowPlayingFinishedAlert, false);
    ASSERT_TRUE(playToEnd(textPlay("local x = nil + 1")));
    EXPECT_EQ(errors.size(), 1u);
    EXPECT_FALSE(std::filesystem::exists(Paths::logFile()));
    EXPECT_TRUE(ui->alerts().empty());
}

TEST_F(ScriptRunnerTest, AnErrorMessageEndingWithInterruptedIsTakenForAStop) {
    ASSERT_TRUE(playToEnd(textPlay("log('ran') error('was interrupted')", 3, 0)));
    EXPECT_TRUE(errors.empty());
    // Not a stop request either: isPlaying stayed true, so every run happened.
    EXPECT_EQ(logMessages(), (std::vector<std::string>{"ran", "ran", "ran"}));
}

TEST_F(ScriptRunnerTest, GlobalsLastAcrossRunsButNotAcrossPlays) {
    const std::string counter = "count = (count or 0) + 1 log('count ' .. count)";
    ASSERT_TRUE(playToEnd(textPlay(counter, 2, 0)));
    ASSERT_TRUE(playToEnd(textPlay(counter, 1, 0)));
    EXPECT_EQ(logMessages(), (std::vector<std::string>{"count 1", "count 2", "count 1"}));
}

TEST_F(ScriptRunnerTest, AMissingExtensionsFileIsReportedOncePerPlayAndTheScriptStillRuns) {
    std::filesystem::remove(Paths::extensionsFile());
    ASSERT_TRUE(playToEnd(textPlay("log('still ran')", 3, 0)));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("Extensions.lua"), std::string::npos) << errors[0];
    // The report stops further repeats; the current run goes on.
    auto lines = logMessages();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1], "still ran");
}

TEST_F(ScriptRunnerTest, ScriptsSeeTheStartUpConstantsAndRequireFindsLibraryModules) {
    addScript("helper.lua", "return { answer = 42 }");
    ASSERT_TRUE(playToEnd(textPlay(
        "log(KEY_TYPE.HOME_BUTTON .. ' ' .. ORIENTATION_TYPE.LANDSCAPE_RIGHT .. ' ' .. require('helper').answer)")));
    EXPECT_TRUE(errors.empty()) << errors[0];
    EXPECT_EQ(logMessages(), std::vector<std::string>{"64 4 42"});
}

TEST_F(ScriptRunnerTest, ASyntaxErrorIsReportedAndTheProcessGoesOn) {
    ASSERT_TRUE(playToEnd(textPlay("this is not lua", 2, 0)));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("syntax error"), std::string::npos) << errors[0];
    auto settings = std::make_shared<PlaySettings>();
    settings->filePath = "/does-not-exist.lua";
    ASSERT_TRUE(playToEnd(settings));
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_NE(errors[1].find("cannot open"), std::string::npos) << errors[1];
}

TEST_F(ScriptRunnerTest, StartAndEndVibrateAndTheFinishedAlertNeedsAllItsConditions) {
    ASSERT_TRUE(playToEnd(textPlay("")));
    EXPECT_EQ(sounds->sounds(), (std::vector<uint32_t>{kSystemSoundVibrate, kSystemSoundVibrate}));
    EXPECT_EQ(ui->alerts().size(), 1u);

    sounds->clear();
    ui->clear();
    auto later = textPlay("");
    later->playNowOrLater = 1;  // started by a timer: no alert
    ASSERT_TRUE(playToEnd(later));
    auto quiet = textPlay("");
    quiet->showPlayingFinishedAlert = false;
    ASSERT_TRUE(playToEnd(quiet));
    EXPECT_TRUE(ui->alerts().empty());

    defaults->setBool(settings::kVibrateWhenPlayingStartStop, false);
    sounds->clear();
    ASSERT_TRUE(playToEnd(textPlay("")));
    EXPECT_TRUE(sounds->sounds().empty());
}

TEST_F(ScriptRunnerTest, ReadyToPlayKeepsTheSettingsAfterThePlay) {
    Global::sharedInstance().setIsReadyToPlay(true);
    auto settings = textPlay("");
    ASSERT_TRUE(playToEnd(settings));
    EXPECT_EQ(Global::sharedInstance().currentPlaySettings(), settings);
}

TEST_F(ScriptRunnerTest, EveryRunSyncsWithTheInjectorAndTellsItTheScale) {
    test::FakeInjector injector(*Platform::current().ports);
    ASSERT_TRUE(playToEnd(textPlay("-- SCREEN_RESOLUTION=\"375x667\"\ntouchDown(1, 10, 20)", 2, 0)));
    auto messages = injector.messages();
    const std::vector<int32_t> ids = [&] {
        std::vector<int32_t> v;
        for (auto& m : messages) v.push_back(m.msgid);
        return v;
    }();
    EXPECT_EQ(ids, (std::vector<int32_t>{kMsgScaleScreen, kMsgTouch, kMsgSync, kMsgScaleScreen, kMsgTouch, kMsgSync}));
    EXPECT_EQ(messages[0].data, (Bytes{1, 0, 0, 0}));
}

TEST_F(ScriptRunnerTest, AFreshStateSeesAllThirtySixFunctionsAndTheStartUpNames) {
    const std::string names =
        "keyDown keyUp touchDown touchMove touchUp rootDir log usleep alert vibrate playAudio pauseAudio "
        "resumeAudio stopAudio screenshot getScreenSize getScreenScale getScreenBitDepth getColors findColors "
        "findImage appRun appKill appState getSN getVersion copyText clipText inputText fakeLocation "
        "clearFakeLocation adaptResolution adaptOrientation getOrientation dialog clearDialogValues";
    ASSERT_TRUE(playToEnd(textPlay("local n, missing = 0, {}\n"
                                   "for name in ('" + names + "'):gmatch('%S+') do\n"
                                   "  n = n + 1\n"
                                   "  if type(_G[name]) ~= 'function' then missing[#missing + 1] = name end\n"
                                   "end\n"
                                   "log(n .. ' ' .. #missing .. ' ' .. table.concat(missing, ',') .. ' ' .. type(tap) .. ' ' .. type(KEY_TYPE))")));
    EXPECT_EQ(logMessages(), std::vector<std::string>{"36 0  function table"});
}

TEST_F(ScriptRunnerTest, UnknownPlayTypeRunsNothing) {
    auto s = textPlay("log('no')");
    s->playType = 7;
    ASSERT_TRUE(playToEnd(s));
    EXPECT_FALSE(std::filesystem::exists(Paths::logFile()));
}

}  // namespace
}  // namespace tw
