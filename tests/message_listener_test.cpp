// SPDX-License-Identifier: Apache-2.0

#include "message_listener.h"

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <android-base/file.h>
#include <gtest/gtest.h>

#include "log_capture.h"
#include "simulated_device.h"
#include "sysfs_callback.h"

namespace vendor::vesk::tavi {
namespace {

using namespace std::string_literals;
using testing::LogCapture;

const sim::Binaries kBinaries = sim::Binaries::InBuildDir(TAVI_BUILD_DIR);

// Setup() blocks SIGINT and SIGTERM for good; every case that calls it runs in a child
// process so the test runner keeps its own signal handling. The child's failures are
// printed to stderr, where the parent's report shows them.
void RunInChild(const std::function<void()>& body) {
    auto child = [&body] {
        body();
        const auto& result = *::testing::UnitTest::GetInstance()->current_test_info()->result();
        for (int i = 0; i < result.total_part_count(); ++i) {
            const auto& part = result.GetTestPartResult(i);
            fprintf(stderr, "%s:%d: %s\n", part.file_name(), part.line_number(), part.message());
        }
        std::exit(result.Failed() ? 1 : 0);
    };
    EXPECT_EXIT(child(), ::testing::ExitedWithCode(0), "");
}

size_t OpenDescriptorCount() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

struct PollRecord {
    std::vector<Message> messages;
    std::vector<uint32_t> signals;
    int interrupts = 0;
};

// Polls until a stop signal; `on_interrupt` runs inside each interrupt callback.
bool PollInto(
        MessageListener& listener, PollRecord& record,
        const std::function<void()>& on_interrupt = [] {}) {
    return listener.Poll(
            [&](const Message& message) { record.messages.push_back(message); },
            [&](const signalfd_siginfo& info) { record.signals.push_back(info.ssi_signo); },
            [&] {
                ++record.interrupts;
                on_interrupt();
            });
}

// A failed Setup leaves no descriptor open, the first path's included, and no pipe to wake.
TEST(MessageListenerSetupTest, FailureOpensNothing) {
    const struct {
        std::vector<std::string> paths;
        size_t callbacks;
        std::string error;
    } cases[] = {
            {{"/dev/null", "/dev/null"},
             1,
             "The number of sysfs paths and sysfs callbacks does not match"},
            {{"/dev/null", "/nonexistent/tavi/log"}, 2, "Could not open /nonexistent/tavi/log"},
    };
    for (const auto& c : cases) {
        LogCapture logs;
        MessageListener listener;
        const size_t before = OpenDescriptorCount();
        EXPECT_FALSE(listener.Setup(c.paths,
                                    std::vector<SysfsCallback>(c.callbacks, ParseSysfsLogValue)));
        EXPECT_EQ(OpenDescriptorCount(), before);
        EXPECT_FALSE(listener.InterruptPoll());
        EXPECT_EQ(logs.Texts(android::base::ERROR),
                  (std::vector<std::string>{
                          c.error, "write() on pipe failed with errno " + std::to_string(EBADF)}));
    }
}

// Each wake-up gives one callback; a stop signal pending with a wake-up wins that pass.
TEST(MessageListenerInterruptTest, EachWakeUpGivesOneCallbackUntilAStopSignal) {
    RunInChild([&] {
        LogCapture logs;
        MessageListener listener;
        ASSERT_TRUE(listener.Setup({}, {}));
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(listener.InterruptPoll());
        PollRecord record;
        EXPECT_TRUE(PollInto(listener, record, [&] {
            if (record.interrupts < 3) return;
            EXPECT_TRUE(listener.InterruptPoll());
            kill(getpid(), SIGINT);
        }));
        EXPECT_EQ(record.interrupts, 3);
        EXPECT_EQ(record.signals, std::vector<uint32_t>{SIGINT});
        const std::string woken = "poll() is interrupted by a client, calling interrupt callback";
        const std::string stop = "Interrupt signal detected, calling signal callback and stopping";
        EXPECT_EQ(logs.Texts(android::base::INFO),
                  (std::vector<std::string>{"poll() loop starting", woken, woken, woken,
                                            stop + " poll() loop"}));
    });
}

// Any other signal interrupts poll() and the loop carries on; this handler queues the stop
// signal for the next pass.
TEST(MessageListenerPollTest, InterruptedPollCarriesOn) {
    RunInChild([&] {
        LogCapture logs;
        MessageListener listener;
        ASSERT_TRUE(listener.Setup({}, {}));
        ASSERT_NE(signal(SIGALRM, [](int) { kill(getpid(), SIGTERM); }), SIG_ERR);
        alarm(1);  // poll() is waiting by then
        PollRecord record;
        EXPECT_TRUE(PollInto(listener, record));
        EXPECT_EQ(logs.Texts(android::base::INFO),
                  (std::vector<std::string>{
                          "poll() loop starting", "poll() is interrupted by a signal, continuing",
                          "Terminated signal detected, calling signal callback and stopping "
                          "poll() loop"}));
        EXPECT_EQ(record.signals, std::vector<uint32_t>{SIGTERM});
    });
}

// The daemon's parser, keeping every text it is given.
SysfsCallback Recording(std::vector<std::string>& seen) {
    return [&seen](const std::string& text, Message& message) {
        seen.push_back(text);
        return ParseSysfsLogValue(text, message);
    };
}

// The kernel side: records announced with POLLPRI, one per read from offset 0; the attribute
// that TAVI_ATTRIBUTE picks.
class MessageListenerSysfsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::string reason = sim::SimulatedDevice::Availability(kBinaries); !reason.empty()) {
            FAIL() << reason;
        }
        ASSERT_EQ(attribute_.StartAttribute(), "");
    }

    TemporaryDir state_;
    sim::SimulatedDevice attribute_{state_.path, kBinaries};
};

