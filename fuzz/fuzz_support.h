// SPDX-License-Identifier: Apache-2.0

#pragma once

// Independent readers of the two text formats. A number outside int32 ends the daemon by
// design (the conversion's own error), so the targets keep such inputs away from it.

#include <charconv>
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

inline void SilenceLogs() {
    android::base::SetLogger([](android::base::LogId, android::base::LogSeverity, const char*,
                                const char*, unsigned int, const char*) {});
}

inline bool IsAsciiDigit(char c) {
    return c >= '0' && c <= '9';
}

// Value of an optional '-' and one or more digits, or nothing when it does not fit in int32
// (callers check the form first). Read by from_chars, not the daemon's strtol-based stoi.
inline std::optional<int32_t> Int32Value(std::string_view text) {
    int32_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end) return std::nullopt;
    return value;
}

// What a base-10 string-to-int takes from a piece that starts with a digit.
inline std::string_view LeadingDigits(std::string_view text) {
    size_t end = 0;
    while (end < text.size() && IsAsciiDigit(text[end])) ++end;
    return text.substr(0, end);
}

inline bool IsIntegerText(std::string_view text) {
    if (!text.empty() && text[0] == '-') text.remove_prefix(1);
    return !text.empty() && LeadingDigits(text).size() == text.size();
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

struct RecordReading {
    bool out_of_range = false;       // the input must not reach the daemon's reader
    std::optional<Message> message;  // set when the record is accepted
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
    reading.message = Message{static_cast<MessageType>(values[0]),
                              values[1],
                              values[2],
                              values[3],
                              values[4],
                              values[5],
                              values[6],
                              values[7],
                              std::string(pieces[8])};
    return reading;
}

inline bool SameMessage(const Message& a, const Message& b) {
    return a.type == b.type && a.category == b.category && a.log_level == b.log_level &&
           a.error_code == b.error_code && a.param1 == b.param1 && a.param2 == b.param2 &&
           a.param3 == b.param3 && a.param4 == b.param4 && a.message == b.message;
}

[[noreturn]] inline void Fail(const char* what) {
    fprintf(stderr, "fuzz check failed: %s\n", what);
    abort();
}

}  // namespace vendor::vesk::tavi::fuzz
