// SPDX-License-Identifier: Apache-2.0

#include "sysfs_callback.h"

#include <charconv>
#include <cstdint>
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
using testing::Fields;
using testing::RunUncaught;

TEST(ParseSysfsLogValueDeathTest, OutOfRangeFieldEndsTheProcess) {
    for (const std::string& text : {"2147483648,2,3,4,5,6,7\n"s, "1,2,3,-2147483649,5,6,7\n"s,
                                    "1," + std::string(400, '9') + ",3,4,5,6,7\n"}) {
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

// Hand-picked lines at the edges of the format that no single edit reaches, every single edit of
// valid lines (each also with random second edits), and lines assembled from odd fields, separators
// and endings. Deterministic for a given seed.
std::vector<std::string> RecordCorpus() {
    std::vector<std::string> corpus = {
            "007,00,0,-0,-007,0,1\n",
            "2147483647,0,00000000000000000000042,-2147483648,0,-1,0\n",
            "1,2,3,4,5,6\n",
            "1,2,3,4,5,6,7,8\n",
            "1,2,3,4,5,6,--7\n",
            "1,2,3,4,5,6,0x7\n",
            "1;2;3;4;5;6;7\n",
            "",
            "\n",
    };
    const std::string alphabet = "09-+, \n\r\0a"s;
    std::mt19937 rng(7340033);
    for (const std::string& base : {"1,2,3,4,5,6,7\n"s, "2,3,1001,-1,0,17,5\n"s}) {
        for (size_t pos = 0; pos <= base.size(); ++pos) {
            for (unsigned kind = 0; kind < 3; ++kind) {
                for (char c : kind == 0 ? "x"s : alphabet) {
                    const std::string edited = Edit(base, kind, pos, c);
                    corpus.push_back(edited);
                    for (int i = 0; i < 8; ++i) {
                        corpus.push_back(Edit(edited, rng() % 3, rng() % (edited.size() + 1),
                                              alphabet[rng() % alphabet.size()]));
                    }
                }
            }
        }
    }
    const std::vector<std::string> fields = {"0",  "7",  "007", "-0",  "-1",   "2147483647",
                                             "",   "-",  "+1",  " 1",  "1 ",   "--1",
                                             "1-", "1a", "\r",  "\n1", "1\0"s, "-2147483648"};
    const std::vector<std::string> separators = {",", ",", ",", ",", ",,", ";", ", "};
    const std::vector<std::string> endings = {"\n",   "\n",   "\n",  "",      "\n\n",
                                              "\r\n", "\n\r", "\0"s, "\n\0"s, ",\n"};
    auto pick = [&rng](const std::vector<std::string>& options) {
        return options[rng() % options.size()];
    };
    for (int i = 0; i < 20000; ++i) {
        const size_t count = std::vector<size_t>{6, 7, 7, 7, 7, 8}[rng() % 6];
        std::string line = pick(fields);
        for (size_t j = 1; j < count; ++j) line += pick(separators) + pick(fields);
        corpus.push_back(line + pick(endings));
    }
    return corpus;
}

// The logger gets a text line by line, each line up to its first NUL byte.
std::string AsLogged(const std::string& text) {
    std::vector<std::string> lines = android::base::Split(text, "\n");
    for (auto& line : lines) line = line.substr(0, line.find('\0'));
    return android::base::Join(lines, '\n');
}

// An accepted line gives a LOG record with the seven numbers and nothing logged; a rejected
// one leaves the record alone and logs its raw text as one ERROR line per line of it.
TEST(ParseSysfsLogValue, AgreesWithTheRegularExpression) {
    const std::regex pattern(R"(^(\d+),(\d+),(\d+),(-?\d+),(-?\d+),(-?\d+),(-?\d+)\n$)");
    const Message sentinel = {DEBUG_LOG, -11, -12, -13, -14, -15, -16, -17, "kept"};
    testing::LogCapture log;
    size_t accepted = 0, rejected = 0;
    for (const std::string& text : RecordCorpus()) {
        SCOPED_TRACE(::testing::PrintToString(text));
        std::smatch groups;
        Message expected = sentinel;
        const bool matches = std::regex_match(text, groups, pattern);
        if (matches) {
            int32_t* const fields[] = {
                    &expected.category, &expected.log_level, &expected.error_code, &expected.param1,
                    &expected.param2,   &expected.param3,    &expected.param4};
            // A group outside int32 would end the process: such lines are left out.
            bool fits = true;
            for (size_t i = 0; i < 7 && fits; ++i) {
                const char* group = text.data() + groups.position(i + 1);
                fits = std::from_chars(group, group + groups.length(i + 1), *fields[i]).ec ==
                       std::errc();
            }
            if (!fits) continue;
            expected.type = LOG;
        }
        log.Clear();
        Message message = sentinel;
        ASSERT_EQ(ParseSysfsLogValue(text, message), matches);
        EXPECT_EQ(Fields({message}), Fields({expected}));
        EXPECT_EQ(
                android::base::Join(log.Texts(android::base::ERROR), '\n'),
                matches ? "" : AsLogged("Failed to parse the string for MessageType LOG: " + text));
        EXPECT_EQ(log.Texts(android::base::ERROR).size(), log.Texts().size());
        ++(matches ? accepted : rejected);
    }
    EXPECT_GT(accepted, 500u);
    EXPECT_GT(rejected, 20000u);
}

}  // namespace
}  // namespace vendor::vesk::tavi
