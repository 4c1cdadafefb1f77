#include <gtest/gtest.h>

#include "TestSupport.h"
#include "device/DeviceBundles.h"

namespace tw::device {
namespace {

TEST(DeviceBundles, EachProfileAppGetsAnInfoPropertyListInAFolderOfItsOwnWrittenOnlyWhenItChanges) {
    test::TempDir root("tw-bundles");
    const linuxp::DeviceProfile profile{.apps = {{"com.example.notes", "A/B", "1.0"}, {"com.example.nameless", "", "2.0"},
                                                 {"com.example.copy", "A/B", "3.0"}}};
    ASSERT_TRUE(writeAppBundles(root.str(), profile));
    const DeviceBundleInfo bundles(root.str());
    for (const auto& [folder, id, key, value] : {std::tuple{"A_B", "com.example.notes", "CFBundleShortVersionString", "1.0"},
                                                 {"com.example.nameless", "com.example.nameless", "CFBundleName", "com.example.nameless"},
                                                 {"com.example.copy", "com.example.copy", "CFBundleVersion", "3.0"}}) {
        EXPECT_TRUE(std::filesystem::exists(root.path() / "Applications" / (std::string(folder) + ".app"))) << folder;
        EXPECT_EQ(bundles.infoDictionaryString(id, key), value) << id;
    }
    const auto written = std::filesystem::last_write_time(root.path() / "Applications/A_B.app/Info.plist");
    ASSERT_TRUE(writeAppBundles(root.str(), profile));
    EXPECT_EQ(std::filesystem::last_write_time(root.path() / "Applications/A_B.app/Info.plist"), written);  // unchanged
}

}  // namespace
}  // namespace tw::device
