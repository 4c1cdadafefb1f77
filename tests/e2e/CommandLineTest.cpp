// What every subcommand shares: a failure is told in one line "tapwright: ..." with a non-zero
// exit status, and --help answers.
#include <gtest/gtest.h>

#include <algorithm>

#include "Cli.h"

namespace tw {
namespace {

TEST(CommandLine, AFailureIsOneLineOnStderrAndANonZeroStatus) {
    test::Cli cli;  // no device runs on its root
    const std::string text = cli.file("text.lua", "print(1)");
    const struct Case { const char* name; std::vector<std::string> args; int status; std::string message; } cases[] = {
        {"play of a missing script", {"play", "/none.lua"}, 1, "no script '/none.lua'"},
        {"hardware with no device", {"hardware", "touch", "down", "1", "5", "5"}, 1, "no device runs on "},
        {"unknown button", {"hardware", "button", "menu"}, 2, "unknown button 'menu'"},
        {"events with no device", {"events"}, 1, "no device runs on "},
        {"screen set of no picture", {"screen", "set", text}, 1, "neither a BMP nor a PNG"},
        {"rm of a missing file", {"library", "rm", "/none.lua"}, 1, "/none.lua: File does not exist."},
        {"path out of the library", {"library", "cat", "/../../etc/passwd"}, 1, "Invalid file path."},
        {"encrypt of a missing file", {"encrypt", "none.lua", "--password", "p"}, 1, "no file 'none.lua'"},
        {"decrypt of a plain file", {"decrypt", text, "--password", "p", "--out", text + ".out"}, 1,
         "format version is not 3"},
        {"decrypt next to an existing file", {"decrypt", text + ".e", "--password", "p"}, 1,
         text + " exists; name the output with --out"},
    };
    test::writeFile(text + ".e", "");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto r = cli.run(c.args);
        EXPECT_EQ(r.exitCode, c.status);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.rfind("tapwright: ", 0), 0u) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
    EXPECT_FALSE(std::filesystem::exists(text + ".out"));
}

TEST(CommandLine, EverySubcommandAnswersHelp) {
    const auto top = test::runProcess({TW_BINARY, "--help"});
    EXPECT_EQ(top.exitCode, 0);
    for (const char* sub : {"play", "encrypt", "decrypt", "device", "events", "hardware", "screen", "screenshot",
                            "library", "role"}) {
        SCOPED_TRACE(sub);
        EXPECT_NE(top.out.find(std::string("\n  ") + sub + " "), std::string::npos) << top.out;
        const auto help = test::runProcess({TW_BINARY, sub, "--help"});
        EXPECT_EQ(help.exitCode, 0);
        EXPECT_NE(help.out.find(std::string("Usage: ") + TW_BINARY + " " + sub), std::string::npos) << help.out;
    }
}

}  // namespace
}  // namespace tw
