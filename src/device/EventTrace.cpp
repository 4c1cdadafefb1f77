#include "device/EventTrace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
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
            line["time"] = event.timestamp;
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
            line["time"] = event.timestamp;
            line["sender"] = hex16(event.senderId);
            line["usagePage"] = event.integerValue(hid::kFieldKeyboardUsagePage);
            line["usage"] = event.integerValue(hid::kFieldKeyboardUsage);
            line["down"] = event.integerValue(hid::kFieldKeyboardDown) != 0 ? 1 : 0;
            break;
        default:
            line["kind"] = "other";
            line["type"] = event.type;
            line["time"] = event.timestamp;
            break;
    }
    if (event.hardware) line["hardware"] = true;
    return dumpLine(line);
}

ordered_json newTraceLine(const char* kind) {
    ordered_json line = ordered_json::object();
    line["kind"] = kind;
    line["time"] = hid::absoluteTime();
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
