// SPDX-License-Identifier: Apache-2.0
// A whole cache file: Load must delete it, keep at most the capacity, in file order, exactly
// the entries that read as records; what it keeps must survive Save and a second Load.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <android-base/file.h>

#include "fuzz_support.h"
#include "message.h"
#include "message_cache.h"
#include "utils.h"

using vendor::vesk::tavi::FileExist;
using vendor::vesk::tavi::kCacheFileSizeLimit;
using vendor::vesk::tavi::kCacheRecordTerminator;
using vendor::vesk::tavi::Message;
using vendor::vesk::tavi::MessageCache;
using vendor::vesk::tavi::fuzz::Fail;
using vendor::vesk::tavi::fuzz::ReadRecord;
using vendor::vesk::tavi::fuzz::RecordReading;
using vendor::vesk::tavi::fuzz::SameMessage;
using vendor::vesk::tavi::fuzz::SplitView;

namespace {

constexpr uint32_t kCapacity = 128;

// The cache file's folder, made once per process and removed with its contents at exit.
const std::string& CachePath() {
    static const TemporaryDir dir;
    static const std::string path = std::string(dir.path) + "/cache.bin";
    return path;
}

// The records Load should keep, or false when one of them would end the process.
bool ExpectedRecords(std::string_view content, std::vector<Message>& records) {
    for (std::string_view entry : SplitView(content, kCacheRecordTerminator)) {
        if (entry.empty()) continue;
        const RecordReading reading = ReadRecord(entry);
        if (reading.out_of_range) return false;
        if (reading.message && records.size() < kCapacity) records.push_back(*reading.message);
    }
    return true;
}

bool SameMessages(const std::vector<Message>& a, const std::vector<Message>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), SameMessage);
}

std::vector<Message> LoadAll(const std::string& content) {
    if (!android::base::WriteStringToFile(content, CachePath())) Fail("cannot write the file");
    MessageCache cache(kCapacity);
    if (!cache.Load(CachePath())) Fail("Load failed on a readable file");
    if (FileExist(CachePath())) Fail("Load left the file behind");
    std::vector<Message> loaded;
    cache.Restore(loaded);
    return loaded;
}

// Whatever was loaded, written back by Save, loads again unchanged (it always fits: 128
// records of an input far below the ceiling).
void CheckSaveAndReload(const std::vector<Message>& loaded) {
    MessageCache cache(kCapacity);
    for (const auto& message : loaded) cache.Store(message);
    if (!cache.Save(CachePath())) Fail("Save failed");
    std::string written;
    if (!loaded.empty() && !android::base::ReadFileToString(CachePath(), &written)) {
        Fail("Save wrote no file");
    }
    std::vector<Message> reloaded;
    if (!loaded.empty()) reloaded = LoadAll(written);
    if (!SameMessages(reloaded, loaded)) Fail("records changed across Save and Load");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vendor::vesk::tavi::fuzz::SilenceLogs();
    CachePath();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Save must fit every record it writes back: keep the input under the file ceiling.
    if (size > kCacheFileSizeLimit) return 0;
    const std::string content(reinterpret_cast<const char*>(data), size);
    std::vector<Message> expected;
    if (!ExpectedRecords(content, expected)) return 0;  // ends the daemon by design

    const std::vector<Message> loaded = LoadAll(content);
    if (!SameMessages(loaded, expected)) Fail("loaded records differ from the file's");
    CheckSaveAndReload(loaded);
    return 0;
}
