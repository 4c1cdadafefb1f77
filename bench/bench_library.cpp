// The on-device script list's cost: listing a folder of 1,000 scripts, each with a play settings
// row, and asking each entry's marks. Every listing reloads the settings cache and the trigger
// bindings from the database, as the list does before it shows them. The cache reload and a single
// lookup by title (one connection per statement) are measured on their own for comparison.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "core/Paths.h"
#include "library/FileManager.h"
#include "store/DataManager.h"
#include "store/PlaySettingsManager.h"

namespace {

namespace fs = std::filesystem;

constexpr int kScripts = 1000;

// A device root with the library filled once for all benchmarks of this file.
class Library {
public:
    Library() {
        char pattern[] = "/tmp/tw-bench-library-XXXXXX";
        root_ = ::mkdtemp(pattern);
        tw::Paths::setRoot(root_);
        tw::FileManager::prepareDirectories();
        tw::DataManager::initDb();
        for (int i = 0; i < kScripts; ++i) {
            const std::string path = "/script" + std::to_string(i) + ".lua";
            std::ofstream(tw::FileManager::fullPathOfFile(path)) << "touchDown(1, 100, 200)\nusleep(50000)\ntouchUp(1)\n";
            tw::PlaySettings s;
            s.filePath = path;
            s.playDirectly = i % 3 == 0;
            s.repeatTime = i % 5;
            tw::DataManager::insertPlaySettings(s);
            if (i % 100 == 0) tw::DataManager::addActivatorTrigger({"event" + std::to_string(i), 3, path});
        }
        tw::FileManager::setTimersReader([] { return std::vector<std::string>{"/script7.lua", "/script70.lua"}; });
    }
    ~Library() {
        tw::FileManager::setTimersReader(nullptr);
        std::error_code ec;
        fs::remove_all(root_, ec);
    }

private:
    std::string root_;
};

Library& library() {
    static Library instance;
    return instance;
}

void BM_ListScriptsWithSettings(benchmark::State& state) {
    library();
    tw::FileManager manager;
    size_t marks = 0;
    for (auto _ : state) {
        const auto scripts = manager.loadScripts("/");
        for (const auto& path : scripts)
            marks += manager.ifPlayDirectly(path) + manager.isScriptAssignedActivatorTrigger(path) +
                     manager.isTimerSet(path);
        benchmark::DoNotOptimize(scripts.data());
    }
    benchmark::DoNotOptimize(marks);
    state.counters["scripts"] = kScripts;
}
BENCHMARK(BM_ListScriptsWithSettings)->Unit(benchmark::kMillisecond);

// Part of the above: reading every settings row into the cache.
void BM_ReloadPlaySettingsCache(benchmark::State& state) {
    library();
    tw::PlaySettingsManager cache;
    for (auto _ : state) {
        cache.reloadData();
        benchmark::DoNotOptimize(cache.playSettingsArray.data());
    }
    state.counters["rows"] = static_cast<double>(cache.playSettingsArray.size());
}
BENCHMARK(BM_ReloadPlaySettingsCache)->Unit(benchmark::kMillisecond);

// One statement on its own connection: what the play controller pays to load one script's settings.
void BM_FindPlaySettingsByTitle(benchmark::State& state) {
    library();
    for (auto _ : state) benchmark::DoNotOptimize(tw::DataManager::findPlaySettingsByScriptTitle("/script500.lua"));
}
BENCHMARK(BM_FindPlaySettingsByTitle)->Unit(benchmark::kMicrosecond);

}  // namespace
