#include "schedule/KeyedArchive.h"

#include <cmath>
#include <optional>

#include "core/Plist.h"

namespace tw {

namespace {

constexpr const char* kArchiverName = "NSKeyedArchiver";
constexpr uint64_t kArchiveVersion = 100000;
constexpr const char* kNull = "$null";

// Dates beyond what the clock can hold (about the years 1685 to 2255) are taken as its ends.
constexpr double kLatestClockSeconds = 9.0e9;

// ---- Writing

// Builds "$objects": slot 0 is "$null", every object gets the next slot, classes are shared.
class ArchiveWriter {
public:
    ArchiveWriter() { objects_.emplace_back(plist_new_string(kNull)); }

    // A slot for an object whose contents follow its children (as the platform's archiver orders
    // them); fill it with set().
    uint64_t reserve() {
        objects_.emplace_back(nullptr);
        return objects_.size() - 1;
    }
    void set(uint64_t uid, plist_t node) { objects_[uid].reset(node); }
    uint64_t add(plist_t node) {
        const uint64_t uid = reserve();
        set(uid, node);
        return uid;
    }
    uint64_t addString(const std::string& text) { return text.empty() ? 0 : add(plist_new_string(text.c_str())); }

    // The class dictionary of `chain` (the class first, then its superclasses), one per class.
    uint64_t classRef(const std::vector<const char*>& chain) {
        for (const auto& [name, uid] : classes_)
            if (name == chain.front()) return uid;
        plist_t cls = plist_new_dict();
        plist_dict_set_item(cls, "$classname", plist_new_string(chain.front()));
        plist_t names = plist_new_array();
        for (const char* name : chain) plist_array_append_item(names, plist_new_string(name));
        plist_dict_set_item(cls, "$classes", names);
        const uint64_t uid = add(cls);
        classes_.emplace_back(chain.front(), uid);
        return uid;
    }

    // A new object dictionary of class `chain`.
    plist_t object(const std::vector<const char*>& chain) {
        plist_t dict = plist_new_dict();
        plist_dict_set_item(dict, "$class", plist_new_uid(classRef(chain)));
        return dict;
    }

    uint64_t addDate(Timer::Clock::time_point date) {
        const uint64_t uid = reserve();
        plist_t dict = plist_new_dict();
        const double unixSeconds = std::chrono::duration<double>(date.time_since_epoch()).count();
        plist_dict_set_item(dict, "NS.time", plist_new_real(unixSeconds - kReferenceDateOffset));
        plist_dict_set_item(dict, "$class", plist_new_uid(classRef({"NSDate", "NSObject"})));
        set(uid, dict);
        return uid;
    }

    uint64_t addTimer(const Timer& timer) {
        const uint64_t uid = reserve();
        plist_t dict = plist_new_dict();
        plist_dict_set_item(dict, "scriptFilePath", plist_new_uid(addString(timer.scriptFilePath)));
        plist_dict_set_item(dict, "fireDate", plist_new_uid(timer.fireDate ? addDate(*timer.fireDate) : 0));
        plist_dict_set_item(dict, "repeat", plist_new_bool(timer.repeat));
        plist_dict_set_item(dict, "interval", plist_new_real(timer.interval));
        plist_dict_set_item(dict, "$class", plist_new_uid(classRef({"Timer", "NSObject"})));
        set(uid, dict);
        return uid;
    }

    uint64_t addTimerList(const std::vector<Timer>& timers) {
        const uint64_t uid = reserve();
        plist_t refs = plist_new_array();
        for (const auto& timer : timers) plist_array_append_item(refs, plist_new_uid(addTimer(timer)));
        plist_t dict = plist_new_dict();
        plist_dict_set_item(dict, "NS.objects", refs);
        plist_dict_set_item(dict, "$class", plist_new_uid(classRef({"NSArray", "NSObject"})));
        set(uid, dict);
        return uid;
    }

