#include "core/Plist.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/AtomicFile.h"
#include "core/LogToFile.h"

namespace tw {

namespace {

constexpr std::string_view kBinaryMagic = "bplist00";
constexpr size_t kTrailerSize = 32;

uint64_t bigEndian(const uint8_t* at, size_t width) {
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i) value = value << 8 | at[i];
    return value;
}

// The object table of a binary list, as its trailer describes it: `count` offsets of `offsetWidth`
// bytes at `table`, references `refWidth` bytes wide, the root at index `top`.
class BinaryObjects {
public:
    explicit BinaryObjects(std::string_view bytes)
        : data_(reinterpret_cast<const uint8_t*>(bytes.data())), size_(bytes.size()) {}

    bool readTrailer() {
        if (size_ < kBinaryMagic.size() + kTrailerSize) return false;
        const uint8_t* trailer = data_ + size_ - kTrailerSize;
        offsetWidth_ = trailer[6];
        refWidth_ = trailer[7];
        count_ = bigEndian(trailer + 8, 8);
        top_ = bigEndian(trailer + 16, 8);
        const uint64_t table = bigEndian(trailer + 24, 8);
        const uint64_t end = size_ - kTrailerSize;
        if (offsetWidth_ < 1 || offsetWidth_ > 8 || refWidth_ < 1 || refWidth_ > 8) return false;
        if (count_ == 0 || top_ >= count_ || table < kBinaryMagic.size() || table > end) return false;
        if (count_ > (end - table) / offsetWidth_) return false;
        table_ = static_cast<size_t>(table);
        return true;
    }

    uint64_t count() const { return count_; }
    uint64_t top() const { return top_; }

    // The object at `index`: its marker byte's position, its length and where its contents begin.
    // False when any of it lies outside the bytes before the table.
    bool object(uint64_t index, uint8_t& marker, uint64_t& length, size_t& contents) const {
        const uint64_t at = bigEndian(data_ + table_ + index * offsetWidth_, offsetWidth_);
        if (at < kBinaryMagic.size() || at >= table_) return false;
        marker = data_[at];
        length = marker & 0x0F;
        contents = static_cast<size_t>(at) + 1;
        if (length == 0x0F) {
            // The length follows as an integer object: marker 0x1N, then 2^N big-endian bytes.
            if (contents >= table_ || (data_[contents] & 0xF0) != 0x10 || (data_[contents] & 0x0F) > 3) return false;
            const size_t width = size_t{1} << (data_[contents] & 0x0F);
            if (width > table_ - contents - 1) return false;
            length = bigEndian(data_ + contents + 1, width);
            contents += 1 + width;
        }
        return true;
    }

    // Whether `count` items of `width` bytes fit between `contents` and the table.
    bool fits(size_t contents, uint64_t count, uint64_t width) const {
        return contents <= table_ && count <= (table_ - contents) / width;
    }

