// SPDX-License-Identifier: Apache-2.0
// The daemon as a whole in the simulated device: the emulated kernel attribute, the event
// service simulator and the unmodified daemon in its own mount namespace. Measures
//   - records per second delivered over a burst, and the latency from writing a record to
//     the attribute to its event at the service (median, 99th percentile);
//   - the latency of single records sent one at a time;
//   - the daemon's resident memory after start and after 100,000 records;
//   - its CPU time and context switches over 10 idle seconds;
//   - a start with a full cache file left by an earlier run: time to the end of the flush and
//     the memory afterwards.
// The simulator decodes and logs every event and the daemon logs to a file; both are part of
// the measured path. Needs root and /dev/fuse; without them it says why and exits 0.

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "message_cache.h"
#include "simulated_device.h"

namespace {

using namespace std::chrono_literals;
using android::base::ReadFileToString;
using android::base::StringPrintf;
namespace tavi = vendor::vesk::tavi;
using tavi::sim::milliseconds;
using tavi::sim::WaitUntil;

const tavi::sim::Binaries kBinaries = tavi::sim::Binaries::InBuildDir(TAVI_BUILD_DIR);
constexpr int kEmulatorQueueLimit = 4096;
// Injection waits while this many records are pending, well below the emulator's limit.
constexpr int kPendingHighWater = 2048;
constexpr int kPendingCheckEvery = 64;
// The charger SoC-freeze record carries param1 into its event: it numbers the records.
constexpr char kRecordFormat[] = "4,2,3002,%d,0,300,1\n";

struct Options {
    int burst = 10000;
    int single = 1000;
    int total = 100000;
    int idle_seconds = 10;
};

// The leading number of each "Key:   value kB" line of a /proc file, by key.
std::map<std::string, int64_t> ReadFields(const std::string& path) {
    std::string text;
    ReadFileToString(path, &text);
    std::map<std::string, int64_t> fields;
    for (const std::string& line : android::base::Split(text, "\n")) {
        const size_t colon = line.find(':');
        if (colon != std::string::npos) {
            fields[line.substr(0, colon)] = strtoll(line.c_str() + colon + 1, nullptr, 10);
        }
    }
    return fields;
}

// A process's /proc/PID/status figures (memory in KiB), its "Pss", and summed over its threads
// its context switches and its "cpu_ns", the time on a CPU that each thread's schedstat starts
// with.
using Sample = std::map<std::string, int64_t>;

Sample TakeSample(pid_t pid) {
    const std::string proc = StringPrintf("/proc/%d", pid);
    Sample sample = ReadFields(proc + "/status");
    sample["Pss"] = ReadFields(proc + "/smaps_rollup")["Pss"];
    sample["cpu_ns"] = sample["voluntary_ctxt_switches"] = sample["nonvoluntary_ctxt_switches"] = 0;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator(proc + "/task", error)) {
        for (const auto& [key, value] : ReadFields(task.path().string() + "/status")) {
            if (android::base::EndsWith(key, "ctxt_switches")) sample[key] += value;
        }
        std::string schedstat;
        ReadFileToString(task.path().string() + "/schedstat", &schedstat);
        sample["cpu_ns"] += strtoll(schedstat.c_str(), nullptr, 10);
    }
    return sample;
}

// "VmRSS 4368 KiB (anonymous 288, file 4080; PSS 1500, peak VmHWM 4400)"
std::string Memory(Sample& sample) {
    return StringPrintf("VmRSS %ld KiB (anonymous %ld, file %ld; PSS %ld, peak VmHWM %ld)",
                        sample["VmRSS"], sample["RssAnon"], sample["RssFile"], sample["Pss"],
                        sample["VmHWM"]);
}

double Percentile(std::vector<double> values, double fraction) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const auto index =
            static_cast<size_t>(std::lround(fraction * static_cast<double>(values.size() - 1)));
    return values[std::min(index, values.size() - 1)];
}

class Bench {
  public:
    explicit Bench(Options options) : options_(options) {}

    // Empty once the device runs and the daemon is connected; otherwise what failed.
    std::string Start() {
        const std::string failure = device_.Start(/*service_active=*/true);
        return failure.empty() ? Connected() : failure;
    }

