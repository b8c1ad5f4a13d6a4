// The real tavi_daemon on the simulated device: kernel records in; events at the service,
// log lines, the cache file and the end of the process out.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <iostream>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <android-base/file.h>
#include <gtest/gtest.h>

#include "device_harness.h"

namespace vendor::vesk::tavi::testing {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

constexpr char kCacheFile[] = "/mnt/vendor/persist/tavi/cache.bin";
constexpr char kPollInterrupted[] = "poll() is interrupted by a client, calling interrupt callback";

struct KernelRecord {
    const char* line;
    const char* text_form;
    const char* probe;
    const char* payload_hex;
};

const KernelRecord kPdHardReset = {
        "4,1,3001,1,0,0,0\n",
        "Message {Type: LOG, Category: 4, LogLevel: 1, ErrorCode: 3001, Param1: 1, Param2: 0, "
        "Param3: 0, Param4: 0, Message: }",
        "TaviChargerDetectPdHardReset", "080110b9171801"};
const KernelRecord kDisplayShort = {
        "3,0,2000,0,0,0,0\n",
        "Message {Type: LOG, Category: 3, LogLevel: 0, ErrorCode: 2000, Param1: 0, Param2: 0, "
        "Param3: 0, Param4: 0, Message: }",
        "TaviDisplayShort", "080010d00f1800"};
const KernelRecord kSocFreeze = {
        "4,2,3002,-1,0,300,1\n",
        "Message {Type: LOG, Category: 4, LogLevel: 2, ErrorCode: 3002, Param1: -1, Param2: 0, "
        "Param3: 300, Param4: 1, Message: }",
        "TaviChargerDetectSocFreeze", "080210ba1718ffffffffffffffffff01200028ac023001"};

// The cache file holding kPdHardReset and then kDisplayShort.
// clang-format off
const std::string kTwoCacheEntries =
        "0\0" "4\0" "1\0" "3001\0" "1\0" "0\0" "0\0" "0\0" "\0\0\n"
        "0\0" "3\0" "0\0" "2000\0" "0\0" "0\0" "0\0" "0\0" "\0\0\n"s;
// clang-format on

std::string ReadFile(const std::string& path) {
    std::string content;
    android::base::ReadFileToString(path, &content);
    return content;
}

double SecondsBetween(const LogLine& first, const LogLine& last) {
    return std::chrono::duration<double>(last.seen - first.seen).count();
}

class DaemonOnDeviceTest : public ::testing::Test {
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

    // With the service active, waits until the readiness task has woken the poll loop, so
    // that what is injected next meets an active service.
    void StartDevice(bool service_active, bool with_attribute = true) {
        ASSERT_EQ(device_.Start(service_active, with_attribute), "");
        if (service_active && with_attribute) {
            ASSERT_TRUE(device_.WaitForLogLine(kPollInterrupted, 5s));
        }
    }

    void Inject(const std::vector<KernelRecord>& records) {
        for (const KernelRecord& record : records) ASSERT_TRUE(device_.Inject(record.line));
    }

    void ExpectEvents(const std::vector<KernelRecord>& expected) {
        ASSERT_TRUE(device_.WaitForRecords("event", expected.size(), 5s));
        std::vector<ServiceRecord> events = device_.Records("event");
        ASSERT_EQ(events.size(), expected.size());
        for (size_t i = 0; i < expected.size(); ++i) {
            SCOPED_TRACE(expected[i].line);
            EXPECT_EQ(events[i].source, "tavi");
            EXPECT_EQ(events[i].probe, expected[i].probe);
            EXPECT_EQ(events[i].payload_hex, expected[i].payload_hex);
            EXPECT_EQ(device_.LinesReading("Send the message to UBO: "s + expected[i].text_form)
                              .size(),
                      1u);
        }
    }

    void ExpectCleanExit() {
        std::optional<int> status = device_.WaitForExit(5s);
        ASSERT_TRUE(status.has_value()) << "the daemon did not end";
        EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << "wait status " << *status;
    }

    bool CacheFileExists() { return access(device_.CachePath().c_str(), F_OK) == 0; }

