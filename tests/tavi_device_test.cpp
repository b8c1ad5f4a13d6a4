// SPDX-License-Identifier: Apache-2.0
// tavi-device as a user runs it: what it prints, where, and its exit status, for good and for
// bad or surprising input.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/strings.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "simulated_device.h"

namespace vendor::vesk::tavi::sim {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

class TaviDeviceTest : public ::testing::Test {
  protected:
    void SetUp() override { setenv("TAVI_DEVICE_STATE", state_.path, 1); }
    void TearDown() override { Run({"down"}); }

    Result Run(const std::vector<std::string>& args) {
        const std::string out = std::string(files_.path) + "/out",
                          err = std::string(files_.path) + "/err";
        std::vector<std::string> argv = {TAVI_DEVICE_BINARY};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> pointers;
        pointers.reserve(argv.size() + 1);
        for (std::string& arg : argv) pointers.push_back(arg.data());
        pointers.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        pid_t pid = -1;
        Result result;
        int wait_status = 0;
        if (posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ) == 0 &&
            waitpid(pid, &wait_status, 0) == pid && WIFEXITED(wait_status)) {
            result.status = WEXITSTATUS(wait_status);
        }
        posix_spawn_file_actions_destroy(&actions);
        android::base::ReadFileToString(out, &result.out);
        android::base::ReadFileToString(err, &result.err);
        return result;
    }

    // A host that cannot run the device fails the case: a skip would hide it.
    void NeedDevice() {
        ASSERT_EQ(SimulatedDevice::Availability(Binaries::InBuildDir(TAVI_BUILD_DIR)), "");
    }

    TemporaryDir state_;
    TemporaryDir files_;
};

TEST_F(TaviDeviceTest, WordsItDoesNotKnow) {
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out;
        std::string err;
    };
    const Case cases[] = {
            {{}, 2, "", "usage: tavi-device COMMAND [ARGS]\n"},
            {{"help"}, 0, "usage: tavi-device COMMAND [ARGS]\n", ""},
            {{"bogus"},
             2,
             "",
             "tavi-device: unknown command 'bogus'\n"
             "tavi-device: 'tavi-device help' lists the commands\n"},
            {{"up", "--bogus"},
             2,
             "",
             "tavi-device: unknown option '--bogus' for up\n"
             "tavi-device: 'tavi-device help' lists the commands\n"},
            {{"stop-daemon", "--timeout", "soon"},
             2,
             "",
             "tavi-device: --timeout takes whole seconds\n"
             "tavi-device: 'tavi-device help' lists the commands\n"},
            {{"inject"}, 2, "", "tavi-device: inject needs at least one RECORD\n"},
            {{"inject", "4,1,3001,1,0,0,0"},
             1,
             "",
             "tavi-device: the device is not up in " + std::string(state_.path) +
                     "; run 'tavi-device up' first\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(android::base::Join(c.args, ' '));
        Result result = Run(c.args);
        EXPECT_EQ(result.status, c.status);
        EXPECT_THAT(result.out, StartsWith(c.out));
        EXPECT_THAT(result.err, StartsWith(c.err));
        EXPECT_EQ(result.out.empty(), c.out.empty());
        EXPECT_EQ(result.err.empty(), c.err.empty());
    }
}

TEST_F(TaviDeviceTest, NothingHasRunYet) {
    for (const char* command : {"logs", "events", "cache"}) {
        Result result = Run({command});
        EXPECT_EQ(result.status, 1) << command;
        EXPECT_THAT(result.out, IsEmpty());
        EXPECT_THAT(result.err, StartsWith("tavi-device: nothing has run yet in " +
                                           std::string(state_.path) + " (no "));
    }
}

