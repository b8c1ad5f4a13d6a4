// SPDX-License-Identifier: Apache-2.0
// What the daemon's drain relies on from the kernel attribute, held against whichever one
// TAVI_ATTRIBUTE picks, so that the emulator behaves as the module does: one record per read
// from offset 0, the empty read once nothing is pending, one notification per record, and a
// fresh descriptor that reports at once what was queued before it opened.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>

#include "simulated_device.h"

namespace vendor::vesk::tavi::testing {
namespace {

using namespace std::chrono_literals;
using sim::SimulatedDevice;

const sim::Binaries kBinaries = sim::Binaries::InBuildDir(TAVI_BUILD_DIR);
// What the listener asks poll() for on the attribute.
constexpr int kNotified = POLLPRI | POLLERR;

class AttributeContractTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::string reason = SimulatedDevice::Availability(kBinaries); !reason.empty()) {
            FAIL() << reason;
        }
        ASSERT_EQ(device_.StartAttribute(), "");
    }

    android::base::unique_fd Open() const {
        return android::base::unique_fd(
                open(device_.AttributeLogPath().c_str(), O_RDONLY | O_CLOEXEC));
    }

    void Inject(const std::vector<std::string>& records) {
        for (const std::string& record : records) ASSERT_TRUE(device_.Inject(record)) << record;
    }

    // One read of up to `size` bytes at `offset`, as the listener reads.
    static std::string ReadAt(int fd, off_t offset, size_t size = getpagesize() - 1) {
        std::string text(size, '\0');
        const ssize_t read_size = lseek(fd, offset, SEEK_SET) == offset
                                          ? TEMP_FAILURE_RETRY(read(fd, text.data(), size))
                                          : -1;
        text.resize(read_size > 0 ? read_size : 0);
        return text;
    }

    // Reads from offset 0 until the empty read.
    static std::vector<std::string> Drain(int fd) {
        std::vector<std::string> records;
        for (std::string record; !(record = ReadAt(fd, 0)).empty() && records.size() < 200;) {
            records.push_back(record);
        }
        return records;
    }

    // The events poll() reports within `timeout`; 0 when it timed out.
    static int Poll(int fd, std::chrono::milliseconds timeout) {
        pollfd entry = {fd, kNotified, 0};
        const int ready = TEMP_FAILURE_RETRY(poll(&entry, 1, static_cast<int>(timeout.count())));
        return ready > 0 ? entry.revents : ready;
    }

    TemporaryDir state_;
    SimulatedDevice device_{state_.path, kBinaries};
};

TEST_F(AttributeContractTest, EachReadFromOffsetZeroTakesTheOldestRecord) {
    android::base::unique_fd log = Open();
    ASSERT_TRUE(log.ok());
    Inject({"2,3,1001,-1,0,17,5\n", "4,2,3002,-2147483648,2147483647,0,-1\n",
            "2147483647,2147483647,2147483647,0,0,0,0\n"});
    EXPECT_EQ(ReadAt(log.get(), 0), "2,3,1001,-1,0,17,5\n");
    EXPECT_EQ(ReadAt(log.get(), 0), "4,2,3002,-2147483648,2147483647,0,-1\n");
    EXPECT_EQ(ReadAt(log.get(), 0), "2147483647,2147483647,2147483647,0,0,0,0\n");
    EXPECT_EQ(ReadAt(log.get(), 0), "");
    EXPECT_EQ(ReadAt(log.get(), 0), "");
    // A descriptor of its own changes nothing: the queue is the attribute's.
    Inject({"1,1,7,0,0,0,0\n"});
    android::base::unique_fd other = Open();
    EXPECT_EQ(ReadAt(other.get(), 0), "1,1,7,0,0,0,0\n");
    EXPECT_EQ(ReadAt(log.get(), 0), "");
}

// A reader that does not rewind reads on from the text the read at offset 0 took: the record
// is not cut short, and no second record is taken.
TEST_F(AttributeContractTest, ShortReadsPastOffsetZeroServeTheSameRecord) {
    android::base::unique_fd log = Open();
    ASSERT_TRUE(log.ok());
    Inject({"1,1,1111,0,0,0,0\n", "1,1,2222,0,0,0,0\n"});
    std::string pieces;
    for (std::string piece; !(piece = ReadAt(log.get(), pieces.size(), 4)).empty();) {
        pieces += piece;
        ASSERT_LT(pieces.size(), 100u) << pieces;
    }
    EXPECT_EQ(pieces, "1,1,1111,0,0,0,0\n");
    EXPECT_EQ(ReadAt(log.get(), 0), "1,1,2222,0,0,0,0\n");
    EXPECT_EQ(ReadAt(log.get(), 0), "");
}

// Once drained, poll() sleeps until a record comes, wakes for it with POLLPRI and POLLERR, and
// sleeps again once that record has been read.
TEST_F(AttributeContractTest, NotifiesEachRecordOnce) {
    const auto wait = std::chrono::milliseconds(5000 * sim::WaitScale());
    android::base::unique_fd log = Open();
    ASSERT_TRUE(log.ok());
    Drain(log.get());
    EXPECT_EQ(Poll(log.get(), 200ms), 0) << "a wake-up without a record";

    // Injected while the reader sleeps in poll().
    std::thread injector([&] {
        std::this_thread::sleep_for(300ms);
        EXPECT_TRUE(device_.Inject("1,1,1,0,0,0,0\n"));
    });
    EXPECT_EQ(Poll(log.get(), wait), kNotified);
    injector.join();
    EXPECT_EQ(Drain(log.get()), std::vector<std::string>{"1,1,1,0,0,0,0\n"});
    EXPECT_EQ(Poll(log.get(), 200ms), 0) << "a second wake-up for one record";

    // Injected before the reader polls again.
    Inject({"1,1,2,0,0,0,0\n", "1,1,3,0,0,0,0\n"});
    EXPECT_EQ(Poll(log.get(), wait), kNotified);
    EXPECT_EQ(Drain(log.get()), (std::vector<std::string>{"1,1,2,0,0,0,0\n", "1,1,3,0,0,0,0\n"}));
    EXPECT_EQ(Poll(log.get(), 200ms), 0) << "a wake-up after the drain";
}

// The daemon opens the attribute after drivers may have written: its first poll() must report
// what is pending. With nothing pending a fresh descriptor may report once, never again.
TEST_F(AttributeContractTest, FreshDescriptorReportsAtOnce) {
    const struct {
        std::vector<std::string> pending;
    } cases[] = {{{"3,0,2000,0,0,0,0\n", "4,1,3001,1,0,0,0\n"}}, {{}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.pending.size()) + " pending");
        Inject(c.pending);
        android::base::unique_fd log = Open();
        ASSERT_TRUE(log.ok());
        const int first = Poll(log.get(), 0ms);
        if (c.pending.empty()) {
            EXPECT_TRUE(first == 0 || first == kNotified) << first;
        } else {
            EXPECT_EQ(first, kNotified);
        }
        EXPECT_EQ(Drain(log.get()), c.pending);
        EXPECT_EQ(Poll(log.get(), 200ms), 0);
    }
}

}  // namespace
}  // namespace vendor::vesk::tavi::testing
