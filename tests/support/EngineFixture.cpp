#include "EngineFixture.h"

#include <sstream>

#include "api/Registry.h"
#include "api/SystemFunctions.h"
#include "core/Global.h"
#include "play/PivotManager.h"
#include "core/Paths.h"
#include "injection/EventSimulate.h"
#include "injection/records/MessageIds.h"
#include "library/FileManager.h"
#include "roles/ProcessWiring.h"
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
    loop_->postAndWait([this] {
        if (port_) port_->invalidate();
        port_.reset();
    });
    loop_->stop();
    thread_.join();
}

std::vector<ReceivedMessage> FakeInjector::messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
}

bool FakeInjector::waitForMessages(size_t count) {
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::seconds(2), [&] { return messages_.size() >= count; });
}

void EngineFixture::SetUp() {
    root = std::make_unique<TempDir>("tw-engine");
    ui = std::make_shared<ScriptedUserInterface>();
    sounds = std::make_shared<RecordingSoundService>();
    sleeper = std::make_shared<FakeSleeper>();

    roles::ProcessSetup setup;
    setup.root = root->str(), setup.ui = ui, setup.sounds = sounds;
    loop = roles::installProcess(setup);
    Platform::current().sleeper = sleeper;
    defaults = Platform::current().standardDefaults;
    roles::installAppResources(root->str());
    ASSERT_TRUE(FileManager::prepareDirectories());
    EventSimulate::resetPort();
    Global::sharedInstance().init();
    PivotManager::sharedInstance().reset();
    luaStopFlag.store(0);  // a play stopped in an earlier test leaves it set

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

std::shared_ptr<PlaySettings> EngineFixture::textPlay(const std::string& lua, int64_t repeat, int64_t interval) {
    auto s = std::make_shared<PlaySettings>();
    s->playType = 1, s->scriptContent = lua, s->repeatTime = repeat, s->repeatInterval = interval;
    return s;
}

std::vector<std::string> EngineFixture::logMessages() const {
    std::vector<std::string> out;
    std::istringstream in(readFile(Paths::logFile()));
    std::string line;
    while (std::getline(in, line)) out.push_back(line.size() >= 15 ? line.substr(15) : line);
    return out;
}

void ScriptFunctionFixture::SetUp() {
    EngineFixture::SetUp();
    L = luaL_newstate();
    luaL_openlibs(L);
    registerFunctions(L);
}

void ScriptFunctionFixture::TearDown() {
    releaseAudioPlayer();
    lua_close(L);
    EngineFixture::TearDown();
}

std::string ScriptFunctionFixture::run(const std::string& lua) {
    if (luaL_loadstring(L, lua.c_str()) == LUA_OK && lua_pcall(L, 0, 0, 0) == LUA_OK) return "";
    std::string message = lua_tostring(L, -1);
    lua_pop(L, 1);
    return message;
}

std::vector<std::string> ScriptFunctionFixture::results(const std::string& call) {
    const int base = lua_gettop(L);
    std::vector<std::string> out;
    if (luaL_loadstring(L, ("return " + call).c_str()) != LUA_OK || lua_pcall(L, 0, LUA_MULTRET, 0) != LUA_OK)
        ADD_FAILURE() << call << ": " << lua_tostring(L, -1);
    else
        for (int i = base + 1, top = lua_gettop(L); i <= top; ++i) {
            out.push_back(luaL_tolstring(L, i, nullptr));
            lua_pop(L, 1);
        }
    lua_settop(L, base);
    return out;
}

}  // namespace tw::test
