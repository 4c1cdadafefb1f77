#include "injection/EventSimulate.h"

#include <atomic>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

#include "core/LogToFile.h"
#include "injection/records/KeyRecord.h"
#include "injection/records/MessageIds.h"
#include "injection/records/OptionRecord.h"
#include "injection/records/TextRecord.h"
#include "injection/records/TouchRecord.h"
#include "platform/FileSystem.h"
#include "platform/MessagePort.h"
#include "platform/Platform.h"

namespace tw {

namespace {

// The one cached handle to the injector's port. Requests come from the play's worker thread;
// the lock only keeps a test's reset from racing a request.
std::mutex portMutex;
std::shared_ptr<RemotePort> backBoarddMessagePort;
std::atomic<uint64_t> lostRequestCount{0};

std::shared_ptr<RemotePort> freshPort() {
    std::lock_guard lock(portMutex);
    if (backBoarddMessagePort && backBoarddMessagePort->isValid()) return backBoarddMessagePort;
    // Gone invalid (the injector's process restarted): forget it and look the name up again.
    backBoarddMessagePort.reset();
    auto ports = Platform::current().ports;
    if (ports) backBoarddMessagePort = ports->createRemote(kInjectorPortName);
    if (backBoarddMessagePort && backBoarddMessagePort->isValid()) return backBoarddMessagePort;
    return nullptr;
}

// A request that waits for the injector's reply; the reply word is whatever up to 4 bytes came.
int sendWithReply(int32_t msgid, const Payload& data) {
    auto port = freshPort();
    if (!port) {
        ++lostRequestCount;
        return -1;
    }
    Payload reply;
    if (port->sendRequest(msgid, data, kPortSendTimeout, kPortReceiveTimeout, true, &reply) != PortStatus::Success)
        ++lostRequestCount;
    int32_t word = 0;
    if (reply) std::memcpy(&word, reply->data(), std::min<size_t>(reply->size(), sizeof word));
    return word;
}

int sendOneWay(int32_t msgid, const Payload& data) {
    auto port = freshPort();
    if (!port) {
        ++lostRequestCount;
        return -1;
    }
    if (port->sendRequest(msgid, data, kPortSendTimeout, kPortReceiveTimeout, false, nullptr) != PortStatus::Success)
        ++lostRequestCount;
    return 0;
}

}  // namespace

bool keep_message_port_fresh() { return freshPort() != nullptr; }

uint64_t EventSimulate::lostRequests() { return lostRequestCount.load(); }

void EventSimulate::resetPort() {
    std::lock_guard lock(portMutex);
    backBoarddMessagePort.reset();
}

int call_simulate_touch_event(int finger, int type, double x, double y) {
    return sendWithReply(kMsgTouch, TouchRecord{type, finger, x, y}.encode());
}

int call_simulate_keyboard_event(int usage, int usagePage, int down) {
    return sendWithReply(kMsgKey, KeyRecord{usage, usagePage, down}.encode());
}

int EventSimulate::touchDown(int finger, double x, double y) { return call_simulate_touch_event(finger, kTouchDown, x, y); }
int EventSimulate::touchMove(int finger, double x, double y) { return call_simulate_touch_event(finger, kTouchMove, x, y); }
int EventSimulate::touchUp(int finger, double x, double y) { return call_simulate_touch_event(finger, kTouchUp, x, y); }
int EventSimulate::syncEvent() { return sendWithReply(kMsgSync, std::nullopt); }
int EventSimulate::keyDown(int usage, int usagePage) { return call_simulate_keyboard_event(usage, usagePage, 1); }
int EventSimulate::keyUp(int usage, int usagePage) { return call_simulate_keyboard_event(usage, usagePage, 0); }

void EventSimulate::input(const char* utf8) {
    sendWithReply(kMsgText, TextRecord{utf8 ? std::string(utf8) : std::string()}.encode());
}

int EventSimulate::setScaleScreen(int flag) { return sendOneWay(kMsgScaleScreen, OptionRecord{flag}.encode()); }
int EventSimulate::setAdaptOrientation(int orientation) {
    return sendOneWay(kMsgOrientation, OptionRecord{orientation}.encode());
}

namespace {

bool isKnownPointResolution(const std::string& r) {
    static const char* const known[] = {"320x480", "320x568", "375x667", "414x736", "768x1024"};
    for (const char* k : known)
        if (r == k) return true;
    return false;
}

// The first SCREEN_RESOLUTION="<digits and x>" in `text`, as the value between the quotes. Scanned
// by hand: a backtracking regex recurses once per character of the value, and a long one in a
// script ran the home screen out of stack.
std::optional<std::string> resolutionMark(std::string_view text) {
    constexpr std::string_view kMark = "SCREEN_RESOLUTION=\"";
    for (size_t at = text.find(kMark); at != std::string_view::npos; at = text.find(kMark, at + 1)) {
        const size_t begin = at + kMark.size();
        size_t end = begin;
        while (end < text.size() && ((text[end] >= '0' && text[end] <= '9') || text[end] == 'x')) ++end;
        if (end > begin && end < text.size() && text[end] == '"') return std::string(text.substr(begin, end - begin));
    }
    return std::nullopt;
}

// 2015-10-01 00:00 in the device's local time zone.
std::chrono::system_clock::time_point pointsCutoff() {
    std::tm tm{};
    tm.tm_year = 2015 - 1900;
    tm.tm_mon = 9;
    tm.tm_mday = 1;
    tm.tm_isdst = -1;
    return std::chrono::system_clock::from_time_t(std::mktime(&tm));
}

}  // namespace

bool createdBeforePointsCutoff(std::chrono::system_clock::time_point created) { return created < pointsCutoff(); }

bool decideScaleScreen(const std::string& source, int kind) {
    if (kind != 1 && kind != 2) return false;

    std::optional<std::string> text;
    if (kind == 2) {
        text = source;
    } else {
        std::ifstream in(source, std::ios::binary);
        if (in) {
            char head[128];
            in.read(head, sizeof head);
            std::string bytes(head, static_cast<size_t>(in.gcount()));
            // A multi-byte character cut at byte 128 makes the whole head undecodable.
            if (isValidUtf8(bytes)) text = std::move(bytes);
        }
    }

    if (text) {
        if (auto resolution = resolutionMark(*text)) return isKnownPointResolution(*resolution);
    }
    if (kind == 2) return false;

    // Script files made before that day are in points, later ones in pixels.
    auto created = fileCreationDate(source);
    return created && createdBeforePointsCutoff(*created);
}

bool setScaleScreen(const std::string& source, int kind) {
    const bool flag = decideScaleScreen(source, kind);
    EventSimulate::setScaleScreen(flag ? 1 : 0);
    return flag;
}

}  // namespace tw
