#include "schedule/TimerManager.h"

#include <filesystem>

#include "core/AtomicFile.h"
#include "core/Diagnostics.h"
#include "core/Global.h"
#include "core/LogToFile.h"
#include "core/Paths.h"
#include "library/Encrypt.h"
#include "library/FileManager.h"
#include "play/ScriptManager.h"
#include "schedule/KeyedArchive.h"
#include "store/PlaySettings.h"
#include "store/PlaySettingsManager.h"

namespace tw {

namespace {
constexpr const char* kScriptFilePathKey = "scriptFilePath";

std::string pathOf(const TimerManager::UserInfo& userInfo) {
    auto it = userInfo.find(kScriptFilePathKey);
    return it == userInfo.end() ? std::string() : it->second;
}

// Every schedule of `timers` whose script is not `path`, in order.
std::vector<Timer> without(std::vector<Timer> timers, const std::string& path) {
    std::erase_if(timers, [&](const Timer& t) { return t.scriptFilePath == path; });
    return timers;
}
}  // namespace

TimerManager& TimerManager::sharedInstance() {
    static TimerManager manager;
    return manager;
}

TimerManager::~TimerManager() {
    for (auto& armed : nstimers_)
        if (armed.timer) armed.timer->invalidate();
}

std::vector<Timer> TimerManager::readArchive() {
    const auto bytes = readWholeFile(Paths::resolve(kTimersPath));
    if (!bytes) return {};
    try {
        return unarchiveTimers(*bytes);
    } catch (const std::exception& e) {
        diagnostic("the timers archive cannot be read, taken as empty: %s", e.what());
        return {};
    }
}

bool TimerManager::writeArchive(const std::vector<Timer>& timers) {
    std::string bytes;
    try {
        bytes = archiveTimers(timers);
    } catch (const ArchiveException& e) {
        diagnostic("cannot archive the timers: %s", e.what());
        return false;
    }
    const std::string path = Paths::resolve(kTimersPath);
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    std::string error;
    if (writeFileAtomically(path, bytes, &error)) return true;
    diagnostic("%s", error.c_str());
    return false;
}

std::vector<std::string> TimerManager::archivedScriptPaths() {
    std::vector<std::string> paths;
    for (const auto& timer : readArchive()) paths.push_back(timer.scriptFilePath);
    return paths;
}

void TimerManager::arm(const Timer& timer, Action action) {
    UserInfo userInfo{{kScriptFilePathKey, timer.scriptFilePath}};
    // A run-loop timer repeats only with a positive period; a fire date already past fires at the
    // loop's next turn.
    const std::chrono::duration<double> period(timer.repeat && timer.interval > 0 ? timer.interval : 0.0);
    auto armed = RunLoop::main().scheduleTimer(
        timer.fireDate.value_or(RunLoop::Clock::now()), period, [this, action, userInfo](RunLoop::Timer&) {
            // `test` has no handler: a restored schedule fires and does nothing.
            if (action == Action::forwardToPlay) forwardToPlay(userInfo);
        });
    nstimers_.push_back({std::move(armed), std::move(userInfo)});
}

bool TimerManager::add(const Timer& timer) {
    auto timers = without(readArchive(), timer.scriptFilePath);
    timers.push_back(timer);
    if (!writeArchive(timers)) return false;
    arm(timer, Action::forwardToPlay);
    return true;
}

bool TimerManager::remove(const std::string& path) {
    std::vector<ArmedTimer> kept;
    for (auto& armed : nstimers_) {
        if (pathOf(armed.userInfo) == path) {
            if (armed.timer) armed.timer->invalidate();
        } else {
            kept.push_back(std::move(armed));
        }
    }
    nstimers_ = std::move(kept);
    return writeArchive(without(readArchive(), path));
}

void TimerManager::launch() {
    for (const auto& timer : readArchive()) arm(timer, Action::test);
}

void TimerManager::forwardToPlay(const UserInfo& userInfo) {
    const std::string path = pathOf(userInfo);
    const std::string full = FileManager::fullPathOfFile(path);
    if (!FileManager::fileExist(path)) {
        remove(path);
        return;
    }
    auto& global = Global::sharedInstance();
    if (global.isPlaying() || global.isRecording() || global.isReadyToPlay()) {
        LogToFile("Auto launching of script %s was failed to be triggerd by auto playing, for Tapwright is "
                  "playing/recording/readyToPlay.",
                  full.c_str());
        return;
    }
    initCurrentPlaySettingsFor(path);
    auto settings = global.currentPlaySettings();
    settings->showPlayingFinishedAlert = false;

    const std::string extension = FileManager::lowerExtension(path);
    if (extension == "lua") {
        settings->playType = 0;
        playScriptNow();
    } else if (extension == "e") {
        settings->playType = 1;
        if (auto text = Encrypt::decryptScript(full, Encrypt::rememberedPassword(path))) {
            settings->scriptContent = std::move(*text);
            playScriptNow();
        } else {
            LogToFile("The script %s needs decrypt password, auto playing timer stopped.", full.c_str());
        }
    }
}

void TimerManager::initCurrentPlaySettingsFor(const std::string& path) {
    Global::sharedInstance().setCurrentPlaySettings(PlaySettingsManager::currentPlaySettingsFor(path));
}

void TimerManager::playScriptNow() {
    auto settings = Global::sharedInstance().currentPlaySettings();
    LogToFile("Auto launching of script %s is triggerd by auto playing timer.",
              FileManager::fullPathOfFile(settings ? settings->filePath : std::string()).c_str());
    ScriptManager::runScript();
}

}  // namespace tw
