// SPDX-License-Identifier: Apache-2.0
// Per-record cost inside the daemon: the text of one kernel record read from the attribute,
// parsed, offered to the four handlers as main builds them, packed, serialized and handed to
// the service library (a stub that takes it and returns at once). Log lines go to a logger
// that drops them, so what is measured is the formatting the handlers pay for every record.
//
// The _Regex variants replace the parser with the literal reading of the line format: a
// regular expression compiled on every call and std::stoi on each group.

#include <memory>
#include <regex>
#include <string>

#include <android-base/logging.h>
#include <benchmark/benchmark.h>

#include "handler/message_handler.h"
#include "message.h"
#include "message_cache.h"
#include "sysfs_callback.h"
#include "ubo_wrapper.h"

namespace vendor::vesk::tavi {
namespace {

using android::base::INFO;
using android::base::LogSeverity;

// Records that reach the service, one of each area that has events.
const char* const kRecords[] = {
        "4,1,3001,1,0,0,0\n",      // charger: PD hard reset
        "3,0,2000,1,0,0,0\n",      // display: short
        "2,2,1000,4096,8,-1,0\n",  // Linux OS: bad sector
        "4,2,3002,-1,0,300,1\n",   // charger: SoC freeze
        "4,1,3003,1,0,120,0\n",    // charger: WLC firmware update
        "2,1,1001,5,0,0,0\n",      // Linux OS: MMC recovery failure
};
constexpr size_t kRecordCount = std::size(kRecords);

bool RegexParse(const std::string& value, Message& message) {
    const std::regex line_format(R"(^(\d+),(\d+),(\d+),(-?\d+),(-?\d+),(-?\d+),(-?\d+)\n$)");
    std::smatch groups;
    if (!std::regex_match(value, groups, line_format)) {
        LOG(ERROR) << "Failed to parse the string for MessageType LOG: " << value;
        return false;
    }
    message.type = LOG;
    int32_t* const targets[] = {&message.category, &message.log_level, &message.error_code,
                                &message.param1,   &message.param2,    &message.param3,
                                &message.param4};
    for (size_t i = 0; i < 7; ++i) *targets[i] = std::stoi(groups[i + 1].str(), nullptr, 10);
    return true;
}

// The objects main wires together, with the session already open and the service active.
struct Daemon {
    Daemon() { ubo_wrapper->Connect(); }
    void Offer(const Message& message) {
        for (auto& handler : handlers) handler->HandleMessage(message);
    }

    std::shared_ptr<UboWrapper> ubo_wrapper = std::make_shared<UboWrapper>("tavi");
    std::shared_ptr<MessageCache> cache = std::make_shared<MessageCache>(128);  // as main
    std::unique_ptr<MessageHandler> handlers[4] = {
            std::make_unique<CameraMessageHandler>(ubo_wrapper, cache),
            std::make_unique<LinuxOsMessageHandler>(ubo_wrapper, cache),
            std::make_unique<DisplayMessageHandler>(ubo_wrapper, cache),
            std::make_unique<ChargerMessageHandler>(ubo_wrapper, cache)};
};

// One record as the poll loop treats it: a string made from the read buffer, a fresh Message,
// the parse callback, then (kOffer) the message callback. Log lines below `minimum` are off.
template <bool (*Parse)(const std::string&, Message&), bool kOffer>
void RecordPath(benchmark::State& state, LogSeverity minimum) {
    const LogSeverity previous = android::base::SetMinimumLogSeverity(minimum);
    Daemon daemon;
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        const std::string text(kRecords[next]);
        next = (next + 1) % kRecordCount;
        Message message;
        if (Parse(text, message) && kOffer) daemon.Offer(message);
        benchmark::DoNotOptimize(message);
    }
    state.SetItemsProcessed(state.iterations());
    android::base::SetMinimumLogSeverity(previous);
}

void HandleOnly(benchmark::State& state) {
    Daemon daemon;
    Message messages[kRecordCount];
    for (size_t i = 0; i < kRecordCount; ++i) ParseSysfsLogValue(kRecords[i], messages[i]);
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        daemon.Offer(messages[next]);
        next = (next + 1) % kRecordCount;
    }
}

[[maybe_unused]] const bool kRegistered = [] {
    android::base::SetLogger([](auto&&...) {});
    benchmark::RegisterBenchmark("BM_RecordPath", RecordPath<ParseSysfsLogValue, true>, INFO);
    benchmark::RegisterBenchmark("BM_RecordPath_RegexParser", RecordPath<RegexParse, true>, INFO);
    // With INFO lines off LOG skips the formatting too: the per-record work without its line.
    benchmark::RegisterBenchmark("BM_RecordPath_InfoLogsOff", RecordPath<ParseSysfsLogValue, true>,
                                 android::base::WARNING);
    // The pieces of the path, to show where the time goes.
    benchmark::RegisterBenchmark("BM_Parse", RecordPath<ParseSysfsLogValue, false>, INFO);
    benchmark::RegisterBenchmark("BM_Parse_Regex", RecordPath<RegexParse, false>, INFO);
    benchmark::RegisterBenchmark("BM_HandleOnly", HandleOnly);
    // One handler log line ("Send the message to UBO: " and the text form).
    benchmark::RegisterBenchmark("BM_LogLineOnly", [](benchmark::State& state) {
        Message message;
        ParseSysfsLogValue(kRecords[0], message);
        for ([[maybe_unused]] auto _ : state) LOG(INFO) << "Send the message to UBO: " << message;
    });
    // What any log line costs before its text: libbase's message object and the logger call.
    benchmark::RegisterBenchmark("BM_LogLineFixedCost", [](benchmark::State& state) {
        for ([[maybe_unused]] auto _ : state) LOG(INFO) << "x";
    });
    return true;
}();

}  // namespace
}  // namespace vendor::vesk::tavi
