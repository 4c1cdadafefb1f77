#include "roles/ForegroundPlay.h"

#include <unistd.h>

#include <asio/signal_set.hpp>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>

#include "core/AtomicFile.h"
#include "core/Diagnostics.h"
#include "core/Global.h"
#include "device/EventTrace.h"
#include "device/HidHubClient.h"
#include "device/ImageFile.h"
#include "injection/EventSimulate.h"
#include "library/Encrypt.h"
#include "library/FileManager.h"
#include "platform/Platform.h"
#include "platform/RunLoop.h"
#include "platform/UserDefaults.h"
#include "platform/linux/LinuxPlatform.h"
#include "play/ScriptManager.h"
#include "roles/CommandsPort.h"
#include "roles/DeviceAccess.h"
#include "roles/ProcessWiring.h"
#include "roles/RoleSelection.h"
#include "roles/Supervisor.h"
#include "store/DataManager.h"
#include "store/PlaySettings.h"
#include "store/PlaySettingsManager.h"
#include "ui/ConsoleUserInterface.h"

namespace fs = std::filesystem;

namespace tw::roles {

namespace {

// Copies a running device's events into a trace file while the play lasts, following the device's
// input-event role through restarts.
class TraceSubscription {
public:
    TraceSubscription(const std::string& root, const std::string& path) : runDir_(runDirOf(root)), file_(path) {
        std::string error;
        client_ = device::HidHubClient::connect(runDir_, &error);
        if (!client_ || !client_->subscribe()) fail("cannot follow the events of the device on " + root + ": " + error);
        thread_ = std::thread([this] { follow(); });
    }
    ~TraceSubscription() {
        stop_ = true;
        thread_.join();
    }

private:
    void follow() {
        while (!stop_) {
            if (client_) {
                if (auto line = client_->readLine(50)) {
                    file_.append(*line);
                    continue;
                }
                if (!client_->closed()) continue;
                client_.reset();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            client_ = device::HidHubClient::connect(runDir_, nullptr);
            if (client_ && !client_->subscribe()) client_.reset();
        }
        // What is still on its way when the play ends.
        while (client_) {
            auto line = client_->readLine(200);
            if (!line) break;
            file_.append(*line);
        }
    }

    std::string runDir_;
    device::TraceFile file_;
    std::unique_ptr<device::HidHubClient> client_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

bool sameContent(const fs::path& a, const fs::path& b) {
    const auto first = readWholeFile(a.string());
    return first && first == readWholeFile(b.string());
}

// The library path of the script to play: a library path as given, or a file on disk copied into
// the library root under its file name. Throws with a clear message when there is neither.
std::string resolveScript(const std::string& script) {
    std::error_code ec;
    if (!script.empty() && script.front() == '/' && fs::is_regular_file(FileManager::fullPathOfFile(script), ec) &&
        FileManager::isInsideLibrary(script))
        return script;
    if (!fs::is_regular_file(script, ec))
        fail("no script '" + script + "': not in the library (" + FileManager::rootPath() + ") nor a file on disk");

    const std::string name = fs::path(script).filename().string();
    const fs::path target = FileManager::fullPathOfFile("/" + name);
    if (fs::exists(target, ec)) {
        if (sameContent(script, target)) return "/" + name;
        diagnostic("replacing /%s in the library with %s", name.c_str(), script.c_str());
    }
    const auto bytes = readWholeFile(script);
    std::string error;
    if (!bytes) fail("cannot read " + script);
    if (!writeFileAtomically(target.string(), *bytes, &error)) fail("cannot import " + script + " into the library: " + error);
    return "/" + name;
}

bool isEncryptedScript(const std::string& path) {
    const std::string extension = fs::path(path).extension().string();
    return extension == ".e" || extension == ".E";
}

// The text of the encrypted script at library path `path`, decrypted with the password given, else
// with the one remembered for it (else the empty text). A password that works is remembered; a
// remembered one that no longer works is forgotten, as the play controller does. Throws with one
// line when the script cannot be decrypted.
std::string decryptForPlay(const std::string& path, const PlayRequest& options) {
    auto defaults = Platform::current().standardDefaults;
    const std::string key = Encrypt::passwordKeyOf(path);
    const std::string remembered = Encrypt::rememberedPassword(path);
    const std::string password = options.passwordGiven ? options.password : remembered;
    std::string text;
    const CryptError error = Encrypt::decryptScript(FileManager::fullPathOfFile(path), password, text);
    if (error != CryptError::none) {
        if (!options.passwordGiven && !remembered.empty() && defaults) defaults->removeObjectForKey(key);
        std::string hint;
        if (error == CryptError::hmacMismatch && !options.passwordGiven)
            hint = remembered.empty() ? " (give it with --password)" : " (the remembered password was forgotten)";
        fail("cannot decrypt " + path + ": " + describeCryptError(error) + hint);
    }
    if (defaults) defaults->setString(key, password);
    return text;
}

// The settings of this play: the script's stored play settings (their defaults for a script
// without a row), with what the command line gives on top.
std::shared_ptr<PlaySettings> playSettingsFor(const std::string& path, const PlayRequest& options) {
    auto settings = PlaySettingsManager::currentPlaySettingsFor(path);
    if (options.repeat) settings->repeatTime = *options.repeat;
    if (options.interval) settings->repeatInterval = *options.interval;
    if (options.speed) settings->playSpeed = *options.speed;
    settings->playType = 0;
    settings->playNowOrLater = 0;
    settings->showPlayingFinishedAlert = true;
    if (isEncryptedScript(path)) {
        settings->scriptContent = decryptForPlay(path, options);
        settings->playType = 1;
    }
    return settings;
}

}  // namespace

int playScript(const PlayRequest& options) {
    ProcessSetup setup;
    setup.root = options.root;
    const bool deviceUp = deviceRunning(setup.root);
    setup.profile = profileForCommand(setup.root, options.profile);
    auto console = std::make_shared<ConsoleUserInterface>();
    console->setInteractive(isatty(STDIN_FILENO) != 0);
    if (!options.answers.empty()) console->loadAnswers(options.answers);
    setup.ui = console;
    setup.sounds = std::make_shared<ConsoleSoundService>();

    std::optional<device::Picture> picture;
    if (!options.screen.empty()) picture = loadPictureFile(options.screen);

    // The input-event and app roles: the running device's, or ours for the length of the play.
    std::unique_ptr<Supervisor> helpers;
    std::unique_ptr<TraceSubscription> traceSubscription;
    if (!options.trace.empty()) startTraceFile(options.trace);
    if (!deviceUp) {
        removeLeftovers(setup.root);
        recordDeviceProfile(setup.root, setup.profile);
        helpers = std::make_unique<Supervisor>(
            linuxp::selfExecutable(),
            std::vector<std::string>{"--root", setup.root, "--profile", linuxp::profilePath(options.profile)});
        std::vector<std::string> inputArgs;
        if (!options.trace.empty()) inputArgs = {"--trace", fs::absolute(options.trace).string()};
        helpers->addRole(kInputEventBundleId, inputArgs);
        const std::string app = deviceAppBundleId(setup.profile);
        if (!app.empty()) helpers->addRole(app);
        if (!helpers->startAll() || !waitForDevice(setup.root, setup.profile, app, std::chrono::seconds(10)))
            diagnostic("the device's input-event role did not start; touches will be dropped");
    } else if (!options.trace.empty()) {
        traceSubscription = std::make_unique<TraceSubscription>(setup.root, options.trace);
    }

    if (picture) showPicture(setup.root, *picture);

    auto loop = installProcess(setup);
    installAppResources(setup.root);
    if (!FileManager::prepareDirectories()) fail("cannot create the library folders under " + setup.root);
    DataManager::initDb();
    auto settings = playSettingsFor(resolveScript(options.script), options);
    // This home screen takes the commands port for the length of the play, unless the device's
    // own home screen has it.
    auto commands = openCommandsPort(*Platform::current().ports, *loop);

    std::mutex errorMutex;
    std::string scriptError;
    ScriptManager::setErrorHandler([&](const std::string& message) {
        std::lock_guard lock(errorMutex);
        if (scriptError.empty()) scriptError = message;
    });
    ScriptManager::setPlayEndedHandler([&] { loop->stop(); });

    // The roles this play started are restarted when they die, as a device's are.
    std::shared_ptr<RunLoop::Timer> reaper;
    if (helpers)
        reaper = loop->scheduleTimer(RunLoop::Clock::now(), std::chrono::milliseconds(100),
                                     [&](RunLoop::Timer&) { helpers->reap(true); });

    // Ctrl-C, SIGTERM, SIGHUP and a reader that went away (SIGPIPE) stop the play as the stop
    // button would; when no play runs (it never started, or it is ending) they end the process's
    // loop at once. A second Ctrl-C, SIGTERM or SIGHUP leaves at once, taking the roles this play
    // started along; more SIGPIPEs from the output still on its way change nothing.
    asio::signal_set signals(loop->context(), SIGINT, SIGTERM, SIGHUP);
    signals.add(SIGPIPE);
    int interrupts = 0;
    bool stopping = false;
    std::function<void(const std::error_code&, int)> onSignal = [&](const std::error_code& ec, int signal) {
        if (ec) return;
        if (signal != SIGPIPE && ++interrupts > 1) {
            if (helpers) helpers->stopAll(std::chrono::milliseconds(500));
            std::_Exit(130);
        }
        if (!stopping && Global::sharedInstance().isPlaying()) {
            stopping = true;
            if (signal != SIGPIPE) diagnostic("stopping the play (again to quit at once)");
            ScriptManager::stopPlaying();
        } else if (!Global::sharedInstance().isPlaying()) {
            loop->stop();
        }
        signals.async_wait(onSignal);
    };
    signals.async_wait(onSignal);

    const uint64_t lostBefore = EventSimulate::lostRequests();
    auto& global = Global::sharedInstance();
    global.setCurrentPlaySettings(settings);
    loop->post(ScriptManager::runScript);
    loop->run();
    signals.cancel();
    if (reaper) reaper->invalidate();
    if (commands) commands->invalidate();
    ScriptManager::stopPlaying();
    ScriptManager::waitForWorkers();
    ScriptManager::setErrorHandler(nullptr);
    ScriptManager::setPlayEndedHandler(nullptr);
    traceSubscription.reset();
    if (helpers) helpers->stopAll();

    if (const uint64_t lost = EventSimulate::lostRequests() - lostBefore)
        diagnostic("%llu requests to the input-event role were lost while it was down",
                   static_cast<unsigned long long>(lost));
    std::lock_guard lock(errorMutex);
    if (!scriptError.empty()) {
        diagnostic("script error: %s", scriptError.c_str());
        return 1;
    }
    return 0;
}

}  // namespace tw::roles
