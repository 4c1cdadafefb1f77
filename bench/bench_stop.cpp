// What stop support costs a running script, and how soon a stop ends one.
//
// Throughput: the same Lua loop in a plain state with no hook at all (the baseline), in a state
// prepared as the runner prepares it and run as it runs it (stoppable, nobody stopping it), with
// a count hook that looks at the stop flag every kStopCheckInstructions instructions (the previous
// arrangement, and the ThreadSanitizer build's), and with a hook on every call, return and
// instruction (how plays ran first), so the ratios come from one run (run with
// --benchmark_enable_random_interleaving=true: the order of the first cases otherwise skews them).
//
// Latency: a script is started on a worker thread as the runner starts it (the script functions,
// the stop support), the stop is requested once the script is under way as a user's stop requests
// it, and the time until the script's call returns is recorded: for a busy loop, a script inside usleep, one inside a
// whole-screen fuzzy findImage, and one waiting on a dialog. usleep and a dialog are one
// uninterrupted wait by design; their figures show it.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <optional>
#include <thread>

#include "ReferenceScans.h"
#include "api/Registry.h"
#include "core/Paths.h"
#include "graphic/Bmp.h"
#include "graphic/Surface.h"
#include "platform/Platform.h"
#include "platform/UserInterface.h"
#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/ProfileDeviceInfo.h"
#include "play/LuaBridge.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kLoop = "local s = 0 for i = 1, 100000 do s = s + i % 7 end return s";

enum class Hook { None, Stoppable, CountHook, EveryInstruction };

// The stop flag check of a count hook that stays installed.
void checkStopFlag(lua_State* L, lua_Debug*) {
    if (tw::luaStopFlag.load(std::memory_order_relaxed) == 1) luaL_error(L, "interrupted");
}

void runLoop(benchmark::State& state, Hook hook) {
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    if (hook == Hook::Stoppable) tw::installStopSupport(L);
    if (hook == Hook::CountHook) lua_sethook(L, checkStopFlag, LUA_MASKCOUNT, tw::kStopCheckInstructions);
    if (hook == Hook::EveryInstruction) lua_sethook(L, checkStopFlag, LUA_MASKCALL | LUA_MASKRET | LUA_MASKCOUNT, 1);
    luaL_loadstring(L, kLoop);
    const int chunk = luaL_ref(L, LUA_REGISTRYINDEX);
    for (auto _ : state) {
        std::optional<tw::ScriptStopScope> stoppable;
        if (hook == Hook::Stoppable) stoppable.emplace(L);
        lua_rawgeti(L, LUA_REGISTRYINDEX, chunk);
        lua_pcall(L, 0, 1, 0);
        benchmark::DoNotOptimize(lua_tonumber(L, -1));
        lua_pop(L, 1);
    }
    lua_close(L);
}

// Baseline: plain Lua without any hook.
void BM_LuaLoopWithoutHook(benchmark::State& state) { runLoop(state, Hook::None); }
// As every play runs now: stoppable at any instruction, with no hook until a stop is asked for.
void BM_LuaLoopStoppable(benchmark::State& state) { runLoop(state, Hook::Stoppable); }
// A count hook every kStopCheckInstructions instructions.
void BM_LuaLoopWithCountHook(benchmark::State& state) { runLoop(state, Hook::CountHook); }
// A hook on every call, return and instruction.
void BM_LuaLoopWithHookOnEveryInstruction(benchmark::State& state) { runLoop(state, Hook::EveryInstruction); }
BENCHMARK(BM_LuaLoopWithoutHook)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LuaLoopStoppable)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LuaLoopWithCountHook)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LuaLoopWithHookOnEveryInstruction)->Unit(benchmark::kMillisecond);

// A user interface whose dialogs are answered (cancelled) `answerAfter` after they are shown.
class SlowUser : public tw::UserInterface {
public:
    explicit SlowUser(std::chrono::milliseconds answerAfter) : answerAfter_(answerAfter) {}
    void showAlert(const tw::AlertRequest&) override {}
    tw::DialogResponse showDialog(const tw::DialogRequest&) override {
        std::this_thread::sleep_for(answerAfter_);
        tw::DialogResponse response;
        response.cancelled = true;
        return response;
    }
    void showToast(const tw::ToastRequest&) override {}

private:
    std::chrono::milliseconds answerAfter_;
};

