#include "EngineFixture.h"

#include <filesystem>
#include <sstream>

#include "core/Global.h"
#include "core/Paths.h"
#include "core/Settings.h"
#include "injection/EventSimulate.h"
#include "injection/records/MessageIds.h"
#include "library/FileManager.h"
#include "platform/RunLoop.h"
#include "roles/ProcessWiring.h"
#include "platform/linux/PlistUserDefaults.h"
#include "platform/linux/UnixMessagePorts.h"
#include "play/ScriptManager.h"
#include "store/PlaySettings.h"

namespace tw::test {

FakeInjector::FakeInjector(MessagePortService& ports) : loop_(std::make_shared<linuxp::AsioRunLoop>()) {
    port_ = ports.createLocal(
        kInjectorPortName,
        [this](int32_t msgid, const Payload& data) -> Payload {
            {
                std::lock_guard lock(mutex_);
                messages_.push_back({msgid, data});
            }
            arrived_.notify_all();
            return std::nullopt;
        },
        *loop_);
    thread_ = std::thread([loop = loop_] { loop->run(); });
}

FakeInjector::~FakeInjector() {
    close();
    loop_->stop();
    thread_.join();
}

void FakeInjector::close() { loop_->postAndWait([this] { closeOnLoop(); }); }

void FakeInjector::closeOnLoop() {
    if (port_) port_->invalidate();
    port_.reset();
}

std::vector<ReceivedMessage> FakeInjector::messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
}

bool FakeInjector::waitForMessages(size_t count) {
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::seconds(2), [&] { return messages_.size() >= count; });
}

size_t FakeInjector::count(int32_t msgid) const {
    std::lock_guard lock(mutex_);
    size_t n = 0;
    for (const auto& m : messages_) n += m.msgid == msgid;
    return n;
}

void EngineFixture::SetUp() {
    root = std::make_unique<TempDir>("tw-engine");
    ui = std::make_shared<HeadlessUserInterface>();
    sounds = std::make_shared<RecordingSoundService>();
    sleeper = std::make_shared<FakeSleeper>();

    roles::ProcessSetup setup;
    setup.root = root->str();
    setup.ui = ui;
    setup.sounds = sounds;
    loop = roles::installProcess(setup);
    Platform::current().sleeper = sleeper;
    defaults = Platform::current().standardDefaults;
    roles::installAppResources(root->str());
    ASSERT_TRUE(FileManager::prepareDirectories());
    EventSimulate::resetPort();
    Global::sharedInstance().init();

    ScriptManager::setErrorHandler([this](const std::string& message) {
        std::lock_guard lock(errorsMutex);
        errors.push_back(message);
    });
    ScriptManager::setPlayEndedHandler([this] { ++playsEnded; });
}

void EngineFixture::TearDown() {
    ScriptManager::stopPlaying();
    // Let a play still under way finish its end on this loop before the loop goes away.
    if (Global::sharedInstance().luaBridge()) runUntil([] { return !Global::sharedInstance().luaBridge(); });
    ScriptManager::waitForWorkers();
    ScriptManager::setErrorHandler(nullptr);
    ScriptManager::setPlayEndedHandler(nullptr);
    EventSimulate::resetPort();
    Global::sharedInstance().init();
    Platform::install(Platform{});
}

bool EngineFixture::runUntil(const std::function<bool()>& done) {
    return loop->runUntil(done, std::chrono::seconds(5));
}

bool EngineFixture::playToEnd(const std::shared_ptr<PlaySettings>& settings) {
    const int before = playsEnded;
    Global::sharedInstance().setCurrentPlaySettings(settings);
    ScriptManager::runScript();
    const bool ended = loop->runUntil([&] { return playsEnded > before; }, std::chrono::seconds(10));
    ScriptManager::waitForWorkers();
    return ended;
}

std::string EngineFixture::addScript(const std::string& name, const std::string& lua) {
    writeFile(FileManager::fullPathOfFile("/" + name), lua);
    return "/" + name;
}

std::vector<std::string> EngineFixture::logMessages() const {
    std::vector<std::string> out;
    std::istringstream in(readFile(Paths::logFile()));
    std::string line;
    while (std::getline(in, line)) out.push_back(line.size() >= 15 ? line.substr(15) : line);
    return out;
}

}  // namespace tw::test
