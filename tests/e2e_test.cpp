// SPDX-License-Identifier: Apache-2.0
// The real tavi_daemon on the simulated device: kernel records in; events at the service,
// log lines, the cache file and the end of the process out. Where records are lost, every
// case counts each one: delivered, in the cache file, or lost with the line that says so.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>

#include "simulated_device.h"

namespace vendor::vesk::tavi::testing {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using android::base::StringPrintf;
using sim::LogLine;
using sim::SimulatedDevice;

const sim::Binaries kBinaries = sim::Binaries::InBuildDir(TAVI_BUILD_DIR);

const std::string kCacheFile = "/mnt/vendor/persist/tavi/cache.bin";
const std::string kStored = "Store the message in the cache: ";
const std::string kSent = "Send the message to UBO: ";
const std::string kCacheFull = "Cache size limit, ignoring";
const std::string kLoaded = "Loaded the cache from " + kCacheFile;
const std::string kSaved = "Saved the cache to " + kCacheFile;
const std::string kSaveFailed = "Failed to save the cache to " + kCacheFile;
const std::string kNotFound = "The cache file not found, stop loading the cache";
const std::string kEnded = "tavi_daemon ended";
const std::string kFlushStarting = "Cache flush starting";
const std::string kFlushEnded = "Cache flush ended";
const std::string kWokenUp = "poll() is interrupted by a client, calling interrupt callback";

// A storage bad-sector record that names its batch and its place in it: the kernel's line, the
// daemon's text form of it, and its cache file entry with an optional text.
std::string Line(int batch, int index) {
    return StringPrintf("2,1,1000,%d,%d,0,0", batch, index);
}

std::string Logged(int batch, int index) {
    return StringPrintf(
            "Message {Type: LOG, Category: 2, LogLevel: 1, ErrorCode: 1000, Param1: %d, "
            "Param2: %d, Param3: 0, Param4: 0, Message: }",
            batch, index);
}

std::string Entry(int batch, int index, const std::string& text = "") {
    return "0\0002\0001\0001000\000"s + std::to_string(batch) + '\0' + std::to_string(index) +
           "\0000\0000\000"s + text + "\0\0\n"s;
}

std::string Entries(int batch, int first, int count) {
    std::string entries;
    for (int index = first; index < first + count; ++index) entries += Entry(batch, index);
    return entries;
}

std::string ReadFile(const std::string& path) {
    std::string content;
    android::base::ReadFileToString(path, &content);
    return content;
}

bool WriteFile(const std::string& path, const std::string& content) {
    return android::base::WriteStringToFile(content, path, 0600, getuid(), getgid());
}

bool Exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

class DaemonOnDeviceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // A host that cannot run the device fails the case: a skip would hide it.
        if (std::string reason = SimulatedDevice::Availability(kBinaries); !reason.empty()) {
            FAIL() << reason;
        }
    }

    void TearDown() override {
        if (!HasFailure()) return;
        for (const LogLine& line : device_.Log().Lines()) {
            std::cerr << "daemon: " << line.severity << " " << line.text << "\n";
        }
    }

    // With the service active, waits until the readiness task has woken the poll loop, so
    // that what is injected next meets an active service.
    void StartDevice(bool service_active, bool with_attribute = true) {
        ASSERT_EQ(device_.Start(service_active, with_attribute), "");
        if (service_active && with_attribute) {
            ASSERT_TRUE(device_.Log().WaitForLine(kWokenUp, 10s));
        }
    }

    std::vector<LogLine> LinesReading(const std::string& text) {
        std::vector<LogLine> matching;
        for (const LogLine& line : device_.Log().Lines()) {
            if (line.text == text) matching.push_back(line);
        }
        return matching;
    }
    size_t Lines(const std::string& text) { return LinesReading(text).size(); }
    size_t Count(const std::string& prefix) {
        const std::vector<LogLine>& lines = device_.Log().Lines();
        return std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) {
            return android::base::StartsWith(line.text, prefix);
        });
    }
    int Index(const std::string& text) { return device_.Log().IndexOf(text); }
    bool WaitForCount(const std::string& prefix, size_t count, std::chrono::milliseconds timeout) {
        return sim::WaitUntil([&] { return Count(prefix) >= count; }, timeout);
    }
    bool WaitForRecords(const std::string& kind, size_t count, std::chrono::milliseconds timeout) {
        return sim::WaitUntil([&] { return device_.CountRecords(kind) >= count; }, timeout);
    }

    // Injects `count` records of `batch` and waits until the daemon has handled them: until
    // lines starting with `outcome` number `expected_total`.
    void InjectBatch(int batch, int count, const std::string& outcome, size_t expected_total) {
        for (int index = 0; index < count; ++index) {
            ASSERT_TRUE(device_.Inject(Line(batch, index) + "\n"));
        }
        ASSERT_TRUE(WaitForCount(outcome, expected_total, 10s));
        ASSERT_EQ(Count(outcome), expected_total);
    }

    // 0: a clean exit; otherwise the signal that ended the daemon.
    void ExpectExit(int wait_status_signal) {
        std::optional<int> status = device_.WaitForDaemonExit(10s);
        ASSERT_TRUE(status.has_value()) << "the daemon did not end";
        if (wait_status_signal == 0) {
            EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
        } else {
            EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == wait_status_signal) << *status;
        }
    }

    // A stop while the service is down: the save, the end line, then the process waits for
    // the service until init's shutdown timeout ends it.
    void StopWhileServiceDown(int signal_number = SIGTERM) {
        ASSERT_TRUE(device_.SignalDaemon(signal_number));
        ASSERT_TRUE(device_.Log().WaitForLine(kEnded, 10s));
        ASSERT_TRUE(device_.DaemonRunning());
        ASSERT_TRUE(device_.SignalDaemon(SIGKILL));
        ExpectExit(SIGKILL);
    }

    TemporaryDir state_;
    SimulatedDevice device_{state_.path, kBinaries};
};