    int Run() {
        const pid_t pid = device_.DaemonPid();
        Sample started = TakeSample(pid);
        printf("e2e start: daemon pid %d, %ld thread(s), %s\n", pid, started["Threads"],
               Memory(started).c_str());
        Burst();
        Singles();
        if (InjectMany(options_.total - next_record_) < 0 ||
            !WaitDelivered(next_record_ - 1, 300s)) {
            ok_ = false;
        }
        PollEvents();
        Sample loaded = TakeSample(pid);
        printf("e2e after %d records: %s, %+ld KiB since start, %ld thread(s); events %zu, "
               "duplicates %zu, unexpected %zu\n",
               next_record_, Memory(loaded).c_str(), loaded["VmRSS"] - started["VmRSS"],
               loaded["Threads"], events_, duplicates_, unexpected_);
        if (events_ != static_cast<size_t>(next_record_) || duplicates_ != 0 || unexpected_ != 0) {
            ok_ = false;
        }
        Idle();
        Stop();
        FullCacheStart();
        return ok_ ? 0 : 1;
    }

  private:
    void Fail(const std::string& what) {
        printf("%s\n", what.c_str());
        ok_ = false;
    }

    // Empty once the readiness task has woken the poll loop (its thread is then gone).
    std::string Connected() {
        const bool woken = device_.Log().WaitForLine(
                "poll() is interrupted by a client, calling interrupt callback", 15s);
        return woken ? "" : "the daemon did not connect (see " + device_.LogPath() + ")";
    }

    bool Inject(int record) {
        // Seconds since the epoch, as the service stamps its events.
        const std::chrono::duration<double> now =
                std::chrono::system_clock::now().time_since_epoch();
        injected_at_.push_back(now.count());
        return device_.Inject(StringPrintf(kRecordFormat, record));
    }

    // Writes `count` records as fast as the attribute takes them, pausing only to keep the
    // emulator's queue well below its limit, so that none is dropped. The most records seen
    // pending, or -1 when a write failed.
    int InjectMany(int count) {
        int max_pending = 0;
        for (int i = 0; i < count; ++i) {
            if (i % kPendingCheckEvery == 0) {
                int pending;
                while ((pending = device_.PendingCount()) >= kPendingHighWater) {
                    std::this_thread::sleep_for(1ms);
                }
                max_pending = std::max(max_pending, pending);
            }
            if (!Inject(next_record_++)) {
                Fail(StringPrintf("e2e: inject failed at record %d", next_record_ - 1));
                return -1;
            }
        }
        return max_pending;
    }

    // Takes in the events logged since the last call.
    void PollEvents() {
        for (const nlohmann::json& record : events_reader_.ReadNew()) {
            if (record.value("kind", "") != "event") continue;
            ++events_;
            const int number = record.value("/fields/param1"_json_pointer, -1);
            const double time = record.value("time", -1.0);
            if (record.value("probe", "") != "TaviChargerDetectSocFreeze" ||
                record.value("rc", -1) != 0 || number < 0 || time < 0) {
                ++unexpected_;
            } else if (!delivered_.emplace(number, time).second) {
                ++duplicates_;
            }
        }
    }

    bool WaitDelivered(int record, milliseconds timeout) {
        return WaitUntil(
                [&] {
                    PollEvents();
                    return delivered_.count(record) != 0;
                },
                timeout);
    }

    // Microseconds from writing a delivered record to its event.
    double LatencyUs(int record) {
        return (delivered_[record] - injected_at_[static_cast<size_t>(record)]) * 1e6;
    }

    void Burst() {
        const int first = next_record_;
        const int max_pending = InjectMany(options_.burst);
        if (max_pending < 0) return;
        const int last = next_record_ - 1;
        if (!WaitDelivered(last, 120s)) printf("e2e: burst not delivered within 120 s\n");
        std::this_thread::sleep_for(200ms);
        PollEvents();
        std::vector<double> latencies;
        double last_event = 0;
        for (auto it = delivered_.lower_bound(first); it != delivered_.end() && it->first <= last;
             ++it) {
            latencies.push_back(LatencyUs(it->first));
            last_event = std::max(last_event, it->second);
        }
        const auto delivered = static_cast<int>(latencies.size());
        const double seconds = last_event - injected_at_[static_cast<size_t>(first)];
        printf("e2e burst: delivered %d of %d records (max pending seen %d, emulator queue %d)\n",
               delivered, options_.burst, max_pending, kEmulatorQueueLimit);
        printf("e2e burst: %.3f s from first write to last event: %.0f records/s\n", seconds,
               delivered / seconds);
        printf("e2e burst: latency write -> event: median %.0f us, p99 %.0f us, max %.0f us\n",
               Percentile(latencies, 0.5), Percentile(latencies, 0.99), Percentile(latencies, 1.0));
        if (delivered != options_.burst) ok_ = false;
    }

