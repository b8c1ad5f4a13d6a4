// SPDX-License-Identifier: Apache-2.0
#include "cache_decoder.h"

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <sstream>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "message_cache.h"
#include "utils.h"

namespace vendor::vesk::tavi::sim {
namespace {

using android::base::StringPrintf;

// The record's pieces in the order the reader takes them: the eight numbers, then the text.
constexpr const char* kFieldNames[] = {"type",   "category", "log_level", "error_code", "param1",
                                       "param2", "param3",   "param4",    "message"};
constexpr size_t kNumberCount = std::size(kFieldNames) - 1;

// The reader's string-to-int conversion ends the process on a leading number outside int32.
bool OutOfRange(const std::string& piece) {
    int64_t value = 0;
    const auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), value);
    if (error == std::errc::result_out_of_range) return true;
    return error == std::errc() && (value < std::numeric_limits<int32_t>::min() ||
                                    value > std::numeric_limits<int32_t>::max());
}

// The piece with its leading number replaced by a zero of the same sign: what passes or fails
// the reader's checks exactly as the piece does, without ending the process.
std::string Defused(const std::string& piece) {
    const size_t sign = piece[0] == '-' ? 1 : 0;
    size_t digits_end = sign;
    while (digits_end < piece.size() && piece[digits_end] >= '0' && piece[digits_end] <= '9') {
        ++digits_end;
    }
    return piece.substr(0, sign) + "0" + piece.substr(digits_end);
}

std::array<int32_t, kNumberCount> Numbers(const Message& m) {
    return {m.type, m.category, m.log_level, m.error_code, m.param1, m.param2, m.param3, m.param4};
}

// The first piece the reader refuses: it stores each field as it passes, so two records
// started from different values differ from that field on.
std::string RefusedField(const std::string& record) {
    Message ones{static_cast<MessageType>(1), 1, 1, 1, 1, 1, 1, 1, ""};
    Message twos{static_cast<MessageType>(2), 2, 2, 2, 2, 2, 2, 2, ""};
    ones.DeserializeFromString(record);
    twos.DeserializeFromString(record);
    const auto first = Numbers(ones), second = Numbers(twos);
    for (size_t i = 0; i < kNumberCount; ++i) {
        if (first[i] != second[i]) return StringPrintf("%s not accepted", kFieldNames[i]);
    }
    return "not accepted";
}

void Decode(CacheEntry& entry) {
    std::vector<std::string> pieces = Split(entry.bytes, std::string(1, kCacheFieldSeparator));
    if (pieces.size() != std::size(kFieldNames)) {
        entry.defect = StringPrintf("%zu field%s, %zu expected", pieces.size(),
                                    pieces.size() == 1 ? "" : "s", std::size(kFieldNames));
        return;
    }
    // Would the reader get as far as converting the first number out of range?
    for (size_t i = 0; i < kNumberCount; ++i) {
        if (!OutOfRange(pieces[i])) continue;
        pieces[i] = Defused(pieces[i]);
        for (size_t later = i + 1; later < kNumberCount; ++later) pieces[later] = "0";
        if (Message probe;
            probe.DeserializeFromString(android::base::Join(pieces, kCacheFieldSeparator))) {
            entry.defect = StringPrintf(
                    "%s is outside the 32-bit range (the daemon would abort "
                    "on it)",
                    kFieldNames[i]);
        } else {
            entry.defect = RefusedField(android::base::Join(pieces, kCacheFieldSeparator));
        }
        return;
    }
    if (Message message; message.DeserializeFromString(entry.bytes)) {
        entry.message = message;
    } else {
        entry.defect = RefusedField(entry.bytes);
    }
}

}  // namespace

std::vector<CacheEntry> DecodeCache(const std::string& content) {
    const std::vector<std::string> records = Split(content, kCacheRecordTerminator);
    std::vector<CacheEntry> entries;
    for (size_t i = 0; i < records.size(); ++i) {
        if (records[i].empty()) continue;  // the loader skips them too
        CacheEntry& entry = entries.emplace_back();
        entry.bytes = records[i];
        entry.terminated = i + 1 < records.size();
        Decode(entry);
    }
    return entries;
}

namespace {

constexpr size_t kHexBytesPerLine = 32;

void DescribeEntry(size_t index, const CacheEntry& entry, std::ostringstream* text) {
    *text << "#" << index << (entry.terminated ? " " : " (no terminator) ");
    if (entry.message) {
        *text << *entry.message;  // the text form ends the line itself
    } else {
        *text << "bad entry: " << entry.defect << "\n";
    }
    for (size_t start = 0; start < entry.bytes.size(); start += kHexBytesPerLine) {
        *text << "   ";
        for (size_t i = start; i < entry.bytes.size() && i < start + kHexBytesPerLine; ++i) {
            *text << StringPrintf(" %02X", static_cast<unsigned char>(entry.bytes[i]));
        }
        *text << "\n";
    }
}

}  // namespace

bool DescribeCacheFile(const std::string& path, std::string* text) {
    struct stat status {};
    std::string content;
    if (lstat(path.c_str(), &status) != 0) {
        *text = path + ": " + strerror(errno);
        return false;
    }
    if (!android::base::ReadFileToString(path, &content, /*follow_symlinks=*/false)) {
        *text = "cannot read " + path + ": " + strerror(errno);
        return false;
    }
    std::ostringstream out;
    out << StringPrintf("%s: %lld bytes, mode %04o, owner %u:%u%s\n", path.c_str(),
                        static_cast<long long>(status.st_size), status.st_mode & 07777,
                        status.st_uid, status.st_gid,
                        S_ISREG(status.st_mode) ? "" : ", not a regular file");
    const std::vector<CacheEntry> entries = DecodeCache(content);
    size_t bad = 0;
    for (size_t i = 0; i < entries.size(); ++i) {
        DescribeEntry(i, entries[i], &out);
        bad += entries[i].message ? 0 : 1;
    }
    out << entries.size() << (entries.size() == 1 ? " entry" : " entries") << ", " << bad
        << " bad\n";
    *text = out.str();
    return true;
}

}  // namespace vendor::vesk::tavi::sim
