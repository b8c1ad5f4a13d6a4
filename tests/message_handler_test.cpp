// SPDX-License-Identifier: Apache-2.0

#include "handler/message_handler.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_ubo.h"
#include "log_capture.h"
#include "test_helpers.h"

namespace vendor::vesk::tavi {
namespace {

namespace fake_ubo = testing::fake_ubo;
using android::base::ERROR;
using android::base::INFO;
using fake_ubo::Call;
using testing::Hex;
using testing::TextForm;
using Lines = std::vector<std::string>;

// The text form ends in a line feed, which libbase writes as the line followed by an empty one.
Lines Logged(const std::string& prefix, const std::vector<std::string>& forms) {
    Lines lines;
    for (const auto& form : forms) lines.insert(lines.end(), {prefix + form, ""});
    return lines;
}

Message Record(int32_t category, int32_t log_level = 0, int32_t error_code = 0, int32_t param1 = 0,
               int32_t param2 = 0, int32_t param3 = 0, int32_t param4 = 0) {
    return {LOG, category, log_level, error_code, param1, param2, param3, param4, "text"};
}

class MessageHandlerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        StartOver();
        ubo_wrapper_->session = fake_ubo::Session(1);
        handlers_.push_back(std::make_unique<CameraMessageHandler>(ubo_wrapper_, cache_));
        handlers_.push_back(std::make_unique<LinuxOsMessageHandler>(ubo_wrapper_, cache_));
        handlers_.push_back(std::make_unique<DisplayMessageHandler>(ubo_wrapper_, cache_));
        handlers_.push_back(std::make_unique<ChargerMessageHandler>(ubo_wrapper_, cache_));
    }
    void TearDown() override { ubo_wrapper_->session = nullptr; }

    void Deliver(const Message& message) {
        for (auto& handler : handlers_) handler->HandleMessage(message);
    }
    void StartOver() {
        fake_ubo::script = {};
        fake_ubo::script.active_after = 1;
        log_.Clear();
    }

    std::shared_ptr<UboWrapper> ubo_wrapper_ = std::make_shared<UboWrapper>("tavi");
    std::shared_ptr<MessageCache> cache_ = std::make_shared<MessageCache>(128);
    std::vector<std::unique_ptr<MessageHandler>> handlers_;
    testing::LogCapture log_;
};

// Records of another type or area belong to no handler: nothing is asked, logged or cached.
// Each of the others is taken by exactly one (the cases below see one call, one log line).
TEST_F(MessageHandlerTest, OtherRecordsAreIgnored) {
    for (const Message& message : {Message{DEBUG_LOG, 4, 0, 3001, 0, 0, 0, 0, ""},
                                   Message{DEBUG_LOG, 1, 0, 0, 0, 0, 0, 0, ""},
                                   Message{static_cast<MessageType>(7), 3, 0, 0, 0, 0, 0, 0, ""},
                                   Record(0, 0, 2000), Record(5, 0, 3001)}) {
        Deliver(message);
        EXPECT_EQ(fake_ubo::script.calls.size(), 0u) << TextForm(message);
        EXPECT_EQ(log_.Texts(), Lines{});
        EXPECT_EQ(testing::Drain(*cache_).size(), 0u);
    }
}

