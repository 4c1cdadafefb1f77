// A running device driven from outside: `tapwright events` prints what `tapwright hardware` and
// scripts make it dispatch, a real touch makes the injector forget a script's held fingers, typed
// text reaches the app's field, garbage on the hardware socket harms nothing, a killed input-event
// role comes back while a play goes on, and apps killed on purpose stay down.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>

#include "Cli.h"
#include "device/VirtualHidSystem.h"
#include "platform/linux/UnixMessagePorts.h"

namespace tw {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// Sends `bytes` to the device's hardware input socket over a connection of its own.
void sendToHardwareSocket(const fs::path& root, const std::string& bytes) {
    sockaddr_un address{};
    const std::string run = fs::canonical(root).string() + "/run";
    const socklen_t length = linuxp::abstractSocketAddress(device::hardwareSocketPath(run), address);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), length), 0);
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    close(fd);
}

TEST(Device, EventsShowRealAndScriptedInputAndBadHardwareInputIsDropped) {
    test::Cli cli;
    ASSERT_TRUE(cli.startDevice()) << cli.device().err();
    const auto events = cli.startEvents();
    ASSERT_TRUE(events);

    ASSERT_EQ(cli.run({"hardware", "touch", "down", "7", "300", "667"}).exitCode, 0);
    ASSERT_EQ(cli.run({"hardware", "touch", "up", "7", "300", "667"}).exitCode, 0);
    ASSERT_EQ(cli.run({"hardware", "button", "home"}).exitCode, 0);
    // Lines the device drops, then one it takes on the same connection; then a line too long.
    std::string garbage = "not json\n" + std::string(1000, '[') + "\n" +
                          "{\"kind\":\"touch\",\"phase\":\"move\",\"finger\":9,\"x\":1,\"y\":1}\n"
                          "{\"kind\":\"button\",\"usage\":70000,\"down\":true}\n"
                          "{\"kind\":\"button\",\"usage\":64,\"down\":1}\n";
    for (int i = 0; i < 4000; ++i) garbage += static_cast<char>(i * 7919 % 251);
    sendToHardwareSocket(cli.root(), garbage + "\n{\"kind\":\"button\",\"usage\":234,\"down\":true}\n");
    sendToHardwareSocket(cli.root(), std::string(70000, 'x'));

    const std::string hardware = std::string(TW_BINARY) + " hardware touch %s 8 300 667 --root " + cli.root().string();
    const auto r = cli.play("inputText('caf\\xC3\\xA9') inputText('\\b!')\n"
                            "touchDown(1, 75, 667) usleep(1000)\n"
                            "os.execute(string.format('" + hardware + "', 'down'))\n"
                            "os.execute(string.format('" + hardware + "', 'up'))\n"
                            "usleep(1000)\n"  // the held finger was forgotten: nothing to send
                            "touchMove(1, 150, 667) usleep(1000) touchUp(1, 150, 667) usleep(1000)\n");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    ASSERT_TRUE(test::eventually([&] { return cli.traceLines("text").size() >= 2; })) << test::readFile(cli.trace());
    auto texts = cli.traceLines("text");
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_TRUE(texts[1]["time"].is_number_unsigned()) << texts[1];
    EXPECT_EQ(texts[1].erase("time") ? texts[1] : json(), json({{"kind", "text"}, {"bundle", "me.tapwright.demo.notes"}, {"field", "caf!"}}));

    EXPECT_EQ(cli.touches(), (std::vector<std::string>{
                                 "real 7 at 0.4,0.5 mask 3 touch 1", "real 7 at 0.4,0.5 mask 3 touch 0",
                                 "script 1 at 0.1,0.5 mask 3 touch 1", "real 8 at 0.4,0.5 mask 3 touch 1",
                                 "real 8 at 0.4,0.5 mask 3 touch 0", "script 1 at 0.2,0.5 mask 4 touch 1",
                                 "script 1 at 0.2,0.5 mask 3 touch 0"}));
    std::vector<std::string> keys;  // but volume-up, which started `events`
    for (const auto& key : cli.traceLines("keyboard"))
        if (key["usage"] != 233) keys.push_back(key["usage"].dump() + "/" + key["down"].dump());
    EXPECT_EQ(keys, (std::vector<std::string>{"64/1", "64/0", "234/1"}));

    // `events` printed every line the device traced since it subscribed, in order.
    EXPECT_TRUE(test::eventually([&] { return test::readFile(cli.trace()).ends_with(events->out()); }))
        << events->out();
    EXPECT_EQ(cli.device().err().find("restarting"), std::string::npos) << cli.device().err();
    EXPECT_EQ(cli.device().stop(SIGINT), 0) << cli.device().err();
    EXPECT_TRUE(cli.roles().empty());
}

TEST(Device, AKilledInputEventRoleComesBackAndAPlayGoesOnWithIt) {
    test::Cli cli;
    ASSERT_TRUE(cli.startDevice()) << cli.device().err();
    const auto events = cli.startEvents();
    ASSERT_TRUE(events);
    const auto before = cli.roles("com.apple.backboardd");
    ASSERT_EQ(before.size(), 1u);

    // The play kills the role, then touches with finger 2 until its own copy of the trace shows it.
    const std::string copy = cli.file("play-trace.jsonl").string();
    const std::string lua = "touchDown(1, 75, 667) usleep(1000) touchUp(1, 75, 667) usleep(1000)\n"
                            "os.execute('kill -9 " + std::to_string(before[0]) + "')\n"
                            "for i = 1, 250 do\n"
                            "  usleep(20000) touchDown(2, 375, 667) usleep(1000) touchUp(2, 375, 667) usleep(1000)\n"
                            "  local f = io.open('" + copy + "') local t = f:read('*a') f:close()\n"
                            "  if t:find('\"index\":2') then break end\n"
                            "end\n";
    const auto r = cli.run({"play", cli.file("restart.lua", lua), "--trace", copy});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(test::readFile(copy).find("\"index\":2"), std::string::npos) << test::readFile(copy);
    EXPECT_NE(test::readFile(cli.trace()).find("\"index\":2"), std::string::npos) << test::readFile(cli.trace());
    const auto after = cli.roles("com.apple.backboardd");
    ASSERT_EQ(after.size(), 1u);
    EXPECT_NE(after[0], before[0]);
    EXPECT_NE(cli.device().err().find("com.apple.backboardd was killed by signal 9; restarting it"), std::string::npos);

    // An app a script kills stays down; launched again, it outlives the play and ends with the device.
    const auto apps = cli.play("local notes = 'me.tapwright.demo.notes' appKill(notes)\n"
                               "for i = 1, 250 do if appState(notes) ~= 'running' then break end usleep(20000) end\n"
                               "appRun(notes)\n");
    ASSERT_EQ(apps.exitCode, 0) << apps.err;
    const auto stayedDown = [&] { return cli.device().err().find("notes ended; it stays down") != std::string::npos; };
    EXPECT_TRUE(test::eventually(stayedDown)) << cli.device().err();
    EXPECT_EQ(cli.roles("me.tapwright.demo.notes").size(), 1u);
    // `events` lost the role it followed and said so.
    EXPECT_EQ(events->wait(10), 1);
    EXPECT_EQ(events->err(), "tapwright: the device went away\n");
    EXPECT_EQ(cli.device().stop(SIGINT), 0) << cli.device().err();
    EXPECT_TRUE(cli.roles().empty());
}

}  // namespace
}  // namespace tw
