#pragma once
// The platform's keyed-archive layout, for Timer objects and lists of them, as binary property
// lists (libplist):
//
//   { "$archiver": "NSKeyedArchiver", "$version": 100000, "$top": { "root": UID(n) },
//     "$objects": [ "$null", ... ] }
//
// Objects refer to one another through UID references into "$objects" (UID 0 is nil). A Timer is
// { "$class": UID, "scriptFilePath": UID(string), "fireDate": UID(NSDate), "repeat": bool,
// "interval": real }; an NSDate is { "$class": UID, "NS.time": seconds since 2001-01-01 UTC }; a
// list is { "$class": UID, "NS.objects": [UID, ...] } of class NSArray or NSMutableArray; a class is
// { "$classname": name, "$classes": [name, superclasses..., "NSObject"] }. Texts may also come as
// NSString / NSMutableString objects ({ "NS.string": text }), as the platform's archiver writes
// mutable ones.
//
// Decoding bytes that do not hold such an archive throws ArchiveException, as the platform's
// unarchiver raises; callers that own the user's view catch it.
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "schedule/Timer.h"

namespace tw {

class ArchiveException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Seconds between 1970-01-01 and 2001-01-01, both UTC: NSDate's reference date.
inline constexpr double kReferenceDateOffset = 978307200.0;

// The archive bytes of one Timer as the root object.
std::string archiveTimer(const Timer& timer);
// The archive bytes of a list of Timer objects (an NSArray) as the root object.
std::string archiveTimers(const std::vector<Timer>& timers);

// The root object of `bytes`, which must be one Timer / a list of Timer objects.
Timer unarchiveTimer(std::string_view bytes);
std::vector<Timer> unarchiveTimers(std::string_view bytes);

}  // namespace tw
