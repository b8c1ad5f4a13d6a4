// SPDX-License-Identifier: Apache-2.0
// Per-record cost inside the daemon: the text of one kernel record read from the attribute,
// parsed, offered to the four handlers as main builds them, packed, serialized and handed to
// the service library (a stub that takes it and returns at once). Log lines go to a logger
// that drops them, so what is measured is the formatting the handlers pay for every record.
//
// BM_RecordPath_RegexParser runs the same path with the parser replaced by the literal reading
// of the line format: a regular expression compiled on every call and std::stoi on each group.

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <android-base/logging.h>
#include <benchmark/benchmark.h>

#include "handler/message_handler.h"
#include "message.h"
#include "message_cache.h"
#include "sysfs_callback.h"
#include "ubo_wrapper.h"

namespace vendor::vesk::tavi {
namespace {

constexpr uint32_t kCacheCapacity = 128;

// Records that reach the service, one of each area that has events.
const char* const kRecords[] = {
        "4,1,3001,1,0,0,0\n",      // charger: PD hard reset
        "3,0,2000,1,0,0,0\n",      // display: short
        "2,2,1000,4096,8,-1,0\n",  // Linux OS: bad sector
        "4,2,3002,-1,0,300,1\n",   // charger: SoC freeze
        "4,1,3003,1,0,120,0\n",    // charger: WLC firmware update
        "2,1,1001,5,0,0,0\n",      // Linux OS: MMC recovery failure
};
constexpr size_t kRecordCount = sizeof(kRecords) / sizeof(kRecords[0]);

void DropLogs() {
    android::base::SetLogger([](android::base::LogId, android::base::LogSeverity, const char*,
                                const char*, unsigned int, const char*) {});
}

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
class Daemon {
  public:
    Daemon()
        : ubo_wrapper_(std::make_shared<UboWrapper>("tavi")),
          message_cache_(std::make_shared<MessageCache>(kCacheCapacity)) {
        ubo_wrapper_->Connect();
        handlers_.push_back(std::make_unique<CameraMessageHandler>(ubo_wrapper_, message_cache_));
        handlers_.push_back(std::make_unique<LinuxOsMessageHandler>(ubo_wrapper_, message_cache_));
        handlers_.push_back(std::make_unique<DisplayMessageHandler>(ubo_wrapper_, message_cache_));
        handlers_.push_back(std::make_unique<ChargerMessageHandler>(ubo_wrapper_, message_cache_));
    }

    void Offer(const Message& message) {
        for (auto& handler : handlers_) handler->HandleMessage(message);
    }

  private:
    std::shared_ptr<UboWrapper> ubo_wrapper_;
    std::shared_ptr<MessageCache> message_cache_;
    std::vector<std::unique_ptr<MessageHandler>> handlers_;
};

// One record as the poll loop treats it: a string made from the read buffer, a fresh
// Message, the parse callback, then the message callback.
template <bool (*Parse)(const std::string&, Message&)>
void RecordPath(benchmark::State& state) {
    DropLogs();
    Daemon daemon;
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        const std::string text(kRecords[next]);
        next = (next + 1) % kRecordCount;
        Message message;
        if (Parse(text, message)) daemon.Offer(message);
        benchmark::DoNotOptimize(message);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_RecordPath(benchmark::State& state) {
    RecordPath<ParseSysfsLogValue>(state);
}
BENCHMARK(BM_RecordPath);

void BM_RecordPath_RegexParser(benchmark::State& state) {
    RecordPath<RegexParse>(state);
}
BENCHMARK(BM_RecordPath_RegexParser);

// The same path with INFO lines switched off (LOG then skips the formatting too): what the
// per-record work costs apart from its log line.
void BM_RecordPath_InfoLogsOff(benchmark::State& state) {
    const android::base::LogSeverity previous =
            android::base::SetMinimumLogSeverity(android::base::WARNING);
    RecordPath<ParseSysfsLogValue>(state);
    android::base::SetMinimumLogSeverity(previous);
}
BENCHMARK(BM_RecordPath_InfoLogsOff);

// The pieces of the path, to show where the time goes.
template <bool (*Parse)(const std::string&, Message&)>
void ParseOnly(benchmark::State& state) {
    DropLogs();
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        const std::string text(kRecords[next]);
        next = (next + 1) % kRecordCount;
        Message message;
        benchmark::DoNotOptimize(Parse(text, message));
    }
}

void BM_Parse(benchmark::State& state) {
    ParseOnly<ParseSysfsLogValue>(state);
}
BENCHMARK(BM_Parse);

void BM_Parse_Regex(benchmark::State& state) {
    ParseOnly<RegexParse>(state);
}
BENCHMARK(BM_Parse_Regex);

void BM_HandleOnly(benchmark::State& state) {
    DropLogs();
    Daemon daemon;
    std::vector<Message> messages(kRecordCount);
    for (size_t i = 0; i < kRecordCount; ++i) ParseSysfsLogValue(kRecords[i], messages[i]);
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        daemon.Offer(messages[next]);
        next = (next + 1) % kRecordCount;
    }
}
BENCHMARK(BM_HandleOnly);

// One handler log line ("Send the message to UBO: " and the text form) to the dropping logger.
void BM_LogLineOnly(benchmark::State& state) {
    DropLogs();
    Message message;
    ParseSysfsLogValue(kRecords[0], message);
    for ([[maybe_unused]] auto _ : state) {
        LOG(INFO) << "Send the message to UBO: " << message;
    }
}
BENCHMARK(BM_LogLineOnly);

// What any log line costs before its text: libbase's message object and the logger call.
void BM_LogLineFixedCost(benchmark::State& state) {
    DropLogs();
    for ([[maybe_unused]] auto _ : state) {
        LOG(INFO) << "x";
    }
}
BENCHMARK(BM_LogLineFixedCost);

}  // namespace
}  // namespace vendor::vesk::tavi
