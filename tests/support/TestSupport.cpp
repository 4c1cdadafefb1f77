#include "TestSupport.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <thread>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace tw::test {

TempDir::TempDir(const std::string& prefix) {
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::string withoutTime(const std::string& line) {
    const size_t at = line.find(",\"time\":");
    if (at == std::string::npos) return line;
    size_t end = at + 8;
    while (end < line.size() && std::isdigit(static_cast<unsigned char>(line[end]))) ++end;
    return end > at + 8 ? line.substr(0, at) + line.substr(end) : line;
}

void writeFile(const std::filesystem::path& path, const std::string& content) {
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

ProcessResult runProcess(const std::vector<std::string>& args, int timeoutSeconds, const std::string& input) {
    BackgroundProcess process(args, input);
    ProcessResult result;
    result.exitCode = process.wait(timeoutSeconds);
    if (result.exitCode < 0) result.exitCode = process.stop(SIGKILL);
    result.out = process.out();
    result.err = process.err();
    return result;
}

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& args, const std::string& input) {
    const std::string in = (outputDir_.path() / "in").string();
    writeFile(in, input);
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const std::string out = (outputDir_.path() / "out").string();
    const std::string err = (outputDir_.path() / "err").string();
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        dup2(open(in.c_str(), O_RDONLY), 0);
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
        execvp(argv[0], argv.data());
        _exit(127);
    }
}

BackgroundProcess::~BackgroundProcess() {
    if (exitCode_ < 0 && pid_ > 0) stop();
}

int BackgroundProcess::wait(int timeoutSeconds) {
    if (exitCode_ >= 0) return exitCode_;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return exitCode_;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
}

int BackgroundProcess::stop(int signal) {
    if (exitCode_ >= 0) return exitCode_;
    kill(pid_, signal);
    if (wait(10) < 0) {
        kill(pid_, SIGKILL);
        int status = 0;
        waitpid(pid_, &status, 0);
        exitCode_ = 128 + SIGKILL;
    }
    return exitCode_;
}

std::string BackgroundProcess::out() const { return readFile(outputDir_.path() / "out"); }
std::string BackgroundProcess::err() const { return readFile(outputDir_.path() / "err"); }

std::vector<pid_t> findProcesses(const std::vector<std::string>& parts) {
    std::vector<pid_t> pids;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::string cmdline = readFile(entry.path() / "cmdline");
        for (auto& c : cmdline)
            if (c == '\0') c = ' ';
        bool all = !cmdline.empty();
        for (const auto& part : parts) all = all && cmdline.find(part) != std::string::npos;
        if (all) pids.push_back(static_cast<pid_t>(std::stol(name)));
    }
    return pids;
}

bool eventually(const std::function<bool()>& condition, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace tw::test
