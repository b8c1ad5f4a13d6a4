// SPDX-License-Identifier: Apache-2.0
// The daemon's story on a simulated device, told with tavi-device's own commands: records
// cached while the service is down, saved at SIGTERM, replayed in order after a restart, live
// records, records without an event, malformed lines, SIGINT closing the session. Every
// expected log line and event is checked.
#include <stdio.h>
#include <unistd.h>

#include <map>

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "tavi_device.h"

namespace vendor::vesk::tavi::sim {
namespace {

using namespace std::chrono_literals;
using android::base::StringPrintf;
using Args = std::vector<std::string>;
using Json = nlohmann::json;

constexpr milliseconds kTimeout = 10s;
const std::string kCachePath = "/mnt/vendor/persist/tavi/cache.bin";

constexpr const char* kUnquoted =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789,._/:=@%+-";

// A record's text form as the daemon logs it.
std::string Logged(int category, int level, int code, int param1, int param2, int param3,
                   int param4) {
    return StringPrintf(
            "Message {Type: LOG, Category: %d, LogLevel: %d, ErrorCode: %d, Param1: %d, "
            "Param2: %d, Param3: %d, Param4: %d, Message: }",
            category, level, code, param1, param2, param3, param4);
}

// The story's records.
const std::string kChargerReset = Logged(4, 1, 3001, 1, 0, 0, 0);
const std::string kDisplayShort = Logged(3, 0, 2000, 1, 0, 0, 0);
const std::string kBadSector = Logged(2, 2, 1000, -1, -7, 42, 0);
const std::string kInvalidBattery = Logged(4, 0, 3000, 0, 5, 0, 0);
const std::string kSocFreeze = Logged(4, 2, 3002, -1, 0, 300, 1);
const std::string kCamera = Logged(1, 1, 5, 0, 0, 0, 0);
const std::string kUnknownCharger = Logged(4, 1, 3099, 0, 0, 0, 0);
const std::string kDisplayAfterErrors = Logged(3, 1, 2000, 0, 0, 0, 0);

// One step of the story: a command and what must follow it, or a headline or a note.
struct Step {
    std::string command{};  // tavi-device's words, one space apart
    int status = 0;
    Args lines{};          // the daemon must log each
    std::string record{};  // JSON: members of a record the service must write
    Args output{};         // the command's output must hold each
    Args flushed{};        // the daemon's lines of the cache flush, exactly
    std::string headline{};
    std::string note{};
};

Step Say(std::string headline, std::string note = "") {
    return {"", 0, {}, "", {}, {}, std::move(headline), std::move(note)};
}

Step Do(std::string command, int status = 0, Args lines = {}, std::string record = "",
        Args output = {}, Args flushed = {}) {
    return {std::move(command), status, std::move(lines), std::move(record), std::move(output),
            std::move(flushed)};
}

const std::vector<Step>& Story() {
    static const std::vector<Step> kStory = {
            Say("1. The event service is down: records are kept in the daemon's memory",
                "The service starts inactive. The daemon's readiness task retries every second; "
                "meanwhile every record it accepts is stored in its cache."),
            Do("up"),
            Do("inject 4,1,3001,1,0,0,0 3,0,2000,1,0,0,0 2,2,1000,-1,-7,42,0", 0,
               {kCachedPrefix + kChargerReset, kCachedPrefix + kDisplayShort,
                kCachedPrefix + kBadSector}),
            Say("2. SIGTERM: the daemon saves its cache, then waits for the service"),
            Do("stop-daemon TERM", 0, {"Saved the cache to " + kCachePath, "tavi_daemon ended"}),
            Say("", "The cache file is in the persist folder, which the daemon sees as " +
                            kCachePath + ":"),
            Do("cache", 0, {}, "", {"mode 0600", "3 entries, 0 bad"}),
            Say("",
                "Its poll loop is over, but the daemon does not exit before its readiness "
                "task has seen the service active. After SIGTERM it leaves its session open."),
            Do("service active", 0, {"Skip closing UBO session"},
               R"({"kind": "session_lost", "session": 1})"),
            Do("service inactive"),
            Say("3. The daemon restarts; the service comes up; the cache is replayed",
                "A new record arrives while the service is still down and is cached in memory. "
                "When the service is active, the daemon loads the file and replays this run's "
                "record first, then the saved ones."),
            Do("start-daemon"),
            Do("inject 4,0,3000,0,5,0,0", 0, {kCachedPrefix + kInvalidBattery}),
            Do("service active", 0, {"Loaded the cache from " + kCachePath, "Cache flush ended"},
               "", {},
               {kSentPrefix + kInvalidBattery, kSentPrefix + kChargerReset,
                kSentPrefix + kDisplayShort, kSentPrefix + kBadSector}),
            Do("cache", 0, {},
               R"({"kind": "event", "probe": "TaviLinuxOsBadSector",
                   "payload_hex": "080210e80718ffffffffffffffffff0120f9ffffffffffffffff01282a"})",
               {"no cache file"}),
            Say("4. Live records are delivered at once"),
            Do("inject 4,2,3002,-1,0,300,1", 0, {kSentPrefix + kSocFreeze},
               R"({"kind": "event", "probe": "TaviChargerDetectSocFreeze",
                   "payload_hex": "080210ba1718ffffffffffffffffff01200028ac023001"})"),
            Say("5. Records without an event: a camera record and an unknown charger code"),
            Do("inject 1,1,5,0,0,0,0 4,1,3099,0,0,0,0", kExitFailure,
               {kUnpackedPrefix + kCamera, kUnpackedPrefix + kUnknownCharger}),
            Say("6. Malformed lines are rejected; the daemon keeps serving"),
            Do("inject --raw 4,1,3001\\n 4,1,3001,1,0,0,0\\r\\n", kExitFailure),
            Do("inject 3,1,2000,0,0,0,0", 0,
               {kUnparsedPrefix + "LOG: 4,1,3001", kUnparsedPrefix + "LOG: 4,1,3001,1,0,0,0\r",
                kSentPrefix + kDisplayAfterErrors},
               R"({"kind": "event", "seq": 6, "probe": "TaviDisplayShort",
                   "payload_hex": "080110d00f1800"})"),
            Say("7. SIGINT: the daemon closes its session"),
            Do("stop-daemon INT", 0, {"Closed UBO session"},
               R"({"kind": "session_destroyed", "session": 2})"),
            Say("Taking the simulated device down"),
            Do("down"),
    };
    return kStory;
}

