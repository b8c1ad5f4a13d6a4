#pragma once

// Helpers shared by the fuzz targets: a silent logger, and independent readers of the two
// text formats that tell which inputs hold a number outside the signed 32-bit range. Such a
// number ends the daemon through the conversion's own error, by design, so the targets keep
// those inputs away from the code under test.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <android-base/logging.h>

#include "message.h"

namespace vendor::vesk::tavi::fuzz {

// Log lines cost time and fill the terminal; the targets check results, not lines.
inline void SilenceLogs() {
    android::base::SetLogger([](android::base::LogId, android::base::LogSeverity, const char*,
                                const char*, unsigned int, const char*) {});
}

inline bool IsAsciiDigit(char c) {
    return c >= '0' && c <= '9';
}

// Value of an optional '-' and one or more digits, or nothing when it does not fit in int32.
inline std::optional<int32_t> Int32Value(std::string_view text) {
    const bool negative = !text.empty() && text[0] == '-';
    if (negative) text.remove_prefix(1);
    while (text.size() > 1 && text[0] == '0') text.remove_prefix(1);
    // Eleven significant digits exceed any int32; ten fit in int64 for the exact test.
    if (text.empty() || text.size() > 10) return std::nullopt;
    int64_t value = 0;
    for (char c : text) {
        if (!IsAsciiDigit(c)) return std::nullopt;
        value = value * 10 + (c - '0');
    }
    if (negative) value = -value;
    if (value < INT32_MIN || value > INT32_MAX) return std::nullopt;
    return static_cast<int32_t>(value);
}

// The leading run of digits of `text` (what a base-10 string-to-int takes from a piece that
// starts with a digit).
inline std::string_view LeadingDigits(std::string_view text) {
    size_t end = 0;
    while (end < text.size() && IsAsciiDigit(text[end])) ++end;
    return text.substr(0, end);
}

inline bool IsIntegerText(std::string_view text) {
    if (!text.empty() && text[0] == '-') text.remove_prefix(1);
    if (text.empty()) return false;
    for (char c : text) {
        if (!IsAsciiDigit(c)) return false;
    }
    return true;
}

inline std::vector<std::string_view> SplitView(std::string_view text, std::string_view delimiter) {
    std::vector<std::string_view> pieces;
    size_t start = 0;
    for (size_t found = text.find(delimiter); found != std::string_view::npos;
         found = text.find(delimiter, start)) {
        pieces.push_back(text.substr(start, found - start));
        start = found + delimiter.size();
    }
    pieces.push_back(text.substr(start));
    return pieces;
}

// What reading one cache record should give, computed independently of the daemon's reader.
struct RecordReading {
    // The reader converts a number that does not fit: the input must not reach it.
    bool out_of_range = false;
    // Set when the record is accepted.
    std::optional<Message> message;
};

// Nine NUL-separated pieces: four that start with a digit (leading digits taken), four
// optional-minus integers, then the text. Conversion stops at the first piece that fails.
inline RecordReading ReadRecord(std::string_view record) {
    RecordReading reading;
    const std::vector<std::string_view> pieces = SplitView(record, std::string_view("\0", 1));
    if (pieces.size() != 9) return reading;
    int32_t values[8] = {};
    for (size_t i = 0; i < 8; ++i) {
        const bool leading_digits_only = i < 4;
        if (leading_digits_only ? (pieces[i].empty() || !IsAsciiDigit(pieces[i][0]))
                                : !IsIntegerText(pieces[i])) {
            return reading;
        }
        const std::optional<int32_t> value =
                Int32Value(leading_digits_only ? LeadingDigits(pieces[i]) : pieces[i]);
        if (!value) {
            reading.out_of_range = true;
            return reading;
        }
        values[i] = *value;
    }
    Message message;
    message.type = static_cast<MessageType>(values[0]);
    message.category = values[1];
    message.log_level = values[2];
    message.error_code = values[3];
    message.param1 = values[4];
    message.param2 = values[5];
    message.param3 = values[6];
    message.param4 = values[7];
    message.message = std::string(pieces[8]);
    reading.message = message;
    return reading;
}

inline bool SameMessage(const Message& a, const Message& b) {
    return a.type == b.type && a.category == b.category && a.log_level == b.log_level &&
           a.error_code == b.error_code && a.param1 == b.param1 && a.param2 == b.param2 &&
           a.param3 == b.param3 && a.param4 == b.param4 && a.message == b.message;
}

// A fuzz target's own check failed: stop with a crash that libFuzzer records.
[[noreturn]] inline void Fail(const char* what) {
    fprintf(stderr, "fuzz check failed: %s\n", what);
    abort();
}

}  // namespace vendor::vesk::tavi::fuzz
