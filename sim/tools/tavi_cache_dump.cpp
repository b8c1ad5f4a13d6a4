// SPDX-License-Identifier: Apache-2.0
// tavi_cache_dump: shows a cache file of the daemon entry by entry: each entry's index, the
// message in its log text form and the entry's bytes. The file is only read, never changed.
//
// usage: tavi_cache_dump CACHE_FILE
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/stringprintf.h>

#include "message.h"
#include "utils.h"

namespace vendor::vesk::tavi {
namespace {

using android::base::StringPrintf;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

const std::string kRecordTerminator("\0\0\n", 3);
const std::string kFieldSeparator(1, '\0');
constexpr size_t kRecordFieldCount = 9;
constexpr size_t kUnsignedFieldCount = 4;
constexpr const char* kNumericFieldNames[] = {"type",   "category", "log_level", "error_code",
                                              "param1", "param2",   "param3",    "param4"};
constexpr size_t kHexBytesPerLine = 32;
constexpr size_t kMaxInt32Digits = 10;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// The loader converts the leading [-]digits of a field and does not survive a value outside
// int32, so the range is checked here before the record is handed to it.
bool FitsInt32(const std::string& field) {
    size_t pos = (!field.empty() && field[0] == '-') ? 1 : 0;
    const bool negative = pos == 1;
    while (pos < field.size() && field[pos] == '0') ++pos;
    int64_t magnitude = 0;
    for (size_t digits = 0; pos < field.size() && IsDigit(field[pos]); ++pos) {
        if (++digits > kMaxInt32Digits) return false;
        magnitude = magnitude * 10 + (field[pos] - '0');
    }
    const int64_t value = negative ? -magnitude : magnitude;
    return value >= INT32_MIN && value <= INT32_MAX;
}

// The loader's checks in the loader's order, with the reason a record would fail them.
// Empty when the record is loadable.
std::string FindDefect(const std::string& record) {
    const std::vector<std::string> fields = Split(record, kFieldSeparator);
    if (fields.size() != kRecordFieldCount) {
        return StringPrintf("%zu field%s, %zu expected", fields.size(),
                            fields.size() == 1 ? "" : "s", kRecordFieldCount);
    }
    for (size_t i = 0; i < std::size(kNumericFieldNames); ++i) {
        const std::string& field = fields[i];
        if (i < kUnsignedFieldCount && (field.empty() || !IsDigit(field[0]))) {
            return StringPrintf("%s does not start with a digit", kNumericFieldNames[i]);
        }
        if (i >= kUnsignedFieldCount && !IsInteger(field)) {
            return StringPrintf("%s is not an integer", kNumericFieldNames[i]);
        }
        if (!FitsInt32(field)) {
            return StringPrintf("%s is outside the 32-bit range (the daemon would abort on it)",
                                kNumericFieldNames[i]);
        }
    }
    return "";
}

void PrintHex(const std::string& bytes) {
    for (size_t start = 0; start < bytes.size(); start += kHexBytesPerLine) {
        std::cout << "   ";
        for (size_t i = start; i < bytes.size() && i < start + kHexBytesPerLine; ++i) {
            std::cout << StringPrintf(" %02X", static_cast<unsigned char>(bytes[i]));
        }
        std::cout << "\n";
    }
}

// Returns true when the entry would load.
bool PrintEntry(size_t index, const std::string& record, bool terminated) {
    std::cout << "#" << index << (terminated ? " " : " (no terminator) ");
    std::string defect = FindDefect(record);
    Message message;
    if (defect.empty() && !message.DeserializeFromString(record)) defect = "rejected";
    if (defect.empty()) {
        std::cout << message;  // the text form ends the line itself
    } else {
        std::cout << "bad entry: " << defect << "\n";
    }
    PrintHex(record);
    return defect.empty();
}

bool PrintHeader(const std::string& path) {
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) {
        fprintf(stderr, "tavi_cache_dump: %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    std::cout << StringPrintf("%s: %lld bytes, mode %04o, owner %u:%u%s\n", path.c_str(),
                              static_cast<long long>(status.st_size), status.st_mode & 07777,
                              status.st_uid, status.st_gid,
                              S_ISREG(status.st_mode) ? "" : ", not a regular file");
    return true;
}

int Dump(const std::string& path) {
    if (!PrintHeader(path)) return kExitFailure;
    std::string content;
    // Like the daemon, never through a symbolic link.
    if (!android::base::ReadFileToString(path, &content, /*follow_symlinks=*/false)) {
        fprintf(stderr, "tavi_cache_dump: cannot read %s: %s\n", path.c_str(), strerror(errno));
        return kExitFailure;
    }
    const std::vector<std::string> records = Split(content, kRecordTerminator);
    size_t entries = 0;
    size_t bad = 0;
    for (size_t i = 0; i < records.size(); ++i) {
        if (records[i].empty()) continue;  // the loader skips them too
        const bool terminated = i + 1 < records.size();
        if (!PrintEntry(entries++, records[i], terminated)) ++bad;
    }
    std::cout << entries << (entries == 1 ? " entry" : " entries") << ", " << bad << " bad"
              << std::endl;
    return 0;
}

}  // namespace

int CacheDumpMain(int argc, char** argv) {
    if (argc != 2 || argv[1][0] == '\0') {
        fprintf(stderr, "usage: tavi_cache_dump CACHE_FILE\n");
        return kExitUsage;
    }
    return Dump(argv[1]);
}

}  // namespace vendor::vesk::tavi

int main(int argc, char** argv) {
    return vendor::vesk::tavi::CacheDumpMain(argc, argv);
}
