// Touches through the whole injection path: a Lua loop of touchMove + sync in the script's
// process, the injector's port, the hand event and its trace line in the input-event process's
// event system. Measured in one process with the injector on its own loop thread, against the
// raw socket round trip of bench_foundation.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>
#include <unistd.h>

#include "api/Registry.h"
#include "core/Paths.h"
#include "device/VirtualHidSystem.h"
#include "injection/EventSimulate.h"
#include "injection/HidInjector.h"
#include "platform/Lua.h"
#include "platform/Platform.h"
#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/ProfileDeviceInfo.h"
#include "platform/linux/UnixMessagePorts.h"

namespace {

namespace fs = std::filesystem;

// An input-event role in a thread: event system with a trace file, and the injector's port.
class InjectorThread {
public:
    InjectorThread() : dir_(fs::temp_directory_path() / ("tw-bench-inj-" + std::to_string(getpid()))) {
        fs::create_directories(dir_);
        tw::Paths::setRoot(dir_.string());
        ports_ = std::make_shared<tw::linuxp::UnixMessagePortService>((dir_ / "run/ports").string());
        device_ = std::make_shared<tw::linuxp::ProfileDeviceInfo>(tw::linuxp::DeviceProfile{}, "com.apple.backboardd");
        hid_ = std::make_shared<tw::device::VirtualHidSystem>(*loop_, (dir_ / "run").string(),
                                                               tw::device::ScreenPixels{750, 1334},
                                                               (dir_ / "trace.jsonl").string());
        std::string error;
        hid_->start(&error);
        hid_->addListener([this](const std::string&, const tw::hid::HidEvent*) { delivered.fetch_add(1); });
        injector_ = tw::HidInjector::initialize(*ports_, *loop_, *hid_, *device_, nullptr);
        thread_ = std::thread([this] { loop_->run(); });

        tw::Platform platform;
        platform.ports = ports_;
        platform.device = device_;
        tw::Platform::install(platform);
        tw::EventSimulate::resetPort();
    }
    ~InjectorThread() {
        loop_->postAndWait([this] {
            injector_->port()->invalidate();
            hid_->stop();
        });
        loop_->stop();
        thread_.join();
        tw::EventSimulate::resetPort();
        tw::Platform::install({});
        fs::remove_all(dir_);
    }
    std::atomic<uint64_t> delivered{0};

private:
    fs::path dir_;
    std::shared_ptr<tw::linuxp::AsioRunLoop> loop_ = std::make_shared<tw::linuxp::AsioRunLoop>();
    std::shared_ptr<tw::linuxp::UnixMessagePortService> ports_;
    std::shared_ptr<tw::linuxp::ProfileDeviceInfo> device_;
    std::shared_ptr<tw::device::VirtualHidSystem> hid_;
    std::shared_ptr<tw::HidInjector> injector_;
    std::thread thread_;
};

// touchMove + usleep(0) (a sync, then no wait) from a Lua loop: one hand event each.
void BM_LuaTouchMoveAndSyncToTrace(benchmark::State& state) {
    InjectorThread injector;
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    tw::registerFunctions(L);
    luaL_loadstring(L, "touchDown(1, 10, 10) for i = 1, 1000 do touchMove(1, i % 750, 500) usleep(0) end");
    const int chunk = luaL_ref(L, LUA_REGISTRYINDEX);
    const uint64_t before = injector.delivered.load();
    for (auto _ : state) {
        lua_rawgeti(L, LUA_REGISTRYINDEX, chunk);
        lua_pcall(L, 0, 0, 0);
    }
    const uint64_t events = injector.delivered.load() - before;
    state.counters["touches/s"] = benchmark::Counter(static_cast<double>(events), benchmark::Counter::kIsRate);
    state.counters["events"] = static_cast<double>(events);
    lua_close(L);
}
BENCHMARK(BM_LuaTouchMoveAndSyncToTrace)->Unit(benchmark::kMillisecond)->UseRealTime();

// One touch request and its sync, from the client's call until the event system delivered the
// hand event (its trace line written): the median over the iterations.
void BM_TouchRequestLatencyEndToEnd(benchmark::State& state) {
    InjectorThread injector;
    std::vector<double> latencies;
    int i = 0;
    for (auto _ : state) {
        const uint64_t target = injector.delivered.load() + 1;
        const auto start = std::chrono::steady_clock::now();
        tw::EventSimulate::touchMove(1, ++i % 750, 500);
        tw::EventSimulate::syncEvent();
        while (injector.delivered.load(std::memory_order_acquire) < target) {
        }
        latencies.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(latencies.begin(), latencies.end());
    if (!latencies.empty()) state.counters["median_us"] = latencies[latencies.size() / 2];
}
BENCHMARK(BM_TouchRequestLatencyEndToEnd)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
