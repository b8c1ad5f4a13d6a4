// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <ostream>
#include <string>

namespace vendor::vesk::tavi {

// Kind of record. The field stays a full 32-bit value: a cache file may carry any number.
enum MessageType : int32_t {
    LOG = 0,
    DEBUG_LOG = 1,
};

// Device area that reported the record; any other value is legal and matches no handler.
enum MessageCategory : int32_t {
    kCamera = 1,
    kLinuxOs = 2,
    kDisplay = 3,
    kCharger = 4,
};

// One event reported by the kernel, as a plain value.
struct Message {
    MessageType type = LOG;
    int32_t category = 0;
    int32_t log_level = 0;
    int32_t error_code = 0;
    int32_t param1 = 0;
    int32_t param2 = 0;
    int32_t param3 = 0;
    int32_t param4 = 0;
    std::string message;

    // Cache record: the eight numbers each followed by a NUL byte, then the text.
    bool SerializeToString(std::string* out) const;
    bool SerializeToString(std::string& out) const { return SerializeToString(&out); }
    // Fields are stored as they pass, so a record that fails part-way is left half filled.
    bool DeserializeFromString(const std::string& in);
};

// The text form every log line uses; ends with a newline and flushes the stream.
std::ostream& operator<<(std::ostream& os, const Message& message);

}  // namespace vendor::vesk::tavi
