// A user-defaults domain file as another process left it: read, then written and removed from,
// which sets a damaged file aside before replacing it.
#include "FuzzSupport.h"
#include "FuzzTarget.h"
#include "core/Plist.h"
#include "platform/linux/PlistUserDefaults.h"

TW_FUZZ_TARGET(user_defaults) {
    using namespace tw;
    fuzz::Scratch::clear();
    const std::string file = fuzz::Scratch::dir() + "/Preferences/me.tapwright.twtweak.plist";
    fuzz::writeFile(file, data, size);

    linuxp::PlistUserDefaults defaults(file);
    for (const char* key : {"key", "flag", "number", "real", "text", ""}) defaults.objectForKey(key);
    defaults.setObject("flag", DefaultsValue{true});
    FUZZ_CHECK(defaults.objectForKey("flag") == DefaultsValue{true});
    defaults.removeObjectForKey("key");
    FUZZ_CHECK(!defaults.objectForKey("key"));
    // What was written reads back as a dictionary.
    FUZZ_CHECK(isPlistDict(readPlistFile(file).get()));
    return 0;
}