// What the daemon keeps and loses when things go wrong (docs/kept-and-lost.md filters on it).
using FaultTest = DaemonOnDeviceTest;

struct KernelRecord {
    const char* line;
    const char* probe;
    const char* payload_hex;
    const char* logged;
};

const KernelRecord kLiveRecords[] = {
        {"4,1,3001,1,0,0,0", "TaviChargerDetectPdHardReset", "080110b9171801",
         "Message {Type: LOG, Category: 4, LogLevel: 1, ErrorCode: 3001, Param1: 1, Param2: 0, "
         "Param3: 0, Param4: 0, Message: }"},
        {"3,0,2000,0,0,0,0", "TaviDisplayShort", "080010d00f1800",
         "Message {Type: LOG, Category: 3, LogLevel: 0, ErrorCode: 2000, Param1: 0, Param2: 0, "
         "Param3: 0, Param4: 0, Message: }"},
        {"4,2,3002,-1,0,300,1", "TaviChargerDetectSocFreeze",
         "080210ba1718ffffffffffffffffff01200028ac023001",
         "Message {Type: LOG, Category: 4, LogLevel: 2, ErrorCode: 3002, Param1: -1, Param2: 0, "
         "Param3: 300, Param4: 1, Message: }"}};

struct StopCase {
    int signal_number;
    const char* closing_line;
    const char* session_end;
    const char* other_session_end;
};

class ServiceActiveTest : public DaemonOnDeviceTest,
                          public ::testing::WithParamInterface<StopCase> {};

TEST_P(ServiceActiveTest, DeliversLiveRecordsThenEndsAtOnce) {
    const StopCase& stop = GetParam();
    StartDevice(true);
    // Rejected first (no probe for the code, an area without a handler): logged or dropped,
    // and the loop goes on.
    for (const char* line : {"1,0,100,0,0,0,0\n", "4,1,3005,0,0,0,0\n", "5,1,3001,0,0,0,0\n"}) {
        ASSERT_TRUE(device_.Inject(line));
    }
    for (const KernelRecord& record : kLiveRecords) {
        ASSERT_TRUE(device_.Inject(record.line + "\n"s));
    }
    ASSERT_TRUE(WaitForRecords("event", 3, 5s));
    std::vector<nlohmann::json> events = device_.Records("event");
    ASSERT_EQ(events.size(), 3u);
    for (size_t i = 0; i < events.size(); ++i) {
        SCOPED_TRACE(kLiveRecords[i].line);
        EXPECT_EQ(events[i].value("source", ""), "tavi");
        EXPECT_EQ(events[i].value("probe", ""), kLiveRecords[i].probe);
        EXPECT_EQ(events[i].value("payload_hex", ""), kLiveRecords[i].payload_hex);
        EXPECT_EQ(Lines(kSent + kLiveRecords[i].logged), 1u);
    }
    EXPECT_EQ(Count("Failed to pack the massage: "), 2u);
    EXPECT_EQ(Lines("Created UBO session"), 1u);
    EXPECT_EQ(Index("UBO is not yet active or available, retry in 1 sec"), -1);
    // Nothing cached and no file: the wake-up replays nothing.
    EXPECT_EQ(Index(kFlushStarting), -1);

    ASSERT_TRUE(device_.SignalDaemon(stop.signal_number));
    ExpectExit(0);
    EXPECT_EQ(Lines(strsignal(stop.signal_number) +
                    " signal detected, calling signal callback and stopping poll() loop"s),
              1u);
    ASSERT_NE(Index(kEnded), -1);
    EXPECT_GT(Index(stop.closing_line), Index(kEnded));
    EXPECT_TRUE(WaitForRecords(stop.session_end, 1, 2s));
    EXPECT_EQ(device_.CountRecords(stop.other_session_end), 0u);
    // Nothing was held, so nothing was saved.
    EXPECT_FALSE(Exists(device_.CachePath()));
}

