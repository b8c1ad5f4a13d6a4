// SPDX-License-Identifier: Apache-2.0

#include "ubo_wrapper.h"

#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_ubo.h"
#include "log_capture.h"
#include "probe/tavi.pb.h"
#include "test_helpers.h"

namespace vendor::vesk::tavi {
namespace {

namespace fake_ubo = testing::fake_ubo;
using android::base::ERROR;
using android::base::INFO;
using fake_ubo::Call;
using google::protobuf::MessageLite;
using Lines = std::vector<std::string>;

class UboWrapperTest : public ::testing::Test {
  protected:
    void SetUp() override { fake_ubo::script = {}; }

    testing::LogCapture log_;
};

TEST_F(UboWrapperTest, ConnectRetriesUntilCreateSucceedsThenStops) {
    fake_ubo::script.create = {nullptr, nullptr, fake_ubo::Session(1)};
    UboWrapper wrapper("tavi");
    EXPECT_TRUE(wrapper.close_session);

    EXPECT_FALSE(wrapper.Connect());
    EXPECT_FALSE(wrapper.Connect());
    EXPECT_EQ(wrapper.session.load(), nullptr);
    EXPECT_EQ(log_.Texts(ERROR), Lines(2, "Failed to create UBO session"));
    EXPECT_TRUE(wrapper.Connect());
    EXPECT_EQ(wrapper.session.load(), fake_ubo::Session(1));
    EXPECT_EQ(log_.Texts(INFO), Lines{"Created UBO session"});

    log_.Clear();
    EXPECT_TRUE(wrapper.Connect());
    EXPECT_EQ(wrapper.session.load(), fake_ubo::Session(1));
    EXPECT_EQ(fake_ubo::Calls(Call::kCreate).size(), 3u);
    EXPECT_EQ(log_.Texts(), Lines{});
    wrapper.close_session = false;  // keep the destructor out of the call record
}

// Also pins the schema of two events no handler builds: nested enumerations, text, and
// repeated negative numbers unpacked in ten bytes each.
TEST_F(UboWrapperTest, SendNamesEveryEventByItsProbe) {
    ::tavi::TaviDebugMessage debug;
    debug.set_category(::tavi::CATEGORY_CHARGER);
    debug.set_log_level(::tavi::LOG_LEVEL_2);
    debug.set_message("hi");
    ::tavi::TaviLinuxOsMessage linux_os;
    linux_os.set_error_code(::tavi::LINUX_OS_BAD_SECTOR);
    linux_os.add_params(5);
    linux_os.add_params(-2);
    const struct {
        const MessageLite& event;
        const char* probe;
        const char* hex;
    } cases[] = {
            {debug, "TaviDebugMessage", "08 04 10 02 1A 02 68 69"},
            {linux_os, "TaviLinuxOsMessage", "10 E8 07 18 05 18 FE FF FF FF FF FF FF FF FF 01"},
            {::tavi::TaviChargerDetectWlcManyIsr(), "TaviChargerDetectWlcManyIsr", ""},
    };
    UboWrapper wrapper("tavi");
    wrapper.session = fake_ubo::Session(3);
    wrapper.close_session = false;
    for (const auto& c : cases) EXPECT_TRUE(wrapper.Send(c.event));

    const auto sent = fake_ubo::Calls(Call::kAddEvent);
    ASSERT_EQ(sent.size(), std::size(cases));
    for (size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].session, fake_ubo::Session(3));
        EXPECT_EQ(sent[i].source, "tavi");
        EXPECT_EQ(sent[i].probe, cases[i].probe);
        EXPECT_EQ(testing::Hex(sent[i].payload), cases[i].hex) << cases[i].probe;
    }
    EXPECT_EQ(log_.Texts(), Lines{});
}

// Any answer from zero up is success (zero in the test above).
TEST_F(UboWrapperTest, SendReportsRefusedEvents) {
    UboWrapper wrapper("tavi");
    fake_ubo::script.add_event = 12;
    EXPECT_TRUE(wrapper.Send(::tavi::TaviDisplayShort()));
    fake_ubo::script.add_event = -1;
    EXPECT_FALSE(wrapper.Send(::tavi::TaviDisplayShort()));
    EXPECT_EQ(log_.Texts(ERROR),
              Lines{"ubo_add_event() for TaviDisplayShort probe failed with return code -1"});
    EXPECT_EQ(log_.Texts().size(), 1u);
}

TEST_F(UboWrapperTest, DestructionClosesOnlyWhenAsked) {
    const struct {
        bool connected;
        bool close_session;
        size_t destroys;
        Lines lines;
    } cases[] = {
            {false, true, 0, {}},
            {true, false, 0, {"Skip closing UBO session"}},
            {true, true, 1, {"Closed UBO session"}},
    };
    for (const auto& c : cases) {
        fake_ubo::script = {};
        log_.Clear();
        {
            UboWrapper wrapper("tavi");
            if (c.connected) wrapper.session = fake_ubo::Session(4);
            wrapper.close_session = c.close_session;
        }
        const auto calls = fake_ubo::script.calls;
        EXPECT_EQ(calls.size(), c.destroys);
        if (!calls.empty()) {
            EXPECT_EQ(calls[0].call, Call::kDestroy);
            EXPECT_EQ(calls[0].session, fake_ubo::Session(4));
        }
        EXPECT_EQ(log_.Texts(INFO), c.lines);
        EXPECT_EQ(log_.Texts().size(), c.lines.size());
    }
}

}  // namespace
}  // namespace vendor::vesk::tavi
