#include "Cli.h"

#include <sstream>

// Only the end-to-end build has the executable.
#ifdef TW_BINARY
namespace tw::test {

std::vector<nlohmann::json> jsonLines(const std::string& text, const std::string& kind) {
    std::vector<nlohmann::json> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty()) continue;
        auto value = nlohmann::json::parse(line);
        if (kind.empty() || value.value("kind", "") == kind) lines.push_back(std::move(value));
    }
    return lines;
}

std::string Cli::file(const std::string& name, const std::string& content) const {
    writeFile(file(name), content);
    return file(name).string();
}

static std::vector<std::string> command(std::vector<std::string> args, const std::string& root) {
    args.insert(args.begin(), TW_BINARY);
    args.push_back("--root");
    args.push_back(root);
    return args;
}

ProcessResult Cli::run(std::vector<std::string> args, const std::string& input) const {
    return runProcess(command(std::move(args), root_.str()), 30, input);
}

std::unique_ptr<BackgroundProcess> Cli::start(std::vector<std::string> args) const {
    return std::make_unique<BackgroundProcess>(command(std::move(args), root_.str()));
}

ProcessResult Cli::play(const std::string& lua, std::vector<std::string> extra) const {
    std::vector<std::string> args = {"play", file("script.lua", lua)};
    if (!device_) extra.insert(extra.end(), {"--trace", trace().string()});
    args.insert(args.end(), extra.begin(), extra.end());
    return run(args);
}

bool Cli::startDevice(std::vector<std::string> extra) {
    extra.insert(extra.begin(), {"device", "--trace", trace().string()});
    device_ = start(std::move(extra));
    return eventually([&] { return device_->err().find("ready") != std::string::npos; }, 10000);
}

std::unique_ptr<BackgroundProcess> Cli::startEvents() const {
    auto events = start({"events"});
    const bool printing = eventually([&] {
        run({"hardware", "button", "volume-up"});
        return events->out().find("\"usage\":233") != std::string::npos;
    }, 10000);
    return printing ? std::move(events) : nullptr;
}

std::vector<nlohmann::json> Cli::traceLines(const std::string& kind) const {
    return jsonLines(readFile(trace()), kind);
}

std::vector<std::string> Cli::touches() const {
    std::vector<std::string> shown;
    for (const auto& hand : traceLines("digitizer")) {
        const auto& f = hand["children"];
        if (f.size() != 1) shown.push_back(std::to_string(f.size()) + " fingers");
        else
            shown.push_back(std::string(hand.value("hardware", false) ? "real " : "script ") + f[0]["index"].dump() +
                            " at " + f[0]["x"].dump() + "," + f[0]["y"].dump() + " mask " + f[0]["mask"].dump() +
                            " touch " + f[0]["touch"].dump());
    }
    return shown;
}

std::vector<pid_t> Cli::roles(const std::string& bundleId) const {
    const std::string root = std::filesystem::canonical(root_.path()).string();
    return findProcesses({TW_BINARY, " role " + bundleId, "--root " + root + " "});
}

}  // namespace tw::test
#endif
