// SPDX-License-Identifier: Apache-2.0
// The host libubo.so against a running ubo_sim, driven the way the daemon drives the service.
#include <stdlib.h>

#include <iterator>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "simulated_device.h"
#include "ubo.h"

namespace vendor::vesk::tavi {
namespace {

// "0801": as the service logs payloads.
std::vector<uint8_t> Bytes(const std::string& hex) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < hex.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

class UboSimTest : public ::testing::Test {
  protected:
    void SetUp() override { setenv("UBO_SIM_SOCKET", device_.SocketPath().c_str(), 1); }

    void TearDown() override {
        ubo_destroy(&session_);
        if (device_.ServiceRunning()) {
            EXPECT_EQ(device_.StopService(), 0);
        }
    }

    void StartSimulator(bool active) {
        ASSERT_EQ(device_.StartService(active), "");
        session_ = ubo_create();
        ASSERT_NE(session_, nullptr);
    }

    int Control(const std::string& command) {
        return device_.ServiceControl(android::base::Split(command, " ")) ? 0 : 1;
    }

    int32_t Send(const char* probe, const std::vector<uint8_t>& payload) {
        return ubo_add_event(session_, "tavi", probe, payload.data(), payload.size());
    }

    static constexpr size_t npos = std::string::npos;
    TemporaryDir temp_;
    sim::SimulatedDevice device_{temp_.path, sim::Binaries::InBuildDir(TAVI_BUILD_DIR)};
    ubo_session_t* session_ = nullptr;
};

TEST_F(UboSimTest, NoSessionWithoutSimulator) {
    EXPECT_EQ(ubo_create(), nullptr);
    EXPECT_EQ(ubo_is_active(nullptr), 0);
}

// Each command's exit code, then what the session sees: the active flag and add_event's result.
TEST_F(UboSimTest, ControlCommandsSetStateAndResult) {
    StartSimulator(false);
    const std::vector<uint8_t> event = Bytes("080110b9171801");
    struct Step {
        const char* command;
        int exit_code;
        int32_t active;
        int32_t code;
    } steps[] = {{nullptr, 0, 0, 0},     {"active", 0, 1, 0}, {"fail -5", 0, 1, -5},
                 {"inactive", 0, 0, -5}, {"bogus", 1, 0, -5}, {"fail 5", 1, 0, -5},
                 {"ok", 0, 0, 0},        {"active", 0, 1, 0}, {"status", 0, 1, 0}};
    for (const Step& step : steps) {
        SCOPED_TRACE(step.command != nullptr ? step.command : "(start)");
        if (step.command != nullptr) {
            EXPECT_EQ(Control(step.command), step.exit_code);
        }
        EXPECT_EQ(ubo_is_active(session_), step.active);
        EXPECT_EQ(Send("TaviChargerDetectPdHardReset", event), step.code);
    }
}

TEST_F(UboSimTest, LogsDecodedFieldsAndSessionLifecycle) {
    StartSimulator(true);
    struct Event {
        const char* probe;
        const char* hex;
        const char* fields;
    } events[] = {
            {"TaviChargerDetectSocFreeze", "080210ba1718ffffffffffffffffff01200028ac023001",
             R"("fields":{"log_level":2,"error_code":3002,"param1":-1,"param2":0,"param3":300,"param4":true})"},
            {"TaviDisplayShort", "080710d00f1800",
             R"("fields":{"log_level":7,"error_code":2000,"param1":false})"},
            {"TaviLinuxOsMessage", "080110e8071805187b3002",
             R"("fields":{"log_level":1,"error_code":1000,"params":[5,123],"6":2})"},
    };
    for (const Event& event : events) EXPECT_EQ(Send(event.probe, Bytes(event.hex)), 0);
    ubo_destroy(&session_);
    EXPECT_EQ(session_, nullptr);

    std::string log;
    ASSERT_TRUE(android::base::ReadFileToString(device_.EventsPath(), &log));
    std::vector<std::string> lines = android::base::Split(log, "\n");
    ASSERT_EQ(lines.size(), 7u);  // started, created, three events, destroyed, trailing ""
    EXPECT_NE(lines[1].find(R"("kind":"session_created")"), npos);
    for (size_t i = 0; i < std::size(events); ++i) {
        SCOPED_TRACE(events[i].probe);
        const std::string& line = lines[2 + i];
        EXPECT_NE(line.find(R"({"kind":"event")"), npos);
        EXPECT_NE(line.find(R"("seq":)" + std::to_string(i + 1) + R"(,"session":1)"), npos);
        EXPECT_NE(line.find(std::string(R"("probe":")") + events[i].probe + R"(")"), npos);
        EXPECT_NE(line.find(events[i].fields), npos) << line;
        EXPECT_NE(line.find(R"("payload_hex":")" + std::string(events[i].hex) + R"(")"), npos);
    }
    EXPECT_NE(lines[5].find(R"("kind":"session_destroyed")"), npos);
    EXPECT_NE(lines[5].find(R"("session":1)"), npos);
}

// The daemon treats a vanished service as a lost session: calls fail, nothing hangs.
TEST_F(UboSimTest, VanishedServiceFailsCleanly) {
    StartSimulator(true);
    EXPECT_EQ(device_.StopService(), 0);
    EXPECT_EQ(ubo_is_active(session_), -1);
    EXPECT_LT(Send("TaviDisplayShort", Bytes("080010d00f1800")), 0);
}

// A second simulator on the same socket refuses to start and leaves the first one serving.
TEST_F(UboSimTest, ASecondSimulatorLeavesTheFirstServing) {
    StartSimulator(true);
    sim::SimulatedDevice second{temp_.path, sim::Binaries::InBuildDir(TAVI_BUILD_DIR)};
    EXPECT_NE(second.StartService(false), "");
    ubo_session_t* another = ubo_create();
    ASSERT_NE(another, nullptr);
    EXPECT_EQ(ubo_is_active(another), 1);
    ubo_destroy(&another);
}

}  // namespace
}  // namespace vendor::vesk::tavi
