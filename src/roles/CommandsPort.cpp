#include "roles/CommandsPort.h"

#include <algorithm>
#include <exception>
#include <string>

#include "core/Diagnostics.h"
#include "core/LogToFile.h"
#include "injection/records/MessageIds.h"
#include "platform/Platform.h"
#include "platform/UserDefaults.h"
#include "schedule/KeyedArchive.h"
#include "schedule/TimerManager.h"
#include "web/WebServerManager.h"

namespace tw {

namespace {

void storeSetting(const SettingMessage& setting, const Payload& data) {
    if (!data || data->size() != sizeof(int32_t)) return;
    const auto value = getLE<int32_t>(data->data(), 0);
    auto defaults = Platform::current().standardDefaults;
    if (!defaults) return;
    if (setting.isBool)
        defaults->setBool(setting.key, value != 0);
    else
        defaults->setInteger(setting.key, value);
}

void addTimer(const Payload& data) {
    try {
        const Bytes empty;
        const Bytes& bytes = data ? *data : empty;
        TimerManager::sharedInstance().add(
            unarchiveTimer(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size())));
    } catch (const std::exception& e) {
        diagnostic("Exception: %s", e.what());
    }
}

void removeTimer(const Payload& data) {
    if (!data || data->empty()) return;
    // The text ends at its terminator, or at the end of the data when it has none.
    const auto end = std::find(data->begin(), data->end(), uint8_t{0});
    const std::string path(data->begin(), end);
    if (!isValidUtf8(path)) return;
    TimerManager::sharedInstance().remove(path);
}

}  // namespace

Payload commandsPortCallBack(int32_t msgid, const Payload& data) {
    for (const auto& setting : kSettingMessages)
        if (setting.msgid == msgid) {
            storeSetting(setting, data);
            return std::nullopt;
        }
    if (msgid == kMsgAddTimer) addTimer(data);
    if (msgid == kMsgRemoveTimer) removeTimer(data);
    if (msgid >= kMsgIsWifiAvailable && msgid <= kMsgWebDAVServerAddress)
        return WebServerManager::sharedInstance().handleCommand(msgid);
    return std::nullopt;
}

std::shared_ptr<LocalPort> openCommandsPort(MessagePortService& ports, RunLoop& loop) {
    return ports.createLocal(kCommandsPortName, commandsPortCallBack, loop);
}

}  // namespace tw
