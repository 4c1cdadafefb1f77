// Random bytes thrown at every socket of a running device: the injector's port, the event hub,
// the hardware input and the keyboards' notification sockets. Nothing crashes, and the device
// still answers a script afterwards.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "TestSupport.h"
#include "platform/linux/UnixMessagePorts.h"

namespace tw {
namespace {

namespace fs = std::filesystem;

int connectAbstract(const std::string& path, int type) {
    sockaddr_un addr{};
    const socklen_t len = linuxp::abstractSocketAddress(path, addr);
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Sends `frames` random chunks (random lengths, sometimes huge length prefixes) over new
// connections to `path`; returns how many chunks went out.
int spray(const std::string& path, int type, std::mt19937& rng, int frames) {
    int sent = 0;
    int fd = -1;
    for (int i = 0; i < frames; ++i) {
        if (fd < 0 || i % 50 == 0) {
            if (fd >= 0) close(fd);
            fd = connectAbstract(path, type);
            if (fd < 0) continue;
        }
        std::vector<uint8_t> bytes(rng() % 200);
        for (auto& b : bytes) b = static_cast<uint8_t>(rng());
        if (i % 7 == 0 && bytes.size() >= 4) bytes[3] = 0x7F;  // a length far beyond any limit
        if (i % 11 == 0) bytes.push_back('\n');
        if (send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) ++sent;
        else {
            close(fd);
            fd = -1;
        }
    }
    if (fd >= 0) close(fd);
    return sent;
}

TEST(DeviceBadInput, RandomBytesOnEverySocketAreDroppedAndTheDeviceStillAnswers) {
    test::TempDir root("tw-fuzz-root");
    test::TempDir work("tw-fuzz");
    const fs::path trace = work.path() / "trace.jsonl";
    test::BackgroundProcess device({TW_BINARY, "device", "--root", root.str(), "--trace", trace.string()});
    ASSERT_TRUE(test::eventually([&] { return device.err().find("ready") != std::string::npos; }, 10000)) << device.err();
    const std::string run = fs::canonical(root.path()).string() + "/run";

    std::mt19937 rng(20261122);
    EXPECT_GT(spray(run + "/ports/me.tapwright.twtweak.backboardd", SOCK_STREAM, rng, 3000), 0);
    EXPECT_GT(spray(run + "/hid", SOCK_STREAM, rng, 2000), 0);
    EXPECT_GT(spray(run + "/hardware", SOCK_STREAM, rng, 2000), 0);
    int keyboards = 0;
    for (const auto& marker : fs::directory_iterator(run + "/notify/me.tapwright.twtweak.inputtext")) {
        EXPECT_GT(spray(marker.path().string(), SOCK_DGRAM, rng, 1000), 0);
        ++keyboards;
    }
    EXPECT_EQ(keyboards, 1);

    // Every role is still the one that was started, and a script still gets through.
    EXPECT_TRUE(device.err().find("restarting") == std::string::npos) << device.err();
    const fs::path script = work.path() / "after.lua";
    test::writeFile(script, "touchDown(1, 375, 667) usleep(1000) touchUp(1, 375, 667) inputText('ok') usleep(100000)");
    auto r = test::runProcess({TW_BINARY, "play", script.string(), "--root", root.str()});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    const std::string lines = test::readFile(trace);
    EXPECT_NE(lines.find("\"kind\":\"digitizer\""), std::string::npos);
    EXPECT_NE(lines.find("\"field\":\"ok\""), std::string::npos) << lines;
    EXPECT_TRUE(device.err().find("restarting") == std::string::npos) << device.err();
    EXPECT_EQ(device.stop(SIGINT), 0);
}

}  // namespace
}  // namespace tw
