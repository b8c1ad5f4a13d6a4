// SPDX-License-Identifier: Apache-2.0

#include "message.h"

#include <cstdint>
#include <fstream>
#include <string>
#include <utility>

#include <android-base/file.h>
#include <gtest/gtest.h>

#include "test_helpers.h"

namespace vendor::vesk::tavi {
namespace {

using namespace std::string_literals;
using testing::RunUncaught;
using testing::TextForm;

Message WithType(int32_t type, std::string text = "") {
    return {static_cast<MessageType>(type), kCharger, 3, 3001, 0, -5, 0, 0, std::move(text)};
}

TEST(MessageTextForm, WritesEveryFieldExactly) {
    const std::string tail =
            ", Category: 4, LogLevel: 3, ErrorCode: 3001, Param1: 0, Param2: -5, Param3: 0, "
            "Param4: 0, Message: ";
    const struct {
        Message message;
        std::string expected;
    } cases[] = {
            {WithType(0), "Message {Type: LOG" + tail + "}\n"},
            {WithType(1), "Message {Type: DEBUG_LOG" + tail + "}\n"},
            {WithType(2), "Message {Type: 2" + tail + "}\n"},
            {WithType(INT32_MIN), "Message {Type: -2147483648" + tail + "}\n"},
            {WithType(0, "a\nb\r\t\x01\x7f\xff\"\\"),
             "Message {Type: LOG" + tail + "a\nb\r\t\x01\x7f\xff\"\\}\n"},
            {WithType(0, "x\0y"s), "Message {Type: LOG" + tail + "x\0y}\n"s},
            {{LOG, INT32_MAX, INT32_MIN, 0, 0, 0, 0, -1, ""},
             "Message {Type: LOG, Category: 2147483647, LogLevel: -2147483648, ErrorCode: 0, "
             "Param1: 0, Param2: 0, Param3: 0, Param4: -1, Message: }\n"},
    };
    for (const auto& c : cases) EXPECT_EQ(TextForm(c.message), c.expected);
}

// The whole line, newline included, reaches the file before the stream is closed.
TEST(MessageTextForm, FlushesAfterTheNewline) {
    TemporaryFile file;
    std::ofstream os(file.path);
    os << WithType(LOG);
    std::string written;
    ASSERT_TRUE(android::base::ReadFileToString(file.path, &written));
    EXPECT_EQ(written, TextForm(WithType(LOG)));
}

// The documented 20-byte record of the charger example.
const std::string kChargerRecordBytes = {0x30, 0x00, 0x34, 0x00, 0x33, 0x00, 0x33,
                                         0x30, 0x30, 0x31, 0x00, 0x30, 0x00, 0x2D,
                                         0x35, 0x00, 0x30, 0x00, 0x30, 0x00};

TEST(MessageCacheRecord, EncodesTheChargerExample) {
    std::string out = "stale";
    EXPECT_TRUE(WithType(LOG).SerializeToString(&out));
    EXPECT_EQ(out, kChargerRecordBytes);
}

TEST(MessageCacheRecord, ReaderChecksEachPieceAndStoresAsItGoes) {
    const struct {
        std::string bytes;
        bool loads;
        int32_t category;  // as left in a record that started at 77
        int32_t param2;    // likewise
    } cases[] = {
            {"0\0004\0003\0003001\0000\000-5\0000\0000\000"s, true, 4, -5},
            {"0\0004\0003\0003001\0000\000-0\0000\0000\000"s, true, 4, 0},
            {"0\0000012x\0003\0003001\0000\0007\0000\0000\000t"s, true, 12, 7},
            {"1x\0004\0003\0003001\0000\0005\0000\0000\000"s, true, 4, 5},
            {"0\000-1\0003\0003001\0000\0005\0000\0000\000"s, false, 77, 77},
            {"-1\0004\0003\0003001\0000\0005\0000\0000\000"s, false, 77, 77},
            {"0\000\0003\0003001\0000\0005\0000\0000\000"s, false, 77, 77},
            {"0\000+1\0003\0003001\0000\0005\0000\0000\000"s, false, 77, 77},
            {"0\0004\0003\0003001\0000\0005x\0000\0000\000"s, false, 4, 77},
            {"0\0004\0003\0003001\0000\000-\0000\0000\000"s, false, 4, 77},
            {"0\0004\000-3\0003001\0000\0005\0000\0000\000"s, false, 4,
             77},  // a minus only in the parameters
            {"0\0004\0003\0003001\000-1\0005\000-1\000-1\000"s, true, 4, 5},
            {"0\0004\0003\0003001\0000\0005\0000\0000\000a\000b"s, false, 77, 77},  // ten pieces
            {kChargerRecordBytes.substr(0, 18), false, 77, 77},                     // eight pieces
            {"", false, 77, 77},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.bytes));
        Message message;
        message.category = 77;
        message.param2 = 77;
        message.message = "kept";
        EXPECT_EQ(message.DeserializeFromString(c.bytes), c.loads);
        EXPECT_EQ(message.category, c.category);
        EXPECT_EQ(message.param2, c.param2);
        if (!c.loads) {
            EXPECT_EQ(message.message, "kept");
        }
    }
}

TEST(MessageCacheRecordDeathTest, OutOfRangeNumberEndsTheProcess) {
    for (const std::string& bytes :
         {"2147483648\0004\0003\0003001\0000\0005\0000\0000\000"s,
          "0\0002147483648\0003\0003001\0000\0005\0000\0000\000"s,
          "0\0004\0003\0003001\0000\000-2147483649\0000\0000\000"s,
          "0\0004\0003\0003001\0000\000"s + std::string(400, '9') + "\0000\0000\000"s}) {
        SCOPED_TRACE(::testing::PrintToString(bytes));
        Message message;
        EXPECT_DEATH(RunUncaught([&] { message.DeserializeFromString(bytes); }), "out_of_range");
    }
    Message edge;
    ASSERT_TRUE(edge.DeserializeFromString(
            "2147483647\0004\0003\0003001\0000\000-2147483648\0000\0000\000"s));
    EXPECT_EQ(edge.type, INT32_MAX);
    EXPECT_EQ(edge.param2, INT32_MIN);
}

}  // namespace
}  // namespace vendor::vesk::tavi