INSTANTIATE_TEST_SUITE_P(Signals, ServiceActiveTest,
                         ::testing::Values(StopCase{SIGINT, "Closed UBO session",
                                                    "session_destroyed", "session_lost"},
                                           StopCase{SIGTERM, "Skip closing UBO session",
                                                    "session_lost", "session_destroyed"}),
                         [](const auto& info) {
                             return info.param.signal_number == SIGINT ? "Sigint" : "Sigterm";
                         });

// A field that is no number, a record without its line feed: logged, dropped, and the loop
// goes on.
TEST_F(DaemonOnDeviceTest, UnparseableRecordsAreLoggedAndDropped) {
    if (sim::OnKernelAttribute()) {
        GTEST_SKIP() << sim::kNotOnKernel
                     << "the module queues only seven integers and ends each with a line feed";
    }
    StartDevice(true);
    for (const std::string& line :
         {"4,1,abc,1,0,0,0\n"s, "4,1,3001,1,0,0,0"s, kLiveRecords[0].line + "\n"s}) {
        ASSERT_TRUE(device_.Inject(line));
    }
    ASSERT_TRUE(WaitForRecords("event", 1, 5s));
    EXPECT_EQ(Count("Failed to parse the string for MessageType LOG: "), 2u);
    EXPECT_EQ(Count(kSent), 1u);
}

double SecondsBetween(const LogLine& first, const LogLine& last) {
    return std::chrono::duration<double>(last.seen - first.seen).count();
}

TEST_F(DaemonOnDeviceTest, AbortsWhenTheAttributeNeverAppears) {
    StartDevice(true, false);
    ASSERT_TRUE(device_.Log().WaitForLine("Failed to setup listener after 5 retries", 10s));
    ExpectExit(SIGABRT);
    EXPECT_EQ(LinesReading("Failed to setup listener after 5 retries")[0].severity, 'F');
    std::vector<LogLine> retries = LinesReading("Failed to setup listener, retry in 1 sec");
    ASSERT_EQ(retries.size(), 5u);
    EXPECT_EQ(retries[0].severity, 'E');
    EXPECT_NEAR(SecondsBetween(retries[0], retries[4]), 4.0, 0.8);
    EXPECT_EQ(Lines("Could not open /sys/kernel/tavi/log"), 6u);
    // It ended before the readiness task could start.
    EXPECT_EQ(device_.CountRecords("session_created"), 0u);
}

// The readiness task wakes the poll loop once per run: when the service drops out later,
// records are cached again, 128 at most, until the stop saves them.
TEST_F(FaultTest, ServiceFlappingAfterTheReplay) {
    StartDevice(true);
    InjectBatch(0, 2, kSent, 2);

    ASSERT_TRUE(device_.SetServiceActive(false));
    // Each is announced; 128 are held, and the rest refused with a line of their own.
    InjectBatch(1, 200, kStored, 200);
    ASSERT_TRUE(WaitForCount(kCacheFull, 72, 10s));

    // Back again: live records go out, the cached ones stay where they are.
    ASSERT_TRUE(device_.SetServiceActive(true));
    InjectBatch(2, 3, kSent, 5);
    // Refused by the service: logged and lost, never cached.
    ASSERT_TRUE(device_.ServiceControl({"fail", "-5"}));
    const std::string refused =
            "ubo_add_event() for TaviLinuxOsBadSector probe failed with return code -5";
    InjectBatch(3, 2, refused, 2);
    EXPECT_EQ(Count(kFlushStarting), 0u);

    ASSERT_TRUE(device_.SignalDaemon(SIGTERM));
    ExpectExit(0);
    // 207 records: 5 delivered, 2 refused, 128 in the file, 72 over the cap.
    EXPECT_EQ(device_.CountRecords("event"), 7u);
    EXPECT_EQ(Count(kSent), 7u);
    EXPECT_EQ(Count(kCacheFull), 72u);
    EXPECT_EQ(Lines(kSaved), 1u);
    EXPECT_EQ(ReadFile(device_.CachePath()), Entries(1, 0, 128));
}

