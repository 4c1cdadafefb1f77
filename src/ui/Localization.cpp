#include "ui/Localization.h"

#include <map>

#include "core/Settings.h"
#include "platform/DeviceInfo.h"
#include "platform/Platform.h"
#include "platform/UserDefaults.h"

namespace tw {

Language Localization::selectLanguage(long long setting, const std::vector<std::string>& preferred) {
    if (setting == 0) {
        const std::string first = preferred.empty() ? std::string() : preferred.front();
        if (first == "ja") return Language::Japanese;
        if (first == "zh-Hans") return Language::SimplifiedChinese;
        if (first == "zh-Hant") return Language::TraditionalChinese;
        return Language::English;
    }
    switch (setting) {
        case 2: return Language::Japanese;
        case 3: return Language::SimplifiedChinese;
        case 4: return Language::TraditionalChinese;
        default: return Language::English;
    }
}

Language Localization::currentLanguage() {
    const auto& platform = Platform::current();
    const long long setting = platform.standardDefaults ? platform.standardDefaults->integerForKey(settings::kLanguage) : 0;
    std::vector<std::string> preferred;
    if (platform.device) preferred = platform.device->preferredLanguages();
    return selectLanguage(setting, preferred);
}

std::string Localization::localize(const std::string& key, Language language) {
    struct Row {
        const char* ja;
        const char* zhHans;
        const char* zhHant;
    };
    static const std::map<std::string, Row> table = {
        {"Tapwright", {"Tapwright", "Tapwright", "Tapwright"}},
        {"OK", {"OK", "好", "好"}},
        {"Cancel", {"キャンセル", "取消", "取消"}},
        {"Playing Finished!", {"再生が終了しました！", "播放完成！", "播放完成！"}},
        {"Error", {"エラー", "错误", "錯誤"}},
        {"Create script failed.Info:", {"スクリプトの作成に失敗しました。情報：", "创建脚本失败。信息：", "建立腳本失敗。資訊："}},
        {"Quited Ready-to-Play Status!", {"再生待ち状態を終了しました！", "已退出待播放状态！", "已退出待播放狀態！"}},
        {"Tip", {"ヒント", "提示", "提示"}},
        {"Don't show again", {"今後表示しない", "不再显示", "不再顯示"}},
        {"Dencrypt Password", {"復号パスワード", "解密密码", "解密密碼"}},
        {"Confirm", {"確認", "确认", "確認"}},
        {"Wrong password!", {"パスワードが違います！", "密码错误！", "密碼錯誤！"}},
        {"PLAY_LATER_TIP",
         {"再生の準備ができました。音量ダウンボタンを押すと開始/停止します（繰り返し可能、この操作は変更できません）。"
          "音量ダウンボタンを長押しすると（設定で Activator の操作を変更した場合は異なることがあります）再生待ち状態を終了します。",
          "已准备好播放，按音量减键开始/停止（可重复，此控制动作不可更改），长按音量减键（如果您在设置中更改了 Activator 的控制动作则可能不同）退出待播放状态。",
          "已準備好播放，按音量減鍵開始/停止（可重複，此控制動作不可更改），長按音量減鍵（如果您在設定中更改了 Activator 的控制動作則可能不同）退出待播放狀態。"}},
        {"Recording Finished!", {"録画が終了しました！", "录制完成！", "錄製完成！"}},
    };
    // Keys that are not the English text itself.
    static const std::map<std::string, std::string> english = {
        {"PLAY_LATER_TIP",
         "It's ready to play, click on the volume down button to start/stop(repeatable, and the control action can't be "
         "changed), hold on the volume down button(maybe you've changed the Activator control action in the settings) to "
         "quit ready-to-play status."},
    };
    if (language == Language::English) {
        auto it = english.find(key);
        return it == english.end() ? key : it->second;
    }
    auto it = table.find(key);
    if (it == table.end()) return key;
    switch (language) {
        case Language::Japanese: return it->second.ja;
        case Language::SimplifiedChinese: return it->second.zhHans;
        case Language::TraditionalChinese: return it->second.zhHant;
        default: return key;
    }
}

}  // namespace tw
