#pragma once
// The end-to-end tests' way of running the tapwright executable: every Cli has a device root and a
// work folder of its own (never the user's default root), runs commands and plays on that root,
// starts a device there when asked and reads its event trace.
#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace tw::test {

// The JSON lines of `text`; only those whose "kind" is `kind` unless it is empty.
std::vector<nlohmann::json> jsonLines(const std::string& text, const std::string& kind = "");

class Cli {
public:
    const std::filesystem::path& root() const { return root_.path(); }
    // A path in the work folder; the second form writes `content` there first.
    std::filesystem::path file(const std::string& name) const { return work_.path() / name; }
    std::string file(const std::string& name, const std::string& content) const;

    // `tapwright ARGS... --root ROOT`, waited for, with `input` on its standard input.
    ProcessResult run(std::vector<std::string> args, const std::string& input = "") const;
    // The same, running beside the test until it ends or the object goes away.
    std::unique_ptr<BackgroundProcess> start(std::vector<std::string> args) const;
    // Plays `lua` saved as script.lua. Without a running device the play's own roles trace to
    // trace(); with one, the device does.
    ProcessResult play(const std::string& lua, std::vector<std::string> extra = {}) const;

    // `tapwright device --trace TRACE EXTRA...` on the root; false when it did not say it is ready
    // in time.
    bool startDevice(std::vector<std::string> extra = {});
    BackgroundProcess& device() { return *device_; }
    // `tapwright events` on the root once it prints: volume-up is pressed until its line shows.
    // Null when it did not show in time.
    std::unique_ptr<BackgroundProcess> startEvents() const;

    std::filesystem::path trace() const { return file("trace.jsonl"); }
    std::vector<nlohmann::json> traceLines(const std::string& kind = "") const;
    // The trace's hand events in short, "real 7 at 0.4,0.5 mask 3 touch 1" for a person's finger
    // ("script ..." for an injected one), "N fingers" for a hand of several.
    std::vector<std::string> touches() const;
    // Pids of the role processes on this root (of `bundleId` when given).
    std::vector<pid_t> roles(const std::string& bundleId = "") const;

private:
    TempDir root_{"tw.e2e.root"};  // dotted: nothing above the device root may count
    TempDir work_{"tw-e2e"};
    std::unique_ptr<BackgroundProcess> device_;  // stopped before the folders go
};

}  // namespace tw::test