// The session is opened once per run: a service restarted under the daemon never hears from
// it again, and every record is cached, 128 at most, until the stop.
TEST_F(FaultTest, ServiceRestartedUnderTheDaemon) {
    StartDevice(true);
    InjectBatch(0, 1, kSent, 1);
    // The daemon logs before it sends: the service must have the event before it stops.
    ASSERT_TRUE(WaitForRecords("event", 1, 5s));
    ASSERT_EQ(device_.StartService(true), "");
    InjectBatch(1, 130, kStored, 130);
    ASSERT_TRUE(WaitForCount(kCacheFull, 2, 10s));
    ASSERT_TRUE(device_.SignalDaemon(SIGTERM));
    ExpectExit(0);
    // 131 records: 1 delivered, 128 in the file, 2 over the cap.
    EXPECT_EQ(device_.CountRecords("event"), 1u);
    EXPECT_EQ(Count(kCacheFull), 2u);
    EXPECT_EQ(ReadFile(device_.CachePath()), Entries(1, 0, 128));
}

// Every stop with the service down adds its records to the file; the run that finds the
// service replays its own records, then the oldest of the file's up to 128, and logs every
// other entry as over the cap.
TEST_F(FaultTest, RepeatedStopsWhileTheServiceIsDown) {
    constexpr int kRuns = 3, kPerRun = 100;
    StartDevice(false);
    for (int run = 0; run < kRuns; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        if (run > 0) {
            ASSERT_EQ(device_.StartDaemon(), "");
        }
        InjectBatch(run, kPerRun, kStored, kPerRun);
        std::string expected;
        for (int batch = 0; batch <= run; ++batch) expected += Entries(batch, 0, kPerRun);
        if (run == 1) {
            // Ten tries a second apart, then a pause of 60 s: longer than this test waits.
            ASSERT_TRUE(device_.Log().WaitForLine(
                    "UBO is not yet active or available after 10 retries", 15s));
            std::vector<LogLine> retries =
                    LinesReading("UBO is not yet active or available, retry in 1 sec");
            ASSERT_EQ(retries.size(), 10u);
            EXPECT_EQ(retries[0].severity, 'E');
            EXPECT_NEAR(SecondsBetween(retries[0], retries[9]), 9.0, 1.0);
            EXPECT_EQ(Lines("Created UBO session"), 1u);
        }
        if (run > 0) {
            StopWhileServiceDown(run == 1 ? SIGINT : SIGTERM);
        } else {
            // The readiness task still runs: the process stays until the service is up, and
            // a SIGTERM leaves the session open; the poll loop is over, so nothing is replayed.
            ASSERT_TRUE(device_.SignalDaemon(SIGTERM));
            ASSERT_TRUE(device_.Log().WaitForLine(kEnded, 10s));
            std::this_thread::sleep_for(1500ms);
            EXPECT_TRUE(device_.DaemonRunning());
            ASSERT_TRUE(device_.SetServiceActive(true));
            ExpectExit(0);
            EXPECT_GT(Index("Skip closing UBO session"), Index(kEnded));
            EXPECT_TRUE(WaitForRecords("session_lost", 1, 2s));
            EXPECT_EQ(device_.CountRecords("session_destroyed"), 0u);
            EXPECT_EQ(device_.CountRecords("event"), 0u);
            EXPECT_EQ(Index(kFlushStarting), -1);
            struct stat status {};
            ASSERT_EQ(stat(device_.CachePath().c_str(), &status), 0);
            EXPECT_EQ(status.st_mode & 07777, 0600u);
            ASSERT_TRUE(device_.SetServiceActive(false));
        }
        EXPECT_EQ(Lines(kSaved), 1u);
        ASSERT_EQ(ReadFile(device_.CachePath()), expected);
    }

    // The last run caches 10 of its own before the service comes up.
    ASSERT_EQ(device_.StartDaemon(), "");
    InjectBatch(kRuns, 10, kStored, 10);
    ASSERT_TRUE(device_.SetServiceActive(true));
    ASSERT_TRUE(device_.Log().WaitForLine(kFlushEnded, 10s));
    // 310 records: this run's 10, the first run's 100 and 18 of the second delivered, 182 lost.
    EXPECT_EQ(Count(kCacheFull), 182u);
    EXPECT_EQ(device_.CountRecords("event"), 128u);
    EXPECT_EQ(Count(kSent), 128u);
    std::vector<std::string> order = {kLoaded, kFlushStarting};
    for (int index = 0; index < 10; ++index) order.push_back(kSent + Logged(kRuns, index));
    for (int index = 0; index < kPerRun; ++index) order.push_back(kSent + Logged(0, index));
    for (int index = 0; index < 18; ++index) order.push_back(kSent + Logged(1, index));
    order.push_back(kFlushEnded);
    for (size_t i = 0; i < order.size(); ++i) {
        EXPECT_EQ(Lines(order[i]), 1u) << order[i];
        EXPECT_GT(Index(order[i]), i > 0 ? Index(order[i - 1]) : -1) << order[i];
    }
    EXPECT_FALSE(Exists(device_.CachePath()));
}