    SimulatedDevice device_;
};

struct StopCase {
    int signal_number;
    const char* detected_line;
    const char* closing_line;
    const char* session_end;
    const char* other_session_end;
};

std::ostream& operator<<(std::ostream& out, const StopCase& stop) {
    return out << strsignal(stop.signal_number);
}

class ServiceActiveTest : public DaemonOnDeviceTest,
                          public ::testing::WithParamInterface<StopCase> {};

TEST_P(ServiceActiveTest, DeliversLiveRecordsThenEndsAtOnce) {
    const StopCase& stop = GetParam();
    StartDevice(true);
    Inject({kPdHardReset, kDisplayShort, kSocFreeze});
    ExpectEvents({kPdHardReset, kDisplayShort, kSocFreeze});
    EXPECT_EQ(device_.LinesReading("Created UBO session").size(), 1u);
    EXPECT_EQ(device_.LineIndex("UBO is not yet active or available, retry in 1 sec"), -1);
    // Nothing cached and no file: the wake-up replays nothing.
    EXPECT_EQ(device_.LineIndex("Cache flush starting"), -1);
    EXPECT_EQ(device_.LineIndex("Cache flush ended"), -1);

    ASSERT_TRUE(device_.Signal(stop.signal_number));
    ExpectCleanExit();
    EXPECT_EQ(device_.LinesReading(stop.detected_line).size(), 1u);
    int ended = device_.LineIndex("tavi_daemon ended");
    ASSERT_NE(ended, -1);
    EXPECT_GT(device_.LineIndex(stop.closing_line), ended);
    EXPECT_TRUE(device_.WaitForRecords(stop.session_end, 1, 2s));
    EXPECT_EQ(device_.CountRecords(stop.other_session_end), 0u);
    // Nothing was held, so nothing was saved.
    EXPECT_FALSE(CacheFileExists());
}

INSTANTIATE_TEST_SUITE_P(
        Signals, ServiceActiveTest,
        ::testing::Values(StopCase{SIGINT,
                                   "Interrupt signal detected, calling signal callback and "
                                   "stopping poll() loop",
                                   "Closed UBO session", "session_destroyed", "session_lost"},
                          StopCase{SIGTERM,
                                   "Terminated signal detected, calling signal callback and "
                                   "stopping poll() loop",
                                   "Skip closing UBO session", "session_lost",
                                   "session_destroyed"}),
        [](const auto& info) { return info.param.signal_number == SIGINT ? "Sigint" : "Sigterm"; });

TEST_F(DaemonOnDeviceTest, SavesCachedRecordsAtSigtermAndWaitsForService) {
    StartDevice(false);
    Inject({kPdHardReset, kDisplayShort});
    for (const KernelRecord& record : {kPdHardReset, kDisplayShort}) {
        EXPECT_TRUE(
                device_.WaitForLogLine("Store the message in the cache: "s + record.text_form, 5s));
    }
    ASSERT_TRUE(device_.Signal(SIGTERM));
    ASSERT_TRUE(device_.WaitForLogLine("tavi_daemon ended", 5s));
    EXPECT_EQ(device_.LinesReading("Saved the cache to "s + kCacheFile).size(), 1u);
    EXPECT_EQ(ReadFile(device_.CachePath()), kTwoCacheEntries);
    struct stat cache_status {};
    ASSERT_EQ(stat(device_.CachePath().c_str(), &cache_status), 0);
    EXPECT_EQ(cache_status.st_mode & 07777, 0600u);

    // The readiness task still runs: the process stays until the service is up.
    std::this_thread::sleep_for(1500ms);
    EXPECT_TRUE(device_.DaemonAlive());
    ASSERT_TRUE(device_.SetServiceActive(true));
    ExpectCleanExit();
    EXPECT_GT(device_.LineIndex("Skip closing UBO session"),
              device_.LineIndex("tavi_daemon ended"));
    EXPECT_TRUE(device_.WaitForRecords("session_lost", 1, 2s));
    EXPECT_EQ(device_.CountRecords("session_destroyed"), 0u);
    // The poll loop had ended: nothing replayed, the file is kept for the next run.
    EXPECT_TRUE(device_.Records("event").empty());
    EXPECT_EQ(device_.LineIndex("Cache flush starting"), -1);
    EXPECT_EQ(ReadFile(device_.CachePath()), kTwoCacheEntries);
}

TEST_F(DaemonOnDeviceTest, FlushesThisRunsRecordsBeforeThoseOfTheFile) {
    ASSERT_TRUE(android::base::WriteStringToFile(
            kTwoCacheEntries, device_.PersistDir() + "/cache.bin", 0600, getuid(), getgid()));
    StartDevice(false);
    Inject({kSocFreeze});
    ASSERT_TRUE(
            device_.WaitForLogLine("Store the message in the cache: "s + kSocFreeze.text_form, 5s));
    ASSERT_TRUE(device_.SetServiceActive(true));
    ASSERT_TRUE(device_.WaitForLogLine("Cache flush ended", 5s));
    ExpectEvents({kSocFreeze, kPdHardReset, kDisplayShort});

    int loaded = device_.LineIndex("Loaded the cache from "s + kCacheFile);
    int starting = device_.LineIndex("Cache flush starting");
    int first_send = device_.LineIndex("Send the message to UBO: "s + kSocFreeze.text_form);
    int last_send = device_.LineIndex("Send the message to UBO: "s + kDisplayShort.text_form);
    ASSERT_NE(loaded, -1);
    EXPECT_LT(loaded, starting);
    EXPECT_LT(starting, first_send);
    EXPECT_LT(last_send, device_.LineIndex("Cache flush ended"));
    EXPECT_FALSE(CacheFileExists());
}

TEST_F(DaemonOnDeviceTest, LogsRejectedRecordsAndKeepsServing) {
    struct Rejected {
        const char* line;
        std::string log_line;  // empty: dropped without a word
    } rejected[] = {
            {"4,1,abc,1,0,0,0\n",
             "Failed to parse the string for MessageType LOG: 4,1,abc,1,0,0,0"},
            {"4,1,3001,1,0,0,0",
             "Failed to parse the string for MessageType LOG: 4,1,3001,1,0,0,0"},
            {"1,0,100,0,0,0,0\n",
             "Failed to pack the massage: Message {Type: LOG, Category: 1, LogLevel: 0, "
             "ErrorCode: 100, Param1: 0, Param2: 0, Param3: 0, Param4: 0, Message: }"},
            {"4,1,3005,0,0,0,0\n",
             "Failed to pack the massage: Message {Type: LOG, Category: 4, LogLevel: 1, "
             "ErrorCode: 3005, Param1: 0, Param2: 0, Param3: 0, Param4: 0, Message: }"},
            {"5,1,3001,0,0,0,0\n", ""},
    };
    StartDevice(true);
    for (const Rejected& record : rejected) ASSERT_TRUE(device_.Inject(record.line));
    // Records are handled in order: once this one is delivered, all above were handled.
    Inject({kDisplayShort});
    ExpectEvents({kDisplayShort});
    for (const Rejected& record : rejected) {
        if (record.log_line.empty()) continue;
        SCOPED_TRACE(record.line);
        std::vector<LogLine> lines = device_.LinesReading(record.log_line);
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].severity, 'E');
    }
    for (const LogLine& line : device_.LogLines()) {
        EXPECT_EQ(line.text.find("Category: 5"), std::string::npos) << line.text;
    }
    EXPECT_TRUE(device_.DaemonAlive());
}

