// The fake-location table as an app left it: an entry set and one cleared, each a read and an
// atomic rewrite of the whole table.
#include "FuzzSupport.h"
#include "FuzzTarget.h"
#include "core/Paths.h"
#include "core/Plist.h"
#include "core/TWLocationClient.h"

TW_FUZZ_TARGET(locations_table) {
    using namespace tw;
    fuzz::Scratch::clear();
    fuzz::RootInScratch root;
    const std::string table = Paths::resolve(kLocationsPath);
    fuzz::writeFile(table, data, size);

    TWLocationClient::fakeLocationForApp("com.example.maps", 35.5, 139.25);
    PlistHandle written = readPlistFile(table);
    FUZZ_CHECK(isPlistDict(written.get()));
    FUZZ_CHECK(plist_dict_get_item(written.get(), "com.example.maps") != nullptr);
    TWLocationClient::clearFakeLocationForApp("com.example.maps");
    written = readPlistFile(table);
    FUZZ_CHECK(isPlistDict(written.get()));
    FUZZ_CHECK(plist_dict_get_item(written.get(), "com.example.maps") == nullptr);
    return 0;
}