TEST_F(TaviDeviceTest, WhatBecameOfEachRecord) {
    ASSERT_NO_FATAL_FAILURE(NeedDevice());
    sigset_t usr1, old_mask;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    sigprocmask(SIG_BLOCK, &usr1, &old_mask);
    sighandler_t old_quit = signal(SIGQUIT, SIG_IGN);
    ASSERT_EQ(Run({"up"}).status, 0);
    sigprocmask(SIG_SETMASK, &old_mask, nullptr);
    (void)signal(SIGQUIT, old_quit);
    // As init starts it, whatever the caller did: no ordinary signal ignored, only the two stop
    // signals blocked, for its signalfd.
    const std::string status = Run({"status"}).out;
    const size_t pid_at = status.find("running (pid ");
    ASSERT_NE(pid_at, std::string::npos) << status;
    std::string process;
    const std::string pid = status.substr(pid_at + 13, status.find(')', pid_at) - pid_at - 13);
    android::base::ReadFileToString("/proc/" + pid + "/status", &process);
    EXPECT_THAT(process, HasSubstr("\nSigBlk:\t0000000000004002\n"));
    const size_t ignored_at = process.find("SigIgn:\t");
    ASSERT_NE(ignored_at, std::string::npos);
    // Signals 1 to 31; libc keeps signal 32 to itself.
    EXPECT_EQ(strtoull(&process[ignored_at + 8], nullptr, 16) & 0x7fffffffULL, 0U) << process;
    EXPECT_EQ(Run({"up"}).err, "tavi-device: already up in " + std::string(state_.path) +
                                       "; run 'tavi-device down' first\n");
    Result result = Run({"inject", "4,1,3001,1,0,0,0"});
    EXPECT_EQ(result.out, "4,1,3001,1,0,0,0: kept in the cache\n");
    EXPECT_EQ(result.status, 0);
    ASSERT_EQ(Run({"service", "active"}).status, 0);
    // The readiness task sees the service within a second and replays the cached record.
    ASSERT_TRUE(
            WaitUntil([&] { return Run({"events"}).out.find("seq=1") != std::string::npos; }, 5s));
    result = Run({"inject", "3,0,2000,1,0,0,0"});
    EXPECT_EQ(result.out, "3,0,2000,1,0,0,0: delivered as event #2 TaviDisplayShort\n");
    EXPECT_EQ(result.status, 0);
    ASSERT_EQ(Run({"service", "fail", "-5"}).status, 0);
    result = Run({"inject", "3,0,2000,1,0,0,0"});
    EXPECT_EQ(result.out, "3,0,2000,1,0,0,0: refused by the service with return code -5\n");
    EXPECT_EQ(result.status, 0);

    result = Run({"service", "fail", "abc"});
    EXPECT_EQ(result.err, "tavi-device: fail takes a negative 32-bit code, not 'abc'\n");
    EXPECT_EQ(result.status, 1);
    result = Run({"inject", "hello world"});
    EXPECT_EQ(result.err,
              "tavi-device: the daemon rejected 'hello world': Failed to parse the string for "
              "MessageType LOG: hello world\n");
    EXPECT_EQ(result.status, 1);
    result = Run({"inject", "4,1,99999999999,0,0,0,0"});
    EXPECT_EQ(result.err,
              "tavi-device: the daemon ended on '4,1,99999999999,0,0,0,0': killed by SIGABRT "
              "(Aborted)\n");
    EXPECT_EQ(result.status, 1);
    result = Run({"inject", "4,1,3001,1,0,0,0"});
    EXPECT_EQ(result.err,
              "tavi-device: no daemon runs; the attribute holds 1 pending record(s) until one "
              "starts\n");
    EXPECT_EQ(result.status, 1);
}

TEST_F(TaviDeviceTest, TheWaitForTheServiceIsToldOnlyWhenItHappens) {
    ASSERT_NO_FATAL_FAILURE(NeedDevice());
    const std::string hint = "waits for the event service";
    ASSERT_EQ(Run({"up"}).status, 0);
    Result result = Run({"stop-daemon"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("the daemon has saved its cache and " + hint +
                                      "; make it active to let it end: tavi-device service "
                                      "active\n"));
    result = Run({"restart"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr(hint));
    EXPECT_EQ(result.err, "tavi-device: not restarted: the daemon still runs\n");
    result = Run({"service", "active"});
    EXPECT_THAT(result.out, HasSubstr("the daemon ended: exited with status 0\n"));
    ASSERT_EQ(Run({"start-daemon"}).status, 0);
    result = Run({"restart", "INT"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("the daemon ended: exited with status 0\n"));
    EXPECT_THAT(result.out, ::testing::Not(HasSubstr(hint)));
}

TEST_F(TaviDeviceTest, ARecordBeyondTheCacheLimit) {
    ASSERT_NO_FATAL_FAILURE(NeedDevice());
    ASSERT_EQ(Run({"up", "--active"}).status, 0);
    ASSERT_EQ(Run({"stop-daemon"}).status, 0);
    ASSERT_EQ(Run({"service", "inactive"}).status, 0);
    std::vector<std::string> backlog = {"inject"};
    for (int i = 0; i < 128; ++i) backlog.push_back("4,1,3001," + std::to_string(i) + ",0,0,0");
    EXPECT_THAT(Run(backlog).err, HasSubstr("128 pending record(s)"));
    ASSERT_EQ(Run({"start-daemon"}).status, 0);
    auto stored = [&] {
        std::string log = Run({"logs"}).out;
        size_t count = 0;
        for (size_t at = 0; (at = log.find("] Store the message", at)) != std::string::npos; ++at) {
            ++count;
        }
        return count == 128;
    };
    ASSERT_TRUE(WaitUntil(stored, 10s));
    Result result = Run({"inject", "4,1,3001,1,0,0,0"});
    EXPECT_EQ(result.out, "4,1,3001,1,0,0,0: refused at the cache limit\n");
    EXPECT_EQ(result.status, 0);
}

}  // namespace
}  // namespace vendor::vesk::tavi::sim
