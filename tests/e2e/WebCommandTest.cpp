// The web and WebDAV servers of a running device from the command line: started, found at the
// address they print, protected by a password set from standard input, back after the home screen
// restarts (their auto-launch settings), and a port that is taken said so on both sides.
#include <gtest/gtest.h>
#include <signal.h>

#include <regex>

#include "Cli.h"
#include "HttpClient.h"
#include "web/HttpServer.h"

namespace tw {
namespace {

uint16_t portIn(const std::string& status) {
    std::smatch match;
    return std::regex_search(status, match, std::regex("http://127\\.0\\.0\\.1:(\\d+)/"))
               ? static_cast<uint16_t>(std::stoi(match[1])) : 0;
}

TEST(WebCommand, ServersStartFromTheCommandLineKeepTheirPasswordAndComeBackWithTheHomeScreen) {
    web::HttpServer holder;  // a port the WebDAV server cannot have
    ASSERT_TRUE(holder.start({"127.0.0.1", 0}));
    test::Cli cli;
    ASSERT_TRUE(cli.startDevice({"--web-port", "0", "--dav-port", std::to_string(holder.port())})) << cli.device().err();
    EXPECT_EQ(cli.run({"web", "status"}).out, "web server: stopped\n");

    const auto started = cli.run({"web", "start"});
    ASSERT_EQ(started.exitCode, 0) << started.err;
    const uint16_t port = portIn(started.out);
    ASSERT_NE(port, 0) << started.out;
    EXPECT_EQ(test::httpGet(port, "/files").body, R"({"files":[]})");

    EXPECT_EQ(cli.run({"web", "password"}, "s3cret\n").exitCode, 0);
    EXPECT_EQ(test::httpGet(port, "/files").status, 401);
    EXPECT_EQ(test::httpRequest(port, {"GET", "/files", {}, "", "tapwright", "s3cret"}).status, 200);

    const auto taken = cli.run({"dav", "start"});
    EXPECT_EQ(taken.exitCode, 1);
    EXPECT_NE(taken.err.find("did not start"), std::string::npos) << taken.err;
    EXPECT_NE(cli.device().err().find("WebDAV server cannot listen on port " + std::to_string(holder.port())),
              std::string::npos) << cli.device().err();

    // A restarted home screen starts the web server again, since it was started by command.
    const auto homes = cli.roles("com.apple.springboard");
    ASSERT_EQ(homes.size(), 1u);
    kill(homes.front(), SIGKILL);
    uint16_t again = 0;
    ASSERT_TRUE(test::eventually([&] {
        again = portIn(cli.run({"web", "status"}).out);
        return again != 0 && test::httpGet(again, "/files").status == 401;
    }, 15000));
    EXPECT_EQ(cli.run({"web", "password", "--remove"}).exitCode, 0);
    EXPECT_EQ(test::httpGet(again, "/files").status, 200);

    EXPECT_EQ(cli.run({"web", "stop"}).out, "web server: stopped\n");
    EXPECT_EQ(test::httpGet(again, "/files").status, 0);
}

}  // namespace
}  // namespace tw
