// The injector's messages 1 to 6 and their records. An input is a run of requests, each a message
// id byte (0 to 7, so unknown ids come up too), a length byte (255: null data) and that many bytes.
#include <algorithm>
#include <cstring>

#include "FuzzSupport.h"
#include "FuzzTarget.h"
#include "injection/records/KeyRecord.h"
#include "injection/records/MessageIds.h"
#include "injection/records/OptionRecord.h"
#include "injection/records/TextRecord.h"
#include "injection/records/TouchRecord.h"

namespace {

using namespace tw;

// Whatever decodes encodes back to the same bytes.
void checkRecords(const Payload& data) {
    if (auto touch = TouchRecord::decode(data)) FUZZ_CHECK(touch->encode() == *data);
    if (auto key = KeyRecord::decode(data)) FUZZ_CHECK(key->encode() == *data);
    if (auto option = OptionRecord::decode(data)) FUZZ_CHECK(option->encode() == *data);
    if (auto text = TextRecord::decode(data)) {
        FUZZ_CHECK(text->text.size() <= data->size());
        FUZZ_CHECK(std::memcmp(text->text.data(), data->data(), text->text.size()) == 0);
    }
}

}  // namespace

TW_FUZZ_TARGET(injector_requests) {
    using namespace tw;
    fuzz::InjectorRig rig;
    size_t at = 0;
    while (at + 2 <= size) {
        const int32_t msgid = data[at] % 8;
        const size_t length = data[at + 1];
        at += 2;
        Payload payload;
        if (length != 255) {
            const size_t take = std::min(length, size - at);
            payload.emplace(data + at, data + at + take);
            at += take;
        }
        checkRecords(payload);
        const size_t postedBefore = rig.notifications.posted.size();
        FUZZ_CHECK(!rig.injector.myCallBack(msgid, payload));
        if (msgid != kMsgText) FUZZ_CHECK(rig.notifications.posted.size() == postedBefore);
    }
    // Whatever fingers are left go out as one more hand event.
    const size_t before = rig.traceLines;
    const bool fingers = !rig.injector.touches().empty();
    rig.injector.myCallBack(kMsgSync, std::nullopt);
    FUZZ_CHECK(rig.traceLines == before + (fingers ? 1 : 0));
    return 0;
}
