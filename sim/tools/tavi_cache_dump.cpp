// tavi_cache_dump: shows a cache file of the daemon entry by entry: each entry's index, the
// message in its log text form and the entry's bytes. The file is only read, never changed.
//
// usage: tavi_cache_dump CACHE_FILE
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <cerrno>
#include <iostream>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/stringprintf.h>

#include "cache_decoder.h"

namespace vendor::vesk::tavi {
namespace {

using android::base::StringPrintf;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr size_t kHexBytesPerLine = 32;

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
bool PrintEntry(size_t index, const sim::CacheEntry& entry) {
    std::cout << "#" << index << (entry.terminated ? " " : " (no terminator) ");
    if (entry.message) {
        std::cout << *entry.message;  // the text form ends the line itself
    } else {
        std::cout << "bad entry: " << entry.defect << "\n";
    }
    PrintHex(entry.bytes);
    return entry.message.has_value();
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
    const std::vector<sim::CacheEntry> entries = sim::DecodeCache(content);
    size_t bad = 0;
    for (size_t i = 0; i < entries.size(); ++i) bad += !PrintEntry(i, entries[i]);
    std::cout << entries.size() << (entries.size() == 1 ? " entry" : " entries") << ", " << bad
              << " bad" << std::endl;
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