    uint64_t reference(size_t contents, uint64_t i) const { return bigEndian(data_ + contents + i * refWidth_, refWidth_); }
    uint64_t refWidth() const { return refWidth_; }
    const uint8_t* at(size_t offset) const { return data_ + offset; }

private:
    const uint8_t* data_;
    size_t size_;
    size_t table_ = 0;
    uint64_t offsetWidth_ = 0, refWidth_ = 0, count_ = 0, top_ = 0;
};

// Walks the objects reachable from the root, depth first, as libplist will.
bool binaryAcceptable(std::string_view bytes) {
    BinaryObjects objects(bytes);
    // libplist takes some trailers no writer makes (references 65 bytes wide): only sound ones pass.
    if (!objects.readTrailer()) return false;
    enum : uint8_t { Unseen, OnPath, Done };
    std::vector<uint8_t> state(objects.count(), Unseen);
    std::vector<uint64_t> nodes(objects.count(), 0);  // the nodes each finished object unfolds into
    const uint64_t maxNodes = bytes.size();

    struct Frame {
        uint64_t index;
        size_t refs;        // where the container's references begin
        uint64_t children;  // how many references
        uint64_t next = 0;
        uint64_t nodes = 1;
    };
    std::vector<Frame> path;

    // Checks one object on arriving at it; pushes containers. False refuses the whole list.
    auto enter = [&](uint64_t index) -> bool {
        if (state[index] == OnPath) return false;  // a cycle
        if (state[index] == Done) return true;
        uint8_t marker;
        uint64_t length;
        size_t contents;
        if (!objects.object(index, marker, length, contents)) return false;
        switch (marker >> 4) {
            case 0x5:  // ASCII text: no NUL, nothing above 0x7F
                if (!objects.fits(contents, length, 1)) return false;
                for (uint64_t i = 0; i < length; ++i)
                    if (objects.at(contents)[i] == 0 || objects.at(contents)[i] > 0x7F) return false;
                break;
            case 0x6: {  // UTF-16 text: no NUL, surrogates in pairs
                if (!objects.fits(contents, length, 2)) return false;
                for (uint64_t i = 0; i < length; ++i) {
                    const unsigned unit = bigEndian(objects.at(contents) + 2 * i, 2);
                    if (unit == 0 || (unit >= 0xDC00 && unit <= 0xDFFF)) return false;
                    if (unit >= 0xD800 && unit <= 0xDBFF) {
                        const unsigned low = i + 1 < length ? bigEndian(objects.at(contents) + 2 * (i + 1), 2) : 0;
                        if (low < 0xDC00 || low > 0xDFFF) return false;
                        ++i;
                    }
                }
                break;
            }
            case 0xA:    // array
            case 0xC:    // set
            case 0xD: {  // dictionary: the keys' references, then the values'
                const uint64_t children = (marker >> 4) == 0xD ? length * 2 : length;
                if ((marker >> 4) == 0xD && length > UINT64_MAX / 2) return false;
                if (!objects.fits(contents, children, objects.refWidth())) return false;
                if (path.size() >= kMaxPlistDepth) return false;
                state[index] = OnPath;
                path.push_back(Frame{index, contents, children});
                return true;
            }
            default:
                break;
        }
        state[index] = Done;
        nodes[index] = 1;
        return true;
    };

    if (!enter(objects.top())) return false;
    while (!path.empty()) {
        Frame& frame = path.back();
        if (frame.next < frame.children) {
            const uint64_t child = objects.reference(frame.refs, frame.next++);
            if (child >= objects.count()) return false;
            const size_t depth = path.size();
            if (!enter(child)) return false;
            if (path.size() == depth) {  // a leaf, or an object already walked
                path.back().nodes += nodes[child];
                if (path.back().nodes > maxNodes) return false;
            }
            continue;
        }
        const Frame done = frame;
        path.pop_back();
        state[done.index] = Done;
        nodes[done.index] = done.nodes;
        if (!path.empty()) {
            path.back().nodes += done.nodes;
            if (path.back().nodes > maxNodes) return false;
        }
    }
    return nodes[objects.top()] <= maxNodes;
}

// Element nesting of an XML list, where <plist> and a leaf's own element come on top of the
// containers; comments, CDATA sections, declarations and processing instructions are skipped as a
// reader skips them.
bool xmlAcceptable(std::string_view text) {
    constexpr size_t kMaxElementDepth = kMaxPlistDepth + 2;
    size_t depth = 0;
    size_t i = 0;
    auto skipPast = [&](std::string_view end) {
        const size_t found = text.find(end, i);
        i = found == std::string_view::npos ? text.size() : found + end.size();
    };
    while ((i = text.find('<', i)) != std::string_view::npos) {
        const std::string_view rest = text.substr(i);
        if (rest.starts_with("<!--")) {
            i += 4;
            skipPast("-->");
        } else if (rest.starts_with("<![CDATA[")) {
            i += 9;
            skipPast("]]>");
        } else if (rest.starts_with("<?")) {
            i += 2;
            skipPast("?>");
        } else if (rest.starts_with("<!")) {
            i += 2;
            skipPast(">");
        } else if (rest.starts_with("</")) {
            i += 2;
            skipPast(">");
            if (depth > 0) --depth;
        } else {
            ++i;
            skipPast(">");
            if (depth + 1 > kMaxElementDepth) return false;
            if (!(i >= 2 && text[i - 1] == '>' && text[i - 2] == '/')) ++depth;  // <empty/> closes itself
        }
    }
    return true;
}

// Every text and key below `node` is UTF-8: libplist writes any other as a binary object it
// cannot read back. Keys are safe to fetch here: parsed lists hold no NUL, built ones cannot.
bool textsAreUtf8(plist_t node, size_t depth) {
    if (depth > kMaxPlistDepth + 1) return false;
    switch (plist_get_node_type(node)) {
        case PLIST_STRING: {
            uint64_t length = 0;
            const char* text = plist_get_string_ptr(node, &length);
            return !text || isValidUtf8(std::string_view(text, static_cast<size_t>(length)));
        }
        case PLIST_ARRAY:
            for (uint32_t i = 0; i < plist_array_get_size(node); ++i)
                if (!textsAreUtf8(plist_array_get_item(node, i), depth + 1)) return false;
            return true;
        case PLIST_DICT:
            return forEachPlistDictItem(node, [&](const char* key, plist_t value) {
                return (!key || isValidUtf8(key)) && textsAreUtf8(value, depth + 1);
            });
        default:
            return true;
    }
}

}  // namespace