// Save truncates the file and then writes it whole: SIGKILL in between (init's shutdown
// timeout) can leave the old file, the new one, an empty one or one cut short.
TEST_F(FaultTest, SigkillDuringALargeSave) {
    const char* tries_setting = getenv("TAVI_SIGKILL_TRIES");
    const int tries =
            tries_setting != nullptr ? static_cast<int>(strtol(tries_setting, nullptr, 10)) : 15;
    // An earlier run's file of 1,000 entries, 1,023,890 bytes: close to the ceiling.
    std::string old_file;
    for (int index = 0; index < 1000; ++index) old_file += Entry(9, index, std::string(1000, 'x'));
    const std::string new_file = old_file + Entries(0, 0, 128);
    // Where each entry of the new file ends.
    std::vector<size_t> entry_ends;
    for (size_t end = 0, at = 0; (at = new_file.find('\n', end)) != std::string::npos;) {
        end = at + 1;
        entry_ends.push_back(end);
    }
    ASSERT_EQ(entry_ends.size(), 1128u);
    std::mt19937 random(std::random_device{}());
    // The save starts a few milliseconds after SIGTERM, later on a busy machine.
    std::uniform_int_distribution<int> delay_us(0, 20000);
    std::map<std::string, int> outcomes;

    StartDevice(false);
    for (int attempt = 0; attempt < tries; ++attempt) {
        SCOPED_TRACE("try " + std::to_string(attempt));
        ASSERT_TRUE(device_.SetServiceActive(false));
        ASSERT_TRUE(WriteFile(device_.CachePath(), old_file));
        if (attempt > 0) {
            ASSERT_EQ(device_.StartDaemon(), "");
        }
        InjectBatch(0, 128, kStored, 128);
        ASSERT_TRUE(device_.SignalDaemon(SIGTERM));
        std::this_thread::sleep_for(std::chrono::microseconds(delay_us(random)));
        device_.SignalDaemon(SIGKILL);
        ASSERT_TRUE(device_.WaitForDaemonExit(10s).has_value());

        ASSERT_TRUE(Exists(device_.CachePath()));
        const std::string left = ReadFile(device_.CachePath());
        const char* outcome = left == old_file                              ? "old file"
                              : left == new_file                            ? "new file"
                              : left.empty()                                ? "empty"
                              : new_file.compare(0, left.size(), left) == 0 ? "cut short"
                                                                            : "other";
        ASSERT_STRNE(outcome, "other") << left.size() << " bytes";
        ++outcomes[outcome];

        // The next run accounts for every entry it finds: delivered, over the cap, or not
        // readable (only the one that was cut).
        size_t entries = 0;
        while (entries < entry_ends.size() && entry_ends[entries] <= left.size()) ++entries;
        const size_t whole = entries > 0 ? entry_ends[entries - 1] : 0;
        entries += left.size() > whole;
        ASSERT_TRUE(device_.SetServiceActive(true));
        ASSERT_EQ(device_.StartDaemon(), "");
        ASSERT_TRUE(device_.Log().WaitForLine(kLoaded, 10s));
        ASSERT_TRUE(entries == 0 || device_.Log().WaitForLine(kFlushEnded, 10s));
        const size_t unreadable = Count("Failed to deserialize: ");
        EXPECT_LE(unreadable, 1u);
        EXPECT_EQ(Count(kSent), std::min<size_t>(128, entries - unreadable));
        EXPECT_EQ(Count(kSent) + Count(kCacheFull) + unreadable, entries);
        EXPECT_FALSE(Exists(device_.CachePath()));
        ASSERT_TRUE(device_.SignalDaemon(SIGKILL));
        ASSERT_TRUE(device_.WaitForDaemonExit(10s).has_value());
    }
    std::cout << "SIGKILL during save, " << tries << " tries:";
    for (const auto& [outcome, count] : outcomes) std::cout << " " << outcome << " " << count;
    std::cout << "\n";
}

