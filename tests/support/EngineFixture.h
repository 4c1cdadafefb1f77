#pragma once
// A whole engine on a temporary device root for unit tests: the main run loop on the test thread,
// real user defaults in the root, a headless user interface, a sleeper that records instead of
// waiting, and optionally a fake injector that owns the injector's port on its own thread.
// ScriptFunctionFixture adds a Lua state of the test's own with the script functions registered.
#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "SeamDoubles.h"
#include "TestSupport.h"
#include "platform/MessagePort.h"
#include "platform/Platform.h"
#include "platform/UserDefaults.h"
#include "platform/linux/AsioRunLoop.h"
#include "platform/Lua.h"
#include "store/PlaySettings.h"

namespace tw::test {

// One message as the injector received it.
struct ReceivedMessage {
    int32_t msgid;
    Payload data;
    bool operator==(const ReceivedMessage&) const = default;
};

// Owns "me.tapwright.twtweak.backboardd" on a loop of its own thread and records what arrives.
class FakeInjector {
public:
    explicit FakeInjector(MessagePortService& ports);
    ~FakeInjector();

    std::vector<ReceivedMessage> messages() const;
    // Waits until at least `count` messages arrived (or 2 s passed); returns whether they did.
    bool waitForMessages(size_t count);

private:
    std::shared_ptr<linuxp::AsioRunLoop> loop_;
    std::thread thread_;
    std::shared_ptr<LocalPort> port_;
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<ReceivedMessage> messages_;
};

class EngineFixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Plays `settings` to its end on the test thread's run loop; false when it did not end in 10 s.
    bool playToEnd(const std::shared_ptr<PlaySettings>& settings);
    // Writes a script into the library and returns its library path.
    std::string addScript(const std::string& name, const std::string& lua);
    // Play settings that play `lua` as text `repeat` times, `interval` seconds apart.
    static std::shared_ptr<PlaySettings> textPlay(const std::string& lua, int64_t repeat = 1, int64_t interval = 0);
    // The lines of the error log, without their time stamps.
    std::vector<std::string> logMessages() const;
    // Runs the main loop until `done` or 5 s.
    bool runUntil(const std::function<bool()>& done);

    std::unique_ptr<TempDir> root;
    std::shared_ptr<linuxp::AsioRunLoop> loop;
    std::shared_ptr<ScriptedUserInterface> ui;
    std::shared_ptr<RecordingSoundService> sounds;
    std::shared_ptr<FakeSleeper> sleeper;
    std::shared_ptr<UserDefaults> defaults;
    std::vector<std::string> errors;  // script errors reported to the front end
    std::mutex errorsMutex;
    int playsEnded = 0;
};

class ScriptFunctionFixture : public EngineFixture {
protected:
    void SetUp() override;
    void TearDown() override;
    // Runs `lua` in the state; "" on success, else the error message.
    std::string run(const std::string& lua);
    // The values of the expression list `call` as Lua's tostring() writes them.
    std::vector<std::string> results(const std::string& call);

    lua_State* L = nullptr;
};

}  // namespace tw::test
