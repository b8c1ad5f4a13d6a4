// SPDX-License-Identifier: Apache-2.0
// The cache file at its ceiling: Save merging 128 messages into a file that is nearly full,
// and Load of a full file into an empty cache (128 kept, every further record refused with
// its log line). Only Save and Load are timed; writing the starting file is not.

#include <string>
#include <utility>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <benchmark/benchmark.h>

#include "message.h"
#include "message_cache.h"

namespace vendor::vesk::tavi {
namespace {

constexpr uint32_t kCacheCapacity = 128;
// Room left in the nearly full file: about half of the 128 messages fit, the rest meet the
// ceiling, so Save does both.
constexpr size_t kSaveRoomInEntries = 64;

// A charger record as the kernel sends it, numbered so that entries differ.
Message ChargerRecord(int32_t n, std::string text = "") {
    return {LOG, kCharger, 1, 3002, n, -5, 300, 1, std::move(text)};
}

std::string Entry(const Message& message) {
    std::string record;
    message.SerializeToString(&record);
    return record + kCacheRecordTerminator;
}

// Whole entries up to `size` bytes, counted in `entries`; the last one's text is stretched to
// end exactly there.
std::string CacheFileOf(size_t size, size_t* entries = nullptr) {
    std::string content;
    for (int32_t n = 0;; ++n) {
        const size_t entry_size = Entry(ChargerRecord(n)).size();
        if (content.size() + 2 * entry_size > size) {
            if (entries != nullptr) *entries = n + 1;
            return content +
                   Entry(ChargerRecord(n, std::string(size - content.size() - entry_size, 'x')));
        }
        content += Entry(ChargerRecord(n));
    }
}

// Each iteration writes `content` to a fresh cache file and `stored` messages into a new cache,
// then times `operation` alone; its CPU time is this thread's only, the steadier figure on a
// shared machine. Returns the last iteration's cache and what the file holds after it.
std::pair<MessageCache, std::string> TimeOnFile(
        benchmark::State& state, const std::string& content, uint32_t stored,
        bool (MessageCache::*operation)(const std::string&)) {
    android::base::SetLogger([](auto&&...) {});  // drops the lines, Load's refusals included
    const TemporaryDir dir;
    const std::string path = std::string(dir.path) + "/cache.bin";
    MessageCache cache(kCacheCapacity);
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        android::base::WriteStringToFile(content, path);
        cache = MessageCache(kCacheCapacity);
        for (uint32_t i = 0; i < stored; ++i) cache.Store(ChargerRecord(1000000 + i));
        state.ResumeTiming();
        if (!(cache.*operation)(path)) state.SkipWithError("the cache file operation failed");
    }
    std::string left;
    android::base::ReadFileToString(path, &left);
    return {cache, left};
}

void BM_CacheSave_128IntoNearlyFullFile(benchmark::State& state) {
    const size_t room = kSaveRoomInEntries * Entry(ChargerRecord(1000000)).size();
    const std::string existing = CacheFileOf(kCacheFileSizeLimit - room);
    const std::string saved =
            TimeOnFile(state, existing, kCacheCapacity, &MessageCache::Save).second;
    state.counters["file_bytes_before"] = static_cast<double>(existing.size());
    state.counters["file_bytes_after"] = static_cast<double>(saved.size());
}
BENCHMARK(BM_CacheSave_128IntoNearlyFullFile)->Unit(benchmark::kMillisecond);

void BM_CacheLoad_FullFile(benchmark::State& state) {
    size_t entries = 0;
    const std::string full = CacheFileOf(kCacheFileSizeLimit, &entries);
    std::vector<Message> kept;
    TimeOnFile(state, full, 0, &MessageCache::Load).first.Restore(kept);
    state.counters["file_bytes"] = static_cast<double>(full.size());
    state.counters["entries"] = static_cast<double>(entries);
    state.counters["kept"] = static_cast<double>(kept.size());
}
BENCHMARK(BM_CacheLoad_FullFile)->Unit(benchmark::kMillisecond);

// The pieces of Load's per-entry work: reading one record, and the refusal of a full cache.
void BM_CacheRecordRead(benchmark::State& state) {
    std::string record;
    ChargerRecord(123456).SerializeToString(&record);
    for ([[maybe_unused]] auto _ : state) {
        Message message;
        benchmark::DoNotOptimize(message.DeserializeFromString(record));
    }
}
BENCHMARK(BM_CacheRecordRead);

void BM_CacheStoreWhenFull(benchmark::State& state) {
    android::base::SetLogger([](auto&&...) {});
    MessageCache cache(kCacheCapacity);
    for (uint32_t i = 0; i < kCacheCapacity; ++i) cache.Store(ChargerRecord(1));
    const Message message = ChargerRecord(2);
    for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(cache.Store(message));
}
BENCHMARK(BM_CacheStoreWhenFull);

}  // namespace
}  // namespace vendor::vesk::tavi
