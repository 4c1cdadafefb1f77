// Device profiles (parsing, validation, the shipped profiles) and version comparison.
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "TestSupport.h"
#include "platform/DeviceInfo.h"
#include "platform/linux/ProfileDeviceInfo.h"

namespace fs = std::filesystem;
using tw::linuxp::DeviceProfile;
using tw::linuxp::loadDeviceProfile;
using tw::linuxp::parseDeviceProfile;
using tw::linuxp::ProfileDeviceInfo;
using tw::test::TempDir;

namespace {

// The message of the runtime_error parsing `json` throws, or "" when it does not throw.
std::string parseError(const std::string& json) {
    try {
        parseDeviceProfile(json);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// compareVersions

TEST(CompareVersions, NumericComponentByComponent) {
    EXPECT_EQ(tw::compareVersions("10.0", "9.3.5"), 1);
    EXPECT_EQ(tw::compareVersions("9.3.5", "10.0"), -1);
    EXPECT_EQ(tw::compareVersions("6.1.3", "7.0"), -1);
    EXPECT_EQ(tw::compareVersions("9.3.5", "9.3.4"), 1);
    EXPECT_EQ(tw::compareVersions("9.10", "9.9"), 1) << "components compare as numbers, not text";
    EXPECT_EQ(tw::compareVersions("8.4.1", "8.4.1"), 0);
}

TEST(CompareVersions, MissingComponentsCountAsZero) {
    EXPECT_EQ(tw::compareVersions("7.0", "7.0.0"), 0);
    EXPECT_EQ(tw::compareVersions("9", "9.0"), 0);
    EXPECT_EQ(tw::compareVersions("9.0.1", "9"), 1);
    EXPECT_EQ(tw::compareVersions("9", "9.0.1"), -1);
    EXPECT_EQ(tw::compareVersions("", "0.0"), 0);
    EXPECT_EQ(tw::compareVersions("", "0.1"), -1);
}

TEST(CompareVersions, NonNumericTailsOfAComponentAreIgnored) {
    EXPECT_EQ(tw::compareVersions("9.3b2", "9.3"), 0);
    EXPECT_EQ(tw::compareVersions("9.3b2", "9.3.1"), -1);
    EXPECT_EQ(tw::compareVersions("9.4beta", "9.3.5"), 1);
    EXPECT_EQ(tw::compareVersions("beta", "0"), 0);
    EXPECT_EQ(tw::compareVersions("10.x.2", "10.0.2"), 0);
}

TEST(CompareVersions, HugeComponentsDoNotWrapAround) {
    EXPECT_EQ(tw::compareVersions("99999999999999999999999", "1"), 1);
    EXPECT_EQ(tw::compareVersions("1.4294967296", "1.0"), 1);
}

// ---------------------------------------------------------------------------------------------
// Parsing

TEST(DeviceProfile, EmptyObjectTakesEveryDefault) {
    const DeviceProfile p = parseDeviceProfile("{}");
    const DeviceProfile defaults;
    EXPECT_EQ(p.name, defaults.name);
    EXPECT_EQ(p.systemVersion, "9.3.5");
    EXPECT_DOUBLE_EQ(p.coreFoundationVersionNumber, 1242.13);
    EXPECT_EQ(p.screenWidth, 375);
    EXPECT_EQ(p.screenHeight, 667);
    EXPECT_EQ(p.scale, 2.0);
    EXPECT_EQ(p.orientation, 1);
    EXPECT_EQ(p.serialNumber, defaults.serialNumber);
    EXPECT_EQ(p.languages, std::vector<std::string>{"en"});
    EXPECT_TRUE(p.apps.empty());
}

TEST(DeviceProfile, EveryKeyIsRead) {
    const DeviceProfile p = parseDeviceProfile(R"({
        "name": "small", "systemVersion": "8.4.1", "coreFoundationVersionNumber": 1144.17,
        "screen": {"width": 320, "height": 568, "scale": 2.5},
        "orientation": 3, "serialNumber": "ABCDEFGHIJKL", "languages": ["ja", "en-GB"],
        "apps": [{"bundleId": "a.b.c", "name": "ABC", "version": "2.1"}, {"bundleId": "x.y"}],
        "somethingNew": {"ignored": true}
    })");
    EXPECT_EQ(p.name, "small");
    EXPECT_EQ(p.systemVersion, "8.4.1");
    EXPECT_DOUBLE_EQ(p.coreFoundationVersionNumber, 1144.17);
    EXPECT_EQ(p.screenWidth, 320);
    EXPECT_EQ(p.screenHeight, 568);
    EXPECT_EQ(p.scale, 2.5);
    EXPECT_EQ(p.orientation, 3);
    EXPECT_EQ(p.serialNumber, "ABCDEFGHIJKL");
    EXPECT_EQ(p.languages, (std::vector<std::string>{"ja", "en-GB"}));
    ASSERT_EQ(p.apps.size(), 2u);
    EXPECT_EQ(p.apps[0].bundleId, "a.b.c");
    EXPECT_EQ(p.apps[0].name, "ABC");
    EXPECT_EQ(p.apps[0].version, "2.1");
    EXPECT_EQ(p.apps[1].bundleId, "x.y");
    EXPECT_EQ(p.apps[1].name, "");
}

TEST(DeviceProfile, PartialScreenKeepsTheOtherDefaults) {
    const DeviceProfile p = parseDeviceProfile(R"({"screen": {"scale": 3}})");
    EXPECT_EQ(p.screenWidth, 375);
    EXPECT_EQ(p.screenHeight, 667);
    EXPECT_EQ(p.scale, 3.0);
}

TEST(DeviceProfile, AcceptsEachKnownScreenSize) {
    for (const auto& [w, h] : {std::pair{320, 480}, {320, 568}, {375, 667}, {414, 736}, {768, 1024}}) {
        const std::string json =
            R"({"screen": {"width": )" + std::to_string(w) + R"(, "height": )" + std::to_string(h) + "}}";
        EXPECT_NO_THROW(parseDeviceProfile(json)) << w << "x" << h;
    }
}

TEST(DeviceProfile, RejectsScreensThatAreNotAKnownPortraitSize) {
    for (const std::string screen : {R"({"width": 400, "height": 700})", R"({"width": 667, "height": 375})",
                                     R"({"width": 320})", R"({"width": 375.5, "height": 667})"}) {
        const std::string message = parseError(R"({"screen": )" + screen + "}");
        EXPECT_NE(message.find("\"screen\""), std::string::npos) << screen << ": " << message;
        EXPECT_NE(message.find("320x480"), std::string::npos) << "should list the known sizes: " << message;
    }
}

TEST(DeviceProfile, RejectsOutOfRangeValuesNamingTheKey) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {R"({"screen": {"scale": 0}})", "screen.scale"},
        {R"({"screen": {"scale": -2}})", "screen.scale"},
        {R"({"orientation": 0})", "orientation"},
        {R"({"orientation": 7})", "orientation"},
        {R"({"orientation": -1})", "orientation"},
        {R"({"orientation": 2.5})", "orientation"},
        {R"({"coreFoundationVersionNumber": 0})", "coreFoundationVersionNumber"},
        {R"({"systemVersion": "nine"})", "systemVersion"},
        {R"({"systemVersion": ""})", "systemVersion"},
        {R"({"name": ""})", "name"},
        {R"({"languages": []})", "languages"},
        {R"({"languages": ["en", ""]})", "languages[1]"},
        {R"({"apps": [{"name": "No id"}]})", "apps[0].bundleId"},
        {R"({"apps": [{"bundleId": "a"}, {"bundleId": "a"}]})", "apps[1].bundleId"},
    };
    for (const auto& [json, key] : cases) {
        const std::string message = parseError(json);
        EXPECT_NE(message.find("\"" + key + "\""), std::string::npos) << json << " -> \"" << message << "\"";
    }
}

