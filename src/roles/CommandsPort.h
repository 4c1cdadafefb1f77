#pragma once
// The home-screen role's settings and commands port, "me.tapwright.twtweak.springboard": what the
// settings application sends.
//
//   7 to 12  4 bytes, a 32-bit integer in device byte order: stored as a bool (not 0) under the
//            setting of kSettingMessages
//   13       4 bytes: the integer itself under "TAPWRIGHT.SETTINGS.LANGUAGE"
//   14       a keyed archive of one Timer: TimerManager add
//   15       a zero-terminated UTF-8 script path: TimerManager remove (empty data is ignored)
//   17 to 25 the web and WebDAV servers (WebServerManager::handleCommand): start, stop, running
//            flags and Wi-Fi as yes/no replies (101/102), addresses as UTF-8 text
//
// Any other id, and a payload of the wrong length, is dropped in silence.
#include <cstdint>
#include <memory>

#include "platform/MessagePort.h"
#include "core/Settings.h"

namespace tw {

class RunLoop;

enum CommandMessageId : int32_t {
    kMsgVibrateWhenRecordingStartStop = 7,
    kMsgVibrateWhenPlayingStartStop = 8,
    kMsgShowRecordingFinishedAlert = 9,
    kMsgShowPlayingFinishedAlert = 10,
    kMsgShowErrorsByAlert = 11,
    kMsgLogErrors = 12,
    kMsgLanguage = 13,
    kMsgAddTimer = 14,
    kMsgRemoveTimer = 15,
};

// The settings that a message carries: its id, the key and whether it is stored as a bool.
struct SettingMessage {
    int32_t msgid;
    const char* key;
    bool isBool;
};
inline constexpr SettingMessage kSettingMessages[] = {
    {kMsgVibrateWhenRecordingStartStop, settings::kVibrateWhenRecordingStartStop, true},
    {kMsgVibrateWhenPlayingStartStop, settings::kVibrateWhenPlayingStartStop, true},
    {kMsgShowRecordingFinishedAlert, settings::kShowRecordingFinishedAlert, true},
    {kMsgShowPlayingFinishedAlert, settings::kShowPlayingFinishedAlert, true},
    {kMsgShowErrorsByAlert, settings::kShowErrorsByAlert, true},
    {kMsgLogErrors, settings::kLogErrors, true},
    {kMsgLanguage, settings::kLanguage, false},
};

// The port's callback: acts on one message (the settings in the platform's standard defaults, the
// timers through TimerManager's shared instance, the servers through WebServerManager's) and
// returns the reply. Never
// throws: a timer archive that cannot be read is logged as "Exception: <reason>" on the
// diagnostic line and dropped.
Payload commandsPortCallBack(int32_t msgid, const Payload& data);

// Opens the commands port on `loop`; null when its name is taken (another home screen of the same
// device has it).
std::shared_ptr<LocalPort> openCommandsPort(MessagePortService& ports, RunLoop& loop);

}  // namespace tw
