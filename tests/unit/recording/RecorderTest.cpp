// The recorder: the script a recording writes (header, events, pauses), what it leaves out, the
// orientation line, a library it cannot write to, and the controller's vibrations and alert.
#include <filesystem>
#include <regex>

#include "EngineFixture.h"
#include "core/Global.h"
#include "core/Paths.h"
#include "core/Settings.h"
#include "play/PivotManager.h"
#include "recording/Recorder.h"

namespace tw {
namespace {

using namespace hid;

constexpr uint64_t kT0 = 5'000'000'000ULL;  // ticks

HidEvent finger(uint64_t ticks, uint32_t index, uint32_t mask, bool touch, double x, double y) {
    return createDigitizerFingerEvent(ticks, index, 2, mask, x, y, 0, 0, 0, true, touch, 0);
}

HidEvent hand(uint64_t ticks, std::vector<HidEvent> fingers) {
    HidEvent event = createDisplayHandEvent(ticks, 1);
    for (auto& f : fingers) event.appendEvent(std::move(f));
    return event;
}

class RecorderTest : public test::EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        Platform::current().device = device;
        Platform::current().hidClients = clients;
    }
    void TearDown() override {
        if (Global::sharedInstance().isRecording()) stopRecording();
        EngineFixture::TearDown();
    }
    // The recorded file without its CREATETIME line, which holds the time it was made.
    std::string recorded(const std::string& path) {
        const std::string text = test::readFile(path);
        return std::regex_replace(text, std::regex("^CREATETIME=\"\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\";\n"), "");
    }

    std::shared_ptr<test::FakeDeviceInfo> device = std::make_shared<test::FakeDeviceInfo>();
    std::shared_ptr<test::FakeHidEventClients> clients = std::make_shared<test::FakeHidEventClients>();
};