TEST_F(DaemonOnDeviceTest, AbortsWhenTheAttributeNeverAppears) {
    StartDevice(true, false);
    ASSERT_TRUE(device_.WaitForLogLine("Failed to setup listener after 5 retries", 10s));
    std::optional<int> status = device_.WaitForExit(5s);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGABRT) << "wait status " << *status;
    EXPECT_EQ(device_.LinesReading("Failed to setup listener after 5 retries")[0].severity, 'F');
    std::vector<LogLine> retries = device_.LinesReading("Failed to setup listener, retry in 1 sec");
    ASSERT_EQ(retries.size(), 5u);
    EXPECT_EQ(retries[0].severity, 'E');
    EXPECT_NEAR(SecondsBetween(retries[0], retries[4]), 4.0, 0.8);
    EXPECT_EQ(device_.LinesReading("Could not open /sys/kernel/tavi/log").size(), 6u);
    // It ended before the readiness task could start.
    EXPECT_EQ(device_.CountRecords("session_created"), 0u);
}

TEST_F(DaemonOnDeviceTest, PausesAfterTenReadinessRetries) {
    StartDevice(false);
    ASSERT_TRUE(device_.WaitForLogLine("UBO is not yet active or available after 10 retries", 15s));
    std::vector<LogLine> retries =
            device_.LinesReading("UBO is not yet active or available, retry in 1 sec");
    ASSERT_EQ(retries.size(), 10u);
    EXPECT_EQ(retries[0].severity, 'E');
    EXPECT_NEAR(SecondsBetween(retries[0], retries[9]), 9.0, 1.0);
    EXPECT_EQ(device_.LinesReading("Created UBO session").size(), 1u);

    // Nothing cached: the stop saves nothing, and the process stays for the readiness task.
    ASSERT_TRUE(device_.Signal(SIGINT));
    ASSERT_TRUE(device_.WaitForLogLine("tavi_daemon ended", 5s));
    EXPECT_EQ(device_.LineIndex("Saved the cache to "s + kCacheFile), -1);
    EXPECT_FALSE(CacheFileExists());
    std::this_thread::sleep_for(500ms);
    EXPECT_TRUE(device_.DaemonAlive());
    // The readiness task now sleeps 60 s before asking the service again, so an active
    // service would end the daemon only after that pause: too long here, hence SIGKILL.
    ASSERT_TRUE(device_.Signal(SIGKILL));
    std::optional<int> status = device_.WaitForExit(5s);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL);
}

}  // namespace
}  // namespace vendor::vesk::tavi::testing