    // The archive with `root` as its root object, as binary property-list bytes.
    std::string finish(uint64_t root) {
        PlistHandle archive(plist_new_dict());
        plist_dict_set_item(archive.get(), "$version", plist_new_uint(kArchiveVersion));
        plist_dict_set_item(archive.get(), "$archiver", plist_new_string(kArchiverName));
        plist_t top = plist_new_dict();
        plist_dict_set_item(top, "root", plist_new_uid(root));
        plist_dict_set_item(archive.get(), "$top", top);
        plist_t objects = plist_new_array();
        for (auto& object : objects_) plist_array_append_item(objects, object.release());
        plist_dict_set_item(archive.get(), "$objects", objects);
        auto bytes = plistToBinary(archive.get());
        // Only a script path that is not UTF-8 can stop the encoding.
        if (!bytes) throw ArchiveException("cannot archive a text that is not UTF-8");
        return *bytes;
    }

private:
    std::vector<PlistHandle> objects_;
    std::vector<std::pair<std::string, uint64_t>> classes_;
};

// ---- Reading

[[noreturn]] void incomprehensible(const std::string& why) {
    throw ArchiveException("*** -[NSKeyedUnarchiver initForReadingWithData:]: incomprehensible archive (" + why + ")");
}

plist_t dictItem(plist_t dict, const char* key) { return isPlistDict(dict) ? plist_dict_get_item(dict, key) : nullptr; }

bool hasType(plist_t node, plist_type type) { return node && plist_get_node_type(node) == type; }

class ArchiveReader {
public:
    explicit ArchiveReader(std::string_view bytes) : archive_(parsePlist(bytes)) {
        if (!isPlistDict(archive_.get())) incomprehensible("not a property list dictionary");
        if (plistDictString(archive_.get(), "$archiver") != kArchiverName) incomprehensible("no $archiver");
        objects_ = dictItem(archive_.get(), "$objects");
        if (!hasType(objects_, PLIST_ARRAY)) incomprehensible("no $objects");
        count_ = plist_array_get_size(objects_);
        root_ = dictItem(dictItem(archive_.get(), "$top"), "root");
        if (!root_) incomprehensible("no root object");
    }

    plist_t root() const { return resolve(root_); }

    // The object a UID refers to; null for nil.
    plist_t resolve(plist_t ref) const {
        if (!hasType(ref, PLIST_UID)) incomprehensible("an object reference is no UID");
        uint64_t uid = 0;
        plist_get_uid_val(ref, &uid);
        if (uid >= count_) incomprehensible("an object reference lies outside $objects");
        if (uid == 0) return nullptr;  // "$null"
        return plist_array_get_item(objects_, static_cast<uint32_t>(uid));
    }

    // Whether `object` is an instance of `className` or of a subclass of it.
    bool isKindOf(plist_t object, const char* className) const {
        plist_t cls = resolve(dictItem(object, "$class"));
        plist_t chain = dictItem(cls, "$classes");
        if (hasType(chain, PLIST_ARRAY)) {
            for (uint32_t i = 0, n = plist_array_get_size(chain); i < n; ++i)
                if (plistString(plist_array_get_item(chain, i)) == std::optional<std::string>(className)) return true;
            return false;
        }
        return plistDictString(cls, "$classname") == std::optional<std::string>(className);
    }

    std::optional<std::string> string(plist_t object) const {
        if (!object) return std::nullopt;
        if (auto text = plistString(object)) return text;
        if (isPlistDict(object) && isKindOf(object, "NSString"))
            if (auto text = plistString(dictItem(object, "NS.string"))) return text;
        throw ArchiveException("*** -[NSKeyedUnarchiver decodeObjectForKey:]: value is not a string");
    }