TEST(DeviceProfile, RejectsWrongJsonTypesNamingTheKeyAndTheType) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {R"({"name": 5})", "name"},
        {R"({"systemVersion": 9.3})", "systemVersion"},
        {R"({"coreFoundationVersionNumber": "1242.13"})", "coreFoundationVersionNumber"},
        {R"({"screen": [375, 667]})", "screen"},
        {R"({"screen": {"width": "375"}})", "screen.width"},
        {R"({"screen": {"height": null}})", "screen.height"},
        {R"({"screen": {"scale": true}})", "screen.scale"},
        {R"({"orientation": "1"})", "orientation"},
        {R"({"serialNumber": 123})", "serialNumber"},
        {R"({"languages": "en"})", "languages"},
        {R"({"languages": ["en", 2]})", "languages[1]"},
        {R"({"apps": {}})", "apps"},
        {R"({"apps": ["a.b"]})", "apps[0]"},
        {R"({"apps": [{"bundleId": 1}]})", "apps[0].bundleId"},
        {R"({"apps": [{"bundleId": "a", "version": 1.0}]})", "apps[0].version"},
    };
    for (const auto& [json, key] : cases) {
        const std::string message = parseError(json);
        EXPECT_NE(message.find("\"" + key + "\" must be"), std::string::npos) << json << " -> \"" << message << "\"";
    }
}

TEST(DeviceProfile, RejectsMalformedJsonWithThePosition) {
    const std::string message = parseError("{\"name\": \"x\",, }");
    EXPECT_NE(message.find("malformed JSON at byte 14"), std::string::npos) << message;
    EXPECT_NE(parseError("").find("malformed JSON"), std::string::npos);
    EXPECT_NE(parseError("{\"name\": \"x\"").find("malformed JSON"), std::string::npos);
}

TEST(DeviceProfile, RejectsATopLevelThatIsNotAnObject) {
    EXPECT_NE(parseError("[]").find("top level must be an object"), std::string::npos);
    EXPECT_NE(parseError("42").find("top level must be an object"), std::string::npos);
}

// ---------------------------------------------------------------------------------------------
// Loading files

