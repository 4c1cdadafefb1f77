#pragma once
// The event trace: every event the virtual device's input system delivers, as one JSON object per
// line. Several processes append to the same trace file (the input-event role writes the events,
// app roles their "text" lines through the hub), so each line goes out in a single append.
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "platform/HidEvent.h"

namespace tw::device {

// The trace line of an event, without the trailing newline:
//   digitizer: {"kind":"digitizer","time":T,"sender":"0x...","builtIn":B,"displayIntegrated":D,
//               "mask":M,"range":R,"touch":H,"x":X,"y":Y,"children":[{"index":I,"identity":ID,
//               "mask":M,"x":X,"y":Y,"range":R,"touch":H},...]}
//   keyboard:  {"kind":"keyboard","time":T,"sender":"0x...","usagePage":P,"usage":U,"down":0|1}
//   other:     {"kind":"other","type":N,"time":T}
// followed by "hardware":true for events that came through the hardware input. The sender is
// "0x" and 16 upper-case hex digits; x and y are written with full double precision.
std::string traceLine(const hid::HidEvent& event);

// The event of a digitizer, keyboard or other line, as traceLine wrote it (the timestamp back in
// ticks, exactly); nothing for the other kinds of line or for a line that is not one of these.
std::optional<hid::HidEvent> eventFromTraceLine(std::string_view line);

// Every other line of the trace starts as {"kind":K,"time":T}, T being now on the clock of the
// events' timestamps (nanoseconds of the monotonic clock), so that all lines can be ordered and
// timed together; the caller adds its fields and writes it with dumpTraceLine. Text that is not
// UTF-8 is written with U+FFFD in place of the bad bytes.
nlohmann::ordered_json newTraceLine(const char* kind);
std::string dumpTraceLine(const nlohmann::ordered_json& line);

// The line an app writes when a text field's content changed:
// {"kind":"text","time":T,"bundle":...,"field":...}.
std::string textTraceLine(const std::string& bundle, const std::string& field);

// An append-only trace file. Each append() is one write() of the line and its newline, which the
// kernel keeps whole against other appenders of the same file. Failures (the file could not be
// opened, the disk is full) are ignored: the trace must never stop the device.
class TraceFile {
public:
    explicit TraceFile(const std::string& path);
    ~TraceFile();
    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    bool isOpen() const { return fd_ >= 0; }
    const std::string& path() const { return path_; }
    void append(const std::string& line);

private:
    std::string path_;
    int fd_ = -1;
};

}  // namespace tw::device
