#include "platform/UserDefaults.h"

#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace tw {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

size_t skipSpace(const std::string& s) {
    size_t i = 0;
    while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
    return i;
}

// The leading decimal number of a text ("  -12.5e3px" -> -12500), after optional white space.
// Only plain decimal forms count: no hex, "inf" or "nan". nullopt when the text does not start
// with a number.
std::optional<double> leadingDouble(const std::string& s) {
    size_t i = skipSpace(s);
    const size_t start = i;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
    size_t digits = 0;
    while (i < s.size() && isDigit(s[i])) ++i, ++digits;
    if (i < s.size() && s[i] == '.') {
        ++i;
        while (i < s.size() && isDigit(s[i])) ++i, ++digits;
    }
    if (digits == 0) return std::nullopt;
    if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
        size_t j = i + 1;
        if (j < s.size() && (s[j] == '+' || s[j] == '-')) ++j;
        if (j < s.size() && isDigit(s[j])) {
            while (j < s.size() && isDigit(s[j])) ++j;
            i = j;
        }
    }
    return std::strtod(s.substr(start, i - start).c_str(), nullptr);
}

// The leading integer of a text ("  42abc" -> 42, "3.9" -> 3), saturating at the int64 limits.
std::optional<int64_t> leadingInteger(const std::string& s) {
    size_t i = skipSpace(s);
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    if (i >= s.size() || !isDigit(s[i])) return std::nullopt;
    // Accumulate as a negative number so that INT64_MIN is representable.
    int64_t value = 0;
    bool overflow = false;
    for (; i < s.size() && isDigit(s[i]); ++i) {
        const int d = s[i] - '0';
        if (value < (std::numeric_limits<int64_t>::min() + d) / 10) {
            overflow = true;
            continue;
        }
        value = value * 10 - d;
    }
    if (overflow) return negative ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
    if (negative) return value;
    if (value == std::numeric_limits<int64_t>::min()) return std::numeric_limits<int64_t>::max();
    return -value;
}

// Truncates toward zero, saturating at the int64 limits; NaN reads as 0.
int64_t truncateToInteger(double d) {
    if (std::isnan(d)) return 0;
    // 2^63 is exactly representable; anything at or beyond it does not fit.
    constexpr double limit = 9223372036854775808.0;
    if (d >= limit) return std::numeric_limits<int64_t>::max();
    if (d < -limit) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(d);
}

bool textIsTrue(const std::string& s) {
    if (s == "YES" || s == "yes" || s == "true" || s == "TRUE") return true;
    const auto number = leadingDouble(s);
    return number && *number != 0.0;
}

}  // namespace

bool UserDefaults::boolForKey(const std::string& key) {
    const auto value = objectForKey(key);
    if (!value) return false;
    if (const auto* b = std::get_if<bool>(&*value)) return *b;
    if (const auto* i = std::get_if<int64_t>(&*value)) return *i != 0;
    if (const auto* d = std::get_if<double>(&*value)) return *d != 0.0;
    return textIsTrue(std::get<std::string>(*value));
}

int64_t UserDefaults::integerForKey(const std::string& key) {
    const auto value = objectForKey(key);
    if (!value) return 0;
    if (const auto* b = std::get_if<bool>(&*value)) return *b ? 1 : 0;
    if (const auto* i = std::get_if<int64_t>(&*value)) return *i;
    if (const auto* d = std::get_if<double>(&*value)) return truncateToInteger(*d);
    return leadingInteger(std::get<std::string>(*value)).value_or(0);
}

double UserDefaults::doubleForKey(const std::string& key) {
    const auto value = objectForKey(key);
    if (!value) return 0.0;
    if (const auto* b = std::get_if<bool>(&*value)) return *b ? 1.0 : 0.0;
    if (const auto* i = std::get_if<int64_t>(&*value)) return static_cast<double>(*i);
    if (const auto* d = std::get_if<double>(&*value)) return *d;
    return leadingDouble(std::get<std::string>(*value)).value_or(0.0);
}

std::optional<std::string> UserDefaults::stringForKey(const std::string& key) {
    const auto value = objectForKey(key);
    if (!value) return std::nullopt;
    if (const auto* b = std::get_if<bool>(&*value)) return std::string(*b ? "1" : "0");
    if (const auto* i = std::get_if<int64_t>(&*value)) return std::to_string(*i);
    if (const auto* d = std::get_if<double>(&*value)) {
        // The shortest text that reads back as the same double: 2.5 -> "2.5", 3.0 -> "3",
        // 1e21 -> "1e+21".
        std::array<char, 64> buffer{};
        const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), *d);
        return std::string(buffer.data(), result.ptr);
    }
    return std::get<std::string>(*value);
}

}  // namespace tw
