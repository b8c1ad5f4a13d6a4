#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "probe/tavi.pb.h"

namespace vendor::vesk::tavi {
namespace {

using google::protobuf::MessageLite;

std::string Hex(const std::string& bytes) {
    std::string hex;
    for (unsigned char byte : bytes) {
        char digits[4];
        snprintf(digits, sizeof(digits), "%s%02X", hex.empty() ? "" : " ", byte);
        hex += digits;
    }
    return hex;
}

TEST(EventSchemaTest, EveryTypeIsNamedAndEmptyByDefault) {
    const struct {
        const MessageLite& prototype;
        const char* type_name;
    } cases[] = {
            {::tavi::TaviCommon::default_instance(), "tavi.TaviCommon"},
            {::tavi::TaviDebugMessage::default_instance(), "tavi.TaviDebugMessage"},
            {::tavi::TaviLinuxOsMessage::default_instance(), "tavi.TaviLinuxOsMessage"},
            {::tavi::TaviDisplayShort::default_instance(), "tavi.TaviDisplayShort"},
            {::tavi::TaviLinuxOsBadSector::default_instance(), "tavi.TaviLinuxOsBadSector"},
            {::tavi::TaviLinuxOsMmcRecoveryFailure::default_instance(),
             "tavi.TaviLinuxOsMmcRecoveryFailure"},
            {::tavi::TaviChargerDetectInvalidBattery::default_instance(),
             "tavi.TaviChargerDetectInvalidBattery"},
            {::tavi::TaviChargerDetectPdHardReset::default_instance(),
             "tavi.TaviChargerDetectPdHardReset"},
            {::tavi::TaviChargerDetectSocFreeze::default_instance(),
             "tavi.TaviChargerDetectSocFreeze"},
            {::tavi::TaviChargerDetectWlcFwUpdate::default_instance(),
             "tavi.TaviChargerDetectWlcFwUpdate"},
            {::tavi::TaviChargerDetectWlcManyIsr::default_instance(),
             "tavi.TaviChargerDetectWlcManyIsr"},
    };
    for (const auto& c : cases) {
        std::unique_ptr<MessageLite> fresh(c.prototype.New());
        EXPECT_EQ(fresh->GetTypeName(), c.type_name);
        EXPECT_TRUE(fresh->IsInitialized()) << c.type_name;
        EXPECT_EQ(fresh->SerializeAsString(), "") << c.type_name;
    }
}

// Built field by field, deliberately not in field order: the wire order is the field order.
TEST(EventSchemaTest, EncodesPresentFieldsExactly) {
    const struct {
        const char* name;
        std::function<std::string()> serialize;
        const char* hex;
    } cases[] = {
            {"hard reset, true",
             [] {
                 ::tavi::TaviChargerDetectPdHardReset event;
                 event.set_param1(true);
                 event.set_error_code(::tavi::CHARGER_DETECT_PD_HARD_RESET);
                 event.set_log_level(::tavi::LOG_LEVEL_1);
                 return event.SerializeAsString();
             },
             "08 01 10 B9 17 18 01"},
            {"display short, defaults present",
             [] {
                 ::tavi::TaviDisplayShort event;
                 event.set_param1(false);
                 event.set_log_level(::tavi::LOG_LEVEL_0);
                 event.set_error_code(::tavi::DISPLAY_SHORT);
                 return event.SerializeAsString();
             },
             "08 00 10 D0 0F 18 00"},
            {"soc freeze, negative int32 takes ten bytes",
             [] {
                 ::tavi::TaviChargerDetectSocFreeze event;
                 event.set_param4(true);
                 event.set_param3(300);
                 event.set_param2(0);
                 event.set_param1(-1);
                 event.set_error_code(::tavi::CHARGER_DETECT_SOC_FREEZE);
                 event.set_log_level(::tavi::LOG_LEVEL_2);
                 return event.SerializeAsString();
             },
             "08 02 10 BA 17 18 FF FF FF FF FF FF FF FF FF 01 20 00 28 AC 02 30 01"},
            // Undeclared enumeration numbers reach the wire as they are, in every build type.
            {"undeclared enumeration values",
             [] {
                 ::tavi::TaviDisplayShort event;
                 event.set_log_level(static_cast<::tavi::LogLevel>(7));
                 event.set_error_code(static_cast<::tavi::ErrorCode>(5));
                 event.set_param1(true);
                 return event.SerializeAsString();
             },
             "08 07 10 05 18 01"},
            {"negative enumeration value",
             [] {
                 ::tavi::TaviChargerDetectWlcManyIsr event;
                 event.set_log_level(static_cast<::tavi::LogLevel>(-1));
                 return event.SerializeAsString();
             },
             "08 FF FF FF FF FF FF FF FF FF 01"},
            {"repeated params unpacked, in order",
             [] {
                 ::tavi::TaviLinuxOsMessage event;
                 event.add_params(5);
                 event.add_params(-2);
                 event.set_error_code(::tavi::LINUX_OS_BAD_SECTOR);
                 return event.SerializeAsString();
             },
             "10 E8 07 18 05 18 FE FF FF FF FF FF FF FF FF 01"},
            {"debug message with text",
             [] {
                 ::tavi::TaviDebugMessage event;
                 event.set_message("hi");
                 event.set_log_level(::tavi::LOG_LEVEL_2);
                 event.set_category(::tavi::CATEGORY_CHARGER);
                 return event.SerializeAsString();
             },
             "08 04 10 02 1A 02 68 69"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Hex(c.serialize()), c.hex) << c.name;
    }
}

// The writing side takes any number; the reading side still drops undeclared ones.
TEST(EventSchemaTest, ParsingDropsUndeclaredEnumerationValues) {
    ::tavi::TaviDisplayShort event;
    ASSERT_TRUE(event.ParseFromString(std::string("\x08\x07\x10\xD0\x0F\x18\x05", 7)));
    EXPECT_FALSE(event.has_log_level());
    EXPECT_EQ(event.error_code(), ::tavi::DISPLAY_SHORT);
    EXPECT_TRUE(event.param1());
}

}  // namespace
}  // namespace vendor::vesk::tavi
