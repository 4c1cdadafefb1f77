// The play loop and the Lua bridge: repeats and intervals, stops from the worker and from other
// threads (also while a script is blocked in a sleep or a dialog), errors and how they are
// reported, and the state kept for one play.
#include <future>

#include "EngineFixture.h"
#include "core/Global.h"
#include "core/Paths.h"
#include "core/Settings.h"
#include "injection/records/MessageIds.h"
#include "play/ScriptManager.h"

namespace tw {
namespace {

using Texts = std::vector<std::string>;
constexpr uint64_t kHalfSecond = 500000, kLastSync = 16000;

class ScriptManagerTest : public test::EngineFixture {
protected:
    // Starts a play and returns at once; ended() then runs the main loop until it has ended.
    void start(const std::shared_ptr<PlaySettings>& settings) {
        endedBefore = playsEnded;
        Global::sharedInstance().setCurrentPlaySettings(settings);
        ScriptManager::runScript();
    }
    bool ended() { return runUntil([&] { return playsEnded > endedBefore; }); }
    Texts alertTexts() {  // "title|message|button|..." each
        Texts out;
        for (const auto& a : ui->alerts()) {
            out.push_back(a.title + "|" + a.message);
            for (const auto& button : a.buttons) out.back() += "|" + button;
        }
        return out;
    }
    int endedBefore = 0;
};

TEST_F(ScriptManagerTest, RepeatsRunWithTheIntervalBetweenThemEvenAfterAnInterruptedErrorAndThePlayEndsClean) {
    ASSERT_TRUE(playToEnd(textPlay("log('run') error('was interrupted')", 3, 2)));  // not reported, and the runs go on
    EXPECT_EQ(logMessages(), (Texts{"run", "run", "run"}));
    EXPECT_TRUE(errors.empty());
    // Half a second before the first run and after the last; every run ends with its last sync.
    EXPECT_EQ(sleeper->sleeps(), (std::vector<uint64_t>{kHalfSecond, kLastSync, 2000000, kLastSync, 2000000, kLastSync, kHalfSecond}));
    EXPECT_EQ(sounds->sounds(), (std::vector<uint32_t>{kSystemSoundVibrate, kSystemSoundVibrate}));
    EXPECT_EQ(alertTexts(), Texts{"Tapwright|Playing Finished!|OK"});
    auto& global = Global::sharedInstance();
    EXPECT_FALSE(global.isPlaying() || global.luaBridge() || global.currentPlaySettings());
}

TEST_F(ScriptManagerTest, EndlessRepeatRunsUntilAStopAndAStopBetweenRunsLetsTheNextRunFinish) {
    int runs = 0;
    sleeper->setHook([&](uint64_t us) {
        if (us == kLastSync && ++runs == 4) ScriptManager::stopPlaying();
    });
    ASSERT_TRUE(playToEnd(textPlay("log('again')", 0, 0)));
    EXPECT_EQ(logMessages().size(), 4u);
    sleeper->setHook([](uint64_t us) {
        if (us == 5000000) ScriptManager::stopPlaying();  // the interval before run 2
    });
    ASSERT_TRUE(playToEnd(textPlay("log('run') usleep(1) log('end')", 3, 5)));
    EXPECT_EQ(logMessages().size(), 8u);  // runs 1 and 2 in full, no run 3
    EXPECT_TRUE(errors.empty());
}

TEST_F(ScriptManagerTest, AStopFromAnotherThreadEndsABusyScriptAndABlockedOneWhenItsCallReturns) {
    start(textPlay("log('spinning') while true do end", 5));
    ASSERT_TRUE(test::eventually([&] { return !logMessages().empty(); }));
    ScriptManager::stopPlaying();
    ASSERT_TRUE(ended());

    std::promise<void> reached, released;
    sleeper->setHook([&](uint64_t us) {
        if (us != 60000000) return;
        reached.set_value();
        released.get_future().wait();
    });
    start(textPlay("usleep(60000000) log('after the sleep')", 5));
    reached.get_future().wait();
    ScriptManager::stopPlaying();
    released.set_value();
    ASSERT_TRUE(ended());

    ui->onDialog = [](const DialogRequest&) { ScriptManager::stopPlaying(); };  // while the form is up
    ui->queueDialogResponse({false, false, {{"k", std::string("v")}}});
    ASSERT_TRUE(playToEnd(textPlay("dialog({ {type = 2, title = 'T', key = 'k'} }) log('after the dialog')", 5)));
    EXPECT_EQ(logMessages(), Texts{"spinning"});
    EXPECT_TRUE(errors.empty());  // "interrupted" is never reported
    EXPECT_EQ(alertTexts(), Texts(3, "Tapwright|Playing Finished!|OK"));
}

TEST_F(ScriptManagerTest, AnErrorInTheFirstOfFiveRunsIsReportedOnceByTheSettings) {
    ASSERT_TRUE(playToEnd(textPlay("error('boom')", 5)));
    const std::string message = "[string \"error('boom')\"]:1: boom";
    EXPECT_EQ(errors, Texts{message});
    EXPECT_EQ(logMessages(), Texts{message});
    ASSERT_TRUE(runUntil([&] { return ui->alerts().size() >= 2; }));
    EXPECT_EQ(alertTexts(), (Texts{"|" + message + "|OK", "Tapwright|Playing Finished!|OK"}));

    for (const char* key : {settings::kLogErrors, settings::kShowErrorsByAlert, settings::kShowPlayingFinishedAlert,
                            settings::kVibrateWhenPlayingStartStop})
        defaults->setBool(key, false);
    ui->clear();
    sounds->clear();
    ASSERT_TRUE(playToEnd(textPlay("local x = nil + 1")));
    EXPECT_EQ(errors.size(), 2u);
    EXPECT_EQ(logMessages().size(), 1u);
    EXPECT_TRUE(ui->alerts().empty() && sounds->sounds().empty());
}

TEST_F(ScriptManagerTest, GlobalsLastAcrossTheRunsOfOnePlayButNotIntoTheNext) {
    const std::string counter = "count = (count or 0) + 1 log('count ' .. count)";
    ASSERT_TRUE(playToEnd(textPlay(counter, 2)));
    ASSERT_TRUE(playToEnd(textPlay(counter, 1)));
    EXPECT_EQ(logMessages(), (Texts{"count 1", "count 2", "count 1"}));
}

TEST_F(ScriptManagerTest, AFailingExtensionsFileIsReportedOncePerPlayAndTheScriptStillRuns) {
    for (const char* extensions : {"", "error('broken start-up')"}) {
        SCOPED_TRACE(*extensions ? "an error in it" : "missing");
        std::filesystem::remove(Paths::logFile()), errors.clear();
        *extensions ? test::writeFile(Paths::extensionsFile(), extensions) : void(std::filesystem::remove(Paths::extensionsFile()));
        ASSERT_TRUE(playToEnd(textPlay("log('still ran')", 3)));
        ASSERT_EQ(errors.size(), 1u);
        EXPECT_NE(errors[0].find("Extensions.lua"), std::string::npos) << errors[0];
        EXPECT_EQ(logMessages(), (Texts{errors[0], "still ran"}));  // and no further repeat
    }
}

TEST_F(ScriptManagerTest, ALibraryFileRunsWithTheFunctionsConstantsAndModulePathOfAFreshState) {
    addScript("helper.lua", "return { answer = 42 }");
    auto file = std::make_shared<PlaySettings>();
    file->filePath = addScript("main.lua", "log(type(touchDown) .. ' ' .. KEY_TYPE.HOME_BUTTON .. ' ' .. require('helper').answer)");
    ASSERT_TRUE(playToEnd(file));
    EXPECT_EQ(logMessages(), Texts{"function 64 42"});
    file->filePath = "/does-not-exist.lua";
    ASSERT_TRUE(playToEnd(file));
    ASSERT_TRUE(playToEnd(textPlay("this is not lua")));
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_NE(errors[0].find("cannot open"), std::string::npos) << errors[0];
    EXPECT_NE(errors[1].find("syntax error"), std::string::npos) << errors[1];
    auto unknown = textPlay("log('no')");
    unknown->playType = 7;
    ASSERT_TRUE(playToEnd(unknown));
    EXPECT_EQ(logMessages().size(), 3u);
}

TEST_F(ScriptManagerTest, TheFinishedAlertNeedsAPlayStartedNowWithItsAlertOn) {
    auto later = textPlay("");
    later->playNowOrLater = 1;  // started by a timer
    ASSERT_TRUE(playToEnd(later));
    auto quiet = textPlay("");
    quiet->showPlayingFinishedAlert = false;
    ASSERT_TRUE(playToEnd(quiet));
    EXPECT_TRUE(ui->alerts().empty());
    Global::sharedInstance().setIsReadyToPlay(true);  // the settings stay for the next start
    ASSERT_TRUE(playToEnd(quiet));
    EXPECT_EQ(Global::sharedInstance().currentPlaySettings(), quiet);
}

TEST_F(ScriptManagerTest, EveryRunTellsTheInjectorTheScaleAndSyncsAtItsEnd) {
    test::FakeInjector injector(*Platform::current().ports);
    ASSERT_TRUE(playToEnd(textPlay("-- SCREEN_RESOLUTION=\"375x667\"\ntouchDown(1, 10, 20)", 2)));
    const auto messages = injector.messages();
    std::vector<int32_t> ids;
    for (const auto& m : messages) ids.push_back(m.msgid);
    ASSERT_EQ(ids, (std::vector<int32_t>{kMsgScaleScreen, kMsgTouch, kMsgSync, kMsgScaleScreen, kMsgTouch, kMsgSync}));
    EXPECT_EQ(messages[0].data, (Bytes{1, 0, 0, 0}));  // the script's resolution asks for scaling
}

}  // namespace
}  // namespace tw