TEST_F(MessageHandlerTest, ActiveServiceGetsEveryEventWithAllFields) {
    const struct {
        Message message;
        const char* probe;
        const char* hex;
        const char* form;
    } cases[] = {
            {Record(2, 1, 1000, -1, 0, 300, 9), "TaviLinuxOsBadSector",
             "08 01 10 E8 07 18 FF FF FF FF FF FF FF FF FF 01 20 00 28 AC 02",
             "Message {Type: LOG, Category: 2, LogLevel: 1, ErrorCode: 1000, Param1: -1, Param2: "
             "0, Param3: 300, Param4: 9, Message: text}"},
            {Record(2, 2, 1001, 5, 6, 7, 8), "TaviLinuxOsMmcRecoveryFailure",
             "08 02 10 E9 07 18 05",
             "Message {Type: LOG, Category: 2, LogLevel: 2, ErrorCode: 1001, Param1: 5, Param2: 6, "
             "Param3: 7, Param4: 8, Message: text}"},
            {Record(3, 0, 2000, 0, 1, 1, 1), "TaviDisplayShort", "08 00 10 D0 0F 18 00",
             "Message {Type: LOG, Category: 3, LogLevel: 0, ErrorCode: 2000, Param1: 0, Param2: 1, "
             "Param3: 1, Param4: 1, Message: text}"},
            {Record(3, 7, 5, -4), "TaviDisplayShort", "08 07 10 05 18 01",
             "Message {Type: LOG, Category: 3, LogLevel: 7, ErrorCode: 5, Param1: -4, Param2: 0, "
             "Param3: 0, Param4: 0, Message: text}"},
            {Record(4, 1, 3000, 0, -2, 3, 4), "TaviChargerDetectInvalidBattery",
             "08 01 10 B8 17 18 00 20 FE FF FF FF FF FF FF FF FF 01",
             "Message {Type: LOG, Category: 4, LogLevel: 1, ErrorCode: 3000, Param1: 0, Param2: "
             "-2, Param3: 3, Param4: 4, Message: text}"},
            {Record(4, 1, 3001, 1, 2, 3, 4), "TaviChargerDetectPdHardReset", "08 01 10 B9 17 18 01",
             "Message {Type: LOG, Category: 4, LogLevel: 1, ErrorCode: 3001, Param1: 1, Param2: 2, "
             "Param3: 3, Param4: 4, Message: text}"},
            {Record(4, 2, 3002, -1, 0, 300, -3), "TaviChargerDetectSocFreeze",
             "08 02 10 BA 17 18 FF FF FF FF FF FF FF FF FF 01 20 00 28 AC 02 30 01",
             "Message {Type: LOG, Category: 4, LogLevel: 2, ErrorCode: 3002, Param1: -1, Param2: "
             "0, Param3: 300, Param4: -3, Message: text}"},
            {Record(4, 0, 3003, 2, 0, 7, 9), "TaviChargerDetectWlcFwUpdate",
             "08 00 10 BB 17 18 01 20 00 28 07",
             "Message {Type: LOG, Category: 4, LogLevel: 0, ErrorCode: 3003, Param1: 2, Param2: 0, "
             "Param3: 7, Param4: 9, Message: text}"},
            {Record(4, 1, 3004, 0, 5, 5, 5), "TaviChargerDetectWlcManyIsr", "08 01 10 BC 17 18 00",
             "Message {Type: LOG, Category: 4, LogLevel: 1, ErrorCode: 3004, Param1: 0, Param2: 5, "
             "Param3: 5, Param4: 5, Message: text}"},
    };
    for (const auto& c : cases) {
        StartOver();
        Deliver(c.message);
        const auto calls = fake_ubo::script.calls;
        ASSERT_EQ(calls.size(), 2u) << c.probe;
        EXPECT_EQ(calls[0].call, Call::kIsActive);
        EXPECT_EQ(calls[0].session, fake_ubo::Session(1));
        EXPECT_EQ(calls[1].call, Call::kAddEvent);
        EXPECT_EQ(calls[1].source, "tavi");
        EXPECT_EQ(calls[1].probe, c.probe);
        EXPECT_EQ(Hex(calls[1].payload), c.hex) << c.probe;
        EXPECT_EQ(log_.Texts(INFO), Logged("Send the message to UBO: ", {c.form}));
        EXPECT_EQ(log_.Texts().size(), 2u);
        EXPECT_EQ(testing::Drain(*cache_).size(), 0u);
    }
}

