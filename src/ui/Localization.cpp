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
        {"Recording Finished!", {"録画が終了しました！", "录制完成！", "錄製完成！"}},
    };
    if (language == Language::English) return key;
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
