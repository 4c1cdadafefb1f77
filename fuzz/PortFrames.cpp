// The local side of a message port: the bytes a client writes on its connection, cut into request
// frames as the port's inbox does, each handed to the injector's callback as the port would.
#include "FuzzSupport.h"
#include "FuzzTarget.h"
#include "platform/linux/UnixMessagePorts.h"

TW_FUZZ_TARGET(port_frames) {
    using namespace tw;
    fuzz::InjectorRig rig;
    size_t at = 0;
    for (;;) {
        linuxp::RequestFrame frame;
        const auto result = linuxp::parseRequestFrame(data + at, size - at, frame);
        if (result != linuxp::FrameParse::Complete) break;
        FUZZ_CHECK(frame.size >= 13 && frame.size <= size - at);
        FUZZ_CHECK(!frame.data || frame.data->size() == frame.size - 13);
        at += frame.size;
        const Payload reply = rig.injector.myCallBack(frame.msgid, frame.data);
        FUZZ_CHECK(!reply);  // the injector never replies with data
    }
    return 0;
}
