#pragma once
// The command line's user interface: alerts are printed on standard error, sounds are named there
// too when asked to be.
#include <cstdio>

#include "platform/UserInterface.h"

namespace tw {

class ConsoleUserInterface : public UserInterface {
public:
    explicit ConsoleUserInterface(std::FILE* out = stderr) : out_(out) {}
    void showAlert(const AlertRequest& alert) override;

private:
    std::FILE* out_;
};

class ConsoleSoundService : public SoundService {
public:
    explicit ConsoleSoundService(bool verbose = false, std::FILE* out = stderr) : verbose_(verbose), out_(out) {}
    void playSystemSound(uint32_t soundId) override;

private:
    bool verbose_;
    std::FILE* out_;
};

}  // namespace tw
