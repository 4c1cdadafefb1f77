#include <gtest/gtest.h>

#include "LoopThread.h"
#include "TestSupport.h"
#include "device/DeviceSpeaker.h"
#include "device/HidHubClient.h"
#include "device/VirtualHidSystem.h"

namespace tw::device {
namespace {

TEST(HubTracePublisher, PutsLinesIntoTheDevicesTraceAndFindsItAgainAfterARestart) {
    test::TempDir dir("tw-hub-pub");
    HubTracePublisher publisher(dir.str() + "/run");
    EXPECT_FALSE(publisher.publish(systemSoundTraceLine(4095)));  // no device: dropped
    for (const std::string generation : {"first", "second"}) {  // the input-event role restarted
        auto runLoop = std::make_shared<linuxp::AsioRunLoop>();
        VirtualHidSystem system(*runLoop, dir.str() + "/run", {750, 1334}, dir.str() + "/" + generation);
        ASSERT_TRUE(system.start(nullptr));
        test::LoopThread loop(runLoop);
        EXPECT_TRUE(publisher.publish(systemSoundTraceLine(1108))) << generation;
        EXPECT_TRUE(test::eventually([&] { return test::withoutTime(test::readFile(dir.path() / generation)) == R"({"kind":"sound","systemSound":1108})" "\n"; }));
        loop.loop().post([&] { system.stop(); });
        EXPECT_TRUE(test::eventually([&] { return !HidHubClient::connect(dir.str() + "/run", nullptr); }));
    }
}

}  // namespace
}  // namespace tw::device
