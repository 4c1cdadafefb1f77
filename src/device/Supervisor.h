#pragma once
// Starts the role processes of a device, restarts the ones that die, and stops them all.
#include <sys/types.h>

#include <chrono>
#include <deque>
#include <string>
#include <vector>

namespace tw::device {

class Supervisor {
public:
    // Each role runs as `executable role BUNDLE_ID <commonArgs...>`.
    Supervisor(std::string executable, std::vector<std::string> commonArgs);
    ~Supervisor();

    void addRole(const std::string& bundleId, std::vector<std::string> extraArgs = {});
    // Starts every role that is not running; returns false when one could not be started.
    bool startAll();
    // Collects roles that exited. With `restart`, starts them again, except a role that died five
    // times within ten seconds, which is given up (reported on stderr). Returns the bundle ids that
    // exited.
    std::vector<std::string> reap(bool restart);
    // SIGTERM to every role, then SIGKILL to those still running after `grace`.
    void stopAll(std::chrono::milliseconds grace = std::chrono::milliseconds(3000));

    pid_t pidOf(const std::string& bundleId) const;
    bool allRunning() const;

private:
    struct Role {
        std::string bundleId;
        std::vector<std::string> extraArgs;
        pid_t pid = -1;
        bool givenUp = false;
        std::deque<std::chrono::steady_clock::time_point> deaths;
    };
    bool start(Role& role);

    std::string executable_;
    std::vector<std::string> commonArgs_;
    std::vector<Role> roles_;
};

// The path of the running executable.
std::string selfExecutable();

}  // namespace tw::device
