#include "ui/ConsoleUserInterface.h"

namespace tw {

void ConsoleUserInterface::showAlert(const AlertRequest& alert) {
    // "[alert] Title: message [OK]"
    std::string line = "[alert] ";
    if (!alert.title.empty()) line += alert.title + ": ";
    line += alert.message;
    for (const auto& b : alert.buttons) line += " [" + b + "]";
    std::fprintf(out_, "%s\n", line.c_str());
    std::fflush(out_);
}

void ConsoleSoundService::playSystemSound(uint32_t soundId) {
    if (!verbose_) return;
    if (soundId == kSystemSoundVibrate)
        std::fprintf(out_, "[vibrate]\n");
    else
        std::fprintf(out_, "[sound %u]\n", soundId);
    std::fflush(out_);
}

}  // namespace tw
