// What recording costs a running device, and how faithfully a recording plays back. Each case
// starts `tapwright device` on a temporary root and drives it from outside, as a person would.
//
// Delivery: the time from a finger event written to the hardware input until a subscriber of the
// device's events has it, without and with a recording running (the recorder is one more
// subscriber that writes every event into the script), so the ratio comes from one run. Events
// come a millisecond apart, as fast as a finger's events ever come.
//
// Keeping up: 1,000 finger events a second for a second while recording: how many reach the
// script, and how long after the last one was sent the script holds it.
//
// Replay fidelity: a swipe and taps made by hand are recorded, the recording is played, and each
// pause between two finger events of the playback is compared with the same pause as recorded:
// the median and 99th percentile of the differences.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

#include "Cli.h"
#include "device/HidHubClient.h"
#include "device/VirtualHidSystem.h"
#include "platform/linux/LineClient.h"

namespace {

using Clock = std::chrono::steady_clock;
using tw::device::TimedHardwareLine;
using std::chrono::microseconds;
using std::chrono::milliseconds;

std::string touchLine(const char* phase, double x, double y) {
    return nlohmann::json{{"kind", "touch"}, {"phase", phase}, {"finger", 1}, {"x", x}, {"y", y}}.dump();
}

std::string runDir(const tw::test::Cli& cli) { return std::filesystem::canonical(cli.root()).string() + "/run"; }

// The library file of a recording, from what `record` printed.
std::filesystem::path recordingFile(const tw::test::Cli& cli, const std::string& printed) {
    return cli.root() / printed.substr(1, printed.size() - 2);
}

void delivery(benchmark::State& state, bool recording) {
    tw::test::Cli cli;
    if (!cli.startDevice()) return state.SkipWithError("the device did not start");
    std::string error;
    auto events = tw::device::HidHubClient::connect(runDir(cli), &error);
    auto hardware = tw::linuxp::LineClient::connect(tw::device::hardwareSocketPath(runDir(cli)), &error);
    if (!events || !events->subscribe() || !hardware) return state.SkipWithError("no device");
    std::string printed;
    if (recording) printed = cli.run({"record", "start"}).out;
    bool down = false;
    std::vector<double> latenciesUs;
    for (auto _ : state) {
        // A finger's events come at most a thousand a second (a screen samples at 60 to 240 Hz).
        // Waited for by spinning: a sleep would add the core's wake-up to what is measured.
        for (const auto until = Clock::now() + milliseconds(1); Clock::now() < until;) {
        }
        down = !down;
        const auto sent = Clock::now();
        hardware->sendLine(touchLine(down ? "down" : "up", 100, 200));
        for (;;) {
            const auto line = events->readLine(2000);
            if (!line) return state.SkipWithError("an event was not delivered");
            if (line->find("\"digitizer\"") != std::string::npos) break;
        }
        const double seconds = std::chrono::duration<double>(Clock::now() - sent).count();
        latenciesUs.push_back(seconds * 1e6);
        state.SetIterationTime(seconds);
    }
    if (recording) cli.run({"record", "stop"});
    // The mean is Time; a wake-up that waits for one of the machine's cores shows in the tail.
    std::sort(latenciesUs.begin(), latenciesUs.end());
    state.counters["median_us"] = latenciesUs[latenciesUs.size() / 2];
    state.counters["p99_us"] = latenciesUs[latenciesUs.size() * 99 / 100];
}

// Baseline: no recording.
void BM_HardwareEventToDeliveryWithoutRecording(benchmark::State& state) { delivery(state, false); }
void BM_HardwareEventToDeliveryWhileRecording(benchmark::State& state) { delivery(state, true); }
BENCHMARK(BM_HardwareEventToDeliveryWithoutRecording)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(2000);
BENCHMARK(BM_HardwareEventToDeliveryWhileRecording)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(2000);

void BM_RecordingAThousandEventsASecond(benchmark::State& state) {
    for (auto _ : state) {
        tw::test::Cli cli;
        if (!cli.startDevice()) return state.SkipWithError("the device did not start");
        const std::string printed = cli.run({"record", "start"}).out;
        constexpr int kEvents = 1000;
        std::vector<TimedHardwareLine> lines;
        for (int i = 0; i < kEvents; ++i)
            lines.push_back({milliseconds(i), touchLine(i == 0 ? "down" : i + 1 == kEvents ? "up" : "move", 100 + i % 500, 300)});
        tw::device::sendHardwareInput(runDir(cli), lines);
        const auto lastSent = Clock::now();
        auto recorded = [&] {
            const std::string script = tw::test::readFile(recordingFile(cli, printed));
            return std::count(script.begin(), script.end(), '(') - 2;  // less the header's calls
        };
        tw::test::eventually([&] { return recorded() >= 2 * kEvents - 1; }, 5000);  // an event and its pause
        const double lagMs = std::chrono::duration<double, std::milli>(Clock::now() - lastSent).count();
        cli.run({"record", "stop"});
        state.counters["events_recorded"] = static_cast<double>((recorded() + 1) / 2);
        state.counters["lag_after_last_ms"] = lagMs;
        state.SetIterationTime(lagMs / 1000);
    }
}
BENCHMARK(BM_RecordingAThousandEventsASecond)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);

struct Hand {
    bool real;
    uint64_t time;
};

void BM_ReplayedPausesAgainstRecordedOnes(benchmark::State& state) {
    std::vector<double> errorsMs;
    for (auto _ : state) {
        tw::test::Cli cli;
        if (!cli.startDevice()) return state.SkipWithError("the device did not start");
        const std::string printed = cli.run({"record", "start"}).out;
        cli.run({"hardware", "swipe", "100", "1000", "600", "300", "--ms", "400"});
        for (int tap = 0; tap < 3; ++tap) {
            std::this_thread::sleep_for(milliseconds(70 * tap + 30));
            cli.run({"hardware", "tap", std::to_string(200 + 100 * tap), "700", "--ms", std::to_string(40 + 30 * tap)});
        }
        cli.run({"record", "stop"});
        const size_t recorded = cli.traceLines("digitizer").size();
        const std::string name = printed.substr(printed.rfind('/'), printed.size() - 1 - printed.rfind('/'));
        cli.run({"play", name});
        tw::test::eventually([&] { return cli.traceLines("digitizer").size() >= 2 * recorded; });
        const auto hands = cli.traceLines("digitizer");
        if (hands.size() != 2 * recorded) return state.SkipWithError("the playback has another number of events");
        for (size_t i = 1; i < recorded; ++i) {
            const double was = (hands[i]["time"].get<double>() - hands[i - 1]["time"].get<double>()) / 1e6;
            const double now =
                (hands[recorded + i]["time"].get<double>() - hands[recorded + i - 1]["time"].get<double>()) / 1e6;
            errorsMs.push_back(std::abs(now - was));
        }
        state.SetIterationTime(1);
    }
    std::sort(errorsMs.begin(), errorsMs.end());
    const auto at = [&](double q) { return errorsMs[static_cast<size_t>(q * static_cast<double>(errorsMs.size() - 1))]; };
    state.counters["pauses"] = static_cast<double>(errorsMs.size());
    state.counters["median_error_ms"] = at(0.5);
    state.counters["p99_error_ms"] = at(0.99);
}
BENCHMARK(BM_ReplayedPausesAgainstRecordedOnes)->UseManualTime()->Unit(benchmark::kSecond)->Iterations(3);

}  // namespace
