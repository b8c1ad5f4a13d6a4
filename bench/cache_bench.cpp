// SPDX-License-Identifier: Apache-2.0
// The cache file at its ceiling: Save merging 128 messages into a file that is nearly full,
// and Load of a full file into an empty cache (128 kept, every further record refused with
// its log line). Only Save and Load are timed; writing the starting file is not.

#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>
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

void DropLogs() {
    android::base::SetLogger([](android::base::LogId, android::base::LogSeverity, const char*,
                                const char*, unsigned int, const char*) {});
}

// A charger record as the kernel sends it, numbered so that entries differ.
Message ChargerRecord(int32_t n) {
    Message message;
    message.category = kCharger;
    message.log_level = 1;
    message.error_code = 3002;
    message.param1 = n;
    message.param2 = -5;
    message.param3 = 300;
    message.param4 = 1;
    return message;
}

std::string Entry(const Message& message) {
    std::string record;
    message.SerializeToString(&record);
    return record + kCacheRecordTerminator;
}

// Whole entries up to `size` bytes; the last one's text is stretched to end exactly there.
std::string CacheFileOf(size_t size) {
    std::string content;
    for (int32_t n = 0;; ++n) {
        std::string entry = Entry(ChargerRecord(n));
        if (content.size() + 2 * entry.size() > size) {
            Message last = ChargerRecord(n);
            last.message.assign(size - content.size() - entry.size(), 'x');
            return content + Entry(last);
        }
        content += entry;
    }
}

// A cache file path in a fresh folder, both removed when it goes.
class TempCacheFile {
  public:
    TempCacheFile() {
        const char* tmp = getenv("TMPDIR");
        dir_ = std::string(tmp != nullptr ? tmp : "/tmp") + "/tavi_cache_bench.XXXXXX";
        if (mkdtemp(dir_.data()) == nullptr) dir_.clear();
        path_ = dir_ + "/cache.bin";
    }
    ~TempCacheFile() {
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }
    TempCacheFile(const TempCacheFile&) = delete;
    TempCacheFile& operator=(const TempCacheFile&) = delete;

    const std::string& path() const { return path_; }

  private:
    std::string dir_;
    std::string path_;
};

double ThreadCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Times `body` alone: wall time as the iteration's time, and its CPU time (user and system,
// this thread only) summed into `cpu_seconds`. On a shared machine the CPU time is the
// steadier figure of the two.
template <typename Body>
void TimeOne(benchmark::State& state, double& cpu_seconds, Body body) {
    const double cpu_start = ThreadCpuSeconds();
    const auto start = std::chrono::steady_clock::now();
    body();
    const auto end = std::chrono::steady_clock::now();
    cpu_seconds += ThreadCpuSeconds() - cpu_start;
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
}

void ReportCpu(benchmark::State& state, double cpu_seconds) {
    state.counters["cpu_ms"] =
            benchmark::Counter(cpu_seconds * 1e3, benchmark::Counter::kAvgIterations);
}

void BM_CacheSave_128IntoNearlyFullFile(benchmark::State& state) {
    DropLogs();
    const TempCacheFile file;
    const std::string& path = file.path();
    const size_t room = kSaveRoomInEntries * Entry(ChargerRecord(1000000)).size();
    const std::string existing = CacheFileOf(kCacheFileSizeLimit - room);
    double cpu_seconds = 0;
    for ([[maybe_unused]] auto _ : state) {
        android::base::WriteStringToFile(existing, path);
        MessageCache cache(kCacheCapacity);
        for (uint32_t i = 0; i < kCacheCapacity; ++i) cache.Store(ChargerRecord(1000000 + i));
        TimeOne(state, cpu_seconds, [&] {
            if (!cache.Save(path)) state.SkipWithError("Save failed");
        });
    }
    std::string saved;
    android::base::ReadFileToString(path, &saved);
    ReportCpu(state, cpu_seconds);
    state.counters["file_bytes_before"] = static_cast<double>(existing.size());
    state.counters["file_bytes_after"] = static_cast<double>(saved.size());
}
BENCHMARK(BM_CacheSave_128IntoNearlyFullFile)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_CacheLoad_FullFile(benchmark::State& state) {
    DropLogs();
    const TempCacheFile file;
    const std::string& path = file.path();
    const std::string full = CacheFileOf(kCacheFileSizeLimit);
    size_t entries = 0;
    for (size_t at = full.find(kCacheRecordTerminator); at != std::string::npos;
         at = full.find(kCacheRecordTerminator, at + kCacheRecordTerminator.size())) {
        ++entries;
    }
    std::vector<Message> kept;
    double cpu_seconds = 0;
    for ([[maybe_unused]] auto _ : state) {
        android::base::WriteStringToFile(full, path);
        MessageCache cache(kCacheCapacity);
        TimeOne(state, cpu_seconds, [&] {
            if (!cache.Load(path)) state.SkipWithError("Load failed");
        });
        kept.clear();
        cache.Restore(kept);
    }
    ReportCpu(state, cpu_seconds);
    state.counters["file_bytes"] = static_cast<double>(full.size());
    state.counters["entries"] = static_cast<double>(entries);
    state.counters["kept"] = static_cast<double>(kept.size());
}
BENCHMARK(BM_CacheLoad_FullFile)->UseManualTime()->Unit(benchmark::kMillisecond);

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
    DropLogs();
    MessageCache cache(kCacheCapacity);
    for (uint32_t i = 0; i < kCacheCapacity; ++i) cache.Store(ChargerRecord(1));
    const Message message = ChargerRecord(2);
    for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(cache.Store(message));
}
BENCHMARK(BM_CacheStoreWhenFull);

}  // namespace
}  // namespace vendor::vesk::tavi