TEST(DeviceProfile, LoadErrorsNameTheFile) {
    TempDir dir;
    const fs::path bad = dir.path() / "broken.json";
    tw::test::writeFile(bad, R"({"orientation": 9})");
    try {
        loadDeviceProfile(bad.string());
        FAIL() << "expected an error";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find(bad.string()), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("\"orientation\""), std::string::npos) << e.what();
    }
    const std::string missing = (dir.path() / "absent.json").string();
    try {
        loadDeviceProfile(missing);
        FAIL() << "expected an error";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find(missing), std::string::npos) << e.what();
    }
}

TEST(DeviceProfile, ShippedDefaultProfile) {
    const DeviceProfile p = loadDeviceProfile(TW_SOURCE_RESOURCES "/devices/default.json");
    EXPECT_EQ(p.name, "default");
    EXPECT_EQ(p.systemVersion, "9.3.5");
    EXPECT_DOUBLE_EQ(p.coreFoundationVersionNumber, 1242.13);
    EXPECT_EQ(p.screenWidth, 375);
    EXPECT_EQ(p.screenHeight, 667);
    EXPECT_EQ(p.scale, 2.0);
    EXPECT_EQ(p.orientation, 1);
    EXPECT_EQ(p.serialNumber.size(), 12u);
    EXPECT_EQ(p.languages, std::vector<std::string>{"en"});
    ASSERT_EQ(p.apps.size(), 2u);
    EXPECT_EQ(p.apps[0].bundleId, "me.tapwright.demo.notes");
    EXPECT_EQ(p.apps[0].name, "Notes");
    EXPECT_EQ(p.apps[0].version, "1.0");
    EXPECT_EQ(p.apps[1].bundleId, "me.tapwright.Tapwright.ios8");
    EXPECT_EQ(p.apps[1].name, "Tapwright");
    EXPECT_EQ(p.apps[1].version, "1.0.0");
}

TEST(DeviceProfile, EveryShippedProfileLoadsWithItsScreen) {
    struct Expected {
        const char* file;
        double width, height, scale;
        const char* systemVersion;
        double cf;
    };
    const Expected all[] = {
        {"default.json", 375, 667, 2, "9.3.5", 1242.13},
        {"iphone4.json", 320, 480, 2, "7.1.2", 847.24},
        {"iphone6plus.json", 414, 736, 3, "9.3.5", 1242.13},
        {"ipad.json", 768, 1024, 2, "9.3.5", 1242.13},
    };
    for (const auto& e : all) {
        SCOPED_TRACE(e.file);
        const DeviceProfile p = loadDeviceProfile(std::string(TW_SOURCE_RESOURCES "/devices/") + e.file);
        EXPECT_EQ(p.name + ".json", e.file);
        EXPECT_EQ(p.screenWidth, e.width);
        EXPECT_EQ(p.screenHeight, e.height);
        EXPECT_EQ(p.scale, e.scale);
        EXPECT_EQ(p.systemVersion, e.systemVersion);
        EXPECT_DOUBLE_EQ(p.coreFoundationVersionNumber, e.cf);
        EXPECT_EQ(p.serialNumber.size(), 12u);
        ASSERT_EQ(p.apps.size(), 2u);
        EXPECT_EQ(p.apps[1].bundleId, "me.tapwright.Tapwright.ios8");
    }
    // Nothing in the folder is left untested.
    int count = 0;
    for (const auto& entry : fs::directory_iterator(TW_SOURCE_RESOURCES "/devices"))
        if (entry.path().extension() == ".json") ++count;
    EXPECT_EQ(count, 4);
}

// ---------------------------------------------------------------------------------------------
// DeviceInfo

TEST(ProfileDeviceInfo, AnswersFromTheProfileAndTheGivenBundle) {
    DeviceProfile p = parseDeviceProfile(R"({
        "systemVersion": "7.1.2", "coreFoundationVersionNumber": 847.24,
        "screen": {"width": 320, "height": 480, "scale": 2}, "orientation": 4,
        "serialNumber": "SERIAL000001", "languages": ["fr", "en"]})");
    const ProfileDeviceInfo info(p, "com.apple.springboard");
    const tw::DeviceInfo& d = info;
    EXPECT_EQ(d.mainBundleIdentifier(), "com.apple.springboard");
    EXPECT_EQ(d.systemVersion(), "7.1.2");
    EXPECT_DOUBLE_EQ(d.coreFoundationVersionNumber(), 847.24);
    EXPECT_EQ(d.screenWidthPoints(), 320);
    EXPECT_EQ(d.screenHeightPoints(), 480);
    EXPECT_EQ(d.screenScale(), 2.0);
    EXPECT_EQ(d.orientation(), 4);
    EXPECT_EQ(d.serialNumber(), "SERIAL000001");
    EXPECT_EQ(d.preferredLanguages(), (std::vector<std::string>{"fr", "en"}));
    EXPECT_EQ(tw::compareVersions(d.systemVersion(), "8.0"), -1);
}
