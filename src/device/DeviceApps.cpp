#include "device/DeviceApps.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "core/AtomicFile.h"
#include "device/EventTrace.h"

namespace fs = std::filesystem;

namespace tw::device {

namespace {

struct PidFileEntry {
    int pid = 0;
    uint64_t startTime = 0;
};

std::optional<PidFileEntry> readPidFile(const std::string& path) {
    const auto text = readWholeFile(path);
    if (!text) return std::nullopt;
    std::istringstream in(*text);
    PidFileEntry entry;
    if (!(in >> entry.pid >> entry.startTime) || entry.pid < 1) return std::nullopt;
    return entry;
}

bool isAlive(const PidFileEntry& entry) {
    const auto start = processStartTime(entry.pid);
    return start && *start == entry.startTime;
}

std::string pidFileText(int pid, uint64_t startTime) {
    return std::to_string(pid) + " " + std::to_string(startTime) + "\n";
}

// Holds an exclusive lock on a file for its lifetime, so that two processes launching the same app
// at once start it only once.
void closeDescriptorsFrom(int first) {
#ifdef SYS_close_range
    if (::syscall(SYS_close_range, static_cast<unsigned>(first), ~0U, 0) == 0) return;
#endif
    for (int fd = first; fd < 1024; ++fd) ::close(fd);
}

// Starts `args` in a session of its own, as a grandchild that init (or the nearest subreaper)
// adopts, so that it outlives this process and never stays a zombie of it. Standard input reads
// /dev/null, output goes to `logPath`. Returns its pid, or -1. Between fork and exec only
// async-signal-safe calls are made: the launcher has other threads.
int spawnDetached(const std::vector<std::string>& args, const std::string& logPath) {
    std::vector<std::string> copies = args;
    std::vector<char*> argv;
    for (auto& a : copies) argv.push_back(a.data());
    argv.push_back(nullptr);

    int channel[2];
    if (::pipe2(channel, O_CLOEXEC) != 0) return -1;
    // The children start with every signal blocked: until exec they still have this process's
    // handlers, and a handler that ran there (a termination request right after the launch, say)
    // would act on this process's behalf, through descriptors the children share with it.
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    const pid_t child = ::fork();
    if (child < 0) {
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        ::close(channel[0]);
        ::close(channel[1]);
        return -1;
    }
    if (child == 0) {
        ::setsid();
        const pid_t grandchild = ::fork();
        if (grandchild == 0) {
            struct sigaction standard {};
            standard.sa_handler = SIG_DFL;
            for (int s = 1; s < NSIG; ++s)
                if (s != SIGKILL && s != SIGSTOP) sigaction(s, &standard, nullptr);
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            const int in = ::open("/dev/null", O_RDONLY);
            if (in >= 0) ::dup2(in, 0);
            int out = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (out < 0) out = ::open("/dev/null", O_WRONLY);
            if (out >= 0) {
                ::dup2(out, 1);
                ::dup2(out, 2);
            }
            closeDescriptorsFrom(3);
            ::execv(argv[0], argv.data());
            _exit(127);
        }
        const int32_t reported = grandchild > 0 ? grandchild : -1;
        [[maybe_unused]] ssize_t n = ::write(channel[1], &reported, sizeof reported);
        _exit(0);
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    ::close(channel[1]);
    int32_t pid = -1;
    size_t got = 0;
    auto* bytes = reinterpret_cast<char*>(&pid);
    while (got < sizeof pid) {
        const ssize_t n = ::read(channel[0], bytes + got, sizeof pid - got);
        if (n > 0) {
            got += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            break;
        }
    }
    ::close(channel[0]);
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    return got == sizeof pid ? pid : -1;
}

}  // namespace

std::string appsRunDir(const std::string& root) { return root + kAppsRunPath; }

std::string appPidFile(const std::string& root, const std::string& bundleId) {
    if (bundleId.empty() || bundleId == "." || bundleId == ".." ||
        bundleId.find_first_of(std::string("/\0", 2)) != std::string::npos)
        return "";
    return appsRunDir(root) + "/" + bundleId + ".pid";
}

std::optional<uint64_t> processStartTime(int pid) {
    if (pid < 1) return std::nullopt;
    const auto stat = readWholeFile("/proc/" + std::to_string(pid) + "/stat");
    if (!stat) return std::nullopt;
    // "pid (command) state ppid ..."; the command may hold blanks and parentheses, so the fields
    // are counted from the last ')'. The state is field 3, the start time field 22.
    const size_t close = stat->rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::istringstream fields(stat->substr(close + 1));
    std::string state;
    if (!(fields >> state) || state == "Z" || state == "X" || state == "x") return std::nullopt;
    std::string skipped;
    for (int field = 4; field < 22; ++field)
        if (!(fields >> skipped)) return std::nullopt;
    uint64_t start = 0;
    if (!(fields >> start)) return std::nullopt;
    return start;
}

int runningAppPid(const std::string& root, const std::string& bundleId) {
    const std::string path = appPidFile(root, bundleId);
    if (path.empty()) return 0;
    const auto entry = readPidFile(path);
    return entry && isAlive(*entry) ? entry->pid : 0;
}

RunningAppMarker::RunningAppMarker(const std::string& root, const std::string& bundleId)
    : path_(appPidFile(root, bundleId)) {
    const auto start = processStartTime(static_cast<int>(::getpid()));
    if (path_.empty() || !start) {
        path_.clear();
        return;
    }
    std::error_code ec;
    fs::create_directories(fs::path(path_).parent_path(), ec);
    writeFileAtomically(path_, pidFileText(static_cast<int>(::getpid()), *start));
}

RunningAppMarker::~RunningAppMarker() {
    if (path_.empty()) return;
    const auto entry = readPidFile(path_);
    if (entry && entry->pid == static_cast<int>(::getpid())) ::unlink(path_.c_str());
}

std::vector<std::string> stopRunningApps(const std::string& root, std::chrono::milliseconds grace) {
    struct Running {
        std::string bundleId;
        std::string path;
        PidFileEntry entry;
    };
    std::vector<Running> running;
    std::vector<std::string> stale;
    std::error_code ec;
    for (auto it = fs::directory_iterator(appsRunDir(root), ec); !ec && it != fs::directory_iterator();
         it.increment(ec)) {
        const fs::path& path = it->path();
        if (path.extension() != ".pid") continue;
        const auto entry = readPidFile(path.string());
        if (entry && isAlive(*entry))
            running.push_back({path.stem().string(), path.string(), *entry});
        else
            stale.push_back(path.string());
    }
    for (const auto& app : running) ::kill(app.entry.pid, SIGTERM);

    const auto deadline = std::chrono::steady_clock::now() + grace;
    for (const auto& app : running) {
        while (isAlive(app.entry)) {
            if (std::chrono::steady_clock::now() >= deadline) {
                ::kill(app.entry.pid, SIGKILL);
                // Not our child: its parent reaps it. Wait until it is gone or a zombie.
                const auto killDeadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
                while (isAlive(app.entry) && std::chrono::steady_clock::now() < killDeadline)
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        // The role removes its file when it ends cleanly; one it could not remove goes now, unless a
        // new process of the app has written it meanwhile.
        const auto now = readPidFile(app.path);
        if (now && now->pid == app.entry.pid && now->startTime == app.entry.startTime) ::unlink(app.path.c_str());
    }
    for (const auto& path : stale) {
        const auto now = readPidFile(path);
        if (!now || !isAlive(*now)) ::unlink(path.c_str());
    }
    std::vector<std::string> ids;
    for (const auto& app : running) ids.push_back(app.bundleId);
    return ids;
}

std::string deviceProfileJson(const linuxp::DeviceProfile& profile) {
    nlohmann::ordered_json json;
    // Texts the reader refuses when empty are left out; it takes its defaults for them.
    if (!profile.name.empty()) json["name"] = profile.name;
    if (!profile.systemVersion.empty()) json["systemVersion"] = profile.systemVersion;
    json["coreFoundationVersionNumber"] = profile.coreFoundationVersionNumber;
    json["screen"] = {{"width", profile.screenWidth}, {"height", profile.screenHeight}, {"scale", profile.scale}};
    json["orientation"] = profile.orientation;
    if (!profile.serialNumber.empty()) json["serialNumber"] = profile.serialNumber;
    if (!profile.languages.empty()) json["languages"] = profile.languages;
    json["apps"] = nlohmann::ordered_json::array();
    for (const auto& app : profile.apps)
        json["apps"].push_back({{"bundleId", app.bundleId}, {"name", app.name}, {"version", app.version}});
    return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

DeviceApps::DeviceApps(std::string root, linuxp::DeviceProfile profile, std::string executable,
                       std::function<void(const std::string&)> publish)
    : root_(std::move(root)),
      profile_(std::move(profile)),
      executable_(std::move(executable)),
      publish_(std::move(publish)) {}

bool DeviceApps::isProfileApp(const std::string& bundleId) const {
    if (appPidFile(root_, bundleId).empty()) return false;
    for (const auto& app : profile_.apps)
        if (app.bundleId == bundleId) return true;
    return false;
}

bool DeviceApps::launchApplication(const std::string& bundleIdentifier, bool suspended) {
    if (!isProfileApp(bundleIdentifier)) return false;
    const std::string dir = appsRunDir(root_);
    std::error_code ec;
    fs::create_directories(dir, ec);
    FileLock lock(dir + "/.launch.lock");
    const bool launched = runningAppPid(root_, bundleIdentifier) > 0 || spawnApp(bundleIdentifier);
    if (launched && !suspended) bringToFront(bundleIdentifier);
    return launched;
}

bool DeviceApps::spawnApp(const std::string& bundleIdentifier) {
    const std::string dir = appsRunDir(root_);
    const std::string profileFile = dir + "/profile.json";
    if (!writeFileAtomically(profileFile, deviceProfileJson(profile_))) return false;
    const int pid = spawnDetached({executable_, "role", bundleIdentifier, "--root", root_, "--profile", profileFile},
                                  dir + "/" + bundleIdentifier + ".log");
    if (pid < 1) return false;
    const auto start = processStartTime(pid);
    if (!start) return false;  // it ended at once (the executable could not run)
    return writeFileAtomically(appPidFile(root_, bundleIdentifier), pidFileText(pid, *start));
}

std::optional<ApplicationRecord> DeviceApps::lookUp(const std::string& bundleId) const {
    if (!isProfileApp(bundleId)) return std::nullopt;
    ApplicationRecord record;
    record.bundleIdentifier = bundleId;
    record.pid = runningAppPid(root_, bundleId);
    record.activationState = record.pid > 0 ? kAppStateRunning : kAppStateNotRunning;
    return record;
}

std::optional<ApplicationRecord> DeviceApps::applicationWithDisplayIdentifier(const std::string& identifier) {
    return lookUp(identifier);
}

std::optional<ApplicationRecord> DeviceApps::applicationWithBundleIdentifier(const std::string& identifier) {
    return lookUp(identifier);
}

void DeviceApps::sendSignal(int pid, int signal) {
    if (pid < 1) return;
    ::kill(pid, signal);
}

std::vector<AppRecord> DeviceApps::installedApps() {
    std::vector<AppRecord> apps;
    for (const auto& app : profile_.apps)
        apps.push_back({{"CFBundleIdentifier", app.bundleId},
                        {"CFBundleDisplayName", app.name},
                        {"CFBundleVersion", app.version},
                        {"ApplicationType", "User"}});
    return apps;
}

namespace {
std::string frontFile(const std::string& root) { return appsRunDir(root) + "/front"; }
}  // namespace

void DeviceApps::bringToFront(const std::string& bundleIdentifier) {
    std::error_code ec;
    fs::create_directories(appsRunDir(root_), ec);
    writeFileAtomically(frontFile(root_), bundleIdentifier);
}

std::optional<std::string> DeviceApps::frontmostApplication() {
    const auto front = readWholeFile(frontFile(root_));
    // An app in front that no longer runs has left the home screen behind.
    if (!front || front->empty() || !isProfileApp(*front) || runningAppPid(root_, *front) == 0) return std::nullopt;
    return *front;
}

bool DeviceApps::activateApplication(const std::string& bundleIdentifier) {
    return launchApplication(bundleIdentifier, false);
}

void DeviceApps::openURL(const std::string& url) {
    if (!publish_) return;
    auto line = newTraceLine("openURL");
    line["url"] = url;
    publish_(dumpTraceLine(line));
}

}  // namespace tw::device
