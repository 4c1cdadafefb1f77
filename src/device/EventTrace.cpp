#include "device/EventTrace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace tw::device {

namespace {

using nlohmann::ordered_json;

std::string hex16(uint64_t value) {
    char text[19];
    std::snprintf(text, sizeof text, "0x%016llX", static_cast<unsigned long long>(value));
    return text;
}

std::string dumpLine(const ordered_json& object) {
    return object.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

ordered_json digitizerChild(const hid::HidEvent& child) {
    ordered_json entry = ordered_json::object();
    entry["index"] = child.integerValue(hid::kFieldDigitizerIndex);
    entry["identity"] = child.integerValue(hid::kFieldDigitizerIdentity);
    entry["mask"] = child.integerValue(hid::kFieldDigitizerEventMask);
    entry["x"] = child.floatValue(hid::kFieldDigitizerX);
    entry["y"] = child.floatValue(hid::kFieldDigitizerY);
    entry["range"] = child.integerValue(hid::kFieldDigitizerRange);
    entry["touch"] = child.integerValue(hid::kFieldDigitizerTouch);
    return entry;
}

}  // namespace

std::string traceLine(const hid::HidEvent& event) {
    ordered_json line = ordered_json::object();
    switch (event.type) {
        case hid::kEventTypeDigitizer: {
            line["kind"] = "digitizer";
            line["time"] = hid::nanosecondsFromTicks(event.timestamp);
            line["sender"] = hex16(event.senderId);
            line["builtIn"] = event.integerValue(hid::kFieldIsBuiltIn);
            line["displayIntegrated"] = event.integerValue(hid::kFieldDigitizerIsDisplayIntegrated);
            line["mask"] = event.integerValue(hid::kFieldDigitizerEventMask);
            line["range"] = event.integerValue(hid::kFieldDigitizerRange);
            line["touch"] = event.integerValue(hid::kFieldDigitizerTouch);
            line["x"] = event.floatValue(hid::kFieldDigitizerX);
            line["y"] = event.floatValue(hid::kFieldDigitizerY);
            ordered_json children = ordered_json::array();
            for (const auto& child : event.children) children.push_back(digitizerChild(child));
            line["children"] = std::move(children);
            break;
        }
        case hid::kEventTypeKeyboard:
            line["kind"] = "keyboard";
            line["time"] = hid::nanosecondsFromTicks(event.timestamp);
            line["sender"] = hex16(event.senderId);
            line["usagePage"] = event.integerValue(hid::kFieldKeyboardUsagePage);
            line["usage"] = event.integerValue(hid::kFieldKeyboardUsage);
            line["down"] = event.integerValue(hid::kFieldKeyboardDown) != 0 ? 1 : 0;
            break;
        default:
            line["kind"] = "other";
            line["type"] = event.type;
            line["time"] = hid::nanosecondsFromTicks(event.timestamp);
            break;
    }
    if (event.hardware) line["hardware"] = true;
    return dumpLine(line);
}

namespace {

uint64_t senderFromHex(const std::string& text) {
    uint64_t value = 0;
    if (text.size() > 2 && text.starts_with("0x")) std::from_chars(text.data() + 2, text.data() + text.size(), value, 16);
    return value;
}

void readDigitizerFields(const nlohmann::json& from, hid::HidEvent& to) {
    to.setIntegerValue(hid::kFieldDigitizerEventMask, from.value("mask", int64_t{0}));
    to.setIntegerValue(hid::kFieldDigitizerRange, from.value("range", int64_t{0}));
    to.setIntegerValue(hid::kFieldDigitizerTouch, from.value("touch", int64_t{0}));
    to.setFloatValue(hid::kFieldDigitizerX, from.value("x", 0.0));
    to.setFloatValue(hid::kFieldDigitizerY, from.value("y", 0.0));
}

}  // namespace

std::optional<hid::HidEvent> eventFromTraceLine(std::string_view line) {
    const auto json = nlohmann::json::parse(line.begin(), line.end(), nullptr, false);
    if (!json.is_object()) return std::nullopt;
    try {
        const std::string kind = json.value("kind", "");
        hid::HidEvent event;
        event.timestamp = hid::ticksFromNanoseconds(json.value("time", uint64_t{0}));
        event.senderId = senderFromHex(json.value("sender", ""));
        event.hardware = json.value("hardware", false);
        if (kind == "digitizer") {
            event.type = hid::kEventTypeDigitizer;
            event.setIntegerValue(hid::kFieldIsBuiltIn, json.value("builtIn", int64_t{0}));
            event.setIntegerValue(hid::kFieldDigitizerIsDisplayIntegrated, json.value("displayIntegrated", int64_t{0}));
            readDigitizerFields(json, event);
            for (const auto& entry : json.value("children", nlohmann::json::array())) {
                hid::HidEvent child;
                child.type = hid::kEventTypeDigitizer;
                child.timestamp = event.timestamp;
                child.setIntegerValue(hid::kFieldDigitizerIndex, entry.value("index", int64_t{0}));
                child.setIntegerValue(hid::kFieldDigitizerIdentity, entry.value("identity", int64_t{0}));
                readDigitizerFields(entry, child);
                event.appendEvent(std::move(child));
            }
        } else if (kind == "keyboard") {
            event.type = hid::kEventTypeKeyboard;
            event.setIntegerValue(hid::kFieldKeyboardUsagePage, json.value("usagePage", int64_t{0}));
            event.setIntegerValue(hid::kFieldKeyboardUsage, json.value("usage", int64_t{0}));
            event.setIntegerValue(hid::kFieldKeyboardDown, json.value("down", int64_t{0}));
        } else if (kind == "other") {
            event.type = json.value("type", uint32_t{0});
        } else {
            return std::nullopt;
        }
        return event;
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;  // a field of the wrong type
    }
}

ordered_json newTraceLine(const char* kind) {
    ordered_json line = ordered_json::object();
    line["kind"] = kind;
    line["time"] = hid::nanosecondsFromTicks(hid::absoluteTime());
    return line;
}

std::string dumpTraceLine(const ordered_json& line) { return dumpLine(line); }

std::string textTraceLine(const std::string& bundle, const std::string& field) {
    ordered_json line = newTraceLine("text");
    line["bundle"] = bundle;
    line["field"] = field;
    return dumpLine(line);
}

TraceFile::TraceFile(const std::string& path) : path_(path) {
    fd_ = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
}

TraceFile::~TraceFile() {
    if (fd_ >= 0) ::close(fd_);
}

void TraceFile::append(const std::string& line) {
    if (fd_ < 0) return;
    std::string record;
    record.reserve(line.size() + 1);
    record.append(line);
    record.push_back('\n');
    // One write: a retry after a partial write could interleave with another appender's line.
    while (::write(fd_, record.data(), record.size()) < 0 && errno == EINTR) {
    }
}

}  // namespace tw::device
