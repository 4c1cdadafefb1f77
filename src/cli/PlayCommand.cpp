// tapwright play: plays one script in the home-screen role, in the foreground.
#include <csignal>
#include <unistd.h>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <asio/signal_set.hpp>

#include <thread>

#include "api/Registry.h"
#include "cli/Commands.h"
#include "play/LuaBridge.h"
#include "cli/DeviceAccess.h"
#include "core/Global.h"
#include "store/PlaySettings.h"
#include "device/EventTrace.h"
#include "device/HidHubClient.h"
#include "device/RoleProcess.h"
#include "device/Supervisor.h"
#include "roles/RoleSelection.h"
#include "core/Paths.h"
#include "library/Encrypt.h"
#include "library/FileManager.h"
#include "platform/UserDefaults.h"
#include "platform/linux/LinuxPlatform.h"
#include "play/ScriptManager.h"
#include "ui/ConsoleUserInterface.h"

namespace fs = std::filesystem;

namespace tw::cli {

namespace {

struct PlayOptions {
    std::string script;
    int64_t repeat = 1;
    int64_t interval = 1;
    float speed = 1.0f;
    std::string password;  // for an encrypted script (".e")
    bool passwordGiven = false;
    std::string profile = "default";
    std::string trace;
    std::string screen;
    std::string answers;
};

// Copies a running device's events into a trace file while the play lasts, following the device's
// input-event role through restarts.
class TraceSubscription {
public:
    TraceSubscription(const std::string& root, const std::string& path) : runDir_(device::runDir(root)), file_(path) {
        std::string error;
        client_ = device::HidHubClient::connect(runDir_, &error);
        if (!client_ || !client_->subscribe())
            throw std::runtime_error("cannot follow the events of the device on " + root + ": " + error);
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
    std::error_code ec;
    if (fs::file_size(a, ec) != fs::file_size(b, ec) || ec) return false;
    std::ifstream fa(a, std::ios::binary), fb(b, std::ios::binary);
    return std::equal(std::istreambuf_iterator<char>(fa), std::istreambuf_iterator<char>(),
                      std::istreambuf_iterator<char>(fb));
}

// The library path of the script to play: a library path as given, or a file on disk copied into
// the library root under its file name. Throws with a clear message when there is neither.
std::string resolveScript(const std::string& script) {
    std::error_code ec;
    if (!script.empty() && script.front() == '/' && fs::is_regular_file(FileManager::fullPathOfFile(script), ec))
        return script;
    if (!fs::is_regular_file(script, ec))
        throw std::runtime_error("no script '" + script + "': not in the library (" + FileManager::rootPath() +
                                 ") nor a file on disk");

    const std::string name = fs::path(script).filename().string();
    const fs::path target = FileManager::fullPathOfFile("/" + name);
    if (fs::exists(target, ec)) {
        if (sameContent(script, target)) return "/" + name;
        std::fprintf(stderr, "tapwright: replacing /%s in the library with %s\n", name.c_str(), script.c_str());
    }
    const fs::path temp = target.string() + ".importing";
    fs::copy_file(script, temp, fs::copy_options::overwrite_existing, ec);
    if (!ec) fs::rename(temp, target, ec);
    if (ec) throw std::runtime_error("cannot import " + script + " into the library: " + ec.message());
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
std::string decryptForPlay(const std::string& path, const PlayOptions& options) {
    auto defaults = Platform::current().standardDefaults;
    const std::string key = Encrypt::passwordKeyOf(path);
    const std::string remembered = defaults ? defaults->stringForKey(key).value_or("") : "";
    const std::string password = options.passwordGiven ? options.password : remembered;
    std::string text;
    const CryptError error = Encrypt::decryptScript(FileManager::fullPathOfFile(path), password, text);
    if (error != CryptError::none) {
        if (!options.passwordGiven && !remembered.empty() && defaults) defaults->removeObjectForKey(key);
        std::string hint;
        if (error == CryptError::hmacMismatch && !options.passwordGiven)
            hint = remembered.empty() ? " (give it with --password)" : " (the remembered password was forgotten)";
        throw std::runtime_error("cannot decrypt " + path + ": " + describeCryptError(error) + hint);
    }
    if (defaults) defaults->setString(key, password);
    return text;
}

int play(const CommonOptions& common, const PlayOptions& options) {
    linuxp::ProcessSetup setup;
    setup.root = deviceRoot(common);
    setup.profile = linuxp::loadDeviceProfile(linuxp::profilePath(options.profile));
    auto console = std::make_shared<ConsoleUserInterface>();
    console->setInteractive(isatty(STDIN_FILENO) != 0);
    if (!options.answers.empty()) console->loadAnswers(options.answers);
    setup.ui = console;
    setup.sounds = std::make_shared<ConsoleSoundService>();

    std::optional<device::Picture> picture;
    if (!options.screen.empty()) picture = device::loadPicture(options.screen);

    // The input-event and app roles: the running device's, or ours for the length of the play.
    std::unique_ptr<device::Supervisor> helpers;
    std::unique_ptr<TraceSubscription> traceSubscription;
    if (!options.trace.empty()) startTraceFile(options.trace);
    if (!deviceRunning(setup.root)) {
        helpers = std::make_unique<device::Supervisor>(
            device::selfExecutable(),
            std::vector<std::string>{"--root", setup.root, "--profile", linuxp::profilePath(options.profile)});
        std::vector<std::string> inputArgs;
        if (!options.trace.empty()) inputArgs = {"--trace", fs::absolute(options.trace).string()};
        helpers->addRole(kInputEventBundleId, inputArgs);
        const std::string app = deviceAppBundleId(setup.profile);
        if (!app.empty()) helpers->addRole(app);
        if (!helpers->startAll() || !waitForDevice(setup.root, setup.profile, app, std::chrono::seconds(10)))
            std::fprintf(stderr, "tapwright: the device's input-event role did not start; touches will be dropped\n");
    } else if (!options.trace.empty()) {
        traceSubscription = std::make_unique<TraceSubscription>(setup.root, options.trace);
    }

    if (picture) showPicture(setup.root, *picture);

    auto loop = linuxp::installProcess(setup);
    LuaBridge::setFunctionRegistrar(registerFunctions);

    std::string error;
    if (!linuxp::installAppResources(setup.root, &error)) throw std::runtime_error(error);
    if (!FileManager::prepareDirectories())
        throw std::runtime_error("cannot create the library folders under " + setup.root);

    auto settings = std::make_shared<PlaySettings>();
    settings->filePath = resolveScript(options.script);
    settings->repeatTime = options.repeat;
    settings->repeatInterval = options.interval;
    settings->playSpeed = options.speed;
    settings->playType = 0;
    settings->playNowOrLater = 0;
    settings->showPlayingFinishedAlert = true;
    if (isEncryptedScript(settings->filePath)) {
        settings->scriptContent = decryptForPlay(settings->filePath, options);
        settings->playType = 1;
    }

    std::mutex errorMutex;
    std::string scriptError;
    ScriptManager::setErrorHandler([&](const std::string& message) {
        std::lock_guard lock(errorMutex);
        if (scriptError.empty()) scriptError = message;
    });
    ScriptManager::setPlayEndedHandler([&] { loop->stop(); });

    // Ctrl-C stops the play as the stop button would; a second one leaves at once.
    asio::signal_set signals(loop->context(), SIGINT, SIGTERM);
    int interrupts = 0;
    std::function<void(const std::error_code&, int)> onSignal = [&](const std::error_code& ec, int) {
        if (ec) return;
        if (++interrupts > 1) std::_Exit(130);
        std::fprintf(stderr, "tapwright: stopping the play (again to quit at once)\n");
        ScriptManager::stopPlaying();
        signals.async_wait(onSignal);
    };
    signals.async_wait(onSignal);

    auto& global = Global::sharedInstance();
    global.setCurrentPlaySettings(settings);
    loop->post(ScriptManager::runScript);
    loop->run();
    signals.cancel();
    ScriptManager::waitForWorkers();
    ScriptManager::setErrorHandler(nullptr);
    ScriptManager::setPlayEndedHandler(nullptr);
    traceSubscription.reset();
    if (helpers) helpers->stopAll();

    std::lock_guard lock(errorMutex);
    if (!scriptError.empty()) {
        std::fprintf(stderr, "tapwright: script error: %s\n", scriptError.c_str());
        return 1;
    }
    return 0;
}

}  // namespace

Command addPlayCommand(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<PlayOptions>();
    auto* sub = app.add_subcommand("play", "Play a Lua script on the device (in the foreground)");
    sub->footer(
        "SCRIPT is a library path (/name.lua, relative to the device's script library) or a file on disk,\n"
        "which is copied into the library root under its file name first.\n"
        "Script output (print) goes to stdout, alerts to stderr. Ctrl-C stops the play.\n"
        "Uses the device running on the root (tapwright device), or starts its input-event and app roles\n"
        "for the length of the play.\n"
        "Exit status: 0 when the play ended without a script error (a stop is not an error), 1 otherwise.");
    sub->add_option("script", options->script, "Script to play: library path or file")->required();
    sub->add_option("--root", common.root, "Device root folder (default: $XDG_DATA_HOME/tapwright/devices/default)");
    sub->add_option("--repeat", options->repeat, "Runs per play; 0 repeats until stopped")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    sub->add_option("--interval", options->interval, "Whole seconds between two runs")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    sub->add_option("--speed", options->speed, "Play speed: waits are scaled by 2.0 - speed")
        ->check(CLI::Range(0.0, 2.0))
        ->capture_default_str();
    sub->add_option("--profile", options->profile, "Device profile: a name in resources/devices or a JSON file")
        ->capture_default_str();
    sub->add_option("--trace", options->trace, "Write the device's events (JSON Lines) to FILE, emptied first");
    sub->add_option("--password", options->password,
                    "Password of an encrypted script (.e); remembered for it once it works, so later plays "
                    "need it no more")
        ->each([options](const std::string&) { options->passwordGiven = true; });
    sub->add_option("--answers", options->answers,
                    "Answer the script's dialogs from FILE: a JSON array, one object per dialog "
                    "({\"key\": value, ...} or {\"cancel\": true})")
        ->check(CLI::ExistingFile);
    sub->add_option("--screen", options->screen, "Show this picture (BMP or PNG) on the device's display first")
        ->check(CLI::ExistingFile);
    return {sub, [&common, options] { return play(common, *options); }};
}

}  // namespace tw::cli