bool plistBytesAcceptable(std::string_view bytes) {
    if (bytes.starts_with(kBinaryMagic)) return binaryAcceptable(bytes);
    // XML has no NUL character; libplist takes one inside a key and writes the key unreadably.
    return bytes.find('\0') == std::string_view::npos && isValidUtf8(bytes) && xmlAcceptable(bytes);
}

PlistHandle parsePlist(std::string_view bytes) {
    if (bytes.empty() || bytes.size() > UINT32_MAX || !plistBytesAcceptable(bytes)) return nullptr;
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    return PlistHandle(root);
}

PlistHandle readPlistFile(const std::string& path) {
    const auto bytes = readWholeFile(path);
    return bytes ? parsePlist(*bytes) : nullptr;
}

std::optional<std::string> plistToXml(plist_t node) {
    char* data = nullptr;
    uint32_t length = 0;
    plist_to_xml(node, &data, &length);
    if (!data) return std::nullopt;
    std::string text(data, length);
    plist_to_xml_free(data);
    return text;
}

std::optional<std::string> plistToBinary(plist_t node) {
    if (!node || !textsAreUtf8(node, 0)) return std::nullopt;
    char* data = nullptr;
    uint32_t length = 0;
    plist_to_bin(node, &data, &length);
    if (!data) return std::nullopt;
    std::string bytes(data, length);
    plist_to_bin_free(data);
    return bytes;
}

bool isPlistDict(plist_t node) { return node && plist_get_node_type(node) == PLIST_DICT; }

std::optional<std::string> plistString(plist_t node) {
    if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
    uint64_t length = 0;
    const char* text = plist_get_string_ptr(node, &length);
    if (!text) return std::nullopt;
    return std::string(text, static_cast<size_t>(length));
}

bool forEachPlistDictItem(plist_t dict, const std::function<bool(const char* key, plist_t value)>& visit) {
    if (!isPlistDict(dict)) return false;
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(dict, &iter);
    bool ok = iter != nullptr;
    while (ok) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(dict, iter, &key, &value);
        if (value) ok = visit(key, value);
        std::free(key);
        if (!value) break;
    }
    std::free(iter);
    return ok;
}

std::optional<std::string> plistDictString(plist_t dict, const std::string& key) {
    if (!isPlistDict(dict)) return std::nullopt;
    return plistString(plist_dict_get_item(dict, key.c_str()));
}

}  // namespace tw