    std::optional<Timer::Clock::time_point> date(plist_t object) const {
        if (!object) return std::nullopt;
        if (!isPlistDict(object) || !isKindOf(object, "NSDate"))
            throw ArchiveException("*** -[NSKeyedUnarchiver decodeObjectForKey:]: value is not a date");
        double seconds = number(dictItem(object, "NS.time"), "NS.time") + kReferenceDateOffset;
        if (std::isnan(seconds)) throw ArchiveException("*** -[NSDate initWithCoder:]: NS.time is not a number");
        seconds = std::fmax(-kLatestClockSeconds, std::fmin(kLatestClockSeconds, seconds));
        return Timer::Clock::time_point(
            std::chrono::duration_cast<Timer::Clock::duration>(std::chrono::duration<double>(seconds)));
    }

    // A real or integer value; 0 when absent.
    static double number(plist_t node, const char* key) {
        if (!node) return 0.0;
        if (hasType(node, PLIST_REAL)) {
            double value = 0;
            plist_get_real_val(node, &value);
            return value;
        }
        if (hasType(node, PLIST_UINT)) {
            uint64_t value = 0;
            plist_get_uint_val(node, &value);
            return static_cast<double>(static_cast<int64_t>(value));
        }
        throw ArchiveException(std::string("*** -[NSKeyedUnarchiver decodeDoubleForKey:]: value for key (") + key +
                               ") is not a number");
    }

    static bool boolean(plist_t node, const char* key) {
        if (!node) return false;
        if (hasType(node, PLIST_BOOLEAN)) {
            uint8_t value = 0;
            plist_get_bool_val(node, &value);
            return value != 0;
        }
        if (hasType(node, PLIST_UINT)) {
            uint64_t value = 0;
            plist_get_uint_val(node, &value);
            return value != 0;
        }
        throw ArchiveException(std::string("*** -[NSKeyedUnarchiver decodeBoolForKey:]: value for key (") + key +
                               ") is not a boolean");
    }

    // The object at `ref` read as a Timer; the four keys in order, a missing one as nil, NO, 0.0.
    Timer timer(plist_t object) const {
        if (!isPlistDict(object) || !isKindOf(object, "Timer"))
            throw ArchiveException("*** object is not a Timer");
        Timer timer;
        if (plist_t ref = dictItem(object, "scriptFilePath")) timer.scriptFilePath = string(resolve(ref)).value_or("");
        if (plist_t ref = dictItem(object, "fireDate")) timer.fireDate = date(resolve(ref));
        timer.repeat = boolean(dictItem(object, "repeat"), "repeat");
        timer.interval = number(dictItem(object, "interval"), "interval");
        return timer;
    }

    std::vector<Timer> timers(plist_t object) const {
        if (!isPlistDict(object) || !isKindOf(object, "NSArray"))
            throw ArchiveException("*** root object is not an array");
        plist_t refs = dictItem(object, "NS.objects");
        if (!hasType(refs, PLIST_ARRAY)) throw ArchiveException("*** -[NSArray initWithCoder:]: no NS.objects");
        std::vector<Timer> out;
        for (uint32_t i = 0, n = plist_array_get_size(refs); i < n; ++i)
            out.push_back(timer(resolve(plist_array_get_item(refs, i))));
        return out;
    }

private:
    PlistHandle archive_;
    plist_t objects_ = nullptr;
    uint32_t count_ = 0;
    plist_t root_ = nullptr;
};

}  // namespace

std::string archiveTimer(const Timer& timer) {
    ArchiveWriter writer;
    return writer.finish(writer.addTimer(timer));
}

std::string archiveTimers(const std::vector<Timer>& timers) {
    ArchiveWriter writer;
    return writer.finish(writer.addTimerList(timers));
}

Timer unarchiveTimer(std::string_view bytes) {
    ArchiveReader reader(bytes);
    return reader.timer(reader.root());
}

std::vector<Timer> unarchiveTimers(std::string_view bytes) {
    ArchiveReader reader(bytes);
    return reader.timers(reader.root());
}

}  // namespace tw
