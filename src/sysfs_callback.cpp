// SPDX-License-Identifier: Apache-2.0

#include "sysfs_callback.h"

#include <array>

#include <android-base/logging.h>

namespace vendor::vesk::tavi {

namespace {

// Name of the only type this parser produces, as the text form of a message shows it.
constexpr char kTypeName[] = "LOG";
constexpr size_t kFieldCount = 7;
// Fields 1 to 3 are unsigned; fields 4 to 7 may carry a leading '-'.
constexpr size_t kUnsignedFieldCount = 3;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// Takes one field at `pos`: an optional '-' when `is_signed`, then one or more digits.
bool TakeField(const std::string& text, bool is_signed, size_t& pos, std::string& field) {
    const size_t start = pos;
    if (is_signed && pos < text.size() && text[pos] == '-') ++pos;
    const size_t first_digit = pos;
    while (pos < text.size() && IsDigit(text[pos])) ++pos;
    if (pos == first_digit) return false;
    field = text.substr(start, pos - start);
    return true;
}

// Full match of "^(\d+),(\d+),(\d+),(-?\d+),(-?\d+),(-?\d+),(-?\d+)\n$" by hand: records are
// rare, but compiling a regex for each of them buys nothing.
bool MatchLogLine(const std::string& text, std::array<std::string, kFieldCount>& fields) {
    size_t pos = 0;
    for (size_t i = 0; i < kFieldCount; ++i) {
        if (i > 0) {
            if (pos >= text.size() || text[pos] != ',') return false;
            ++pos;
        }
        if (!TakeField(text, i >= kUnsignedFieldCount, pos, fields[i])) return false;
    }
    return pos + 1 == text.size() && text[pos] == '\n';
}

}  // namespace

bool ParseSysfsLogValue(const std::string& value, Message& message) {
    std::array<std::string, kFieldCount> fields;
    if (!MatchLogLine(value, fields)) {
        LOG(ERROR) << "Failed to parse the string for MessageType " << kTypeName << ": " << value;
        return false;
    }
    message.type = LOG;
    // No range check: a value outside int32 ends the process through std::stoi's error.
    int32_t* const targets[kFieldCount] = {
            &message.category, &message.log_level, &message.error_code, &message.param1,
            &message.param2,   &message.param3,    &message.param4};
    for (size_t i = 0; i < kFieldCount; ++i) {
        *targets[i] = std::stoi(fields[i], nullptr, 10);
    }
    return true;
}

}  // namespace vendor::vesk::tavi
