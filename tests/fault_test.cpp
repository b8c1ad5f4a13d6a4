// What the real daemon keeps and loses when things go wrong on the simulated device. Every
// case counts each record: delivered, in the cache file, or lost with the line that says so.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>

#include "device_harness.h"

namespace vendor::vesk::tavi::testing {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

const std::string kCacheFile = "/mnt/vendor/persist/tavi/cache.bin";
const std::string kStored = "Store the message in the cache: ";
const std::string kSent = "Send the message to UBO: ";
const std::string kCacheFull = "Cache size limit, ignoring";
const std::string kSaved = "Saved the cache to " + kCacheFile;
const std::string kSaveFailed = "Failed to save the cache to " + kCacheFile;
const std::string kEnded = "tavi_daemon ended";
const std::string kFlushEnded = "Cache flush ended";
const std::string kTerminator("\0\0\n", 3);

// A storage bad-sector record that names its batch and its place in it.
std::string KernelLine(int batch, int index) {
    return "2,1,1000," + std::to_string(batch) + "," + std::to_string(index) + ",0,0\n";
}

std::string TextForm(int batch, int index) {
    return "Message {Type: LOG, Category: 2, LogLevel: 1, ErrorCode: 1000, Param1: " +
           std::to_string(batch) + ", Param2: " + std::to_string(index) +
           ", Param3: 0, Param4: 0, Message: }";
}

// The cache file entry of KernelLine(batch, index), with an optional text.
std::string Entry(const std::string& batch, int index, const std::string& text = "") {
    std::string entry;
    for (const std::string& field :
         {"0"s, "2"s, "1"s, "1000"s, batch, std::to_string(index), "0"s, "0"s}) {
        entry += field + '\0';
    }
    return entry + text + kTerminator;
}

std::string Entry(int batch, int index, const std::string& text = "") {
    return Entry(std::to_string(batch), index, text);
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

class FaultTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::string reason = SimulatedDevice::Availability(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
    }

    void TearDown() override {
        if (!HasFailure()) return;
        for (const LogLine& line : device_.LogLines()) {
            std::cerr << "daemon: " << line.severity << " " << line.text << "\n";
        }
    }

    size_t Count(const std::string& prefix) { return device_.CountLinesStartingWith(prefix); }

    // Injects `count` records of `batch` and waits until the daemon has handled them: until
    // lines starting with `outcome` number `expected_total`.
    void InjectBatch(int batch, int count, const std::string& outcome, size_t expected_total) {
        for (int index = 0; index < count; ++index) {
            ASSERT_TRUE(device_.Inject(KernelLine(batch, index)));
        }
        ASSERT_TRUE(device_.WaitForLinesStartingWith(outcome, expected_total, 10s));
        ASSERT_EQ(Count(outcome), expected_total);
    }

    void ExpectExit(int wait_status_signal) {
        std::optional<int> status = device_.WaitForExit(10s);
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
        ASSERT_TRUE(device_.Signal(signal_number));
        ASSERT_TRUE(device_.WaitForLogLine(kEnded, 10s));
        ASSERT_TRUE(device_.DaemonAlive());
        ASSERT_TRUE(device_.Signal(SIGKILL));
        ExpectExit(SIGKILL);
    }

    SimulatedDevice device_;
};

// The readiness task wakes the poll loop once per run: when the service drops out later,
// records are cached again, 128 at most, until the stop saves them.
TEST_F(FaultTest, ServiceFlappingAfterTheReplay) {
    ASSERT_EQ(device_.Start(true), "");
    ASSERT_TRUE(device_.WaitForLogLine(
            "poll() is interrupted by a client, calling interrupt callback", 10s));
    InjectBatch(0, 2, kSent, 2);

    ASSERT_TRUE(device_.SetServiceActive(false));
    // Each is announced; 128 are held, and the rest refused with a line of their own.
    InjectBatch(1, 200, kStored, 200);
    ASSERT_TRUE(device_.WaitForLinesStartingWith(kCacheFull, 72, 10s));

    // Back again: live records go out, the cached ones stay where they are.
    ASSERT_TRUE(device_.SetServiceActive(true));
    InjectBatch(2, 3, kSent, 5);
    // Refused by the service: logged and lost, never cached.
    ASSERT_TRUE(device_.ServiceControl({"fail", "-5"}));
    const std::string refused =
            "ubo_add_event() for TaviLinuxOsBadSector probe failed with "
            "return code -5";
    InjectBatch(3, 2, refused, 2);
    EXPECT_EQ(Count("Cache flush starting"), 0u);

    ASSERT_TRUE(device_.Signal(SIGTERM));
    ExpectExit(0);
    // 207 records: 5 delivered, 2 refused, 128 in the file, 72 over the cap.
    EXPECT_EQ(device_.CountRecords("event"), 7u);
    EXPECT_EQ(Count(kSent), 7u);
    EXPECT_EQ(Count(refused), 2u);
    EXPECT_EQ(Count(kCacheFull), 72u);
    EXPECT_EQ(device_.LinesReading(kSaved).size(), 1u);
    EXPECT_EQ(ReadFile(device_.CachePath()), Entries(1, 0, 128));
}

// The session is opened once per run: a service restarted under the daemon never hears from
// it again, and every record is cached, 128 at most, until the stop.
TEST_F(FaultTest, ServiceRestartedUnderTheDaemon) {
    ASSERT_EQ(device_.Start(true), "");
    ASSERT_TRUE(device_.WaitForLogLine(
            "poll() is interrupted by a client, calling interrupt callback", 10s));
    InjectBatch(0, 1, kSent, 1);
    ASSERT_EQ(device_.RestartService(true), "");
    InjectBatch(1, 130, kStored, 130);
    ASSERT_TRUE(device_.WaitForLinesStartingWith(kCacheFull, 2, 10s));
    ASSERT_TRUE(device_.Signal(SIGTERM));
    ExpectExit(0);
    // 131 records: 1 delivered, 128 in the file, 2 over the cap.
    EXPECT_EQ(device_.CountRecords("event"), 1u);
    EXPECT_EQ(Count(kCacheFull), 2u);
    EXPECT_EQ(ReadFile(device_.CachePath()), Entries(1, 0, 128));
}

// Every stop with the service down adds its records to the file; the run that finds the
// service takes the oldest 128 and logs every other entry as over the cap.
TEST_F(FaultTest, RepeatedStopsWhileTheServiceIsDown) {
    constexpr int kRuns = 3, kPerRun = 100;
    ASSERT_EQ(device_.Start(false), "");
    for (int run = 0; run < kRuns; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        if (run > 0) {
            ASSERT_EQ(device_.StartDaemon(), "");
        }
        InjectBatch(run, kPerRun, kStored, kPerRun);
        StopWhileServiceDown(run == 1 ? SIGINT : SIGTERM);
        EXPECT_EQ(device_.LinesReading(kSaved).size(), 1u);
        std::string expected;
        for (int batch = 0; batch <= run; ++batch) expected += Entries(batch, 0, kPerRun);
        ASSERT_EQ(ReadFile(device_.CachePath()), expected);
    }

    // The last run caches 10 of its own before the service comes up.
    ASSERT_EQ(device_.StartDaemon(), "");
    InjectBatch(kRuns, 10, kStored, 10);
    ASSERT_TRUE(device_.SetServiceActive(true));
    ASSERT_TRUE(device_.WaitForLogLine(kFlushEnded, 10s));
    // 310 records: this run's 10, the first run's 100 and 18 of the second delivered, 182 lost.
    EXPECT_EQ(Count(kCacheFull), 182u);
    EXPECT_EQ(device_.CountRecords("event"), 128u);
    EXPECT_EQ(Count(kSent), 128u);
    for (int index = 0; index < kPerRun; ++index) {
        EXPECT_EQ(device_.LinesReading(kSent + TextForm(0, index)).size(), 1u);
        if (index < 18) {
            EXPECT_EQ(device_.LinesReading(kSent + TextForm(1, index)).size(), 1u);
        }
        if (index < 10) {
            EXPECT_EQ(device_.LinesReading(kSent + TextForm(kRuns, index)).size(), 1u);
        }
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
    std::mt19937 random(std::random_device{}());
    // The save starts a few milliseconds after SIGTERM, later on a busy machine.
    std::uniform_int_distribution<int> delay_us(0, 20000);
    std::map<std::string, int> outcomes;

    ASSERT_EQ(device_.Start(false), "");
    for (int attempt = 0; attempt < tries; ++attempt) {
        SCOPED_TRACE("try " + std::to_string(attempt));
        ASSERT_TRUE(device_.SetServiceActive(false));
        ASSERT_TRUE(WriteFile(device_.CachePath(), old_file));
        if (attempt > 0) {
            ASSERT_EQ(device_.StartDaemon(), "");
        }
        InjectBatch(0, 128, kStored, 128);
        ASSERT_TRUE(device_.Signal(SIGTERM));
        std::this_thread::sleep_for(std::chrono::microseconds(delay_us(random)));
        device_.Signal(SIGKILL);
        ASSERT_TRUE(device_.WaitForExit(10s).has_value());

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
        for (size_t start = 0, end; start < left.size(); start = end + kTerminator.size()) {
            end = left.find(kTerminator, start);
            if (end == std::string::npos) end = left.size();
            entries += end > start;
        }
        ASSERT_TRUE(device_.SetServiceActive(true));
        ASSERT_EQ(device_.StartDaemon(), "");
        ASSERT_TRUE(device_.WaitForLogLine("Loaded the cache from " + kCacheFile, 10s));
        if (entries > 0) {
            ASSERT_TRUE(device_.WaitForLogLine(kFlushEnded, 10s));
        }
        const size_t unreadable = Count("Failed to deserialize: ");
        EXPECT_LE(unreadable, 1u);
        EXPECT_EQ(Count(kSent), std::min<size_t>(128, entries - unreadable));
        EXPECT_EQ(Count(kSent) + Count(kCacheFull) + unreadable, entries);
        EXPECT_FALSE(Exists(device_.CachePath()));
        ASSERT_TRUE(device_.Signal(SIGKILL));
        ASSERT_TRUE(device_.WaitForExit(10s).has_value());
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
    for (int index = 0; index < 8; ++index) old_file += Entry(9, index, std::string(1002, 'x'));
    ASSERT_EQ(old_file.size(), 8192u);
    ASSERT_TRUE(WriteFile(device_.CachePath(), old_file));
    android::base::unique_fd filler(
            open((device_.PersistDir() + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const std::string page(4096, 'f');
    while (write(filler.get(), page.data(), page.size()) > 0) {
    }

    ASSERT_EQ(device_.Start(false), "");
    InjectBatch(0, 3, kStored, 3);
    StopWhileServiceDown();
    EXPECT_EQ(device_.LinesReading("android::WriteStringToFile write failed: No space left on "
                                   "device")
                      .size(),
              1u);
    EXPECT_EQ(device_.LinesReading(kSaveFailed).size(), 1u);
    EXPECT_LT(device_.LineIndex(kSaveFailed), device_.LineIndex(kEnded));
    // 8 earlier entries and 3 of this run: all lost.
    EXPECT_FALSE(Exists(device_.CachePath()));
}

struct Obstacle {
    const char* name;
    void (*make)(const std::string& persist);
    const char* load_line;
    std::vector<std::string> save_lines;
};

std::ostream& operator<<(std::ostream& out, const Obstacle& obstacle) {
    return out << obstacle.name;
}

void MakeDirectory(const std::string& persist) {
    mkdir((persist + "/cache.bin").c_str(), 0700);
}
// A link to a file holding an entry: neither read nor replaced, as links are not followed.
void MakeLink(const std::string& persist) {
    WriteFile(persist + "/other.bin", Entry(9, 0));
    symlink("other.bin", (persist + "/cache.bin").c_str());
}
void MakeDanglingLink(const std::string& persist) {
    symlink("nowhere.bin", (persist + "/cache.bin").c_str());
}
void MakeFifo(const std::string& persist) {
    mkfifo((persist + "/cache.bin").c_str(), 0600);
}

class ObstacleTest : public FaultTest, public ::testing::WithParamInterface<Obstacle> {};

// The replay works around the obstacle; every stop loses what it would have saved.
TEST_P(ObstacleTest, AtTheCachePath) {
    const Obstacle& obstacle = GetParam();
    obstacle.make(device_.PersistDir());
    ASSERT_EQ(device_.Start(false), "");
    InjectBatch(0, 2, kStored, 2);
    ASSERT_TRUE(device_.SetServiceActive(true));
    ASSERT_TRUE(device_.WaitForLogLine(kFlushEnded, 15s));
    EXPECT_EQ(device_.LinesReading(obstacle.load_line).size(), 1u);
    EXPECT_EQ(Count(kSent), 2u);

    ASSERT_TRUE(device_.SetServiceActive(false));
    InjectBatch(1, 3, kStored, 5);
    ASSERT_TRUE(device_.Signal(SIGTERM));
    if (obstacle.make == MakeFifo) {
        // The save blocks in open() until something reads; a reader takes the entries away.
        EXPECT_FALSE(device_.WaitForLogLine(kEnded, 1s));
        android::base::unique_fd reader(
                open(device_.CachePath().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        ASSERT_TRUE(reader.ok());
        ASSERT_TRUE(device_.WaitForLogLine(kSaved, 10s));
        std::string taken;
        ASSERT_TRUE(android::base::ReadFdToString(reader.get(), &taken));
        EXPECT_EQ(taken, Entries(1, 0, 3));
    }
    ExpectExit(0);
    for (const std::string& line : obstacle.save_lines) {
        EXPECT_EQ(device_.LinesReading(line).size(), 1u) << line;
    }
    // 2 delivered, 3 lost; the obstacle stays for the next stop.
    EXPECT_EQ(device_.CountRecords("event"), 2u);
    struct stat status {};
    ASSERT_EQ(lstat(device_.CachePath().c_str(), &status), 0);
    EXPECT_FALSE(S_ISREG(status.st_mode));
    if (obstacle.make == MakeLink) {
        EXPECT_EQ(ReadFile(device_.PersistDir() + "/other.bin"), Entry(9, 0));
    }
}

const std::string kNotFound = "The cache file not found, stop loading the cache";

INSTANTIATE_TEST_SUITE_P(
        Faults, ObstacleTest,
        ::testing::Values(
                Obstacle{"Directory",
                         MakeDirectory,
                         kNotFound.c_str(),
                         {"android::WriteStringToFile open failed: Is a directory", kSaveFailed}},
                Obstacle{"Link",
                         MakeLink,
                         "Failed to load the cache to /mnt/vendor/persist/tavi/cache.bin",
                         {"Failed to read the existing cache from " + kCacheFile +
                          ", stop saving the cache"}},
                Obstacle{"DanglingLink",
                         MakeDanglingLink,
                         kNotFound.c_str(),
                         {"android::WriteStringToFile open failed: Too many levels of symbolic "
                          "links",
                          kSaveFailed}},
                Obstacle{"Fifo", MakeFifo, kNotFound.c_str(), {kSaved}}),
        [](const auto& info) { return info.param.name; });

// A number outside the signed 32-bit range ends the process by design: this run's cached
// records die with it, and so does a file that was being loaded (it is deleted first).
TEST_F(FaultTest, OutOfRangeNumbers) {
    for (bool in_file : {false, true}) {
        SCOPED_TRACE(in_file ? "in the cache file" : "from the kernel");
        SimulatedDevice device;
        if (in_file) {
            ASSERT_TRUE(WriteFile(device.CachePath(),
                                  Entry(9, 0) + Entry("2147483648", 1) + Entry(9, 2)));
        }
        ASSERT_EQ(device.Start(false), "");
        for (int index = 0; index < 2; ++index) ASSERT_TRUE(device.Inject(KernelLine(0, index)));
        ASSERT_TRUE(device.WaitForLinesStartingWith(kStored, 2, 10s));
        if (in_file) {
            ASSERT_TRUE(device.SetServiceActive(true));
        } else {
            ASSERT_TRUE(device.Inject("2,1,1000,2147483648,0,0,0\n"));
        }
        std::optional<int> status = device.WaitForExit(10s);
        ASSERT_TRUE(status.has_value());
        EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGABRT) << *status;
        EXPECT_EQ(device.LinesReading("terminate called after throwing an instance of "
                                      "'std::out_of_range'")
                          .size(),
                  1u);
        // Lost: the 2 cached records, and the file's 3 entries.
        EXPECT_EQ(device.CountLinesStartingWith(kSent), 0u);
        EXPECT_EQ(device.LineIndex(kSaved), -1);
        EXPECT_FALSE(Exists(device.CachePath()));
    }
}

class FatalSignalTest : public FaultTest, public ::testing::WithParamInterface<int> {};

// Only SIGINT and SIGTERM save: any other signal whose default ends the process loses what is
// held in memory, and leaves an earlier file as it was.
TEST_P(FatalSignalTest, LosesWhatIsHeld) {
    const std::string earlier = Entry(9, 0);
    ASSERT_TRUE(WriteFile(device_.CachePath(), earlier));
    ASSERT_EQ(device_.Start(false), "");
    InjectBatch(0, 2, kStored, 2);
    ASSERT_TRUE(device_.Signal(GetParam()));
    ExpectExit(GetParam());
    EXPECT_EQ(device_.LineIndex(kSaved), -1);
    EXPECT_EQ(device_.LineIndex(kEnded), -1);
    EXPECT_EQ(ReadFile(device_.CachePath()), earlier);
}

INSTANTIATE_TEST_SUITE_P(Faults, FatalSignalTest, ::testing::Values(SIGHUP, SIGUSR1, SIGPIPE),
                         [](const auto& info) { return sigabbrev_np(info.param); });

}  // namespace
}  // namespace vendor::vesk::tavi::testing
