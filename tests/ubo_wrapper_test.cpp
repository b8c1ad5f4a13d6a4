#include "ubo_wrapper.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_ubo.h"
#include "log_capture.h"
#include "probe/tavi.pb.h"

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
    void SetUp() override { fake_ubo::Reset(); }

    testing::LogCapture log_;
};

TEST_F(UboWrapperTest, ConnectRetriesUntilCreateSucceedsThenStops) {
    fake_ubo::QueueCreate({nullptr, nullptr, fake_ubo::Session(1)});
    fake_ubo::SetCreate(fake_ubo::Session(2));
    UboWrapper wrapper("tavi");
    EXPECT_EQ(wrapper.name, "tavi");
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

TEST_F(UboWrapperTest, SendNamesEveryEventByItsProbe) {
    ::tavi::TaviDisplayShort display;
    display.set_param1(true);
    const MessageLite* events[] = {
            &::tavi::TaviCommon::default_instance(),
            &::tavi::TaviDebugMessage::default_instance(),
            &::tavi::TaviLinuxOsMessage::default_instance(),
            &display,
            &::tavi::TaviLinuxOsBadSector::default_instance(),
            &::tavi::TaviLinuxOsMmcRecoveryFailure::default_instance(),
            &::tavi::TaviChargerDetectInvalidBattery::default_instance(),
            &::tavi::TaviChargerDetectPdHardReset::default_instance(),
            &::tavi::TaviChargerDetectSocFreeze::default_instance(),
            &::tavi::TaviChargerDetectWlcFwUpdate::default_instance(),
            &::tavi::TaviChargerDetectWlcManyIsr::default_instance(),
    };
    const Lines probes = {"TaviCommon",
                          "TaviDebugMessage",
                          "TaviLinuxOsMessage",
                          "TaviDisplayShort",
                          "TaviLinuxOsBadSector",
                          "TaviLinuxOsMmcRecoveryFailure",
                          "TaviChargerDetectInvalidBattery",
                          "TaviChargerDetectPdHardReset",
                          "TaviChargerDetectSocFreeze",
                          "TaviChargerDetectWlcFwUpdate",
                          "TaviChargerDetectWlcManyIsr"};
    UboWrapper wrapper("tavi");
    wrapper.session = fake_ubo::Session(3);
    wrapper.close_session = false;
    for (const MessageLite* event : events) EXPECT_TRUE(wrapper.Send(*event));

    const auto sent = fake_ubo::Calls(Call::kAddEvent);
    ASSERT_EQ(sent.size(), probes.size());
    for (size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].session, fake_ubo::Session(3));
        EXPECT_EQ(sent[i].source, "tavi");
        EXPECT_EQ(sent[i].probe, probes[i]);
        EXPECT_EQ(sent[i].payload, events[i]->SerializeAsString()) << probes[i];
    }
    EXPECT_EQ(sent[3].payload, std::string("\x18\x01", 2));
    EXPECT_EQ(log_.Texts(), Lines{});
}

TEST_F(UboWrapperTest, SendReportsRefusedEvents) {
    const struct {
        int32_t code;
        bool accepted;
        Lines errors;
    } cases[] = {
            {0, true, {}},
            {12, true, {}},
            {-1, false, {"ubo_add_event() for TaviDisplayShort probe failed with return code -1"}},
            {-5, false, {"ubo_add_event() for TaviDisplayShort probe failed with return code -5"}},
    };
    for (const auto& c : cases) {
        fake_ubo::SetAddEvent(c.code);
        log_.Clear();
        UboWrapper wrapper("tavi");
        EXPECT_EQ(wrapper.Send(::tavi::TaviDisplayShort()), c.accepted) << c.code;
        EXPECT_EQ(log_.Texts(ERROR), c.errors);
        EXPECT_EQ(log_.Texts().size(), c.errors.size());
    }
}

TEST_F(UboWrapperTest, DestructionClosesOnlyWhenAsked) {
    const struct {
        bool connected;
        bool close_session;
        size_t destroys;
        Lines lines;
    } cases[] = {
            {false, true, 0, {}},
            {false, false, 0, {}},
            {true, false, 0, {"Skip closing UBO session"}},
            {true, true, 1, {"Closed UBO session"}},
    };
    for (const auto& c : cases) {
        fake_ubo::Reset();
        log_.Clear();
        {
            UboWrapper wrapper("tavi");
            if (c.connected) wrapper.session = fake_ubo::Session(4);
            wrapper.close_session = c.close_session;
        }
        const auto calls = fake_ubo::Calls();
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
