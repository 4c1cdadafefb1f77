// Information property lists of installed apps, the program's own, and the site's type table, each
// looked up as its reader does.
#include "FuzzSupport.h"
#include "FuzzTarget.h"
#include "core/Paths.h"
#include "device/DeviceBundles.h"
#include "library/FileManager.h"
#include "library/Utils.h"

TW_FUZZ_TARGET(info_plists) {
    using namespace tw;
    fuzz::Scratch::clear();
    fuzz::RootInScratch rooted;
    const std::string root = fuzz::Scratch::dir();
    fuzz::writeFile(root + device::kApplicationsPath + "/Maps.app/Info.plist", data, size);
    fuzz::writeFile(root + kAppPath + "/Info.plist", data, size);
    fuzz::writeFile(root + kWebsiteIconsPath + "/mimetypes.plist", data, size);

    device::DeviceBundleInfo bundles(root);
    for (const char* key : {"CFBundleName", "CFBundleVersion", "CFBundleIdentifier"})
        bundles.infoDictionaryString("com.example.maps", key);
    Utils::getCurrentVersion();
    for (const char* name : {"a.txt", "b.png", "c.lua", "d.zip"}) FileManager::fileIcon(root + "/" + name);
    return 0;
}