// `words` as a shell would need them typed.
std::string ShellQuote(const Args& words) {
    std::vector<std::string> quoted;
    for (const std::string& word : words) {
        const bool plain = !word.empty() && word.find_first_not_of(kUnquoted) == std::string::npos;
        quoted.push_back(
                plain ? word : "'" + android::base::StringReplace(word, "'", "'\\''", true) + "'");
    }
    return android::base::Join(quoted, ' ');
}

class Demo {
  public:
    Demo(const std::string& state_dir, const Binaries& binaries) : device_(state_dir, binaries) {}

    // Empty when every step went as expected; otherwise what was missing first.
    std::string Run() {
        for (const Step& step : Story()) {
            if (!Take(step)) return failure_;
        }
        // Once more, from the files the run left behind.
        size_t accepted = 0;
        for (const Json& event : device_.Records("event")) {
            accepted += event.value("rc", -1) == 0 && event.value("active", false) ? 1 : 0;
        }
        (void)(Expect(accepted == 6 && device_.CountRecords("event") == 6,
                      "6 events, each accepted by an active service") &&
               Expect(!device_.AttributeMounted(), "no mount left in " + device_.StateDir()));
        return failure_;
    }

  private:
    bool Take(const Step& step) {
        if (!step.headline.empty()) {
            printf("\n%s== %s ==%s\n", bold_, step.headline.c_str(), plain_);
        }
        if (!step.note.empty()) printf("   %s\n", step.note.c_str());
        if (step.command.empty()) return true;
        Show();
        const Args words = android::base::Split(step.command, " ");
        const std::string command = "tavi-device " + ShellQuote(words);
        printf("%s$ %s%s\n", bold_, command.c_str(), plain_);
        const OwnerReply reply = RunCommand(device_, words);
        const std::string output = reply.out + reply.err;
        for (const std::string& line : android::base::Split(output, "\n")) {
            if (!line.empty()) printf("  %s\n", line.c_str());
        }
        Show();
        bool seen = Expect(reply.status == step.status,
                           "exit status " + std::to_string(step.status) + " of " + command);
        for (const std::string& line : step.lines) {
            seen = seen && Expect(device_.Log().WaitForLine(line, kTimeout),
                                  StringPrintf("the daemon line \"%s\"", line.c_str()));
        }
        for (const std::string& text : step.output) {
            seen = seen && Expect(output.find(text) != std::string::npos,
                                  StringPrintf("\"%s\" in the output of %s", text.c_str(),
                                               command.c_str()));
        }
        if (seen && !step.record.empty()) {
            const Json members = Json::parse(step.record);
            seen = Expect(WaitUntil([&] { return HasRecord(members); }, kTimeout),
                          "a service record with " + members.dump());
        }
        if (seen && !step.flushed.empty()) {
            seen = Expect(FlushedLines() == step.flushed,
                          "the flush in the order " + android::base::Join(step.flushed, ", "));
        }
        Show();
        return seen;
    }