// The write truncates first: when the folder is full, the earlier file goes with this run's
// records.
TEST_F(FaultTest, FullPersistFolder) {
    // A small file system of its own over the persist folder, in this test's mount namespace.
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("tavi-full", device_.PersistDir().c_str(), "tmpfs", 0, "size=64k,mode=0700"),
              0);
    struct Unmount {
        std::string path;
        ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
    } unmount{device_.PersistDir()};
    // Two whole pages of earlier entries, then filler up to the last byte.
    std::string old_file;
    for (int index = 0; index < 8; ++index) {
        old_file += Entry(9, index, std::string(1002, 'x'));
    }
    ASSERT_EQ(old_file.size(), 8192u);
    ASSERT_TRUE(WriteFile(device_.CachePath(), old_file));
    android::base::unique_fd filler(
            open((device_.PersistDir() + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const std::string page(4096, 'f');
    while (write(filler.get(), page.data(), page.size()) > 0) {
    }

    StartDevice(false);
    InjectBatch(0, 3, kStored, 3);
    StopWhileServiceDown();
    EXPECT_EQ(Lines("android::WriteStringToFile write failed: No space left on device"), 1u);
    EXPECT_EQ(Lines(kSaveFailed), 1u);
    EXPECT_LT(Index(kSaveFailed), Index(kEnded));
    // 8 earlier entries and 3 of this run: all lost.
    EXPECT_FALSE(Exists(device_.CachePath()));
}

struct Obstacle {
    std::string name;
    void (*make)(const std::string& cache_path);
    std::string load_line;
    std::vector<std::string> save_lines;
};

class ObstacleTest : public DaemonOnDeviceTest, public ::testing::WithParamInterface<Obstacle> {};

// The replay works around the obstacle; every stop loses what it would have saved.
TEST_P(ObstacleTest, AtTheCachePath) {
    const Obstacle& obstacle = GetParam();
    obstacle.make(device_.CachePath());
    StartDevice(false);
    InjectBatch(0, 2, kStored, 2);
    ASSERT_TRUE(device_.SetServiceActive(true));
    ASSERT_TRUE(device_.Log().WaitForLine(kFlushEnded, 15s));
    EXPECT_EQ(Lines(obstacle.load_line), 1u);
    EXPECT_EQ(Count(kSent), 2u);

    ASSERT_TRUE(device_.SetServiceActive(false));
    InjectBatch(1, 3, kStored, 5);
    ASSERT_TRUE(device_.SignalDaemon(SIGTERM));
    if (obstacle.name == "Fifo") {
        // The save blocks in open() until something reads; a reader takes the entries away.
        EXPECT_FALSE(device_.Log().WaitForLine(kEnded, 1s));
        android::base::unique_fd reader(
                open(device_.CachePath().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        ASSERT_TRUE(reader.ok());
        ASSERT_TRUE(device_.Log().WaitForLine(kSaved, 10s));
        std::string taken;
        ASSERT_TRUE(android::base::ReadFdToString(reader.get(), &taken));
        EXPECT_EQ(taken, Entries(1, 0, 3));
    }
    ExpectExit(0);
    for (const std::string& line : obstacle.save_lines) {
        EXPECT_EQ(Lines(line), 1u) << line;
    }
    // 2 delivered, 3 lost; the obstacle stays for the next stop.
    EXPECT_EQ(device_.CountRecords("event"), 2u);
    struct stat status {};
    ASSERT_EQ(lstat(device_.CachePath().c_str(), &status), 0);
    EXPECT_FALSE(S_ISREG(status.st_mode));
    if (obstacle.name == "Link") {
        EXPECT_EQ(ReadFile(device_.PersistDir() + "/other.bin"), Entry(9, 0));
    }
}

INSTANTIATE_TEST_SUITE_P(
        Faults, ObstacleTest,
        ::testing::Values(
                Obstacle{"Directory",
                         [](const std::string& path) { mkdir(path.c_str(), 0700); },
                         kNotFound,
                         {"android::WriteStringToFile open failed: Is a directory", kSaveFailed}},
                // A link to a file holding an entry: neither read nor replaced, as links are
                // not followed.
                Obstacle{"Link",
                         [](const std::string& path) {
                             WriteFile(path.substr(0, path.rfind('/')) + "/other.bin", Entry(9, 0));
                             symlink("other.bin", path.c_str());
                         },
                         "Failed to load the cache to " + kCacheFile,
                         {"Failed to read the existing cache from " + kCacheFile +
                          ", stop saving the cache"}},
                Obstacle{"DanglingLink",
                         [](const std::string& path) { symlink("nowhere.bin", path.c_str()); },
                         kNotFound,
                         {"android::WriteStringToFile open failed: Too many levels of symbolic "
                          "links",
                          kSaveFailed}},
                Obstacle{"Fifo",
                         [](const std::string& path) { mkfifo(path.c_str(), 0600); },
                         kNotFound,
                         {kSaved}}),
        [](const auto& info) { return info.param.name; });

struct Ending {
    const char* name;
    int signal_number;
    std::string earlier_file;
    bool service_comes_up;  // so the file is loaded
};

class FatalSignalTest : public DaemonOnDeviceTest, public ::testing::WithParamInterface<Ending> {};

// Only SIGINT and SIGTERM save: any other signal whose default ends the process loses what is
// held in memory. So does a number outside the signed 32-bit range, which aborts by design,
// from the kernel or in the file being loaded (deleted before it is read).
TEST_P(FatalSignalTest, LosesWhatIsHeld) {
    const Ending& ending = GetParam();
    if (ending.name == "OutOfRangeRecord"s && sim::OnKernelAttribute()) {
        GTEST_SKIP() << sim::kNotOnKernel
                     << "the module refuses a parameter outside the signed 32-bit range";
    }
    ASSERT_TRUE(WriteFile(device_.CachePath(), ending.earlier_file));
    StartDevice(false);
    InjectBatch(0, 2, kStored, 2);
    if (ending.service_comes_up) {
        ASSERT_TRUE(device_.SetServiceActive(true));
    } else if (ending.signal_number == SIGABRT) {
        ASSERT_TRUE(device_.Inject("2,1,1000,2147483648,0,0,0\n"));
    } else {
        ASSERT_TRUE(device_.SignalDaemon(ending.signal_number));
    }
    ExpectExit(ending.signal_number);
    EXPECT_EQ(Index(kSaved), -1);
    EXPECT_EQ(Index(kEnded), -1);
    EXPECT_EQ(Count(kSent), 0u);
    if (ending.signal_number == SIGABRT) {
        EXPECT_EQ(Lines("terminate called after throwing an instance of 'std::out_of_range'"), 1u);
    }
    if (ending.service_comes_up) {
        EXPECT_FALSE(Exists(device_.CachePath()));
    } else {
        EXPECT_EQ(ReadFile(device_.CachePath()), ending.earlier_file);
    }
}

const std::string kEarlier = Entry(9, 0);

INSTANTIATE_TEST_SUITE_P(
        Faults, FatalSignalTest,
        ::testing::Values(
                Ending{"Sighup", SIGHUP, kEarlier, false},
                Ending{"Sigusr1", SIGUSR1, kEarlier, false},
                Ending{"Sigpipe", SIGPIPE, kEarlier, false},
                Ending{"OutOfRangeRecord", SIGABRT, kEarlier, false},
                Ending{"OutOfRangeEntry", SIGABRT,
                       kEarlier +
                               "0\0002\0001\0001000\0002147483648\0001\0000\0000\000\000\000\n"s +
                               Entry(9, 2),
                       true}),
        [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace vendor::vesk::tavi::testing
