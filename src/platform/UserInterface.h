#pragma once
// What the engine shows to the user and the sounds it plays. Calls come on the main run loop.
#include <cstdint>
#include <string>
#include <vector>

namespace tw {

struct AlertRequest {
    std::string title;    // empty: no title
    std::string message;
    std::vector<std::string> buttons;
};

class UserInterface {
public:
    virtual ~UserInterface() = default;
    // Shows an alert without a delegate: nothing waits for the button.
    virtual void showAlert(const AlertRequest& alert) = 0;
};

class SoundService {
public:
    virtual ~SoundService() = default;
    // Plays a system sound by id (4095 vibrates).
    virtual void playSystemSound(uint32_t soundId) = 0;
};

inline constexpr uint32_t kSystemSoundVibrate = 4095;

}  // namespace tw