    bool Expect(bool seen, const std::string& what) {
        if (!seen && failure_.empty()) failure_ = "expected " + what;
        return seen;
    }

    bool HasRecord(const Json& members) {
        for (Json record : device_.Records()) {
            const Json before = record;
            record.update(members);  // changes nothing when it holds every member
            if (record == before) return true;
        }
        return false;
    }

    // The daemon's lines between "Cache flush starting" and "Cache flush ended".
    std::vector<std::string> FlushedLines() {
        std::vector<std::string> flushed{};
        bool on = false;
        for (const LogLine& line : device_.Log().Lines()) {
            if (line.text == "Cache flush ended") on = false;
            if (on && !line.text.empty()) flushed.push_back(line.text);
            if (line.text == "Cache flush starting") on = true;
        }
        return flushed;
    }

    // What the daemon logged and the service recorded since the last call, in the order they
    // happened.
    void Show() {
        const std::vector<Json> records = events_.ReadNew();  // first: their causes are logged
        if (device_.DaemonPid() != shown_pid_) lines_shown_ = 0;
        shown_pid_ = device_.DaemonPid();
        const std::vector<LogLine>& lines = device_.Log().Lines();
        auto record = records.begin();
        auto show_records_before = [&](const std::string* line) {
            for (; record != records.end() && Precedes(*record, line); ++record) {
                printf("  service | %s\n", DescribeRecord(*record).c_str());
                const bool event = record->value("kind", "") == "event";
                if (event && unmatched_sends_ > 0) --unmatched_sends_;
            }
        };
        for (; lines_shown_ < lines.size(); ++lines_shown_) {
            const std::string& text = lines[lines_shown_].text;
            if (text.empty()) continue;  // the end of a message's text form
            show_records_before(&text);
            printf("  daemon  | %c %s\n", lines[lines_shown_].severity, Visible(text).c_str());
            if (android::base::StartsWith(text, kSentPrefix)) ++unmatched_sends_;
        }
        show_records_before(nullptr);
    }

    // Whether the service wrote `record` before the daemon logged `line` (none: the last line):
    // an event follows its send, a session's start or end precedes the daemon's line about it,
    // a lost session and the service's end follow every line; the rest come from commands.
    bool Precedes(const Json& record, const std::string* line) const {
        static const std::map<std::string, std::string> kBeforeLine = {
                {"session_created", "Created UBO session"},
                {"session_destroyed", "Closed UBO session"},
                {"session_lost", ""},
                {"stopped", ""}};
        const std::string kind = record.value("kind", "");
        if (line == nullptr) return true;
        if (kind == "event") return unmatched_sends_ > 0;
        auto anchor = kBeforeLine.find(kind);
        return anchor == kBeforeLine.end() || anchor->second == *line;
    }

    SimulatedDevice device_;
    EventReader events_{device_.EventsPath()};
    size_t lines_shown_ = 0;
    size_t unmatched_sends_ = 0;
    pid_t shown_pid_ = -1;
    std::string failure_;
    const char* bold_ = isatty(STDOUT_FILENO) ? "\033[1m" : "";
    const char* plain_ = isatty(STDOUT_FILENO) ? "\033[0m" : "";
};

}  // namespace

int RunDemo(const std::string& state_dir, const Binaries& binaries) {
    if (std::string reason = SimulatedDevice::Availability(binaries); !reason.empty()) {
        fprintf(stderr, "tavi-device: demo: %s\n", reason.c_str());
        return kExitFailure;
    }
    // A fresh state folder: what an earlier run or a `tavi-device up` left there goes.
    AskOwner(state_dir + "/owner.sock", {"down"});
    for (const char* name : {"daemon.log", "daemon.log.old", "events.jsonl", "events.jsonl.old",
                             "persist/cache.bin"}) {
        unlink((state_dir + "/" + name).c_str());
    }
    if (std::string failure = Demo(state_dir, binaries).Run(); !failure.empty()) {
        fprintf(stderr, "\ntavi-device: DEMO FAILED: %s\n", failure.c_str());
        return kExitFailure;
    }
    printf("\nDemo passed: every expected log line and event was seen.\n"
           "Daemon log: %s/daemon.log; events: %s/events.jsonl\n",
           state_dir.c_str(), state_dir.c_str());
    return 0;
}

}  // namespace vendor::vesk::tavi::sim
