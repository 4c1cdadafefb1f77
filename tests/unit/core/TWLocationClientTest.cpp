// The fake-location table: one entry per app, replaced and removed; unreadable tables; failed writes.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <filesystem>

#include "EngineFixture.h"
#include "core/Paths.h"
#include "core/TWLocationClient.h"

namespace tw {
namespace {

namespace fs = std::filesystem;
using Pair = std::vector<double>;

class TWLocationClientTest : public test::EngineFixture {
protected:
    static std::string tableFile() { return Paths::resolve(kLocationsPath); }
    // The app's entry as a reader in an app finds it: its numbers; none without one; {-1} without a table.
    static Pair entry(const char* app) {
        const std::string data = test::readFile(tableFile());
        plist_t root = nullptr;
        plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &root);
        const std::unique_ptr<void, void (*)(plist_t)> owner(root, plist_free);
        if (!root || plist_get_node_type(root) != PLIST_DICT) return {-1};
        Pair numbers;
        const plist_t pair = plist_dict_get_item(root, app);
        for (uint32_t i = 0; pair && i < plist_array_get_size(pair); ++i)
            plist_get_real_val(plist_array_get_item(pair, i), &numbers.emplace_back(-999));
        return numbers;
    }
};

TEST_F(TWLocationClientTest, EachAppKeepsItsOwnPairUntilAFakeReplacesItOrAClearRemovesIt) {
    TWLocationClient::fakeLocationForApp("com.example.maps", 35.6586, 139.7454);
    TWLocationClient::fakeLocationForApp("com.example.run", -33.8568, 151.2153);
    EXPECT_EQ(entry("com.example.maps"), (Pair{35.6586, 139.7454}));
    TWLocationClient::fakeLocationForApp("com.example.maps", 48.8584, 2.2945);
    TWLocationClient::clearFakeLocationForApp("com.example.run");
    TWLocationClient::fakeLocationForApp(nullptr, 1, 2);  // no app, no change
    TWLocationClient::fakeLocationForApp("bad\xFF", 1, 2);
    EXPECT_EQ(std::tuple(entry("com.example.maps"), entry("com.example.run"), entry("bad\xFF")),
              std::tuple(Pair{48.8584, 2.2945}, Pair{}, Pair{}));
}

TEST_F(TWLocationClientTest, WithoutAReadableTableAClearWritesNothingAndAFakeStartsAfresh) {
    TWLocationClient::clearFakeLocationForApp("com.example.maps");
    EXPECT_FALSE(fs::exists(tableFile()));
    test::writeFile(tableFile(), "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>");
    TWLocationClient::fakeLocationForApp("com.example.maps", 1.5, -2.5);
    EXPECT_EQ(entry("com.example.maps"), (Pair{1.5, -2.5}));
    fs::remove_all(Paths::resolve(kAppPath));  // nowhere to write
    TWLocationClient::fakeLocationForApp("com.example.maps", 1, 2);
    EXPECT_EQ(logMessages(), std::vector<std::string>{"Failed to write data to file when faking location!"});
}

}  // namespace
}  // namespace tw
