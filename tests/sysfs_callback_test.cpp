#include "sysfs_callback.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "log_capture.h"
#include "test_helpers.h"

namespace vendor::vesk::tavi {
namespace {

using namespace std::string_literals;
using Fields = std::array<int32_t, 7>;
using testing::RunUncaught;
using testing::TextForm;

Fields FieldsOf(const Message& m) {
    return {m.category, m.log_level, m.error_code, m.param1, m.param2, m.param3, m.param4};
}

TEST(ParseSysfsLogValue, AcceptsWellFormedRecords) {
    const struct {
        std::string text;
        Fields fields;
    } cases[] = {
            {"1,2,3,4,5,6,7\n", {1, 2, 3, 4, 5, 6, 7}},
            {"2,3,1001,-1,0,17,5\n", {2, 3, 1001, -1, 0, 17, 5}},
            {"007,00,0,-0,-007,0,1\n", {7, 0, 0, 0, -7, 0, 1}},
            {"2147483647,0,00000000000000000000042,-2147483648,2147483647,-1,0\n",
             {INT32_MAX, 0, 42, INT32_MIN, INT32_MAX, -1, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.text));
        testing::LogCapture log;
        Message message;
        message.type = DEBUG_LOG;
        message.message = "kept";
        ASSERT_TRUE(ParseSysfsLogValue(c.text, message));
        EXPECT_EQ(message.type, LOG);
        EXPECT_EQ(FieldsOf(message), c.fields);
        EXPECT_EQ(message.message, "kept");
        EXPECT_TRUE(log.Lines().empty());
    }
}

TEST(ParseSysfsLogValue, RejectsMalformedRecordsWithOneErrorMessage) {
    const std::string kRejected[] = {
            "1,2,3,4,5,6,7",
            "1,2,3,4,5,6,7\n\n",
            "1,2,3,4,5,6,7\r\n",
            "1,2,3,4,5,6,7\n ",
            "1, 2,3,4,5,6,7\n",
            " 1,2,3,4,5,6,7\n",
            "1,2,3,4,5,6,7 \n",
            "\n1,2,3,4,5,6,7\n",
            "-1,2,3,4,5,6,7\n",
            "1,-2,3,4,5,6,7\n",
            "1,2,-3,4,5,6,7\n",
            "1,2,3,+4,5,6,7\n",
            "+1,2,3,4,5,6,7\n",
            "1,2,3,4,5,6\n",
            "1,2,3,4,5,6,7,8\n",
            "1,2,3,4,5,,7\n",
            "1,2,3,4,5,6,-\n",
            "1,2,3,4,5,6,--7\n",
            "1,2,3,4,5,6,7-\n",
            "1,2,3,4,5,6,7x\n",
            "1;2;3;4;5;6;7\n",
            "1,2,3,4,5,6,0x7\n",
            "",
            "\n",
    };
    for (const std::string& text : kRejected) {
        SCOPED_TRACE(::testing::PrintToString(text));
        testing::LogCapture log;
        Message message;
        message.category = 9;
        message.param4 = -9;
        message.message = "kept";
        const std::string before = TextForm(message);
        EXPECT_FALSE(ParseSysfsLogValue(text, message));
        EXPECT_EQ(TextForm(message), before);
        // The logger gets a text holding line feeds as one line per piece.
        EXPECT_EQ(android::base::Join(log.Texts(android::base::ERROR), '\n'),
                  "Failed to parse the string for MessageType LOG: " + text);
        EXPECT_EQ(log.Texts(android::base::ERROR).size(), log.Lines().size());
    }
}

TEST(ParseSysfsLogValueDeathTest, OutOfRangeFieldEndsTheProcess) {
    const std::string kFatal[] = {
            "2147483648,2,3,4,5,6,7\n",
            "1,2,3,4,5,6,2147483648\n",
            "1,2,3,-2147483649,5,6,7\n",
            "1," + std::string(400, '9') + ",3,4,5,6,7\n",
    };
    for (const std::string& text : kFatal) {
        SCOPED_TRACE(text);
        Message message;
        EXPECT_DEATH(RunUncaught([&] { ParseSysfsLogValue(text, message); }), "out_of_range");
    }
}

// Deletes (kind 0), inserts (1) or replaces (2) the byte at `pos`; no deletion or
// replacement past the end.
std::string Edit(std::string line, unsigned kind, size_t pos, char c) {
    if (kind == 1) return line.insert(pos, 1, c);
    if (pos >= line.size()) return line;
    if (kind == 0) return line.erase(pos, 1);
    line[pos] = c;
    return line;
}

// Lines near the boundary of the record format: every single edit of valid lines, each also
// with random second edits, and lines assembled from odd fields, separators and endings.
// Deterministic for a given seed.
std::vector<std::string> RecordCorpus() {
    const std::string alphabet = "09-+, \n\r\0a"s;
    std::mt19937 rng(7340033);
    std::vector<std::string> corpus;
    for (const std::string& base : {"1,2,3,4,5,6,7\n"s, "2,3,1001,-1,0,17,5\n"s,
                                    "007,0,00,-0,-00,2147483647,-2147483648\n"s}) {
        for (size_t pos = 0; pos <= base.size(); ++pos) {
            for (unsigned kind = 0; kind < 3; ++kind) {
                for (char c : kind == 0 ? "x"s : alphabet) {
                    const std::string edited = Edit(base, kind, pos, c);
                    corpus.push_back(edited);
                    for (int i = 0; i < 8; ++i) {
                        const unsigned second_kind = rng() % 3;
                        const size_t second_pos = rng() % (edited.size() + 1);
                        corpus.push_back(Edit(edited, second_kind, second_pos,
                                              alphabet[rng() % alphabet.size()]));
                    }
                }
            }
        }
    }
    const std::vector<std::string> fields = {
            "0",  "7",   "007",  "-0", "-1",   "123456", "2147483647", "-2147483648",
            "",   "-",   "+1",   " 1", "1 ",   "--1",    "1-",         "1a",
            "\r", "\n1", "1\0"s, "00", "-007", "9",      "42",         "3001"};
    const std::vector<std::string> separators = {",", ",", ",", ",", ",,", ";", ", "};
    const std::vector<std::string> endings = {"\n",   "\n",  "\n",  "",      "\n\n", "\r\n",
                                              "\n\r", "\n ", "\0"s, "\n\0"s, ",\n"};
    auto pick = [&rng](const std::vector<std::string>& options) {
        return options[rng() % options.size()];
    };
    for (int i = 0; i < 20000; ++i) {
        const size_t count = std::vector<size_t>{5, 6, 7, 7, 7, 7, 8, 9}[rng() % 8];
        std::string line = pick(fields);
        for (size_t j = 1; j < count; ++j) line += pick(separators) + pick(fields);
        corpus.push_back(line + pick(endings));
    }
    return corpus;
}

// Converting a group outside int32 would end the process; such lines are left out.
bool FitsInt32(const std::string& group) {
    errno = 0;
    const int64_t value = std::strtoll(group.c_str(), nullptr, 10);
    return errno == 0 && value >= INT32_MIN && value <= INT32_MAX;
}

TEST(ParseSysfsLogValue, AgreesWithTheRegularExpression) {
    const std::regex pattern(R"(^(\d+),(\d+),(\d+),(-?\d+),(-?\d+),(-?\d+),(-?\d+)\n$)");
    const std::vector<std::string> corpus = RecordCorpus();
    testing::LogCapture log;
    size_t accepted = 0, rejected = 0;
    for (const std::string& text : corpus) {
        std::smatch groups;
        const bool expected = std::regex_match(text, groups, pattern);
        Fields fields{};
        if (expected) {
            bool fits = true;
            for (size_t i = 0; i < fields.size(); ++i) {
                fits = fits && FitsInt32(groups[i + 1]);
                if (fits) fields[i] = std::stoi(groups[i + 1]);
            }
            if (!fits) continue;
        }
        Message message;
        ASSERT_EQ(ParseSysfsLogValue(text, message), expected) << ::testing::PrintToString(text);
        EXPECT_EQ(FieldsOf(message), fields) << ::testing::PrintToString(text);
        ++(expected ? accepted : rejected);
    }
    size_t error_messages = 0;
    for (const std::string& line : log.Texts(android::base::ERROR)) {
        error_messages += line.rfind("Failed to parse the string for MessageType LOG: ", 0) == 0;
    }
    EXPECT_EQ(error_messages, rejected);
    EXPECT_GT(accepted, 500u);
    EXPECT_GT(rejected, 20000u);
}

}  // namespace
}  // namespace vendor::vesk::tavi
