// tapwright web and tapwright dav: the running device's web and WebDAV servers, as the settings
// application starts and stops them through the home screen's commands port, and the password
// that protects both.
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "cli/Commands.h"
#include "core/Diagnostics.h"
#include "core/Paths.h"
#include "platform/Bytes.h"
#include "roles/DeviceAccess.h"
#include "web/WebServerManager.h"

namespace tw::cli {

namespace {

// Starting or stopping waits for requests in progress (an upload) to end.
constexpr double kServerCommandTimeout = 30.0;

struct ServerMessages {
    const char* name;  // "web server"
    int32_t start, stop, running, address;
};
constexpr ServerMessages kWeb{"web server", kMsgStartWebServer, kMsgStopWebServer, kMsgIsWebServerRunning,
                              kMsgWebServerAddress};
constexpr ServerMessages kDav{"WebDAV server", kMsgStartWebDAVServer, kMsgStopWebDAVServer,
                              kMsgIsWebDAVServerRunning, kMsgWebDAVServerAddress};

Payload ask(const std::string& root, int32_t msgid) {
    return roles::sendCommandsMessage(root, msgid, {}, msgid != kMsgStartWebServer && msgid != kMsgStopWebServer &&
                                                           msgid != kMsgStartWebDAVServer && msgid != kMsgStopWebDAVServer,
                                      kServerCommandTimeout);
}

bool yes(const Payload& reply) { return reply && reply->size() == sizeof(int32_t) && getLE<int32_t>(reply->data(), 0) == kReplyYes; }

// "web server: running at http://127.0.0.1:8080/" or "web server: stopped"; true when running.
bool printStatus(const std::string& root, const ServerMessages& server) {
    const bool running = yes(ask(root, server.running));
    if (!running) {
        std::printf("%s: stopped\n", server.name);
        return false;
    }
    const Payload address = ask(root, server.address);
    std::printf("%s: running at %s\n", server.name, address ? std::string(address->begin(), address->end()).c_str() : "");
    return true;
}

// One line typed without echo when standard input is a terminal, else the first line of it.
std::string readSecretLine(const char* prompt) {
    const bool terminal = ::isatty(STDIN_FILENO);
    termios saved{};
    if (terminal) {
        std::fprintf(stderr, "%s", prompt);
        ::tcgetattr(STDIN_FILENO, &saved);
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    }
    std::string line;
    const bool got = static_cast<bool>(std::getline(std::cin, line));
    if (terminal) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &saved);
        std::fprintf(stderr, "\n");
    }
    if (!got) fail("no password given on standard input");
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

Command serverCommand(CLI::App& app, CommonOptions& common, const char* name, const char* help,
                      const ServerMessages& server, bool withPassword) {
    auto action = std::make_shared<std::string>();
    auto remove = std::make_shared<bool>(false);
    auto* sub = app.add_subcommand(name, help);
    std::vector<std::string> actions{"start", "stop", "status"};
    if (withPassword) actions.push_back("password");
    sub->add_option("action", *action, withPassword ? "start, stop, status or password" : "start, stop or status")
        ->required()
        ->check(CLI::IsMember(actions));
    sub->add_option("--root", common.root, "Device root folder");
    if (withPassword) {
        sub->add_flag("--remove", *remove, "With password: remove the password (no authentication)");
        sub->footer(
            "start turns the server on now and at every start of the device; stop turns it off.\n"
            "password reads a password (from the terminal without echo, or the first line of standard input)\n"
            "and stores it hashed in the device root: from then on both servers ask for it (HTTP digest\n"
            "authentication, user \"tapwright\"). --remove takes it away. The servers need not be running.");
    } else {
        sub->footer("start turns the server on now and at every start of the device; stop turns it off.");
    }
    return {sub, [&common, action, remove, server] {
                const std::string root = deviceRoot(common);
                if (*action == "password") {
                    const std::string file = root + kWebPasswordPath;
                    std::string password;
                    if (!*remove) {
                        password = readSecretLine("Password: ");
                        if (password.empty()) fail("the password is empty (use --remove to take the password away)");
                        if (::isatty(STDIN_FILENO) && readSecretLine("Again: ") != password)
                            fail("the two passwords differ; nothing changed");
                    }
                    std::string error;
                    if (!web::writePasswordFile(file, password, &error)) fail("cannot store the password: " + error);
                    std::printf(*remove ? "password removed\n" : "password set (user \"tapwright\")\n");
                    return 0;
                }
                if (*action == "start") ask(root, server.start);
                if (*action == "stop") ask(root, server.stop);
                const bool running = printStatus(root, server);
                if (*action == "start" && !running)
                    fail(std::string("the ") + server.name +
                         " did not start: its port may be taken (the device's output says why)");
                return 0;
            }};
}

}  // namespace

std::vector<Command> addWebCommands(CLI::App& app, CommonOptions& common) {
    return {serverCommand(app, common, "web", "Start, stop or show the running device's web server; set its password",
                          kWeb, true),
            serverCommand(app, common, "dav", "Start, stop or show the running device's WebDAV server", kDav, false)};
}

}  // namespace tw::cli
