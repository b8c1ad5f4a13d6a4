// SPDX-License-Identifier: Apache-2.0
// The daemon as a whole in the simulated device: the emulated kernel attribute, the event
// service simulator and the unmodified daemon in its own mount namespace. Measures
//   - records per second delivered over a burst, and the latency from writing a record to
//     the attribute to its event at the service (median, 99th percentile);
//   - the latency of single records sent one at a time;
//   - the daemon's resident memory after start and after 100,000 records;
//   - its CPU time, context switches and system calls over 10 idle seconds;
//   - a start with a full cache file left by an earlier run: time to the end of the flush and
//     the memory afterwards.
// The simulator prints and logs every event and the daemon logs to a file; both are part of
// the measured path.
//
// usage: tavi_e2e_bench [--burst N] [--single N] [--total N] [--idle SECONDS] [--keep]
// Needs root and /dev/fuse; without them it says why and exits 0.

#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
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

using android::base::ReadFileToString;
using android::base::StringPrintf;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using vendor::vesk::tavi::kCacheFileSizeLimit;
using vendor::vesk::tavi::sim::WaitUntil;

const vendor::vesk::tavi::sim::Binaries kBinaries =
        vendor::vesk::tavi::sim::Binaries::InBuildDir(TAVI_BUILD_DIR);
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
    bool keep = false;
};

double RealtimeNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void SleepMs(int ms) {
    std::this_thread::sleep_for(milliseconds(ms));
}

// Reads the simulator's JSON lines as they are appended and keeps, per record number, the
// time its event was logged.
class EventLog {
  public:
    explicit EventLog(const std::string& path) : reader_(path) {}

    // Takes in whatever was appended since the last call.
    void Poll() {
        for (const nlohmann::json& record : reader_.ReadNew()) Take(record);
    }

    std::optional<double> TimeOf(int record) const {
        auto it = times_.find(record);
        if (it == times_.end()) return std::nullopt;
        return it->second;
    }
    size_t events() const { return events_; }
    size_t duplicates() const { return duplicates_; }
    size_t failed() const { return failed_; }

  private:
    void Take(const nlohmann::json& record) {
        if (record.value("kind", "") != "event") return;
        ++events_;
        const int number = record.value("/fields/param1"_json_pointer, -1);
        const double time = record.value("time", -1.0);
        if (record.value("probe", "") != "TaviChargerDetectSocFreeze" ||
            record.value("rc", -1) != 0 || number < 0 || time < 0) {
            ++failed_;
            return;
        }
        if (!times_.emplace(number, time).second) ++duplicates_;
    }

    vendor::vesk::tavi::sim::EventReader reader_;
    std::map<int, double> times_;
    size_t events_ = 0;
    size_t duplicates_ = 0;
    size_t failed_ = 0;
};

struct ProcessSample {
    int64_t rss_kib = 0;
    int64_t rss_anon_kib = 0;
    int64_t rss_file_kib = 0;
    int64_t rss_peak_kib = 0;
    int64_t pss_kib = 0;
    double cpu_seconds = 0;
    int64_t voluntary_switches = 0;
    int64_t involuntary_switches = 0;
    int threads = 0;
};

int64_t StatusField(const std::string& status, const std::string& key) {
    size_t at = status.find(key + ":");
    if (at == std::string::npos) return -1;
    return strtol(status.c_str() + at + key.size() + 1, nullptr, 10);
}

// Resident memory and CPU time of the process; context switches summed over its threads.
ProcessSample Sample(pid_t pid) {
    ProcessSample sample;
    std::string status;
    ReadFileToString(StringPrintf("/proc/%d/status", pid), &status);
    sample.rss_kib = StatusField(status, "VmRSS");
    sample.rss_anon_kib = StatusField(status, "RssAnon");
    sample.rss_file_kib = StatusField(status, "RssFile");
    sample.rss_peak_kib = StatusField(status, "VmHWM");
    std::string rollup;
    ReadFileToString(StringPrintf("/proc/%d/smaps_rollup", pid), &rollup);
    sample.pss_kib = StatusField(rollup, "Pss");
    sample.threads = static_cast<int>(StatusField(status, "Threads"));
    std::string stat;
    ReadFileToString(StringPrintf("/proc/%d/stat", pid), &stat);
    // Fields after the command name, which ends at the last ')': utime is the 14th field.
    std::vector<std::string> fields = android::base::Split(stat.substr(stat.rfind(')') + 2), " ");
    if (fields.size() > 12) {
        const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
        sample.cpu_seconds =
                (strtod(fields[11].c_str(), nullptr) + strtod(fields[12].c_str(), nullptr)) / ticks;
    }
    std::unique_ptr<DIR, int (*)(DIR*)> tasks(opendir(StringPrintf("/proc/%d/task", pid).c_str()),
                                              closedir);
    if (tasks == nullptr) return sample;
    while (const dirent* entry = readdir(tasks.get())) {
        if (entry->d_name[0] == '.') continue;
        std::string task_status;
        ReadFileToString(StringPrintf("/proc/%d/task/%s/status", pid, entry->d_name), &task_status);
        sample.voluntary_switches += StatusField(task_status, "voluntary_ctxt_switches");
        sample.involuntary_switches += StatusField(task_status, "nonvoluntary_ctxt_switches");
    }
    return sample;
}

