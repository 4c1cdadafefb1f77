#pragma once
// A client of a running device's HID hub (see VirtualHidSystem.h), for other processes: the
// `tapwright events` command, app roles publishing their trace lines, a play that writes the trace
// of a device it does not own. Blocking; not thread-safe.
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/LineClient.h"

namespace tw::device {

class HidHubClient {
public:
    // Connects to the hub of the device whose run folder is `runDir` ("<root>/run"). Null, with the
    // reason in `error`, when no device listens there.
    static std::unique_ptr<HidHubClient> connect(const std::string& runDir, std::string* error);

    // Puts one JSON object line into the device's trace. False when the line cannot be a hub line
    // (it holds a newline or is too long) or the hub is gone. The hub closes the connection when
    // the line is not a JSON object.
    bool publish(const std::string& jsonObjectLine);
    // Asks for every trace line the device delivers from now on.
    bool subscribe() { return line_->sendLine("subscribe"); }
    // The next trace line (see LineClient::readLine).
    std::optional<std::string> readLine(int timeoutMs) { return line_->readLine(timeoutMs); }
    bool closed() const { return line_->closed(); }

private:
    explicit HidHubClient(std::unique_ptr<linuxp::LineClient> line) : line_(std::move(line)) {}
    std::unique_ptr<linuxp::LineClient> line_;
};

// Publishes lines into the trace of the device whose run folder is `runDir`: connects to its hub on
// first use, and once more when the hub has gone away (the input-event role restarted). Lines are
// dropped when no hub answers. Thread-safe.
class HubTracePublisher {
public:
    explicit HubTracePublisher(std::string runDir);
    ~HubTracePublisher();
    HubTracePublisher(const HubTracePublisher&) = delete;
    HubTracePublisher& operator=(const HubTracePublisher&) = delete;

    // True when the hub took the line.
    bool publish(const std::string& line);

private:
    std::mutex mutex_;
    std::string runDir_;
    std::unique_ptr<HidHubClient> client_;
};

// Sends one JSON line of hardware input (a person's finger or button, see VirtualHidSystem.h) to
// the device whose run folder is `runDir`. False when no device listens there.
bool sendHardwareInput(const std::string& runDir, const std::string& jsonLine);

// A line of hardware input and when to send it, counted from the first line's sending.
struct TimedHardwareLine {
    std::chrono::microseconds at{0};
    std::string jsonLine;
};
// Sends the lines in order over one connection, each at its time, as a person's hand would make
// them. False when no device listens there or it went away.
bool sendHardwareInput(const std::string& runDir, const std::vector<TimedHardwareLine>& lines);

}  // namespace tw::device
