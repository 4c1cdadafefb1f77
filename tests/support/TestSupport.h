#pragma once
// Small helpers shared by the test suites: temporary folders, files, processes, waiting.
#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace tw::test {

// A fresh temporary folder, removed with everything in it when the object goes away.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "tw-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string str() const { return path_.string(); }

private:
    std::filesystem::path path_;
};

std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const std::string& content);
// A trace line with its "time" field (a whole number, the first field after "kind") taken out, so
// that tests can compare the rest exactly; the line unchanged when it has none.
std::string withoutTime(const std::string& line);

struct ProcessResult {
    int exitCode = -1;  // 128 + signal when killed by a signal
    std::string out;
    std::string err;
};

// Runs `args` (args[0] is the program, looked up in PATH when it has no "/") with standard input
// closed, and waits for it, at most `timeoutSeconds` (then it is killed).
ProcessResult runProcess(const std::vector<std::string>& args, int timeoutSeconds = 30, const std::string& input = "");

// A process running beside the test, its output going to files; stopped with SIGTERM when the
// object goes away.
class BackgroundProcess {
public:
    // Standard input reads `input` (nothing when empty).
    explicit BackgroundProcess(const std::vector<std::string>& args, const std::string& input = "");
    ~BackgroundProcess();
    pid_t pid() const { return pid_; }
    // SIGTERM (or `signal`), then waits up to 10 s; returns the exit code (128 + signal if killed).
    int stop(int signal = 15);
    // Waits for the process to end by itself, up to `timeoutSeconds`; -1 when it did not.
    int wait(int timeoutSeconds);
    std::string out() const;
    std::string err() const;

private:
    pid_t pid_ = -1;
    int exitCode_ = -1;
    TempDir outputDir_{"tw-proc"};
};

// Pids of processes whose command line holds every one of `parts`.
std::vector<pid_t> findProcesses(const std::vector<std::string>& parts);

// Polls `condition` every 2 ms until it holds or `timeoutMs` passed; returns whether it held.
// The time-out is a bound for a slow machine, never the expected wait.
bool eventually(const std::function<bool()>& condition, int timeoutMs = 5000);

}  // namespace tw::test
