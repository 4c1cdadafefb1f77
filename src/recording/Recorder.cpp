#include "recording/Recorder.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/Global.h"
#include "core/Helper.h"
#include "core/Paths.h"
#include "library/FileManager.h"
#include "platform/DeviceInfo.h"
#include "platform/HidEventSystem.h"
#include "platform/Platform.h"
#include "platform/UserInterface.h"
#include "ui/Localization.h"

namespace tw {

namespace {

constexpr int64_t kHomeButtonUsagePage = 0x0C;
constexpr int64_t kHomeButtonUsage = 0x40;  // the consumer page's menu usage

struct RecorderState {
    std::string recordingScriptPath;
    std::FILE* fileHandle = nullptr;
    int32_t screen_width = 0;
    int32_t screen_height = 0;
    double last_touch_timestamp = 0;
};

RecorderState& state() {
    static RecorderState recorder;
    return recorder;
}

std::string format(const char* pattern, auto... values) {
    char text[128];
    std::snprintf(text, sizeof text, pattern, values...);
    return text;
}

const char* orientationName(int orientation) {
    switch (orientation) {
        case 1: return "ORIENTATION_TYPE.PORTRAIT";
        case 2: return "ORIENTATION_TYPE.PORTRAIT_UPSIDE_DOWN";
        case 3: return "ORIENTATION_TYPE.LANDSCAPE_LEFT";
        case 4: return "ORIENTATION_TYPE.LANDSCAPE_RIGHT";
        default: return nullptr;  // face up, face down, unknown
    }
}

void showCreateFailedAlert(const std::string& reason) {
    auto ui = Platform::current().ui;
    if (!ui) return;
    ui->showAlert({Localization::localize("Error"), Localization::localize("Create script failed.Info:") + reason,
                   {Localization::localize("OK")}});
}

// The timestamp as the recorder reads it: the high and the low 32 bits as one double.
double convert_UnsignedWide_to_double(uint64_t wide) {
    return static_cast<double>(wide >> 32) * 4294967296.0 + static_cast<double>(wide & 0xFFFFFFFFu);
}

}  // namespace

std::string recordedEventText(const hid::HidEvent& event, int width, int height) {
    std::string text;
    if (event.type == hid::kEventTypeKeyboard) {
        if (event.integerValue(hid::kFieldKeyboardUsagePage) == kHomeButtonUsagePage &&
            event.integerValue(hid::kFieldKeyboardUsage) == kHomeButtonUsage)
            text = event.integerValue(hid::kFieldKeyboardDown) != 0 ? "\nkeyDown(KEY_TYPE.HOME_BUTTON);\n"
                                                                    : "keyUp(KEY_TYPE.HOME_BUTTON);\n";
        return text;
    }
    if (event.type != hid::kEventTypeDigitizer) return text;
    for (const auto& child : event.children) {
        const auto index = static_cast<int>(child.integerValue(hid::kFieldDigitizerIndex));
        const int64_t touch = child.integerValue(hid::kFieldDigitizerTouch);
        const int64_t mask = child.integerValue(hid::kFieldDigitizerEventMask);
        const double x = child.floatValue(hid::kFieldDigitizerX) * width;
        const double y = child.floatValue(hid::kFieldDigitizerY) * height;
        if (touch == 1 && (mask & hid::kEventMaskTouch))
            text += format("\ntouchDown(%d, %.2f, %.2f);\n", index, x, y);
        else if (touch == 1 && (mask & hid::kEventMaskPosition))
            text += format("touchMove(%d, %.2f, %.2f);\n", index, x, y);
        else if (touch == 0 && (mask & hid::kEventMaskTouch))
            text += format("touchUp(%d, %.2f, %.2f);\n", index, x, y);
    }
    return text;
}

void startRecording() {
    auto& global = Global::sharedInstance();
    auto& recorder = state();
    global.setIsRecording(true);
    recorder.last_touch_timestamp = 0;
    recorder.recordingScriptPath.clear();
    FileManager::prepareDirectories();

    const auto& platform = Platform::current();
    int orientation = 0;
    if (const auto device = platform.device) {
        const double scale = device->screenScale();
        const auto w = static_cast<unsigned>(device->screenWidthPoints());
        const auto h = static_cast<unsigned>(device->screenHeightPoints());
        recorder.screen_width = static_cast<int32_t>(scale * std::min(w, h));
        recorder.screen_height = static_cast<int32_t>(scale * std::max(w, h));
        orientation = device->orientation();
    }

    const std::string now = localDateTimeText(std::time(nullptr));
    std::string header = "CREATETIME=\"" + now + "\";\n\n" +
                         format("adaptResolution(%d, %d);\n", recorder.screen_width, recorder.screen_height);
    if (const char* name = orientationName(orientation)) header += std::string("adaptOrientation(") + name + ");\n";

    // Written as it goes, not atomically: a recording cut short keeps what it has.
    recorder.recordingScriptPath = Paths::scriptsDir() + "/" + now + ".lua";
    if (recorder.fileHandle) std::fclose(recorder.fileHandle);
    recorder.fileHandle = std::fopen(recorder.recordingScriptPath.c_str(), "w");
    if (!recorder.fileHandle || std::fputs(header.c_str(), recorder.fileHandle) < 0 || std::fflush(recorder.fileHandle) != 0) {
        const int error = errno;
        if (recorder.fileHandle) std::fclose(recorder.fileHandle);
        recorder.fileHandle = nullptr;
        showCreateFailedAlert(std::strerror(error));
    }

    auto& client = global.ioHIDEventSystem();
    if (!client && platform.hidClients) {
        client = platform.hidClients->createClient();
        client->registerEventCallback([](const hid::HidEvent& event) { handle_events(&event); });
    }
}

void handle_events(const hid::HidEvent* event) {
    if (!event) return;
    auto& recorder = state();
    std::string text = recordedEventText(*event, recorder.screen_width, recorder.screen_height);
    if (text.empty()) return;  // the time until the next event that writes is one pause
    const double now = convert_UnsignedWide_to_double(event->timestamp);
    if (recorder.last_touch_timestamp > 0)
        text = format("usleep(%.2f);\n", (now - recorder.last_touch_timestamp) / 24.0) + text;
    if (recorder.fileHandle) {
        std::fputs(text.c_str(), recorder.fileHandle);
        std::fflush(recorder.fileHandle);
    }
    recorder.last_touch_timestamp = now;
}

void stopRecording() {
    auto& global = Global::sharedInstance();
    auto& recorder = state();
    global.setIsRecording(false);
    recorder.last_touch_timestamp = 0;
    recorder.recordingScriptPath.clear();
    if (recorder.fileHandle) {
        std::fclose(recorder.fileHandle);
        recorder.fileHandle = nullptr;
    }
    if (auto& client = global.ioHIDEventSystem()) {
        client->unregisterEventCallback();
        client.reset();
    }
}

std::string recordingScriptPath() { return state().recordingScriptPath; }

}  // namespace tw
