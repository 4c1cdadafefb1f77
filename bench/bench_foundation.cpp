// The cost of one injector request through a message port, against a raw socket round trip
// measured in the same run.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "injection/records/MessageIds.h"
#include "injection/records/TouchRecord.h"
#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/UnixMessagePorts.h"

namespace {

// Baseline: a 24-byte request and a 4-byte answer over a raw Unix socket pair to an echo thread.
void BM_RawSocketRoundTrip(benchmark::State& state) {
    int fds[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
    std::thread echo([fd = fds[1]] {
        char buffer[24];
        while (read(fd, buffer, sizeof buffer) == sizeof buffer) {
            if (write(fd, buffer, 4) != 4) break;
        }
    });
    char request[24] = {}, reply[4];
    for (auto _ : state) {
        if (write(fds[0], request, sizeof request) != sizeof request) break;
        if (read(fds[0], reply, sizeof reply) != sizeof reply) break;
    }
    shutdown(fds[0], SHUT_RDWR);
    close(fds[0]);
    echo.join();
    close(fds[1]);
}
BENCHMARK(BM_RawSocketRoundTrip)->Unit(benchmark::kMicrosecond);

// One touch request with its reply through a message port to a run loop on another thread.
void BM_PortTouchRequestRoundTrip(benchmark::State& state) {
    const auto dir = std::filesystem::temp_directory_path() / ("tw-bench-" + std::to_string(getpid()));
    tw::linuxp::UnixMessagePortService ports(dir.string());
    auto loop = std::make_shared<tw::linuxp::AsioRunLoop>();
    auto local = ports.createLocal(tw::kInjectorPortName, [](int32_t, const tw::Payload&) -> tw::Payload { return std::nullopt; }, *loop);
    std::thread runner([loop] { loop->run(); });
    auto remote = ports.createRemote(tw::kInjectorPortName);
    const tw::Payload record = tw::TouchRecord{tw::kTouchMove, 1, 100, 200}.encode();
    for (auto _ : state) {
        tw::Payload reply;
        remote->sendRequest(tw::kMsgTouch, record, 1.0, 1.0, true, &reply);
    }
    loop->postAndWait([&] { local->invalidate(); });
    loop->stop();
    runner.join();
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_PortTouchRequestRoundTrip)->Unit(benchmark::kMicrosecond);

}  // namespace
