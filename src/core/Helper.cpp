#include "core/Helper.h"

#include "core/LogToFile.h"
#include "core/Settings.h"
#include "platform/Platform.h"
#include "platform/UserDefaults.h"

namespace tw {

namespace {

bool readDefaultingToTrue(const char* key) {
    auto defaults = Platform::current().standardDefaults;
    if (!defaults) return true;
    if (!defaults->objectForKey(key)) {
        // A setting that cannot be stored still reads as its default; the user hears of it in the log.
        if (!defaults->setBool(key, true)) LogToFile("Failed to save the setting %s.", key);
        return true;
    }
    return defaults->boolForKey(key);
}

bool readDefaultingToFalse(const char* key) {
    auto defaults = Platform::current().standardDefaults;
    return defaults && defaults->boolForKey(key);
}

}  // namespace

bool Helper::ifVibrateWhenRecordingStartStop() { return readDefaultingToTrue(settings::kVibrateWhenRecordingStartStop); }
bool Helper::ifVibrateWhenPlayingStartStop() { return readDefaultingToTrue(settings::kVibrateWhenPlayingStartStop); }
bool Helper::ifShowRecordingFinishedAlert() { return readDefaultingToTrue(settings::kShowRecordingFinishedAlert); }
bool Helper::ifShowPlayingFinishedAlert() { return readDefaultingToTrue(settings::kShowPlayingFinishedAlert); }
bool Helper::ifShowErrorsByAlert() { return readDefaultingToTrue(settings::kShowErrorsByAlert); }
bool Helper::ifLogErrors() { return readDefaultingToTrue(settings::kLogErrors); }
bool Helper::isWebServerAutoLaunch() { return readDefaultingToFalse(settings::kWebServerAutoLaunch); }
bool Helper::isWebDAVServerAutoLaunch() { return readDefaultingToFalse(settings::kWebDAVServerAutoLaunch); }

bool str_ends_with(std::string_view str, std::string_view suffix) {
    return str.size() >= suffix.size() && str.substr(str.size() - suffix.size()) == suffix;
}

std::string localDateTimeText(std::time_t time) {
    std::tm local{};
    localtime_r(&time, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

}  // namespace tw