// "VmRSS 4368 KiB (anonymous 288, file 4080; PSS 1500, peak 4400)"
std::string Memory(const ProcessSample& sample) {
    return StringPrintf("VmRSS %ld KiB (anonymous %ld, file %ld; PSS %ld, peak VmHWM %ld)",
                        sample.rss_kib, sample.rss_anon_kib, sample.rss_file_kib, sample.pss_kib,
                        sample.rss_peak_kib);
}

class Bench {
  public:
    explicit Bench(Options options) : options_(options) {}
    ~Bench() {
        device_.reset();
        if (!options_.keep && !dir_.empty()) {
            std::error_code error;
            std::filesystem::remove_all(dir_, error);
            if (error) {
                printf("e2e: could not remove %s: %s\n", dir_.c_str(), error.message().c_str());
            }
        }
    }

    // Empty once the device runs and the daemon is connected; otherwise what failed.
    std::string Start();
    int Run();

  private:
    bool Inject(int record);
    bool WaitDelivered(int last_record, milliseconds timeout);
    void Burst();
    void Singles();
    void Load(int records);
    void Idle();
    std::string Trace(int seconds, int records);
    void Stop();
    void FullCacheStart();
    std::string StartDaemon();

    Options options_;
    std::string dir_;
    std::unique_ptr<vendor::vesk::tavi::sim::SimulatedDevice> device_;
    std::unique_ptr<EventLog> events_;
    int next_record_ = 0;
    int trace_count_ = 0;
    std::vector<double> injected_at_;
    bool ok_ = true;
};

std::string Bench::Start() {
    char dir[] = "/tmp/tavi_e2e_bench.XXXXXX";
    if (mkdtemp(dir) == nullptr) return "mkdtemp failed";
    dir_ = dir;
    device_ = std::make_unique<vendor::vesk::tavi::sim::SimulatedDevice>(dir_, kBinaries);
    events_ = std::make_unique<EventLog>(device_->EventsPath());
    if (std::string failure = device_->StartAttribute(); !failure.empty()) return failure;
    if (std::string failure = device_->StartService(true); !failure.empty()) return failure;
    return StartDaemon();
}

std::string Bench::StartDaemon() {
    if (std::string failure = device_->StartDaemon(); !failure.empty()) return failure;
    // Ready once the readiness task has woken the poll loop (its thread is then gone).
    if (!device_->Log().WaitForLine("poll() is interrupted by a client, calling interrupt callback",
                                    milliseconds(15000))) {
        return "the daemon did not connect (see " + device_->LogPath() + ")";
    }
    return "";
}

bool Bench::Inject(int record) {
    injected_at_.push_back(RealtimeNow());
    return device_->Inject(StringPrintf(kRecordFormat, record));
}

bool Bench::WaitDelivered(int last_record, milliseconds timeout) {
    return WaitUntil(
            [&] {
                events_->Poll();
                return events_->TimeOf(last_record).has_value();
            },
            timeout);
}

double Percentile(std::vector<double> values, double fraction) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const auto index =
            static_cast<size_t>(std::lround(fraction * static_cast<double>(values.size() - 1)));
    return values[std::min(index, values.size() - 1)];
}

