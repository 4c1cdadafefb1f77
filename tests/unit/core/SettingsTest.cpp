// The on/off settings with their defaults, the shared state, the language choice and the suffix test.
#include "EngineFixture.h"
#include "core/Global.h"
#include "core/Helper.h"
#include "core/Settings.h"
#include "play/LuaBridge.h"
#include "ui/Localization.h"

namespace tw {
namespace {

using SettingsTest = test::EngineFixture;

TEST_F(SettingsTest, OnAFreshDeviceEveryQueryAnswersTrueAndStoresTrue) {
    const std::pair<bool (*)(), const char*> queries[] = {
        {Helper::ifVibrateWhenRecordingStartStop, settings::kVibrateWhenRecordingStartStop},
        {Helper::ifVibrateWhenPlayingStartStop, settings::kVibrateWhenPlayingStartStop},
        {Helper::ifShowRecordingFinishedAlert, settings::kShowRecordingFinishedAlert},
        {Helper::ifShowPlayingFinishedAlert, settings::kShowPlayingFinishedAlert},
        {Helper::ifShowErrorsByAlert, settings::kShowErrorsByAlert},
        {Helper::ifLogErrors, settings::kLogErrors},
    };
    for (const auto& [query, key] : queries) {
        SCOPED_TRACE(key);
        ASSERT_FALSE(defaults->objectForKey(key));
        EXPECT_TRUE(query());
        EXPECT_EQ(defaults->objectForKey(key), DefaultsValue(true));
        defaults->setBool(key, false);
        EXPECT_FALSE(query());
    }
    // The servers do not start by themselves, and nothing is written for them.
    EXPECT_FALSE(Helper::isWebServerAutoLaunch() || Helper::isWebDAVServerAutoLaunch() || defaults->objectForKey(settings::kWebDAVServerAutoLaunch));
    defaults->setBool(settings::kWebDAVServerAutoLaunch, true);
    EXPECT_TRUE(Helper::isWebDAVServerAutoLaunch());
}

TEST_F(SettingsTest, GlobalInitClearsFlagsSettingsBridgeAndEvents) {
    auto& global = Global::sharedInstance();
    global.setIsPlaying(true), global.setIsRecording(true), global.setIsReadyToPlay(true), global.eventArray().emplace_back(1);
    global.setCurrentPlaySettings(std::make_shared<PlaySettings>()), global.setLuaBridge(std::make_shared<LuaBridge>());
    global.init();
    EXPECT_FALSE(global.isPlaying() || global.isRecording() || global.isReadyToPlay() || global.currentPlaySettings() || global.luaBridge());
    EXPECT_TRUE(global.eventArray().empty());
}

TEST_F(SettingsTest, LanguageFollowsTheStoredChoiceOrTheFirstSystemLanguageExactly) {
    const char *english = "Recording Finished!", *japanese = "録画が終了しました！", *simplified = "录制完成！",
               *traditional = "錄製完成！";
    const std::tuple<const char*, int64_t, std::vector<std::string>, const char*> cases[] = {  // name, setting, system, text
        {"0 and zh-Hant", 0, {"zh-Hant", "en"}, traditional}, {"0 and zh-Hans", 0, {"zh-Hans"}, simplified},
        {"0 and ja", 0, {"ja"}, japanese},                    {"0 and zh-HK: English", 0, {"zh-HK", "zh-Hant"}, english},
        {"0 and ja-JP: English", 0, {"ja-JP"}, english},      {"0 without system languages", 0, {}, english},
        {"2 over the system", 2, {"en"}, japanese},           {"3 over the system", 3, {"ja"}, simplified},
        {"4 over the system", 4, {"ja"}, traditional},        {"1 over the system", 1, {"ja"}, english},
        {"5 is English", 5, {"ja"}, english},
    };
    auto device = std::make_shared<test::FakeDeviceInfo>();
    Platform::current().device = device;
    for (const auto& [name, setting, system, text] : cases) {
        defaults->setInteger(settings::kLanguage, setting);
        device->languages = system;
        EXPECT_EQ(Localization::localize("Recording Finished!") + "|" + Localization::localize("No such text"), text + std::string("|No such text")) << name;
    }
}

}  // namespace
}  // namespace tw