// A device on a temporary root: a 750 x 1334 screen of noise with a template cut from it, the main
// run loop on its own thread, and the slow user.
class Device {
public:
    Device() : root_(std::filesystem::temp_directory_path() / ("tw-bench-stop-" + std::to_string(::getpid()))) {
        tw::Paths::setRoot(root_.string());
        std::filesystem::create_directories(tw::Paths::scriptsDir());
        tw::Platform platform;
        platform.device = std::make_shared<tw::linuxp::ProfileDeviceInfo>(tw::linuxp::DeviceProfile{}, "com.apple.springboard");
        auto display = std::make_shared<tw::reference::MemoryDisplay>(750, 1334);
        display->fillRandom(7);
        platform.display = display;
        platform.ui = std::make_shared<SlowUser>(std::chrono::milliseconds(20));
        tw::Platform::install(platform);
        tw::reset_surface_info();
        // A 32 x 32 template that matches nowhere: the search scans the whole screen.
        std::vector<uint8_t> pixels(32 * 32 * 4, 0x5A);
        tw::save_bmp((tw::Paths::scriptsDir() + "/t.bmp").c_str(), pixels.data(), 32, 32);
        loop_ = std::make_shared<tw::linuxp::AsioRunLoop>();
        tw::RunLoop::setMain(loop_);
        runner_ = std::thread([loop = loop_] { loop->run(); });
    }
    ~Device() {
        loop_->stop();
        runner_.join();
        tw::RunLoop::setMain(nullptr);
        tw::Platform::install(tw::Platform{});
        std::filesystem::remove_all(root_);
    }

private:
    std::filesystem::path root_;
    std::shared_ptr<tw::linuxp::AsioRunLoop> loop_;
    std::thread runner_;
};

std::atomic<bool> scriptStarted{false};
int markStarted(lua_State*) {
    scriptStarted = true;
    return 0;
}

// One script run as the runner runs it; the stop comes `delay` after the script said it started.
// Returns the seconds from the stop request to the end of the script.
double stopLatency(const char* script, std::chrono::microseconds delay) {
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    tw::installStopSupport(L);
    tw::registerFunctions(L);
    lua_register(L, "started", markStarted);
    luaL_loadstring(L, script);
    scriptStarted = false;
    tw::luaStopFlag = 0;
    std::atomic<bool> ended{false};
    Clock::time_point endedAt;
    std::thread worker([&] {
        tw::ScriptStopScope stoppable(L);
        lua_pcall(L, 0, 0, 0);
        endedAt = Clock::now();
        ended = true;
    });
    while (!scriptStarted) std::this_thread::yield();
    std::this_thread::sleep_for(delay);
    const auto requested = Clock::now();
    tw::requestScriptStop();  // what a user's stop does
    worker.join();
    lua_close(L);
    return std::chrono::duration<double>(endedAt - requested).count();
}

void measureStop(benchmark::State& state, const char* script, std::chrono::microseconds delay) {
    Device device;
    for (auto _ : state) state.SetIterationTime(stopLatency(script, delay));
}

void BM_StopLatencyBusyLoop(benchmark::State& state) {
    measureStop(state, "started() local i = 0 while true do i = i + 1 end", std::chrono::microseconds(200));
}
// The stop lands 5 ms into a 50 ms usleep: the wait ends first, by design.
void BM_StopLatencyInUsleep(benchmark::State& state) {
    measureStop(state, "started() usleep(50000) while true do end", std::chrono::microseconds(5000));
}
// The stop lands at once; the whole-screen search ends first.
void BM_StopLatencyInFindImage(benchmark::State& state) {
    measureStop(state, "started() findImage('t.bmp', 0, 0.9) while true do end", std::chrono::microseconds(0));
}
// The user answers 20 ms after the form appears; the stop lands 5 ms after the script asked.
void BM_StopLatencyInDialog(benchmark::State& state) {
    measureStop(state, "started() dialog({{type = 1, text = 'Waiting'}}) while true do end", std::chrono::microseconds(5000));
}
BENCHMARK(BM_StopLatencyBusyLoop)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(50);
BENCHMARK(BM_StopLatencyInUsleep)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_StopLatencyInFindImage)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_StopLatencyInDialog)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);

}  // namespace
