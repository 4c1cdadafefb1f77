#pragma once
// The string tables of the on-device interface, in English, Japanese, simplified and traditional
// Chinese.
#include <string>
#include <vector>

namespace tw {

enum class Language { English = 1, Japanese = 2, SimplifiedChinese = 3, TraditionalChinese = 4 };

class Localization {
public:
    // The language for the stored setting (0 follows the system) and the system's preferred
    // languages: 0 picks by the first preferred language ("ja", "zh-Hans", "zh-Hant" exactly,
    // anything else English); 2, 3, 4 pick themselves; any other value picks English.
    static Language selectLanguage(long long setting, const std::vector<std::string>& preferredLanguages);
    // The language chosen by the user's setting on this device.
    static Language currentLanguage();
    // `key` (the English text) in `language`; the key itself when the table has no entry.
    static std::string localize(const std::string& key, Language language);
    static std::string localize(const std::string& key) { return localize(key, currentLanguage()); }
};

}  // namespace tw
