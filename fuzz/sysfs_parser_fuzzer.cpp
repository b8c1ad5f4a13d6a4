// SPDX-License-Identifier: Apache-2.0
// Kernel line parser against the line format's regular expression as an oracle: both must
// accept exactly the same texts, an accepted text must give the seven numbers in order, and
// a rejected one must leave the record alone and log the raw text.

#include <cstddef>
#include <cstdint>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include <android-base/logging.h>

#include "fuzz_support.h"
#include "message.h"
#include "sysfs_callback.h"

using vendor::vesk::tavi::Message;
using vendor::vesk::tavi::ParseSysfsLogValue;
using vendor::vesk::tavi::fuzz::Fail;
using vendor::vesk::tavi::fuzz::Int32Value;
using vendor::vesk::tavi::fuzz::SameMessage;
using vendor::vesk::tavi::fuzz::SplitView;

namespace {

constexpr char kLinePattern[] = R"(^(\d+),(\d+),(\d+),(-?\d+),(-?\d+),(-?\d+),(-?\d+)\n$)";
constexpr char kRejectPrefix[] = "Failed to parse the string for MessageType LOG: ";
// The listener never passes more than one page minus the terminating NUL.
constexpr size_t kMaxRecordSize = 4095;

// Lines logged for the current input, and whether every one of them was an error.
struct {
    std::vector<std::string> lines;
    bool only_errors = true;
} g_log;

// The record a caller hands in, with values the parser must either overwrite or keep.
const Message kSentinel = {
        vendor::vesk::tavi::DEBUG_LOG, -11, -12, -13, -14, -15, -16, -17, "kept"};

// The logger gets the text line by line, and each line up to a NUL byte.
std::vector<std::string> ExpectedLines(const std::string& text) {
    std::vector<std::string> lines;
    for (std::string_view line : SplitView(text, "\n")) {
        lines.emplace_back(line.substr(0, line.find('\0')));
    }
    return lines;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    android::base::SetLogger([](android::base::LogId, android::base::LogSeverity severity,
                                const char*, const char*, unsigned int, const char* text) {
        g_log.lines.emplace_back(text);
        g_log.only_errors = g_log.only_errors && severity == android::base::ERROR;
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxRecordSize) return 0;
    static const std::regex line_format(kLinePattern);
    const std::string text(reinterpret_cast<const char*>(data), size);

    std::smatch groups;
    const bool expected = std::regex_match(text, groups, line_format);
    if (expected) {
        for (size_t i = 1; i <= 7; ++i) {
            if (!Int32Value(groups[i].str())) return 0;  // ends the daemon by design
        }
    }

    g_log = {};
    Message parsed = kSentinel;
    const bool accepted = ParseSysfsLogValue(text, parsed);
    if (accepted != expected) {
        Fail(accepted ? "accepted a line the format rejects"
                      : "rejected a line the format accepts");
    }
    if (!accepted) {
        if (!SameMessage(parsed, kSentinel)) Fail("rejected line changed the record");
        if (!g_log.only_errors) Fail("reject logged below ERROR");
        if (g_log.lines != ExpectedLines(kRejectPrefix + text)) Fail("reject line differs");
        return 0;
    }
    if (parsed.type != vendor::vesk::tavi::LOG) Fail("type is not LOG");
    if (parsed.message != "kept") Fail("text changed");
    const int32_t fields[] = {parsed.category, parsed.log_level, parsed.error_code, parsed.param1,
                              parsed.param2,   parsed.param3,    parsed.param4};
    for (size_t i = 0; i < 7; ++i) {
        if (fields[i] != *Int32Value(groups[i + 1].str())) Fail("field value differs");
    }
    if (!g_log.lines.empty()) Fail("accepted line logged");
    return 0;
}
