// The utilities beside the library: SHA-1 text over UTF-16 counted prefixes, the screen size text,
// the module version, the installed apps and the plain alert.
#include "EngineFixture.h"
#include "core/Paths.h"
#include "library/Utils.h"

namespace tw {
namespace {

TEST(Sha1Text, HashesAsManyUtf8BytesAsTheTextHasUtf16Units) {
    const std::tuple<const char*, std::string, const char*> cases[] = {  // name, text, digest of the bytes named
        {"ASCII: all of it", "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"empty", "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {"2-byte character: 1 of 2 bytes", "\xC3\xA9", "8bf7b464aaa2c2b536aa1d76a1297c19155f5603"},
        {"h\xC3\xA9llo: 5 of 6 bytes", "h\xC3\xA9llo", "7497a450d58341cf6fad70bcd95b210578eb777f"},
        {"3-byte character: 1 of 3 bytes", "\xE6\x97\xA5", "12db8f85bfe3e0b837059fa01e53748a0727b52c"},
        {"4-byte character counts 2 units: 2 of 4 bytes", "\xF0\x9F\x98\x80", "a7a0a1687c49ddb64ba33c762c8b12cd2fd99ca7"},
        {"a, emoji, b: 4 of 6 bytes", "a\xF0\x9F\x98\x80" "b", "f96f2446b7cff12b2f7faaed17373ebb8513576c"},
        {"a lead byte without its continuation counts 1: all 3", "a\xC3(", "75ed1eec65c674a1e582c98e49bf454d2c46f246"},
    };
    for (const auto& [name, text, digest] : cases) EXPECT_EQ(Utils::sha1(text), digest) << name;
}

using UtilsTest = test::EngineFixture;

TEST_F(UtilsTest, ScreenSizeIsInPixelsWithTheLongerSideFirstInLandscape) {
    auto device = std::make_shared<test::FakeDeviceInfo>();
    Platform::current().device = device;
    const std::tuple<int, double, double, double, const char*> cases[] = {  // orientation, width, height, scale, text
        {1, 375, 667, 2, "750x1334"}, {2, 414, 736, 3, "1242x2208"}, {3, 375, 667, 2, "1334x750"}, {4, 320, 568, 2, "1136x640"}};
    for (const auto& [orientation, width, height, scale, text] : cases) {
        std::tie(device->orientationValue, device->width, device->height, device->scale) = std::tie(orientation, width, height, scale);
        EXPECT_EQ(Utils::getScreenSize(), text) << "orientation " << orientation;
    }
}

TEST_F(UtilsTest, VersionInstalledAppsAndAlert) {
    EXPECT_FALSE(Utils::getCurrentVersion());
    test::writeFile(Paths::resolve(kAppPath) + "/Info.plist",
                    "<plist version=\"1.0\"><dict><key>CFBundleVersion</key><string>1.4.2</string></dict></plist>");
    EXPECT_EQ(Utils::getCurrentVersion(), "1.4.2");
    auto apps = std::make_shared<test::FakeAppService>();
    apps->installed = {{{"CFBundleIdentifier", "com.example.notes"}}};
    Platform::current().apps = apps;
    EXPECT_EQ(Utils::appInstalledList(), apps->installed);
    Utils::alert("Saved.");
    const auto alerts = ui->alerts();
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].message, "Saved.");
    EXPECT_EQ(alerts[0].buttons, std::vector<std::string>{"OK"});
}

}  // namespace
}  // namespace tw
