#pragma once
// How one script is to be played: repeat count, interval, speed, and how the play was started.
// The first five fields are kept per script in the PLAY_SETTINGS table (store/DataManager.h); a
// script without a row plays with the defaults below.
#include <cstdint>
#include <string>

namespace tw {

struct PlaySettings {
    std::string filePath;           // script path in the library, "/name.lua"
    bool playDirectly = false;
    int64_t repeatTime = 1;         // runs per play; 0 repeats until stopped
    int64_t repeatInterval = 1;     // whole seconds before the second and every later run
    float playSpeed = 1.0f;         // waits are scaled by 2.0 - speed
    std::string scriptContent;      // Lua source, for playType 1
    int32_t playType = 0;           // 0 play the file at filePath, 1 play scriptContent
    int32_t playNowOrLater = 0;     // 0 started at once, otherwise by a timer or a trigger
    bool showPlayingFinishedAlert = true;

    bool operator==(const PlaySettings&) const = default;
};

}  // namespace tw