// Writes records as fast as the attribute takes them, pausing only to keep the emulator's
// queue well below its limit, so that none is dropped.
void Bench::Burst() {
    const int first = next_record_;
    int max_pending = 0;
    for (int i = 0; i < options_.burst; ++i) {
        if (i % kPendingCheckEvery == 0) {
            int pending;
            while ((pending = device_->PendingCount()) >= kPendingHighWater) SleepMs(1);
            max_pending = std::max(max_pending, pending);
        }
        if (!Inject(next_record_++)) {
            printf("e2e: inject failed at record %d\n", i);
            ok_ = false;
            return;
        }
    }
    const int last = next_record_ - 1;
    if (!WaitDelivered(last, milliseconds(120000))) {
        printf("e2e: burst not delivered within 120 s\n");
    }
    SleepMs(200);
    events_->Poll();
    std::vector<double> latencies;
    double last_event = 0;
    int delivered = 0;
    for (int record = first; record <= last; ++record) {
        std::optional<double> at = events_->TimeOf(record);
        if (!at) continue;
        ++delivered;
        latencies.push_back((*at - injected_at_[static_cast<size_t>(record)]) * 1e6);
        last_event = std::max(last_event, *at);
    }
    const double seconds = last_event - injected_at_[static_cast<size_t>(first)];
    printf("e2e burst: delivered %d of %d records (max pending seen %d, emulator queue %d)\n",
           delivered, options_.burst, max_pending, kEmulatorQueueLimit);
    printf("e2e burst: %.3f s from first write to last event: %.0f records/s\n", seconds,
           delivered / seconds);
    printf("e2e burst: latency write -> event: median %.0f us, p99 %.0f us, max %.0f us\n",
           Percentile(latencies, 0.5), Percentile(latencies, 0.99), Percentile(latencies, 1.0));
    if (delivered != options_.burst) ok_ = false;
}

// One record at a time, the next written once the previous event has arrived: the latency of
// a record that finds the daemon idle in poll().
void Bench::Singles() {
    std::vector<double> latencies;
    for (int i = 0; i < options_.single; ++i) {
        const int record = next_record_++;
        if (!Inject(record) || !WaitDelivered(record, milliseconds(5000))) {
            printf("e2e single: record %d not delivered\n", record);
            ok_ = false;
            return;
        }
        latencies.push_back((*events_->TimeOf(record) - injected_at_[static_cast<size_t>(record)]) *
                            1e6);
    }
    printf("e2e single: %d records one at a time: latency median %.0f us, p99 %.0f us\n",
           options_.single, Percentile(latencies, 0.5), Percentile(latencies, 0.99));
}

void Bench::Load(int records) {
    for (int i = 0; i < records; ++i) {
        if (i % kPendingCheckEvery == 0) {
            while (device_->PendingCount() >= kPendingHighWater) SleepMs(1);
        }
        if (!Inject(next_record_++)) {
            ok_ = false;
            return;
        }
    }
    if (!WaitDelivered(next_record_ - 1, milliseconds(300000))) ok_ = false;
}

void Bench::Idle() {
    const pid_t pid = device_->DaemonPid();
    const ProcessSample before = Sample(pid);
    SleepMs(options_.idle_seconds * 1000);
    const ProcessSample after = Sample(pid);
    printf("e2e idle %d s: CPU time %.3f s, voluntary context switches %ld, involuntary %ld\n",
           options_.idle_seconds, after.cpu_seconds - before.cpu_seconds,
           after.voluntary_switches - before.voluntary_switches,
           after.involuntary_switches - before.involuntary_switches);

    const std::string idle = Trace(options_.idle_seconds, 0);
    printf("e2e idle %d s under strace -f -c: %s\n", options_.idle_seconds,
           idle.empty() ? "no system call" : ("\n" + idle).c_str());
    // The same tracer while a few records pass, to show that it does see the daemon's calls.
    constexpr int kControlRecords = 10;
    const std::string control = Trace(2, kControlRecords);
    printf("e2e control: strace -f -c while %d records pass:\n%s", kControlRecords,
           control.c_str());
}

// Summary of `strace -f -c` attached to the daemon for `seconds`, while `records` records
// are written; empty when it saw no system call at all. Attaching interrupts the blocking
// poll(), which the kernel restarts on its own: the tracer does not count that as a call.
std::string Bench::Trace(int seconds, int records) {
    // Fresh files for each trace, so that an earlier tracer's "attached" is not taken for
    // this one's.
    const std::string name = StringPrintf("strace-%d", trace_count_++);
    const std::string summary = dir_ + "/" + name + ".txt";
    const std::string output = dir_ + "/" + name + ".out";
    vendor::vesk::tavi::sim::Process tracer;
    if (access("/usr/bin/strace", X_OK) != 0 ||
        !tracer.Start({"/usr/bin/strace", "-f", "-c", "-p", std::to_string(device_->DaemonPid()),
                       "-o", summary},
                      output)
                 .empty()) {
        return "(strace not available)";
    }
    auto attached = [&] {
        std::string text;
        return ReadFileToString(output, &text) && text.find("attached") != std::string::npos;
    };
    if (!WaitUntil(attached, milliseconds(5000))) {
        return "(strace did not attach)";
    }
    for (int i = 0; i < records; ++i) Inject(next_record_++);
    if (records > 0) WaitDelivered(next_record_ - 1, milliseconds(5000));
    SleepMs(seconds * 1000);
    tracer.Stop(SIGINT, milliseconds(5000));
    std::string text;
    ReadFileToString(summary, &text);
    return text;
}

