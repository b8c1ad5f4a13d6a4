// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "message.h"

namespace vendor::vesk::tavi::sim {

// One entry of a cache file as the daemon's loader would see it.
struct CacheEntry {
    std::string bytes;               // the record, without its terminator
    bool terminated = true;          // false for bytes the file ends with after the last terminator
    std::optional<Message> message;  // what the daemon would load
    // Otherwise why it would not: "10 fields, 9 expected", "category not accepted",
    // "param4 is outside the 32-bit range (the daemon would abort on it)".
    std::string defect;
};

// Cuts a cache file's content into entries with the daemon's own record reader and constants,
// skipping the empty pieces its loader skips. Unlike the loader it deletes nothing and survives
// numbers outside the signed 32-bit range, which it reports as defects.
std::vector<CacheEntry> DecodeCache(const std::string& content);

// A cache file as the tools show it: a header (size, mode, owner), each entry (its index, its
// text form or why it would not load, its bytes in hex) and a count. The file is read as the
// daemon reads it, never through a symbolic link. False, with `text` saying why, when it cannot
// be read.
bool DescribeCacheFile(const std::string& path, std::string* text);

}  // namespace vendor::vesk::tavi::sim
