#pragma once
// Small helpers shared by the test suites: temporary device roots and file access.
#include <filesystem>
#include <string>

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

}  // namespace tw::test

#include <vector>

namespace tw::test {

struct ProcessResult {
    int exitCode = -1;  // 128 + signal when killed by a signal
    std::string out;
    std::string err;
};

// Runs `args` (args[0] is the program) with `env` added to the environment, standard input
// closed, and waits for it, at most `timeoutSeconds` (then it is killed).
ProcessResult runProcess(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                         int timeoutSeconds = 30);

}  // namespace tw::test
