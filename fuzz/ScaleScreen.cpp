// The head of a script that decides whether its coordinates are points: the script's text, and the
// same bytes as a script file (its first 128 bytes, then its creation date).
#include "FuzzSupport.h"
#include "FuzzTarget.h"
#include "injection/EventSimulate.h"

TW_FUZZ_TARGET(scale_screen) {
    using namespace tw;
    const std::string text(reinterpret_cast<const char*>(data), size);
    decideScaleScreen(text, 2);
    const std::string path = fuzz::Scratch::dir() + "/script.lua";
    fuzz::writeFile(path, data, size);
    decideScaleScreen(path, 1);
    return 0;
}
