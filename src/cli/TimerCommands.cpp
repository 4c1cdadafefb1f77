// tapwright timer / timers / settings: what the settings application does, from the command line.
// Adding and removing a schedule and changing a setting that a message carries go to the running
// device's home screen through its commands port, as the settings application sends them; listing
// the schedules and reading the settings look at the device's files.
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "cli/Commands.h"
#include "core/Diagnostics.h"
#include "core/Paths.h"
#include "core/Settings.h"
#include "injection/records/MessageIds.h"
#include "library/FileManager.h"
#include "platform/linux/PlistUserDefaults.h"
#include "platform/linux/UnixMessagePorts.h"
#include "roles/CommandsPort.h"
#include "roles/DeviceAccess.h"
#include "schedule/KeyedArchive.h"
#include "schedule/TimerManager.h"

namespace tw::cli {

namespace {

void sendCommand(const std::string& root, int32_t msgid, const Bytes& data) {
    roles::sendCommandsMessage(root, msgid, data, false);
}

Bytes int32Payload(int32_t value) {
    Bytes out(sizeof value);
    putLE(out, 0, value);
    return out;
}

// "/name.lua" for "name.lua" or "/name.lua".
std::string libraryPathOf(const std::string& typed) { return typed.empty() || typed.front() != '/' ? "/" + typed : typed; }

// "+SECONDS" from now, or "YYYY-MM-DD HH:MM:SS" in local time.
Timer::Clock::time_point parseFireDate(const std::string& text) {
    if (!text.empty() && text.front() == '+') {
        try {
            size_t used = 0;
            const double seconds = std::stod(text.substr(1), &used);
            if (used == text.size() - 1 && std::isfinite(seconds) && seconds >= 0 && seconds < 1e9)
                return Timer::Clock::now() + std::chrono::duration_cast<Timer::Clock::duration>(
                                                 std::chrono::duration<double>(seconds));
        } catch (const std::exception&) {
        }
        fail("--at " + text + ": \"+SECONDS\" needs a number of seconds from 0 on");
    }
    std::tm tm{};
    const char* end = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &tm);
    if (!end || *end != '\0') fail("--at " + text + ": give \"YYYY-MM-DD HH:MM:SS\" (local time) or +SECONDS");
    tm.tm_isdst = -1;
    const std::time_t t = std::mktime(&tm);
    if (t == static_cast<std::time_t>(-1)) fail("--at " + text + ": not a date this machine can hold");
    return Timer::Clock::from_time_t(t);
}

std::string formatDate(const std::optional<Timer::Clock::time_point>& date) {
    if (!date) return "(no date)";
    const std::time_t t = Timer::Clock::to_time_t(*date);
    std::tm tm{};
    localtime_r(&t, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &tm);
    return buffer;
}

// ---- Settings

struct SettingKey {
    const char* key;
    bool isBool;
    bool defaultValue;  // of a bool
    const SettingMessage* message;  // the message that carries it, or null
};

std::vector<SettingKey> settingKeys() {
    std::vector<SettingKey> keys;
    for (const auto& message : kSettingMessages) keys.push_back({message.key, message.isBool, true, &message});
    keys.push_back({settings::kWebServerAutoLaunch, true, false, nullptr});
    keys.push_back({settings::kWebDAVServerAutoLaunch, true, false, nullptr});
    return keys;
}

SettingKey findSetting(const std::string& key) {
    std::string known;
    for (const auto& setting : settingKeys()) {
        if (setting.key == key) return setting;
        known += std::string("\n  ") + setting.key;
    }
    fail("no setting " + key + "; the settings are:" + known);
}

int64_t parseSettingValue(const SettingKey& setting, const std::string& text) {
    if (setting.isBool) {
        for (const char* yes : {"true", "yes", "on", "1"})
            if (text == yes) return 1;
        for (const char* no : {"false", "no", "off", "0"})
            if (text == no) return 0;
        fail(std::string(setting.key) + " is on or off: give true or false");
    }
    if (text.size() == 1 && text[0] >= '0' && text[0] <= '4') return text[0] - '0';
    fail(std::string(setting.key) +
         " is a language: 0 follows the system, 1 English, 2 Japanese, 3 Simplified Chinese, 4 Traditional Chinese");
}

linuxp::PlistUserDefaults homeScreenDefaults() {
    return linuxp::PlistUserDefaults(Paths::preferencesFile(settings::kHomeScreenDomain));
}

}  // namespace

