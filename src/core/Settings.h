#pragma once
// The user's settings keys, kept in the home-screen process's user defaults.
namespace tw::settings {

inline constexpr const char* kLanguage = "TAPWRIGHT.SETTINGS.LANGUAGE";
inline constexpr const char* kVibrateWhenRecordingStartStop = "TAPWRIGHT.SETTINGS.VIBRATE_WHEN_RECORDING_START_STOP";
inline constexpr const char* kVibrateWhenPlayingStartStop = "TAPWRIGHT.SETTINGS.VIBRATE_WHEN_PLAYING_START_STOP";
inline constexpr const char* kShowRecordingFinishedAlert = "TAPWRIGHT.SETTINGS.SHOW_RECORDING_FINISHED_ALERT";
inline constexpr const char* kShowPlayingFinishedAlert = "TAPWRIGHT.SETTINGS.SHOW_PLAYING_FINISHED_ALERT";
inline constexpr const char* kShowErrorsByAlert = "TAPWRIGHT.SETTINGS.SHOW_ERRORS_BY_ALERT";
inline constexpr const char* kLogErrors = "TAPWRIGHT.SETTINGS.LOG_ERRORS";
inline constexpr const char* kWebServerAutoLaunch = "TAPWRIGHT.SETTINGS.WEB_SERVER_AUTO_LAUNCH";
inline constexpr const char* kWebDAVServerAutoLaunch = "TAPWRIGHT.SETTINGS.WEBDAV_SERVER_AUTO_LAUNCH";

// Remembered password of an encrypted script, by script path.
inline constexpr const char* kScriptPasswordFormat = "script.password.%s";

// The home-screen process's preferences domain.
inline constexpr const char* kHomeScreenDomain = "com.apple.springboard";

}  // namespace tw::settings
