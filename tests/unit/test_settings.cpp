// Settings with their defaults, the shared state and the language choice.
#include <gtest/gtest.h>

#include "EngineFixture.h"
#include "core/Global.h"
#include "store/PlaySettings.h"
#include "core/Helper.h"
#include "core/Settings.h"
#include "play/LuaBridge.h"
#include "ui/Localization.h"

namespace tw {
namespace {

using SettingsTest = test::EngineFixture;

TEST_F(SettingsTest, FreshDeviceAnswersTrueAndStoresEveryOnOffSettingAsTrue) {
    const std::pair<bool (*)(), const char*> queries[] = {
        {Helper::ifVibrateWhenRecordingStartStop, settings::kVibrateWhenRecordingStartStop},
        {Helper::ifVibrateWhenPlayingStartStop, settings::kVibrateWhenPlayingStartStop},
        {Helper::ifShowRecordingFinishedAlert, settings::kShowRecordingFinishedAlert},
        {Helper::ifShowPlayingFinishedAlert, settings::kShowPlayingFinishedAlert},
        {Helper::ifShowErrorsByAlert, settings::kShowErrorsByAlert},
        {Helper::ifLogErrors, settings::kLogErrors},
    };
    for (const auto& [query, key] : queries) {
        ASSERT_FALSE(defaults->objectForKey(key)) << key;
        EXPECT_TRUE(query()) << key;
        auto stored = defaults->objectForKey(key);
        ASSERT_TRUE(stored) << key << " was not written back";
        ASSERT_TRUE(std::holds_alternative<bool>(*stored)) << key;
        EXPECT_TRUE(std::get<bool>(*stored)) << key;
    }
}

TEST_F(SettingsTest, StoredFalseIsReadAndNotOverwritten) {
    defaults->setBool(settings::kLogErrors, false);
    defaults->setInteger(settings::kShowErrorsByAlert, 0);
    EXPECT_FALSE(Helper::ifLogErrors());
    EXPECT_FALSE(Helper::ifShowErrorsByAlert());
    EXPECT_FALSE(defaults->boolForKey(settings::kLogErrors));
    EXPECT_EQ(std::get<int64_t>(*defaults->objectForKey(settings::kShowErrorsByAlert)), 0);
}

TEST_F(SettingsTest, ServerAutoLaunchIsOffByDefaultAndNothingIsWritten) {
    EXPECT_FALSE(Helper::isWebServerAutoLaunch());
    EXPECT_FALSE(Helper::isWebDAVServerAutoLaunch());
    EXPECT_FALSE(defaults->objectForKey(settings::kWebServerAutoLaunch));
    EXPECT_FALSE(defaults->objectForKey(settings::kWebDAVServerAutoLaunch));
    defaults->setBool(settings::kWebServerAutoLaunch, true);
    EXPECT_TRUE(Helper::isWebServerAutoLaunch());
}

TEST_F(SettingsTest, GlobalInitClearsFlagsSettingsAndBridge) {
    auto& global = Global::sharedInstance();
    global.setIsPlaying(true);
    global.setIsRecording(true);
    global.setIsReadyToPlay(true);
    global.setCurrentPlaySettings(std::make_shared<PlaySettings>());
    global.setLuaBridge(std::make_shared<LuaBridge>());
    global.eventArray().emplace_back(1);
    global.init();
    EXPECT_FALSE(global.isPlaying());
    EXPECT_FALSE(global.isRecording());
    EXPECT_FALSE(global.isReadyToPlay());
    EXPECT_FALSE(global.currentPlaySettings());
    EXPECT_FALSE(global.luaBridge());
    EXPECT_TRUE(global.eventArray().empty());
    EXPECT_EQ(&global, &Global::sharedInstance());
}

TEST(StrEndsWith, ComparesTailsByteForByte) {
    EXPECT_TRUE(str_ends_with("a.lua", ".lua"));
    EXPECT_FALSE(str_ends_with("lua", ".lua"));
    EXPECT_TRUE(str_ends_with(".lua", ".lua"));
    EXPECT_TRUE(str_ends_with("anything", ""));
    EXPECT_TRUE(str_ends_with("", ""));
    EXPECT_FALSE(str_ends_with("a.LUA", ".lua"));
    EXPECT_TRUE(str_ends_with("x.lua:3: interrupted", "interrupted"));
}

TEST(LanguageSelection, FollowsTheFirstSystemLanguageOnlyOnExactMatch) {
    EXPECT_EQ(Localization::selectLanguage(0, {"zh-Hant", "en"}), Language::TraditionalChinese);
    EXPECT_EQ(Localization::selectLanguage(0, {"zh-Hans"}), Language::SimplifiedChinese);
    EXPECT_EQ(Localization::selectLanguage(0, {"ja"}), Language::Japanese);
    EXPECT_EQ(Localization::selectLanguage(0, {"zh-HK"}), Language::English);
    EXPECT_EQ(Localization::selectLanguage(0, {"ja-JP"}), Language::English);
    EXPECT_EQ(Localization::selectLanguage(0, {"en", "ja"}), Language::English);
    EXPECT_EQ(Localization::selectLanguage(0, {}), Language::English);
}

TEST(LanguageSelection, StoredChoiceWinsAndUnknownValuesMeanEnglish) {
    EXPECT_EQ(Localization::selectLanguage(2, {"en"}), Language::Japanese);
    EXPECT_EQ(Localization::selectLanguage(3, {"ja"}), Language::SimplifiedChinese);
    EXPECT_EQ(Localization::selectLanguage(4, {"ja"}), Language::TraditionalChinese);
    EXPECT_EQ(Localization::selectLanguage(1, {"ja"}), Language::English);
    EXPECT_EQ(Localization::selectLanguage(5, {"ja"}), Language::English);
    EXPECT_EQ(Localization::selectLanguage(-1, {"ja"}), Language::English);
}

TEST_F(SettingsTest, LocalizedTextsFollowTheStoredLanguage) {
    EXPECT_EQ(Localization::localize("Playing Finished!"), "Playing Finished!");
    defaults->setInteger(settings::kLanguage, 2);
    EXPECT_EQ(Localization::localize("Playing Finished!"), "再生が終了しました！");
    defaults->setInteger(settings::kLanguage, 4);
    EXPECT_EQ(Localization::localize("Cancel"), "取消");
    EXPECT_EQ(Localization::localize("No such text"), "No such text");
}

}  // namespace
}  // namespace tw
