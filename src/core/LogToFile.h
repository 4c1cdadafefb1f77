#pragma once
// The error log: one time-stamped line per call, appended to
// "/var/mobile/Library/Tapwright/Library/log.log" of the device. Logging never fails loudly.
#include <string>
#include <string_view>

namespace tw {

// Largest message kept: the message is formatted into a 4096-byte buffer with a limit of 4095
// and terminated at its last byte, so 4094 bytes survive.
inline constexpr size_t kLogMessageLimit = 4094;

// printf-style: the system's own messages ("Fialed to init surface info ...").
void LogToFile(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Writes `message` verbatim: a '%' in it is just a character. Scripts' own text goes this way.
void LogMessageToFile(std::string_view message);

// The line written for `message` at the current local time: "MM-dd HH:mm:ss <message>\n", with the
// message cut to kLogMessageLimit bytes; a cut (or any text) that is not valid UTF-8 is written
// as "(null)", the printed form of a message that did not convert to text.
std::string formatLogLine(std::string_view message);

// True when `bytes` is well-formed UTF-8.
bool isValidUtf8(std::string_view bytes);

}  // namespace tw
