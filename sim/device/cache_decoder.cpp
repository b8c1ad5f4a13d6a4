// SPDX-License-Identifier: Apache-2.0
#include "cache_decoder.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <sstream>
#include <vector>

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
constexpr size_t kHexBytesPerLine = 32;

// The reader's string-to-int conversion ends the process on a leading number outside int32.
bool OutOfRange(const std::string& piece) {
    int32_t value = 0;
    return std::from_chars(piece.data(), piece.data() + piece.size(), value).ec ==
           std::errc::result_out_of_range;
}

// The piece with its leading number replaced by a zero of the same sign: it passes or fails the
// reader's checks exactly as the piece does, without ending the process.
std::string Defused(const std::string& piece) {
    const size_t sign = piece[0] == '-' ? 1 : 0;
    const size_t end = std::min(piece.find_first_not_of("0123456789", sign), piece.size());
    return piece.substr(0, sign) + "0" + piece.substr(end);
}

// Why the daemon's loader would not take `bytes`; empty when it would. The reader stops at the
// first piece it refuses and aborts on a number out of range, so each number is tried in its
// order, after the real ones before it and with harmless ones after it.
std::string Defect(const std::string& bytes) {
    const std::vector<std::string> pieces = Split(bytes, std::string(1, kCacheFieldSeparator));
    if (pieces.size() != std::size(kFieldNames)) {
        return StringPrintf("%zu field%s, %zu expected", pieces.size(),
                            pieces.size() == 1 ? "" : "s", std::size(kFieldNames));
    }
    for (size_t i = 0; i < kNumberCount; ++i) {
        std::vector<std::string> probe = pieces;
        const bool out_of_range = OutOfRange(pieces[i]);
        if (out_of_range) probe[i] = Defused(pieces[i]);
        for (size_t later = i + 1; later < kNumberCount; ++later) probe[later] = "0";
        if (Message message;
            !message.DeserializeFromString(android::base::Join(probe, kCacheFieldSeparator))) {
            return StringPrintf("%s not accepted", kFieldNames[i]);
        }
        if (out_of_range) {
            return StringPrintf("%s is outside the 32-bit range (the daemon would abort on it)",
                                kFieldNames[i]);
        }
    }
    return "";
}

// "#1 " and the entry's text form or "bad entry: " and why, then its bytes in hex. False for a
// bad entry.
bool DescribeEntry(size_t index, const std::string& bytes, bool terminated,
                   std::ostringstream& out) {
    out << "#" << index << (terminated ? " " : " (no terminator) ");
    const std::string defect = Defect(bytes);
    if (Message message; defect.empty() && message.DeserializeFromString(bytes)) {
        out << message;  // the text form ends the line itself
    } else {
        out << "bad entry: " << defect << "\n";
    }
    for (size_t start = 0; start < bytes.size(); start += kHexBytesPerLine) {
        out << "   ";
        for (size_t i = start; i < std::min(bytes.size(), start + kHexBytesPerLine); ++i) {
            out << StringPrintf(" %02X", static_cast<unsigned char>(bytes[i]));
        }
        out << "\n";
    }
    return defect.empty();
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
    // Cut as the loader cuts, skipping the empty pieces it skips.
    const std::vector<std::string> records = Split(content, kCacheRecordTerminator);
    size_t count = 0, bad = 0;
    for (size_t i = 0; i < records.size(); ++i) {
        if (records[i].empty()) continue;
        bad += DescribeEntry(count++, records[i], i + 1 < records.size(), out) ? 0 : 1;
    }
    out << count << (count == 1 ? " entry" : " entries") << ", " << bad << " bad\n";
    *text = out.str();
    return true;
}

}  // namespace vendor::vesk::tavi::sim