    // One record at a time, the next written once the previous event has arrived: the latency
    // of a record that finds the daemon idle in poll().
    void Singles() {
        std::vector<double> latencies;
        for (int i = 0; i < options_.single; ++i) {
            const int record = next_record_++;
            if (!Inject(record) || !WaitDelivered(record, 5s)) {
                return Fail(StringPrintf("e2e single: record %d not delivered", record));
            }
            latencies.push_back(LatencyUs(record));
        }
        printf("e2e single: %d records one at a time: latency median %.0f us, p99 %.0f us\n",
               options_.single, Percentile(latencies, 0.5), Percentile(latencies, 0.99));
    }

    void Idle() {
        const pid_t pid = device_.DaemonPid();
        Sample before = TakeSample(pid);
        std::this_thread::sleep_for(std::chrono::seconds(options_.idle_seconds));
        Sample after = TakeSample(pid);
        // No periodic wake-up: an idle daemon neither runs nor switches.
        printf("e2e idle %d s: CPU time %.3f s, voluntary context switches %ld, involuntary %ld\n",
               options_.idle_seconds, static_cast<double>(after["cpu_ns"] - before["cpu_ns"]) / 1e9,
               after["voluntary_ctxt_switches"] - before["voluntary_ctxt_switches"],
               after["nonvoluntary_ctxt_switches"] - before["nonvoluntary_ctxt_switches"]);
    }

    void Stop() {
        device_.SignalDaemon(SIGTERM);
        const bool clean = device_.WaitForDaemonExit(10s) == 0;  // the wait status of exit(0)
        printf("e2e stop: daemon %s after SIGTERM\n",
               clean ? "exited with 0" : "did NOT exit cleanly");
        if (!clean) ok_ = false;
    }

    // A cache file at its ceiling left by an earlier run: the next start loads it (128 kept,
    // the rest refused one log line each) and delivers the 128. Shows the memory Load needs.
    void FullCacheStart() {
        std::string content;
        for (int n = 0;; ++n) {
            const tavi::Message message{tavi::LOG, 4, 1, 3002, 1000000 + n, -5, 300, 1, ""};
            std::string entry;
            message.SerializeToString(&entry);
            entry += tavi::kCacheRecordTerminator;
            if (content.size() + entry.size() > tavi::kCacheFileSizeLimit) break;
            content += entry;
        }
        if (!android::base::WriteStringToFile(content, device_.CachePath())) {
            return Fail("e2e full cache: cannot write " + device_.CachePath());
        }
        const auto start = std::chrono::steady_clock::now();
        std::string failure = device_.StartDaemon();
        if (failure.empty()) failure = Connected();
        if (!failure.empty()) return Fail("e2e full cache: " + failure);
        if (!device_.Log().WaitForLine("Cache flush ended", 60s)) {
            Fail("e2e full cache: no flush within 60 s");
        }
        const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
        Sample sample = TakeSample(device_.DaemonPid());
        printf("e2e full cache: start with a %zu-byte cache file to flush done: %.2f s; %s\n",
               content.size(), seconds.count(), Memory(sample).c_str());
        Stop();
    }

    Options options_;
    TemporaryDir dir_;
    tavi::sim::SimulatedDevice device_{dir_.path, kBinaries};
    tavi::sim::EventReader events_reader_{device_.EventsPath()};
    std::map<int, double> delivered_;  // the time of each record's event
    size_t events_ = 0;
    size_t duplicates_ = 0;
    size_t unexpected_ = 0;
    std::vector<double> injected_at_;
    int next_record_ = 0;
    bool ok_ = true;
};

bool ParseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        int* target = flag == "--burst"    ? &options.burst
                      : flag == "--single" ? &options.single
                      : flag == "--total"  ? &options.total
                      : flag == "--idle"   ? &options.idle_seconds
                                           : nullptr;
        if (target == nullptr || i + 1 >= argc || !android::base::ParseInt(argv[++i], target, 1)) {
            return false;
        }
    }
    return options.total >= options.burst + options.single;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        fprintf(stderr, "usage: %s [--burst N] [--single N] [--total N] [--idle SECONDS]\n",
                argv[0]);
        return 2;
    }
    // Line by line, so that progress shows when the output goes to a pipe.
    if (setvbuf(stdout, nullptr, _IOLBF, 0) != 0) return 1;
    if (std::string reason = tavi::sim::SimulatedDevice::Availability(kBinaries); !reason.empty()) {
        printf("e2e: skipped: %s\n", reason.c_str());
        return 0;
    }
    Bench bench(options);
    if (std::string failure = bench.Start(); !failure.empty()) {
        printf("e2e: FAILED to start: %s\n", failure.c_str());
        return 1;
    }
    return bench.Run();
}