// Records without an event are cached like any other while the service is inactive (an
// answer below 1), and dropped with an error once it is active.
TEST_F(MessageHandlerTest, InactiveServiceCachesRecordsForReplay) {
    const std::vector<Message> records = {
            Record(1, 1, 1, 2, 3, 4, 5), Record(2, 1, 1002), Record(3, 2, 2000, 1), Record(2, 1, 0),
            Record(4, 1, 2999),          Record(4, 1, 3005), Record(4, 1, 3001, 1),
    };
    // Each text form: "Message {Type: LOG, Category: " + fields + ", Message: text}".
    auto form = [](const std::string& fields) {
        return "Message {Type: LOG, Category: " + fields + ", Message: text}";
    };
    const Lines forms = {
            form("1, LogLevel: 1, ErrorCode: 1, Param1: 2, Param2: 3, Param3: 4, Param4: 5"),
            form("2, LogLevel: 1, ErrorCode: 1002, Param1: 0, Param2: 0, Param3: 0, Param4: 0"),
            form("3, LogLevel: 2, ErrorCode: 2000, Param1: 1, Param2: 0, Param3: 0, Param4: 0"),
            form("2, LogLevel: 1, ErrorCode: 0, Param1: 0, Param2: 0, Param3: 0, Param4: 0"),
            form("4, LogLevel: 1, ErrorCode: 2999, Param1: 0, Param2: 0, Param3: 0, Param4: 0"),
            form("4, LogLevel: 1, ErrorCode: 3005, Param1: 0, Param2: 0, Param3: 0, Param4: 0"),
            form("4, LogLevel: 1, ErrorCode: 3001, Param1: 1, Param2: 0, Param3: 0, Param4: 0"),
    };
    fake_ubo::script.active = {0, -1, 0, -7, 0, INT32_MIN, 0};
    for (const auto& message : records) Deliver(message);
    EXPECT_EQ(log_.Texts(INFO), Logged("Store the message in the cache: ", forms));
    EXPECT_EQ(log_.Texts().size(), 2 * records.size());
    EXPECT_EQ(fake_ubo::Calls(Call::kIsActive).size(), records.size());
    EXPECT_EQ(fake_ubo::Calls(Call::kAddEvent).size(), 0u);

    std::vector<Message> cached = testing::Drain(*cache_);
    EXPECT_EQ(testing::Fields(cached), testing::Fields(records));
    StartOver();
    fake_ubo::script.active_after = 2;  // any positive answer means active
    for (const auto& message : cached) Deliver(message);
    EXPECT_EQ(log_.Texts(ERROR), Logged("Failed to pack the massage: ",
                                        {forms[0], forms[1], forms[3], forms[4], forms[5]}));
    EXPECT_EQ(log_.Texts(INFO), Logged("Send the message to UBO: ", {forms[2], forms[6]}));
    const auto sent = fake_ubo::Calls(Call::kAddEvent);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].probe, "TaviDisplayShort");
    EXPECT_EQ(sent[1].probe, "TaviChargerDetectPdHardReset");
    EXPECT_EQ(testing::Drain(*cache_).size(), 0u);
}

TEST_F(MessageHandlerTest, RefusedEventIsLoggedAndLost) {
    const Message display = Record(3, 1, 2000, 1);
    fake_ubo::script.add_event = -5;
    Deliver(display);
    Lines expected = Logged("Send the message to UBO: ",
                            {"Message {Type: LOG, Category: 3, LogLevel: 1, ErrorCode: 2000, "
                             "Param1: 1, Param2: 0, Param3: 0, Param4: 0, Message: text}"});
    expected.push_back("ubo_add_event() for TaviDisplayShort probe failed with return code -5");
    EXPECT_EQ(log_.Texts(), expected);
    EXPECT_EQ(log_.Texts(ERROR), Lines{expected.back()});
    EXPECT_EQ(fake_ubo::Calls(Call::kAddEvent).size(), 1u);
    EXPECT_EQ(testing::Drain(*cache_).size(), 0u);
}

}  // namespace
}  // namespace vendor::vesk::tavi