TEST_F(RecorderTest, ATapASwipeAndTheHomeButtonBecomeTheScriptWithThePausesBetweenThem) {
    PivotManager::sharedInstance().controlPanelViewDidClickOnRecord();
    const std::string path = recordingScriptPath();
    EXPECT_TRUE(std::regex_match(Paths::devicePath(path), std::regex("/var/mobile/Library/Tapwright/Scripts/"
                                                                     "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.lua")))
        << path;
    PivotManager::sharedInstance().controlPanelViewDidClickOnRecord();  // a second start: still one client
    ASSERT_EQ(clients->made, 1);

    clients->deliver(hand(kT0, {finger(kT0, 1, kEventMaskTouch | kEventMaskRange, true, 0.5, 0.25)}));
    clients->deliver(hand(kT0 + 100, {}));                                  // no fingers: nothing, no pause
    clients->deliver(createKeyboardEvent(kT0 + 200, 12, 0xE9, true, 0));   // volume up: not recorded
    clients->deliver(createKeyboardEvent(kT0 + 300, 7, 0x40, true, 0));    // menu usage on another page
    clients->deliver(hand(kT0 + 24 * 1500 + 6, {finger(0, 1, kEventMaskPosition, true, 0.123456, 0.9999),
                                                 finger(0, 2, kEventMaskTouch, true, 0, 1),
                                                 finger(0, 3, kEventMaskPosition, false, 0.1, 0.1)}));  // nothing
    clients->deliver(hand(kT0 + 24 * 2000, {finger(0, 1, kEventMaskTouch, false, 0.5, 0.5),
                                            finger(0, 2, kEventMaskTouch, false, 0.5, 0.5)}));
    clients->deliver(createKeyboardEvent(kT0 + 24 * 1'002'000, 12, 0x40, true, 0));
    clients->deliver(createKeyboardEvent(kT0 + 24 * 1'002'001, 12, 0x40, false, 0));
    handle_events(nullptr);
    PivotManager::sharedInstance().stopRecording();

    EXPECT_EQ(recorded(path),
              "\nadaptResolution(750, 1334);\nadaptOrientation(ORIENTATION_TYPE.PORTRAIT);\n"
              "\ntouchDown(1, 375.00, 333.50);\n"
              "usleep(1500.25);\ntouchMove(1, 92.59, 1333.87);\n\ntouchDown(2, 0.00, 1334.00);\n"
              "usleep(499.75);\ntouchUp(1, 375.00, 667.00);\ntouchUp(2, 375.00, 667.00);\n"
              "usleep(1000000.00);\n\nkeyDown(KEY_TYPE.HOME_BUTTON);\n"
              "usleep(1.00);\nkeyUp(KEY_TYPE.HOME_BUTTON);\n");
    EXPECT_FALSE(Global::sharedInstance().isRecording());
    EXPECT_EQ(recordingScriptPath(), "");
    EXPECT_EQ(clients->unregistered, 1);
    EXPECT_FALSE(clients->callback);
    // Vibrations at the start, the second start and the stop; the alert after the stop.
    EXPECT_EQ(sounds->sounds(), std::vector<uint32_t>(3, kSystemSoundVibrate));
    ASSERT_EQ(ui->alerts().size(), 1u);
    EXPECT_EQ(ui->alerts()[0].message, "Recording Finished!");

    // With the settings off, and a fresh recording: no pause before its first event.
    defaults->setBool(settings::kVibrateWhenRecordingStartStop, false);
    defaults->setBool(settings::kShowRecordingFinishedAlert, false);
    device->width = 667, device->height = 375, device->scale = 3, device->orientationValue = 3;
    PivotManager::sharedInstance().controlPanelViewDidClickOnRecord();
    clients->deliver(createKeyboardEvent(kT0 * 3, 12, 0x40, false, 0));
    const std::string second = recordingScriptPath();
    PivotManager::sharedInstance().stopRecording();
    EXPECT_EQ(recorded(second), "\nadaptResolution(1125, 2001);\nadaptOrientation(ORIENTATION_TYPE.LANDSCAPE_LEFT);\n"
                                "keyUp(KEY_TYPE.HOME_BUTTON);\n");
    EXPECT_EQ(sounds->sounds().size(), 3u);
    EXPECT_EQ(ui->alerts().size(), 1u);
    EXPECT_EQ(clients->made, 2);
}

TEST_F(RecorderTest, OnlyTheFourUprightAndSidewaysOrientationsWriteALine) {
    const std::map<int, std::string> lines{{1, "PORTRAIT"}, {2, "PORTRAIT_UPSIDE_DOWN"}, {3, "LANDSCAPE_LEFT"},
                                           {4, "LANDSCAPE_RIGHT"}, {0, ""}, {5, ""}, {6, ""}};
    for (const auto& [orientation, name] : lines) {
        device->orientationValue = orientation;
        startRecording();
        const std::string path = recordingScriptPath();
        stopRecording();
        const std::string expected = name.empty() ? "" : "adaptOrientation(ORIENTATION_TYPE." + name + ");\n";
        EXPECT_EQ(recorded(path), "\nadaptResolution(750, 1334);\n" + expected) << orientation;
        std::filesystem::remove(path);
    }
}

TEST_F(RecorderTest, ALibraryThatCannotBeWrittenGivesTheAlertAndTheRecordingGoesOnWritingNothing) {
    std::filesystem::remove_all(Paths::scriptsDir());
    test::writeFile(Paths::scriptsDir(), "a file where the folder belongs");
    startRecording();
    clients->deliver(createKeyboardEvent(kT0, 12, 0x40, true, 0));
    EXPECT_TRUE(Global::sharedInstance().isRecording());
    stopRecording();
    ASSERT_EQ(ui->alerts().size(), 1u);
    EXPECT_EQ(ui->alerts()[0].title, "Error");
    EXPECT_EQ(ui->alerts()[0].message, "Create script failed.Info:Not a directory");
    EXPECT_EQ(test::readFile(Paths::scriptsDir()), "a file where the folder belongs");
}

}  // namespace
}  // namespace tw