void Bench::Stop() {
    device_->SignalDaemon(SIGTERM);
    const std::optional<int> status = device_->WaitForDaemonExit(milliseconds(10000));
    const bool clean = status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
    printf("e2e stop: daemon %s after SIGTERM\n", clean ? "exited with 0" : "did NOT exit cleanly");
    if (!clean) ok_ = false;
}

// A cache file at its ceiling left by an earlier run: the next start loads it (128 kept, the
// rest refused one log line each) and delivers the 128. Shows the memory Load needs.
void Bench::FullCacheStart() {
    std::string content;
    for (int n = 0;; ++n) {
        vendor::vesk::tavi::Message message;
        message.category = 4;
        message.log_level = 1;
        message.error_code = 3002;
        message.param1 = 1000000 + n;
        message.param2 = -5;
        message.param3 = 300;
        message.param4 = 1;
        std::string entry;
        message.SerializeToString(&entry);
        entry += vendor::vesk::tavi::kCacheRecordTerminator;
        if (content.size() + entry.size() > kCacheFileSizeLimit) break;
        content += entry;
    }
    const std::string cache_file = device_->CachePath();
    if (!android::base::WriteStringToFile(content, cache_file)) {
        printf("e2e full cache: cannot write %s\n", cache_file.c_str());
        ok_ = false;
        return;
    }
    const auto start = steady_clock::now();
    if (std::string failure = StartDaemon(); !failure.empty()) {
        printf("e2e full cache: %s\n", failure.c_str());
        ok_ = false;
        return;
    }
    if (!device_->Log().WaitForLine("Cache flush ended", milliseconds(60000))) {
        printf("e2e full cache: no flush within 60 s\n");
        ok_ = false;
    }
    const double seconds = std::chrono::duration<double>(steady_clock::now() - start).count();
    const ProcessSample sample = Sample(device_->DaemonPid());
    printf("e2e full cache: start with a %zu-byte cache file to flush done: %.2f s; %s\n",
           content.size(), seconds, Memory(sample).c_str());
    Stop();
}

int Bench::Run() {
    const pid_t pid = device_->DaemonPid();
    const ProcessSample started = Sample(pid);
    printf("e2e start: daemon pid %d, %d thread(s), %s\n", pid, started.threads,
           Memory(started).c_str());

    Burst();
    Singles();
    Load(options_.total - next_record_);
    events_->Poll();
    const ProcessSample loaded = Sample(pid);
    printf("e2e after %d records: %s, %+ld KiB since start, %d thread(s); events %zu, "
           "duplicates %zu, unexpected %zu\n",
           next_record_, Memory(loaded).c_str(), loaded.rss_kib - started.rss_kib, loaded.threads,
           events_->events(), events_->duplicates(), events_->failed());
    if (events_->events() != static_cast<size_t>(next_record_) || events_->duplicates() != 0 ||
        events_->failed() != 0) {
        ok_ = false;
    }

    Idle();
    Stop();
    FullCacheStart();
    if (options_.keep) printf("e2e: files kept in %s\n", dir_.c_str());
    return ok_ ? 0 : 1;
}

bool ParseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        int* target = flag == "--burst"    ? &options.burst
                      : flag == "--single" ? &options.single
                      : flag == "--total"  ? &options.total
                      : flag == "--idle"   ? &options.idle_seconds
                                           : nullptr;
        if (flag == "--keep") {
            options.keep = true;
        } else if (target == nullptr || i + 1 >= argc ||
                   !android::base::ParseInt(argv[++i], target, 1)) {
            return false;
        }
    }
    return options.total >= options.burst + options.single;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        fprintf(stderr,
                "usage: %s [--burst N] [--single N] [--total N] [--idle SECONDS] [--keep]\n",
                argv[0]);
        return 2;
    }
    // Line by line, so that progress shows when the output goes to a pipe.
    if (setvbuf(stdout, nullptr, _IOLBF, 0) != 0) return 1;
    if (std::string reason = vendor::vesk::tavi::sim::SimulatedDevice::Availability(kBinaries);
        !reason.empty()) {
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