// Records injected while the loop waits must wake it. The attribute hands out a record only
// to a read from offset 0, so a drain that does not rewind never empties it.
TEST_F(MessageListenerSysfsTest, DrainsEveryRecordInOrderAndDropsRejected) {
    if (sim::OnKernelAttribute()) {
        GTEST_SKIP() << sim::kNotOnKernel
                     << "the module refuses to queue a record that is not seven integers";
    }
    RunInChild([&] {
        const std::string page_filler(getpagesize() - 1, '9');
        std::vector<std::string> seen;
        MessageListener listener;
        ASSERT_TRUE(listener.Setup({attribute_.AttributeLogPath()}, {Recording(seen)}));
        std::thread injector([&] {
            usleep(100 * 1000);  // most likely inside poll() by then
            for (const std::string& record :
                 {"4,1,3001,1,0,0,0\n"s, "4,1,3001"s, "2,3,1000,7,8,9,0\n\0tail"s, page_filler,
                  "3,0,2000,0,0,0,0\n"s}) {
                EXPECT_TRUE(attribute_.Inject(record));
            }
            EXPECT_TRUE(sim::WaitUntil([&] { return attribute_.PendingCount() == 0; },
                                       std::chrono::seconds(10)));
            kill(getpid(), SIGTERM);
        });
        PollRecord record;
        EXPECT_TRUE(PollInto(listener, record));
        injector.join();

        EXPECT_EQ(seen,
                  (std::vector<std::string>{"4,1,3001,1,0,0,0\n", "4,1,3001", "2,3,1000,7,8,9,0\n",
                                            page_filler, "3,0,2000,0,0,0,0\n"}));
        ASSERT_EQ(record.messages.size(), 3u);
        EXPECT_EQ(record.messages[0].error_code, 3001);
        EXPECT_EQ(record.messages[1].param3, 9);
        EXPECT_EQ(record.messages[2].error_code, 2000);
    });
}

// A read asks for a page less one byte, so that the text can always be terminated: a valid
// record of a whole page loses its line feed and is rejected; one byte shorter, it is delivered.
TEST_F(MessageListenerSysfsTest, ReadsAtMostAPageLessOneByte) {
    if (sim::OnKernelAttribute()) {
        GTEST_SKIP() << sim::kNotOnKernel
                     << "the module refuses to queue a record longer than 85 bytes";
    }
    RunInChild([&] {
        const size_t page = getpagesize();
        const std::string line = "4,1,3001,1,0,0,0\n";
        // Leading zeros stretch the category to the size wanted.
        const std::string whole_page = std::string(page - line.size(), '0') + line;
        const std::string page_less_one = whole_page.substr(1);
        std::vector<std::string> seen;
        MessageListener listener;
        ASSERT_TRUE(listener.Setup({attribute_.AttributeLogPath()}, {Recording(seen)}));
        ASSERT_TRUE(attribute_.Inject(whole_page));
        ASSERT_TRUE(attribute_.Inject(page_less_one));
        kill(getpid(), SIGTERM);
        PollRecord record;
        EXPECT_TRUE(PollInto(listener, record));
        // Compared whole, but not printed: a page of zeros says little.
        ASSERT_EQ(seen.size(), 2u);
        EXPECT_TRUE(seen[0] == whole_page.substr(0, page - 1)) << seen[0].size() << " bytes";
        EXPECT_TRUE(seen[1] == page_less_one) << seen[1].size() << " bytes";
        ASSERT_EQ(record.messages.size(), 1u);
        EXPECT_EQ(record.messages[0].category, 4);
        EXPECT_EQ(record.messages[0].error_code, 3001);
    });
}

TEST_F(MessageListenerSysfsTest, RecordsPendingWithTheStopSignalAreStillDelivered) {
    RunInChild([&] {
        MessageListener listener;
        ASSERT_TRUE(listener.Setup({attribute_.AttributeLogPath()}, {ParseSysfsLogValue}));
        attribute_.Inject("1,0,1,0,0,0,0\n");
        attribute_.Inject("1,0,2,0,0,0,0\n");
        kill(getpid(), SIGTERM);
        PollRecord record;
        EXPECT_TRUE(PollInto(listener, record));
        ASSERT_EQ(record.messages.size(), 2u);
        EXPECT_EQ(record.messages[1].error_code, 2);
        EXPECT_EQ(record.signals, std::vector<uint32_t>{SIGTERM});
    });
}

}  // namespace
}  // namespace vendor::vesk::tavi
