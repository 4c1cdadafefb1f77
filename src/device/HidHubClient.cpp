#include "device/HidHubClient.h"

#include <thread>

#include "device/VirtualHidSystem.h"

namespace tw::device {

std::unique_ptr<HidHubClient> HidHubClient::connect(const std::string& runDir, std::string* error) {
    auto line = linuxp::LineClient::connect(hubSocketPath(runDir), error);
    if (!line) {
        if (error) *error = "no device is running on " + runDir + " (" + *error + ")";
        return nullptr;
    }
    return std::unique_ptr<HidHubClient>(new HidHubClient(std::move(line)));
}

bool HidHubClient::publish(const std::string& jsonObjectLine) {
    if (jsonObjectLine.find('\n') != std::string::npos) return false;
    if (jsonObjectLine.size() + 8 > kMaxHidLine) return false;  // "publish " counts
    return line_->sendLine("publish " + jsonObjectLine);
}

bool sendHardwareInput(const std::string& runDir, const std::string& jsonLine) {
    auto client = linuxp::LineClient::connect(hardwareSocketPath(runDir), nullptr);
    return client && client->sendLine(jsonLine);
}

bool sendHardwareInput(const std::string& runDir, const std::vector<TimedHardwareLine>& lines) {
    auto client = linuxp::LineClient::connect(hardwareSocketPath(runDir), nullptr);
    if (!client) return false;
    const auto start = std::chrono::steady_clock::now();
    for (const auto& line : lines) {
        std::this_thread::sleep_until(start + line.at);
        if (!client->sendLine(line.jsonLine)) return false;
    }
    return true;
}

HubTracePublisher::HubTracePublisher(std::string runDir) : runDir_(std::move(runDir)) {}

HubTracePublisher::~HubTracePublisher() = default;

bool HubTracePublisher::publish(const std::string& line) {
    std::lock_guard lock(mutex_);
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!client_) client_ = HidHubClient::connect(runDir_, nullptr);
        if (!client_) return false;  // no device: the line is dropped
        if (client_->publish(line)) return true;
        client_.reset();
    }
    return false;
}

}  // namespace tw::device
