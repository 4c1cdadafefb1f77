#include "roles/Supervisor.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <thread>

#include "core/Diagnostics.h"
#include "device/DeviceApps.h"

namespace tw::roles {

Supervisor::Supervisor(std::string executable, std::vector<std::string> commonArgs)
    : executable_(std::move(executable)), commonArgs_(std::move(commonArgs)) {
    for (size_t i = 0; i + 1 < commonArgs_.size(); ++i)
        if (commonArgs_[i] == "--root") root_ = commonArgs_[i + 1];
}

Supervisor::~Supervisor() { stopAll(); }

void Supervisor::addRole(const std::string& bundleId, std::vector<std::string> extraArgs) {
    roles_.push_back(Role{bundleId, std::move(extraArgs)});
}

bool Supervisor::start(Role& role) {
    std::vector<std::string> args = {executable_, "role", role.bundleId};
    args.insert(args.end(), commonArgs_.begin(), commonArgs_.end());
    args.insert(args.end(), role.extraArgs.begin(), role.extraArgs.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        diagnostic("cannot start role %s: %s", role.bundleId.c_str(), std::strerror(errno));
        return false;
    }
    if (pid == 0) {
        // The role starts with default signal handling, whatever the supervisor blocks.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        // A role ends with whoever started it, however that one ends (killed, or a play whose
        // output pipe closed): the kernel sends it SIGTERM when its parent goes.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(0);
        execv(argv[0], argv.data());
        // Only async-signal-safe calls between fork and exec: the supervisor has other threads.
        static const char kCannotRun[] = "tapwright: cannot run the role executable\n";
        [[maybe_unused]] ssize_t ignored = ::write(STDERR_FILENO, kCannotRun, sizeof kCannotRun - 1);
        _exit(127);
    }
    role.pid = pid;
    return true;
}

bool Supervisor::startAll() {
    bool ok = true;
    for (auto& role : roles_)
        if (role.pid <= 0 && !role.givenUp) ok = start(role) && ok;
    return ok;
}

std::vector<std::string> Supervisor::reap(bool restart) {
    std::vector<std::string> exited;
    for (auto& role : roles_) {
        if (role.pid <= 0) continue;
        int status = 0;
        const pid_t r = waitpid(role.pid, &status, WNOHANG);
        if (r != role.pid) continue;
        role.pid = -1;
        exited.push_back(role.bundleId);
        if (!restart) continue;

        const bool endedOnPurpose =
            (WIFEXITED(status) && WEXITSTATUS(status) == 0) ||
            (WIFSIGNALED(status) && (WTERMSIG(status) == SIGTERM || WTERMSIG(status) == SIGINT));
        if (endedOnPurpose) {
            diagnostic("role %s ended; it stays down", role.bundleId.c_str());
            continue;
        }

        const auto now = std::chrono::steady_clock::now();
        role.deaths.push_back(now);
        while (!role.deaths.empty() && now - role.deaths.front() > std::chrono::seconds(10)) role.deaths.pop_front();
        if (role.deaths.size() >= 5) {
            role.givenUp = true;
            diagnostic("role %s keeps dying; not restarting it", role.bundleId.c_str());
            continue;
        }
        if (WIFSIGNALED(status))
            diagnostic("role %s was killed by signal %d; restarting it", role.bundleId.c_str(), WTERMSIG(status));
        else
            diagnostic("role %s exited with status %d; restarting it", role.bundleId.c_str(), WEXITSTATUS(status));
        start(role);
    }
    return exited;
}

void Supervisor::stopAll(std::chrono::milliseconds grace) {
    for (auto& role : roles_)
        if (role.pid > 0) kill(role.pid, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + grace;
    for (auto& role : roles_) {
        while (role.pid > 0) {
            int status = 0;
            const pid_t r = waitpid(role.pid, &status, WNOHANG);
            if (r == role.pid || (r < 0 && errno == ECHILD)) {
                role.pid = -1;
                break;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                kill(role.pid, SIGKILL);
                waitpid(role.pid, &status, 0);
                role.pid = -1;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    if (!root_.empty()) device::stopRunningApps(root_, grace);
}

pid_t Supervisor::pidOf(const std::string& bundleId) const {
    for (const auto& role : roles_)
        if (role.bundleId == bundleId) return role.pid;
    return -1;
}

bool Supervisor::allRunning() const {
    for (const auto& role : roles_)
        if (role.pid <= 0) return false;
    return true;
}

}  // namespace tw::roles
