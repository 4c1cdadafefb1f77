#include "web/WebServerManager.h"

#include "core/Diagnostics.h"
#include "core/Paths.h"
#include "core/Settings.h"
#include "library/FileManager.h"
#include "platform/LocalNetwork.h"
#include "platform/Platform.h"
#include "platform/UserDefaults.h"
#include "web/WebRoutes.h"
#include "web/WebDav.h"

namespace tw {

namespace {

Bytes yesNo(bool yes) {
    Bytes out(sizeof(int32_t));
    putLE(out, 0, yes ? kReplyYes : kReplyNo);
    return out;
}

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

bool readSetting(const char* key) {
    auto defaults = Platform::current().standardDefaults;
    return defaults && defaults->boolForKey(key);
}

void writeSetting(const char* key, bool on) {
    auto defaults = Platform::current().standardDefaults;
    if (defaults) defaults->setBool(key, on);
}

// Starts `server` on `options`; a port that cannot be bound leaves it stopped and is said on the
// diagnostic line.
bool startServer(web::HttpServer& server, const web::HttpServerOptions& options, const char* what) {
    std::string error;
    if (server.start(options, &error)) return true;
    diagnostic("the %s cannot listen on port %u: %s", what, static_cast<unsigned>(options.port), error.c_str());
    return false;
}

}  // namespace

WebServerManager& WebServerManager::sharedInstance() {
    static WebServerManager* instance = new WebServerManager;  // never destroyed: handlers may still run at exit
    return *instance;
}

void WebServerManager::configure(const WebServerConfig& config) {
    std::lock_guard lock(mutex_);
    config_ = config;
}

void WebServerManager::launchAtStartUp() {
    if (isWebServerAutoLaunch()) startWebServer();
    if (isWebDAVServerAutoLaunch()) startWebDAVServer();
}

web::HttpServerOptions WebServerManager::optionsFor(uint16_t port) const {
    web::HttpServerOptions options;
    options.bindAddress = config_.bindAddress;
    options.port = port;
    options.threads = config_.threads;
    options.passwordFile = Paths::resolve(kWebPasswordPath);
    return options;
}

void WebServerManager::startWebServer() {
    std::lock_guard lock(mutex_);
    if (webServer_ && webServer_->isRunning()) return;
    // A fresh server with every route each time.
    auto server = std::make_unique<web::HttpServer>();
    web::addWebRoutes(*server, Paths::resolve(kWebsitePath));
    startServer(*server, optionsFor(config_.webPort), "web server");
    webServer_ = std::move(server);
}

void WebServerManager::stopWebServer() {
    std::lock_guard lock(mutex_);
    if (webServer_) webServer_->stop();
}

void WebServerManager::startWebDAVServer() {
    std::lock_guard lock(mutex_);
    if (webDAVServer_ && webDAVServer_->isRunning()) return;
    auto server = std::make_unique<web::HttpServer>();
    auto service = std::make_shared<web::WebDavService>(FileManager::rootPath(), Paths::libraryDir());
    server->setFallback([service](web::HttpRequest& request) { service->handle(request); });
    davAdvertisement_.reset();
    auto options = optionsFor(config_.davPort);
    options.webDavMethods = true;
    // Mounted files change under the client's eyes; it revalidates them instead of caching.
    options.staticMaxAgeSeconds = 0;
    if (startServer(*server, options, "WebDAV server"))
        if (auto network = Platform::current().network) davAdvertisement_ = network->advertise("_webdav._tcp", server->port());
    webDAVServer_ = std::move(server);
}

void WebServerManager::stopWebDAVServer() {
    std::lock_guard lock(mutex_);
    davAdvertisement_.reset();
    if (webDAVServer_) webDAVServer_->stop();
}

bool WebServerManager::isWebServerRunning() const {
    std::lock_guard lock(mutex_);
    return webServer_ && webServer_->isRunning();
}

bool WebServerManager::isWebDAVServerRunning() const {
    std::lock_guard lock(mutex_);
    return webDAVServer_ && webDAVServer_->isRunning();
}

std::string WebServerManager::addressOf(const web::HttpServer& server) const {
    if (!server.isRunning()) return "";
    std::string host = server.options().bindAddress;
    if (host.empty() || host == "0.0.0.0") {
        auto network = Platform::current().network;
        host = network ? network->localAddress() : "";
        if (host.empty()) host = "127.0.0.1";
    }
    return "http://" + host + ":" + std::to_string(server.port()) + "/";
}

std::string WebServerManager::webServerAddress() const {
    std::lock_guard lock(mutex_);
    return webServer_ ? addressOf(*webServer_) : "";
}

std::string WebServerManager::webDAVServerAddress() const {
    std::lock_guard lock(mutex_);
    return webDAVServer_ ? addressOf(*webDAVServer_) : "";
}

bool WebServerManager::isWIFIAvailable() const {
    auto network = Platform::current().network;
    return network && network->isWiFiReachable();
}

void WebServerManager::setWebServerAutoLaunch(bool on) { writeSetting(settings::kWebServerAutoLaunch, on); }
void WebServerManager::setWebDAVServerAutoLaunch(bool on) { writeSetting(settings::kWebDAVServerAutoLaunch, on); }
bool WebServerManager::isWebServerAutoLaunch() const { return readSetting(settings::kWebServerAutoLaunch); }
bool WebServerManager::isWebDAVServerAutoLaunch() const { return readSetting(settings::kWebDAVServerAutoLaunch); }

Payload WebServerManager::handleCommand(int32_t msgid) {
    switch (msgid) {
        case kMsgIsWifiAvailable: return yesNo(isWIFIAvailable());
        case kMsgStartWebServer:
            startWebServer();
            setWebServerAutoLaunch(true);
            return std::nullopt;
        case kMsgStopWebServer:
            stopWebServer();
            setWebServerAutoLaunch(false);
            return std::nullopt;
        case kMsgIsWebServerRunning: return yesNo(isWebServerRunning());
        case kMsgWebServerAddress: return text(webServerAddress());
        case kMsgStartWebDAVServer:
            startWebDAVServer();
            setWebDAVServerAutoLaunch(true);
            return std::nullopt;
        case kMsgStopWebDAVServer:
            stopWebDAVServer();
            setWebDAVServerAutoLaunch(false);
            return std::nullopt;
        case kMsgIsWebDAVServerRunning: return yesNo(isWebDAVServerRunning());
        case kMsgWebDAVServerAddress: return text(webDAVServerAddress());
        default: return std::nullopt;
    }
}

void WebServerManager::reset() {
    stopWebServer();
    stopWebDAVServer();
    std::lock_guard lock(mutex_);
    webServer_.reset();
    webDAVServer_.reset();
}

}  // namespace tw
