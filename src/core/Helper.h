#pragma once
// On/off settings with their defaults, and small shared helpers.
#include <ctime>
#include <string>
#include <string_view>

namespace tw {

class Helper {
public:
    // Each query reads the setting; a setting that was never stored is stored as true and read
    // as true, so that the settings screen shows an explicit value afterwards.
    static bool ifVibrateWhenRecordingStartStop();
    static bool ifVibrateWhenPlayingStartStop();
    static bool ifShowRecordingFinishedAlert();
    static bool ifShowPlayingFinishedAlert();
    static bool ifShowErrorsByAlert();
    static bool ifLogErrors();

    // Server auto-launch settings: false when absent, and nothing is written back.
    static bool isWebServerAutoLaunch();
    static bool isWebDAVServerAutoLaunch();
};

// "yyyy-MM-dd HH:mm:ss" in the device's time zone: the names of screenshots and recordings and the
// library's creation times.
std::string localDateTimeText(std::time_t time);

// True when `str` ends with `suffix` byte for byte; an empty suffix always matches.
bool str_ends_with(std::string_view str, std::string_view suffix);

}  // namespace tw
