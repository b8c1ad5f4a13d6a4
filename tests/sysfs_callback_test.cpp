#include "sysfs_callback.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "log_capture.h"

namespace vendor::vesk::tavi {
namespace {

using namespace std::string_literals;
using Fields = std::array<int32_t, 7>;

Fields FieldsOf(const Message& m) {
    return {m.category, m.log_level, m.error_code, m.param1, m.param2, m.param3, m.param4};
}

std::string TextForm(const Message& message) {
    std::ostringstream os;
    os << message;
    return os.str();
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

// The logger receives a message holding line feeds as one line per piece; joining them
// gives back the text that was logged.
std::string JoinedErrorLines(const testing::LogCapture& log) {
    const std::vector<std::string> lines = log.Texts(android::base::ERROR);
    std::string joined;
    for (size_t i = 0; i < lines.size(); ++i) joined += (i == 0 ? "" : "\n") + lines[i];
    return joined;
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
        EXPECT_EQ(JoinedErrorLines(log), "Failed to parse the string for MessageType LOG: " + text);
        EXPECT_EQ(log.Texts(android::base::ERROR).size(), log.Lines().size());
    }
}

// The death-test macro catches exceptions itself; a noexcept frame lets the conversion's
// error end the process the way it does in the daemon, where nothing catches it.
template <typename Function>
void RunUncaught(Function function) noexcept {
    function();
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

// Lines near the boundary of the record format: single and double edits of valid lines, and
// lines assembled from odd fields, separators and endings. Deterministic for a given seed.
class RecordCorpus {
  public:
    std::vector<std::string> Build() {
        const std::string bases[] = {"1,2,3,4,5,6,7\n", "2,3,1001,-1,0,17,5\n",
                                     "007,0,00,-0,-00,2147483647,-2147483648\n"};
        for (const std::string& base : bases) {
            for (const std::string& edited : SingleEdits(base)) {
                corpus_.push_back(edited);
                for (int i = 0; i < 8; ++i) corpus_.push_back(RandomEdit(edited));
            }
        }
        for (int i = 0; i < 20000; ++i) corpus_.push_back(Assembled());
        return std::move(corpus_);
    }

  private:
    const std::string alphabet_ = "09-+, \n\r\0a"s;

    std::vector<std::string> SingleEdits(const std::string& line) const {
        std::vector<std::string> edits;
        for (size_t pos = 0; pos <= line.size(); ++pos) {
            if (pos < line.size()) edits.push_back(line.substr(0, pos) + line.substr(pos + 1));
            for (char c : alphabet_) {
                edits.push_back(line.substr(0, pos) + c + line.substr(pos));
                if (pos < line.size())
                    edits.push_back(line.substr(0, pos) + c + line.substr(pos + 1));
            }
        }
        return edits;
    }

    std::string RandomEdit(std::string line) {
        const size_t pos = rng_() % (line.size() + 1);
        const char c = alphabet_[rng_() % alphabet_.size()];
        switch (rng_() % 3) {
            case 0:
                return line.insert(pos, 1, c);
            case 1:
                if (pos < line.size()) return line.erase(pos, 1);
                return line;
            default:
                if (pos < line.size()) line[pos] = c;
                return line;
        }
    }

    std::string Pick(const std::vector<std::string>& options) {
        return options[rng_() % options.size()];
    }

    std::string Assembled() {
        static const std::vector<std::string> kFields = {
                "0",  "7",   "007",  "-0", "-1",   "123456", "2147483647", "-2147483648",
                "",   "-",   "+1",   " 1", "1 ",   "--1",    "1-",         "1a",
                "\r", "\n1", "1\0"s, "00", "-007", "9",      "42",         "3001"};
        static const std::vector<std::string> kSeparators = {",", ",", ",", ",", ",,", ";", ", "};
        static const std::vector<std::string> kEndings = {
                "\n", "\n", "\n", "", "\n\n", "\r\n", "\n\r", "\n ", "\0"s, "\n\0"s, ",\n"};
        const size_t count = std::vector<size_t>{5, 6, 7, 7, 7, 7, 8, 9}[rng_() % 8];
        std::string line;
        for (size_t i = 0; i < count; ++i) {
            if (i > 0) line += Pick(kSeparators);
            line += Pick(kFields);
        }
        return line + Pick(kEndings);
    }

    std::mt19937 rng_{7340033};
    std::vector<std::string> corpus_;
};

// Converting a group outside int32 would end the process; such lines are left out.
bool FitsInt32(const std::string& group) {
    errno = 0;
    const long long value = std::strtoll(group.c_str(), nullptr, 10);
    return errno == 0 && value >= INT32_MIN && value <= INT32_MAX;
}

TEST(ParseSysfsLogValue, AgreesWithTheRegularExpression) {
    const std::regex pattern(R"(^(\d+),(\d+),(\d+),(-?\d+),(-?\d+),(-?\d+),(-?\d+)\n$)");
    const std::vector<std::string> corpus = RecordCorpus().Build();
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
