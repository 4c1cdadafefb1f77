#include "platform/linux/ProfileDeviceInfo.h"

#include <gmock/gmock.h>

#include "TestSupport.h"
#include "device/DeviceApps.h"

namespace tw::linuxp {
namespace {

std::string describe(const DeviceProfile& p) {
    std::ostringstream out;
    out << p.name << " " << p.systemVersion << " " << p.coreFoundationVersionNumber << " " << p.screenWidth << "x"
        << p.screenHeight << "@" << p.scale << " o" << p.orientation << " " << p.serialNumber;
    for (const auto& language : p.languages) out << " " << language;
    for (const auto& app : p.apps) out << " [" << app.bundleId << "|" << app.name << "|" << app.version << "]";
    return out.str();
}

TEST(CompareVersions, ComparesComponentsAsNumbersMissingOnesAsZeroAndIgnoresTails) {
    for (const auto& [a, b, expected] : {std::tuple{"9.10", "9.9", 1}, {"6.1.3", "7.0", -1}, {"7.0.0", "7.0", 0},
                                         {"9.3b2", "9.3.1", -1}, {"beta", "0", 0}, {"18446744073709551616", "1", 1}})
        EXPECT_EQ(compareVersions(a, b), expected) << a << " vs " << b;
}

TEST(DeviceProfile, ReadsEveryKeyDefaultsTheRestAndReadsBackWhatTheDeviceWrites) {
    const std::string full = R"({"name": "small", "systemVersion": "8.4.1", "coreFoundationVersionNumber": 1144.17,
        "screen": {"width": 320, "height": 568, "scale": 2.5}, "orientation": 6, "serialNumber": "S1", "languages":
        ["ja", "en-GB"], "apps": [{"bundleId": "a.b", "name": "AB", "version": "2.1"}, {"bundleId": "x.y"}], "new": 1})";
    const std::string described = "small 8.4.1 1144.17 320x568@2.5 o6 S1 ja en-GB [a.b|AB|2.1] [x.y||]";
    EXPECT_EQ(describe(parseDeviceProfile(full)), described);
    EXPECT_EQ(describe(parseDeviceProfile(device::deviceProfileJson(parseDeviceProfile(full)))), described);
    EXPECT_EQ(describe(parseDeviceProfile(R"({"screen": {"scale": 3}})")), "default 9.3.5 1242.13 375x667@3 o1 TW0000000001 en");
}

TEST(DeviceProfile, RefusesBadProfilesNamingTheFileAndTheKey) {
    const struct { const char *name, *json, *message; } cases[] = {
        {"width of another screen", R"({"screen": {"width": 320}})", "\"screen\" size 320x667"},
        {"orientation 7", R"({"orientation": 7})", "\"orientation\" must be an integer from 1 to 6"},
        {"repeated app", R"({"apps": [{"bundleId": "a"}, {"bundleId": "a"}]})", "\"apps[1].bundleId\" repeats \"a\""},
        {"malformed JSON", "{\"name\": \"x\",, }", "malformed JSON at byte 14"},
    };
    for (const auto& c : cases)
        EXPECT_THAT([&] { parseDeviceProfile(c.json); }, testing::ThrowsMessage<std::runtime_error>(testing::HasSubstr(c.message))) << c.name;
    test::TempDir dir;
    test::writeFile(dir.path() / "bad.json", R"({"orientation": 0})");
    for (const std::string& file : {dir.str() + "/bad.json: \"orientation\"", dir.str() + "/none.json: cannot open"})
        EXPECT_THAT([&] { loadDeviceProfile(file.substr(0, file.find(':'))); }, testing::ThrowsMessage<std::runtime_error>(testing::HasSubstr(file)));
}

}  // namespace
}  // namespace tw::linuxp
