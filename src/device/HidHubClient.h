#pragma once
// A client of a running device's HID hub (see VirtualHidSystem.h), for other processes: the
// `tapwright events` command, app roles publishing their text lines, a play that writes the trace
// of a device it does not own. Blocking socket calls; readLine() waits with poll(). Not thread-safe.
#include <memory>
#include <optional>
#include <string>

namespace tw::device {

class HidHubClient {
public:
    // Connects to the hub of the device whose run folder is `runDir` ("<root>/run"). Null, with the
    // reason in `error`, when no device listens there.
    static std::unique_ptr<HidHubClient> connect(const std::string& runDir, std::string* error);
    ~HidHubClient();
    HidHubClient(const HidHubClient&) = delete;
    HidHubClient& operator=(const HidHubClient&) = delete;

    // Puts one JSON object line into the device's trace. False when the line cannot be a hub line
    // (it holds a newline or is too long) or the hub is gone. The hub closes the connection when
    // the line is not a JSON object.
    bool publish(const std::string& jsonObjectLine);
    // Asks for every trace line the device delivers from now on.
    bool subscribe();
    // The next line, without its newline. Null when `timeoutMs` passed first (a negative timeout
    // waits for ever) or when the hub closed the connection; closed() tells which.
    std::optional<std::string> readLine(int timeoutMs);
    bool closed() const { return closed_; }

private:
    explicit HidHubClient(int fd) : fd_(fd) {}
    bool sendLine(const std::string& line);
    void markClosed();

    int fd_;
    bool closed_ = false;
    std::string rx_;
    size_t rxStart_ = 0;    // rx_ bytes before this were already returned
    size_t rxScanned_ = 0;  // rx_ bytes before this hold no newline past rxStart_
};

// Sends one JSON line of hardware input (a person's finger or button, see VirtualHidSystem.h) to
// the device whose run folder is `runDir`. False when no device listens there.
bool sendHardwareInput(const std::string& runDir, const std::string& jsonLine);

}  // namespace tw::device
