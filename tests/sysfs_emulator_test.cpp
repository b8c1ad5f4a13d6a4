// The emulated log attribute on a real FUSE mount keeps the kernel attribute's contract that
// the listener's drain relies on.

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>

#include "sysfs_emulator.h"

namespace vendor::vesk::tavi::testing {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class SysfsEmulatorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::string reason = SysfsEmulator::Availability(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        ASSERT_EQ(emulator_.Start(), "");
        log_.reset(open(emulator_.LogPath().c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(log_.ok());
    }

    // Polls the log as the listener does; returns poll()'s result and the events seen.
    int PollLog(int timeout_ms, int16_t* revents = nullptr) {
        pollfd entry = {log_.get(), POLLPRI | POLLERR, 0};
        int ready = poll(&entry, 1, timeout_ms);
        if (revents != nullptr) *revents = entry.revents;
        return ready;
    }

    // Reads every pending record the way the listener does: one page minus one byte from
    // offset 0, rewinding after each record, until a read yields nothing. Bounded, so that an
    // attribute replaying a cached record fails the test instead of looping.
    std::vector<std::string> Drain() {
        constexpr size_t kMaxRecords = 10000;
        std::vector<std::string> records;
        std::string buffer(getpagesize(), '\0');
        ssize_t size;
        while ((size = read(log_.get(), buffer.data(), buffer.size() - 1)) > 0) {
            records.emplace_back(buffer.data(), size);
            lseek(log_.get(), 0, SEEK_SET);
            if (records.size() == kMaxRecords) {
                ADD_FAILURE() << "the log never reads empty";
                break;
            }
        }
        return records;
    }

    SysfsEmulator emulator_;
    android::base::unique_fd log_;
};

TEST_F(SysfsEmulatorTest, InjectionWakesAWaitingPoll) {
    EXPECT_EQ(PollLog(50), 0);
    EXPECT_TRUE(Drain().empty());
    const auto start = Clock::now();
    std::thread injector([this] {
        std::this_thread::sleep_for(100ms);
        EXPECT_TRUE(emulator_.Inject("4,1,3001,1,0,0,0\n"));
    });
    int16_t revents = 0;
    EXPECT_EQ(PollLog(5000, &revents), 1);
    const auto waited = Clock::now() - start;
    injector.join();
    EXPECT_EQ(revents, POLLPRI | POLLERR);
    EXPECT_GE(waited, 90ms);
    EXPECT_LT(waited, 2000ms) << "woken by the poll timeout, not by a notification";

    // Readiness lasts while the record is pending and ends with the drain.
    EXPECT_EQ(PollLog(0), 1);
    EXPECT_EQ(Drain(), std::vector<std::string>{"4,1,3001,1,0,0,0\n"});
    EXPECT_EQ(PollLog(50), 0);
}

TEST_F(SysfsEmulatorTest, DrainYieldsEachRecordOnceVerbatimInOrder) {
    const std::vector<std::string> records = {
            "4,1,3001,1,0,0,0\n",
            "1,2,3,4,5,6,7",                      // no line feed
            "3,1,2\r\n",                          // carriage return
            std::string("2,1\0,9,9\n", 9),        // NUL byte inside
            std::string(getpagesize() - 1, 'x'),  // fills the listener's buffer
    };
    for (const std::string& record : records) ASSERT_TRUE(emulator_.Inject(record));
    EXPECT_EQ(emulator_.PendingCount(), static_cast<int>(records.size()));

    EXPECT_EQ(Drain(), records);
    EXPECT_EQ(emulator_.PendingCount(), 0);
    EXPECT_TRUE(Drain().empty());
}

}  // namespace
}  // namespace vendor::vesk::tavi::testing
