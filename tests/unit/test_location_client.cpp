// The fake-location table: entries kept per app, replaced, removed, nothing made by a clear, and
// write failures logged.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <plist/plist.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <utility>

#include "EngineFixture.h"
#include "core/Paths.h"
#include "core/TWLocationClient.h"

namespace tw {
namespace {

namespace fs = std::filesystem;

using Table = std::map<std::string, std::vector<double>>;

class LocationClientTest : public test::EngineFixture {
protected:
    std::string tableFile() const { return Paths::resolve(kLocationsPath); }

    // The table as a reader in an app sees it; nullopt when it is not a dictionary property list.
    std::optional<Table> readTable() const {
        if (!fs::exists(tableFile())) return std::nullopt;
        const std::string data = test::readFile(tableFile());
        plist_t root = nullptr;
        plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &root);
        if (!root) return std::nullopt;
        std::optional<Table> table;
        if (plist_get_node_type(root) == PLIST_DICT) {
            table.emplace();
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(root, &it);
            for (;;) {
                char* key = nullptr;
                plist_t value = nullptr;
                plist_dict_next_item(root, it, &key, &value);
                if (!key) break;
                std::vector<double> numbers;
                for (uint32_t i = 0; plist_get_node_type(value) == PLIST_ARRAY && i < plist_array_get_size(value); ++i) {
                    double d = -999;
                    plist_t item = plist_array_get_item(value, i);
                    if (plist_get_node_type(item) == PLIST_REAL) plist_get_real_val(item, &d);
                    numbers.push_back(d);
                }
                (*table)[key] = numbers;
                std::free(key);
            }
            std::free(it);
        }
        plist_free(root);
        return table;
    }

    std::vector<std::string> folderEntries() const {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(Paths::resolve(kAppPath))) names.push_back(e.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(LocationClientTest, EachAppKeepsItsOwnPairAndAFakeAgainReplacesIt) {
    TWLocationClient::fakeLocationForApp("com.example.maps", 35.6586, 139.7454);
    EXPECT_EQ(readTable(), (Table{{"com.example.maps", {35.6586, 139.7454}}}));

    TWLocationClient::fakeLocationForApp("com.example.run", -33.8568, 151.2153);
    TWLocationClient::fakeLocationForApp("com.example.maps", 48.8584, 2.2945);
    EXPECT_EQ(readTable(), (Table{{"com.example.maps", {48.8584, 2.2945}}, {"com.example.run", {-33.8568, 151.2153}}}));

    TWLocationClient::clearFakeLocationForApp("com.example.maps");
    EXPECT_EQ(readTable(), (Table{{"com.example.run", {-33.8568, 151.2153}}}));
    TWLocationClient::clearFakeLocationForApp("com.example.never");  // an absent key is fine
    EXPECT_EQ(readTable(), (Table{{"com.example.run", {-33.8568, 151.2153}}}));
    TWLocationClient::clearFakeLocationForApp("com.example.run");
    EXPECT_EQ(readTable(), Table{});
    EXPECT_TRUE(logMessages().empty());
}

TEST_F(LocationClientTest, ClearingWithoutATableCreatesNothingAndLogsNothing) {
    ASSERT_FALSE(fs::exists(tableFile()));
    const auto before = folderEntries();
    TWLocationClient::clearFakeLocationForApp("com.example.maps");
    EXPECT_FALSE(fs::exists(tableFile()));
    EXPECT_EQ(folderEntries(), before);
    EXPECT_TRUE(logMessages().empty());
}

TEST_F(LocationClientTest, AnUnreadableTableIsReplacedByAFakeAndLeftAloneByAClear) {
    test::writeFile(tableFile(), "garbage, not a property list");
    TWLocationClient::clearFakeLocationForApp("com.example.maps");
    EXPECT_EQ(test::readFile(tableFile()), "garbage, not a property list");

    // A property list whose root is not a dictionary counts as none too.
    test::writeFile(tableFile(), "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>");
    TWLocationClient::fakeLocationForApp("com.example.maps", 1.5, -2.5);
    EXPECT_EQ(readTable(), (Table{{"com.example.maps", {1.5, -2.5}}}));
}

TEST_F(LocationClientTest, TablesWrittenByOthersAreReadInEitherFormAndKeptWhole) {
    // A binary table from another writer, with an entry of a kind this side does not write.
    plist_t dict = plist_new_dict();
    plist_t pair = plist_new_array();
    plist_array_append_item(pair, plist_new_real(10.0));
    plist_array_append_item(pair, plist_new_real(20.0));
    plist_dict_set_item(dict, "com.example.old", pair);
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict, &bin, &length);
    test::writeFile(tableFile(), std::string(bin, length));
    plist_to_bin_free(bin);
    plist_free(dict);

    TWLocationClient::fakeLocationForApp("com.example.new", 0.25, 0.5);
    EXPECT_EQ(readTable(), (Table{{"com.example.old", {10.0, 20.0}}, {"com.example.new", {0.25, 0.5}}}));
    // Written as a whole new file: nothing temporary is left beside it.
    const auto names = folderEntries();
    EXPECT_EQ(std::count_if(names.begin(), names.end(), [](const std::string& n) { return n.rfind("locations", 0) == 0; }),
              1);
}

TEST_F(LocationClientTest, NoAppMeansNoChange) {
    TWLocationClient::fakeLocationForApp(nullptr, 1, 2);
    TWLocationClient::fakeLocationForApp("bad\xFF", 1, 2);
    TWLocationClient::clearFakeLocationForApp(nullptr);
    EXPECT_FALSE(fs::exists(tableFile()));
}

TEST_F(LocationClientTest, AFakeThatCannotBeWrittenIsLogged) {
    fs::remove_all(Paths::resolve(kAppPath));
    TWLocationClient::fakeLocationForApp("com.example.maps", 1, 2);
    EXPECT_EQ(logMessages(), std::vector<std::string>{"Failed to write data to file when faking location!"});
    EXPECT_FALSE(fs::exists(tableFile()));
}

TEST_F(LocationClientTest, AClearThatCannotBeWrittenIsLoggedAndLeavesTheTable) {
    TWLocationClient::fakeLocationForApp("com.example.maps", 1, 2);
    const std::string folder = Paths::resolve(kAppPath);
    bool locked = false;
    int flags = 0;
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY);
    if (geteuid() != 0) {
        locked = ::chmod(folder.c_str(), 0555) == 0;
    } else if (fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0) {
        int on = flags | FS_IMMUTABLE_FL;
        locked = ::ioctl(fd, FS_IOC_SETFLAGS, &on) == 0;
    }
    if (locked) {
        TWLocationClient::clearFakeLocationForApp("com.example.maps");
        if (geteuid() != 0)
            ::chmod(folder.c_str(), 0755);
        else
            ::ioctl(fd, FS_IOC_SETFLAGS, &flags);
    }
    if (fd >= 0) ::close(fd);
    if (!locked) GTEST_SKIP() << "cannot make a folder read-only here";
    EXPECT_EQ(logMessages(), std::vector<std::string>{"Failed to write data to file when clearing faked location!"});
    EXPECT_EQ(readTable(), (Table{{"com.example.maps", {1, 2}}}));
}

}  // namespace
}  // namespace tw