Command addTimerCommand(CLI::App& app, CommonOptions& common) {
    struct Options {
        std::string path;
        std::string at;
        std::optional<double> repeat;
    };
    auto options = std::make_shared<Options>();
    auto* sub = app.add_subcommand("timer", "Schedule a script to start by itself, or drop its schedule");
    sub->require_subcommand(1);
    sub->footer("Needs a running device (`tapwright device`): the schedule goes to its home screen, as the\n"
                "settings application sends it. `tapwright timers` lists the schedules.");

    auto* add = sub->add_subcommand("add", "Schedule a script; it replaces the script's earlier schedule");
    add->add_option("path", options->path, "Library path of the script (\"/name.lua\" or \"/name.e\")")->required();
    add->add_option("--at", options->at, "First start: \"YYYY-MM-DD HH:MM:SS\" (local time) or +SECONDS from now")
        ->required();
    add->add_option("--repeat", options->repeat, "Start again every SECONDS after the first start")
        ->check(CLI::PositiveNumber);
    add->add_option("--root", common.root, "Device root folder");
    add->footer("A scheduled play uses the script's play settings and shows no \"Playing Finished!\" alert.\n"
                "It does not start while a script plays or a recording runs (the error log says so), and\n"
                "an encrypted script starts only with a remembered password. A schedule whose script is\n"
                "gone is dropped when it fires.\n"
                "Exit status: 0 when the device took the schedule, 1 otherwise.");

    auto* rm = sub->add_subcommand("rm", "Drop the schedule of a script");
    rm->add_option("path", options->path, "Library path of the script")->required();
    rm->add_option("--root", common.root, "Device root folder");
    rm->footer("Exit status: 0 when the device took the message, 1 otherwise.");

    return {sub, [&common, options, add]() -> int {
                const std::string root = deviceRoot(common);
                Paths::setRoot(root);
                const std::string path = libraryPathOf(options->path);
                Bytes data;
                if (add->parsed()) {
                    if (!FileManager::isScriptName(path) || !FileManager::fileExist(path))
                        fail("no script " + path + " in the library of " + root);
                    const Timer timer(path, parseFireDate(options->at), options->repeat.has_value(),
                                      options->repeat.value_or(0.0));
                    const std::string archive = archiveTimer(timer);
                    sendCommand(root, kMsgAddTimer, Bytes(archive.begin(), archive.end()));
                    return 0;
                }
                data.assign(path.begin(), path.end());
                data.push_back(0);
                sendCommand(root, kMsgRemoveTimer, data);
                return 0;
            }};
}

Command addTimersCommand(CLI::App& app, CommonOptions& common) {
    auto* sub = app.add_subcommand("timers", "List the device's script schedules");
    sub->add_option("--root", common.root, "Device root folder");
    sub->footer("One line per schedule, in the order they were added:\n"
                "  PATH  YYYY-MM-DD HH:MM:SS  [every SECONDS s]\n"
                "The date is the first start, in local time. Reads the schedules' archive; no device needs\n"
                "to run.");
    return {sub, [&common]() -> int {
                Paths::setRoot(deviceRoot(common));
                for (const auto& timer : TimerManager::readArchive()) {
                    std::string line = timer.scriptFilePath + "  " + formatDate(timer.fireDate);
                    if (timer.repeat) {
                        char every[64];
                        std::snprintf(every, sizeof every, "  every %g s", timer.interval);
                        line += every;
                    }
                    std::printf("%s\n", line.c_str());
                }
                return 0;
            }};
}

Command addSettingsCommand(CLI::App& app, CommonOptions& common) {
    struct Options {
        std::string key;
        std::string value;
    };
    auto options = std::make_shared<Options>();
    auto* sub = app.add_subcommand("settings", "Read or change the device's settings");
    sub->require_subcommand(1);
    std::string keys;
    for (const auto& setting : settingKeys()) keys += std::string("  ") + setting.key + (setting.isBool ? "  (true/false)\n" : "  (0 to 4)\n");
    sub->footer("Settings:\n" + keys +
                "LANGUAGE: 0 follows the system, 1 English, 2 Japanese, 3 Simplified Chinese, 4 Traditional\n"
                "Chinese.");

    auto* get = sub->add_subcommand("get", "Print a setting's value (its default when never set)");
    get->add_option("key", options->key, "Setting key, e.g. TAPWRIGHT.SETTINGS.LANGUAGE")->required();
    get->add_option("--root", common.root, "Device root folder");
    get->footer("Prints true/false, or the language number. Reads the device's settings; no device needs\n"
                "to run.");

    auto* set = sub->add_subcommand("set", "Change a setting");
    set->add_option("key", options->key, "Setting key")->required();
    set->add_option("value", options->value, "true/false (also yes/no, on/off, 1/0), or a language number")->required();
    set->add_option("--root", common.root, "Device root folder");
    set->footer("The settings of the settings application's messages (all but the servers' auto-launch)\n"
                "go to the running device's home screen and need a running device; the servers'\n"
                "auto-launch settings are written to the device's settings directly.\n"
                "Exit status: 0 when the setting was changed, 1 otherwise.");

    return {sub, [&common, options, get]() -> int {
                const std::string root = deviceRoot(common);
                Paths::setRoot(root);
                const SettingKey setting = findSetting(options->key);
                auto defaults = homeScreenDefaults();
                if (get->parsed()) {
                    if (setting.isBool) {
                        const bool value = defaults.objectForKey(setting.key) ? defaults.boolForKey(setting.key)
                                                                               : setting.defaultValue;
                        std::printf("%s\n", value ? "true" : "false");
                    } else {
                        std::printf("%lld\n", static_cast<long long>(defaults.integerForKey(setting.key)));
                    }
                    return 0;
                }
                const int64_t value = parseSettingValue(setting, options->value);
                if (setting.message) {
                    sendCommand(root, setting.message->msgid, int32Payload(static_cast<int32_t>(value)));
                    return 0;
                }
                if (!defaults.setBool(setting.key, value != 0)) fail("cannot change " + options->key + ": " + defaults.lastError());
                return 0;
            }};
}

}  // namespace tw::cli
