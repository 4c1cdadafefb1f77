#pragma once
// The device's two servers: the web server (the management site and its JSON routes over the
// script library) and the WebDAV server over the library folder. Started and stopped on the main
// thread by the commands port (which also writes their auto-launch settings) and at start-up;
// their handlers run on the servers' own threads.
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "platform/Bytes.h"
#include "web/HttpServer.h"

namespace tw {

// The commands port's messages for the servers (one numbering with the port's other ids).
enum WebCommandId : int32_t {
    kMsgIsWifiAvailable = 17,       // reply: yes/no
    kMsgStartWebServer = 18,        // and auto-launch on
    kMsgStopWebServer = 19,         // and auto-launch off
    kMsgIsWebServerRunning = 20,    // reply: yes/no
    kMsgWebServerAddress = 21,      // reply: the address's UTF-8 bytes, no terminator
    kMsgStartWebDAVServer = 22,
    kMsgStopWebDAVServer = 23,
    kMsgIsWebDAVServerRunning = 24,
    kMsgWebDAVServerAddress = 25,
};
// Yes/no replies: one 32-bit integer in the device's byte order.
inline constexpr int32_t kReplyYes = 101;
inline constexpr int32_t kReplyNo = 102;

// Where the servers listen. The defaults are the phone's: 8080 and 80 on every interface.
struct WebServerConfig {
    std::string bindAddress = "0.0.0.0";
    uint16_t webPort = 8080;
    uint16_t davPort = 80;
    int threads = 8;
};

class WebServerManager {
public:
    static WebServerManager& sharedInstance();
    // Sets where the servers listen from their next start on.
    void configure(const WebServerConfig& config);

    // Starts each server whose auto-launch setting is on (the home screen's start-up).
    void launchAtStartUp();

    void startWebServer();
    void stopWebServer();
    void startWebDAVServer();
    void stopWebDAVServer();
    bool isWebServerRunning() const;
    bool isWebDAVServerRunning() const;
    // "http://<address>:<port>/" of a running server; "" when it is stopped.
    std::string webServerAddress() const;
    std::string webDAVServerAddress() const;
    bool isWIFIAvailable() const;

    void setWebServerAutoLaunch(bool on);
    void setWebDAVServerAutoLaunch(bool on);
    bool isWebServerAutoLaunch() const;
    bool isWebDAVServerAutoLaunch() const;

    // The commands port's messages 17 to 25: acts and returns the reply (none for start and stop).
    Payload handleCommand(int32_t msgid);

    // Stops both servers (the end of the process, tests).
    void reset();

private:
    WebServerManager() = default;
    std::string addressOf(const web::HttpServer& server) const;
    web::HttpServerOptions optionsFor(uint16_t port) const;

    mutable std::mutex mutex_;
    WebServerConfig config_;
    std::unique_ptr<web::HttpServer> webServer_;
    std::unique_ptr<web::HttpServer> webDAVServer_;
    std::shared_ptr<void> davAdvertisement_;
};

}  // namespace tw
