// Property-list bytes as every reader of them goes on: parsed, walked (dictionary keys and values,
// arrays, texts), written back out as XML and binary, and the binary form read again.

#include "FuzzSupport.h"
#include "FuzzTarget.h"
#include "core/Plist.h"

namespace {

using namespace tw;

size_t walk(plist_t node, size_t depth) {
    FUZZ_CHECK(depth <= kMaxPlistDepth + 1);
    size_t nodes = 1;
    switch (plist_get_node_type(node)) {
        case PLIST_DICT:
            forEachPlistDictItem(node, [&](const char* key, plist_t value) {
                if (key) FUZZ_CHECK(plist_dict_get_item(node, key) != nullptr);
                nodes += walk(value, depth + 1);
                return true;
            });
            break;
        case PLIST_ARRAY:
            for (uint32_t i = 0; i < plist_array_get_size(node); ++i) nodes += walk(plist_array_get_item(node, i), depth + 1);
            break;
        case PLIST_STRING:
            FUZZ_CHECK(plistString(node).has_value());
            break;
        default:
            break;
    }
    return nodes;
}

}  // namespace

TW_FUZZ_TARGET(plist_bytes) {
    using namespace tw;
    const std::string_view bytes = fuzz::textOf(data, size);
    PlistHandle root = parsePlist(bytes);
    if (!root) return 0;
    FUZZ_CHECK(plistBytesAcceptable(bytes));
    const size_t nodes = walk(root.get(), 0);
    if (bytes.starts_with("bplist00")) FUZZ_CHECK(nodes <= size);
    plistToXml(root.get());
    if (const auto binary = plistToBinary(root.get())) FUZZ_CHECK(parsePlist(*binary) != nullptr);
    return 0;
}
