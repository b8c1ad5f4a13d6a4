// SPDX-License-Identifier: Apache-2.0
// The daemon's story on a simulated device, told with tavi-device's own commands: records
// cached while the service is down, saved at SIGTERM, replayed in order after a restart, live
// records, records without an event, malformed lines, SIGINT closing the session. Every
// expected log line and event is checked.
#include <stdio.h>
#include <unistd.h>

#include <android-base/strings.h>

#include "tavi_device.h"

namespace vendor::vesk::tavi::sim {
namespace {

using namespace std::chrono_literals;
using android::base::StartsWith;
using Json = nlohmann::json;

constexpr milliseconds kLineTimeout = 10s;
constexpr const char* kSendPrefix = "Send the message to UBO: ";
constexpr const char* kCachePath = "/mnt/vendor/persist/tavi/cache.bin";

// A record of the story and the text form the daemon logs it with.
struct Record {
    const char* line;
    const char* text;
};

const Record kChargerReset = {"4,1,3001,1,0,0,0",
                              "Message {Type: LOG, Category: 4, LogLevel: 1, ErrorCode: 3001, "
                              "Param1: 1, Param2: 0, Param3: 0, Param4: 0, Message: }"};
const Record kDisplayShort = {"3,0,2000,1,0,0,0",
                              "Message {Type: LOG, Category: 3, LogLevel: 0, ErrorCode: 2000, "
                              "Param1: 1, Param2: 0, Param3: 0, Param4: 0, Message: }"};
const Record kBadSector = {"2,2,1000,-1,-7,42,0",
                           "Message {Type: LOG, Category: 2, LogLevel: 2, ErrorCode: 1000, "
                           "Param1: -1, Param2: -7, Param3: 42, Param4: 0, Message: }"};
const Record kInvalidBattery = {"4,0,3000,0,5,0,0",
                                "Message {Type: LOG, Category: 4, LogLevel: 0, ErrorCode: 3000, "
                                "Param1: 0, Param2: 5, Param3: 0, Param4: 0, Message: }"};
const Record kSocFreeze = {"4,2,3002,-1,0,300,1",
                           "Message {Type: LOG, Category: 4, LogLevel: 2, ErrorCode: 3002, "
                           "Param1: -1, Param2: 0, Param3: 300, Param4: 1, Message: }"};
const Record kCamera = {"1,1,5,0,0,0,0",
                        "Message {Type: LOG, Category: 1, LogLevel: 1, ErrorCode: 5, Param1: 0, "
                        "Param2: 0, Param3: 0, Param4: 0, Message: }"};
const Record kUnknownCharger = {"4,1,3099,0,0,0,0",
                                "Message {Type: LOG, Category: 4, LogLevel: 1, ErrorCode: 3099, "
                                "Param1: 0, Param2: 0, Param3: 0, Param4: 0, Message: }"};
const Record kDisplayAfterErrors = {"3,1,2000,0,0,0,0",
                                    "Message {Type: LOG, Category: 3, LogLevel: 1, ErrorCode: "
                                    "2000, Param1: 0, Param2: 0, Param3: 0, Param4: 0, Message: }"};

std::string CachedLine(const Record& record) {
    return std::string("Store the message in the cache: ") + record.text;
}
std::string SentLine(const Record& record) {
    return kSendPrefix + std::string(record.text);
}
std::string UnpackedLine(const Record& record) {
    return std::string("Failed to pack the massage: ") + record.text;
}

// Where a record of the service goes among the daemon's lines of the same stretch: after
// the line that caused it, before the line that reports it, or where commands act.
enum class Place { kFirst, kAfterSend, kBeforeLine, kLast };

Place Placement(const std::string& kind, std::string* anchor) {
    if (kind == "event") return Place::kAfterSend;
    if (kind == "session_created") *anchor = "Created UBO session";
    if (kind == "session_destroyed") *anchor = "Closed UBO session";
    if (!anchor->empty()) return Place::kBeforeLine;
    // The daemon's lines all come before it ends; the service stops last.
    return kind == "session_lost" || kind == "stopped" ? Place::kLast : Place::kFirst;
}

class Demo {
  public:
    Demo(const std::string& state_dir, const Binaries& binaries)
        : state_dir_(state_dir), device_(state_dir, binaries), commands_(device_) {}

    bool Run() {
        return Cached() && Saved() && Replayed() && Live() && NoEvent() && Malformed() &&
               Closed() && Down() && FinalCheck();
    }
    const std::string& failure() const { return failure_; }

  private:
    bool Cached() {
        Headline("1. The event service is down: records are kept in the daemon's memory");
        Note("The service starts inactive. The daemon's readiness task retries every second; "
             "meanwhile every record it accepts is stored in its cache.");
        return Command({"up"}) &&
               Command({"inject", kChargerReset.line, kDisplayShort.line, kBadSector.line}) &&
               ExpectLine(CachedLine(kChargerReset)) && ExpectLine(CachedLine(kDisplayShort)) &&
               ExpectLine(CachedLine(kBadSector)) && Show();
    }

    bool Saved() {
        Headline("2. SIGTERM: the daemon saves its cache, then waits for the service");
        if (!Command({"stop-daemon", "TERM"}) ||
            !ExpectLine(std::string("Saved the cache to ") + kCachePath) ||
            !ExpectLine("tavi_daemon ended") || !Show()) {
            return false;
        }
        Note("The cache file is in the persist folder, which the daemon sees as " +
             std::string(kCachePath) + ":");
        if (!Command({"cache"}) || !Expect(Contains(last_output_, "mode 0600"), "mode 0600") ||
            !Expect(Contains(last_output_, "3 entries, 0 bad"), "3 entries, 0 bad")) {
            return false;
        }
        Note("Its poll loop is over, but the daemon does not exit before its readiness task has "
             "seen the service active. After SIGTERM it leaves its session open.");
        return Command({"service", "active"}) && ExpectLine("Skip closing UBO session") &&
               ExpectRecord({{"kind", "session_lost"}, {"session", 1}}) && Show() &&
               Command({"service", "inactive"});
    }

    bool Replayed() {
        Headline("3. The daemon restarts; the service comes up; the cache is replayed");
        Note("A new record arrives while the service is still down and is cached in memory. When "
             "the service is active, the daemon loads the file and replays this run's record "
             "first, then the saved ones.");
        if (!Command({"start-daemon"}) || !Command({"inject", kInvalidBattery.line}) ||
            !ExpectLine(CachedLine(kInvalidBattery)) || !Command({"service", "active"}) ||
            !ExpectLine(std::string("Loaded the cache from ") + kCachePath) ||
            !ExpectLine("Cache flush ended") || !Show()) {
            return false;
        }
        const std::vector<std::string> expected = {SentLine(kInvalidBattery),
                                                   SentLine(kChargerReset), SentLine(kDisplayShort),
                                                   SentLine(kBadSector)};
        return Expect(FlushedLines() == expected,
                      "the flush in the order " + android::base::Join(expected, ", ")) &&
               Command({"cache"}) &&
               Expect(Contains(last_output_, "no cache file"), "no cache file") &&
               ExpectRecord({{"kind", "event"},
                             {"probe", "TaviLinuxOsBadSector"},
                             {"payload_hex",
                              "080210e80718ffffffffffffffffff0120f9ffffffffffffffff01282a"}});
    }

    bool Live() {
        Headline("4. Live records are delivered at once");
        return Command({"inject", kSocFreeze.line}) && ExpectLine(SentLine(kSocFreeze)) &&
               ExpectRecord({{"kind", "event"},
                             {"probe", "TaviChargerDetectSocFreeze"},
                             {"payload_hex", "080210ba1718ffffffffffffffffff01200028ac023001"}}) &&
               Show();
    }

    bool NoEvent() {
        Headline("5. Records without an event: a camera record and an unknown charger code");
        return Command({"inject", kCamera.line, kUnknownCharger.line}, kExitFailure) &&
               ExpectLine(UnpackedLine(kCamera)) && ExpectLine(UnpackedLine(kUnknownCharger)) &&
               Show();
    }

    bool Malformed() {
        Headline("6. Malformed lines are rejected; the daemon keeps serving");
        return Command({"inject", "--raw", "4,1,3001\\n", "4,1,3001,1,0,0,0\\r\\n"},
                       kExitFailure) &&
               Command({"inject", kDisplayAfterErrors.line}) &&
               ExpectLine("Failed to parse the string for MessageType LOG: 4,1,3001") &&
               ExpectLine("Failed to parse the string for MessageType LOG: 4,1,3001,1,0,0,0\r") &&
               ExpectLine(SentLine(kDisplayAfterErrors)) &&
               ExpectRecord({{"kind", "event"},
                             {"seq", 6},
                             {"probe", "TaviDisplayShort"},
                             {"payload_hex", "080110d00f1800"}}) &&
               Show();
    }

    bool Closed() {
        Headline("7. SIGINT: the daemon closes its session");
        return Command({"stop-daemon", "INT"}) && ExpectLine("Closed UBO session") &&
               ExpectRecord({{"kind", "session_destroyed"}, {"session", 2}}) && Show();
    }

    bool Down() {
        Headline("Taking the simulated device down");
        return Command({"down"}) && Show();
    }

    // Once more, from the files the run left behind: every line was checked on its step.
    bool FinalCheck() {
        const std::vector<Json> events = device_.Records("event");
        size_t accepted = 0;
        for (const Json& event : events) {
            accepted += event.value("rc", -1) == 0 && event.value("active", false) ? 1 : 0;
        }
        return Expect(events.size() == 6 && accepted == 6,
                      "6 events, each accepted by an active service") &&
               Expect(!device_.AttributeMounted(), "no mount left in " + state_dir_);
    }

    // Shows `words` as the command to type, runs it as tavi-device does, shows its output.
    bool Command(const std::vector<std::string>& words, int expected_status = 0) {
        Show();
        printf("%s$ tavi-device %s%s\n", bold_, ShellQuote(words).c_str(), plain_);
        OwnerReply reply = words[0] == "up"        ? commands_.Up(words)
                           : NeedsDevice(words[0]) ? commands_.Run(words)
                                                   : ShowState(words, state_dir_);
        last_output_ = reply.out + reply.err;
        for (const std::string& line : android::base::Split(last_output_, "\n")) {
            if (!line.empty()) printf("  %s\n", line.c_str());
        }
        Show();
        return Expect(reply.status == expected_status,
                      "exit status " + std::to_string(expected_status) + " of tavi-device " +
                              ShellQuote(words));
    }

    bool ExpectLine(const std::string& text) {
        return Expect(device_.Log().WaitForLine(text, kLineTimeout),
                      "the daemon line \"" + text + "\"");
    }

    bool ExpectRecord(const Json& members) {
        auto matches = [&] {
            for (Json record : device_.Records()) {
                const Json before = record;
                record.update(members);  // changes nothing when it holds every member
                if (record == before) return true;
            }
            return false;
        };
        return Expect(WaitUntil(matches, kLineTimeout), "a service record with " + members.dump());
    }

    bool Expect(bool seen, const std::string& what) {
        if (!seen && failure_.empty()) failure_ = "expected " + what;
        return seen;
    }

    static bool Contains(const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    }

    // The daemon's lines between "Cache flush starting" and "Cache flush ended".
    std::vector<std::string> FlushedLines() {
        const std::vector<LogLine>& lines = device_.Log().Lines();
        std::vector<std::string> flushed;
        bool on = false;
        for (const LogLine& line : lines) {
            if (line.text == "Cache flush ended") on = false;
            if (on && !line.text.empty()) flushed.push_back(line.text);
            if (line.text == "Cache flush starting") on = true;
        }
        return flushed;
    }

    // What the daemon logged and the service recorded since the last call, in the order they
    // happened: each service record next to the daemon line it belongs to.
    bool Show() {
        std::vector<Json> records = events_.ReadNew();  // first: their causes are logged by now
        if (device_.DaemonPid() != shown_pid_) lines_shown_ = 0;
        shown_pid_ = device_.DaemonPid();
        const std::vector<LogLine>& lines = device_.Log().Lines();
        std::vector<bool> shown(records.size());
        auto show_first = [&](Place place, const std::string& text) {
            for (size_t i = 0; i < records.size(); ++i) {
                std::string anchor;
                if (shown[i] || Placement(records[i].value("kind", ""), &anchor) != place ||
                    anchor != text) {
                    continue;
                }
                shown[i] = true;
                printf("  service | %s\n", DescribeRecord(records[i]).c_str());
                if (place != Place::kFirst) return;
            }
        };
        show_first(Place::kFirst, "");
        for (; lines_shown_ < lines.size(); ++lines_shown_) {
            const LogLine& line = lines[lines_shown_];
            if (line.text.empty()) continue;  // the end of a message's text form
            show_first(Place::kBeforeLine, line.text);
            printf("  daemon  | %c %s\n", line.severity, Visible(line.text).c_str());
            if (StartsWith(line.text, kSendPrefix)) show_first(Place::kAfterSend, "");
        }
        for (size_t i = 0; i < records.size(); ++i) {
            if (!shown[i]) printf("  service | %s\n", DescribeRecord(records[i]).c_str());
        }
        return true;
    }

    void Headline(const std::string& text) {
        printf("\n%s== %s ==%s\n", bold_, text.c_str(), plain_);
    }
    void Note(const std::string& text) { printf("   %s\n", text.c_str()); }

    const std::string state_dir_;
    SimulatedDevice device_;
    DeviceCommands commands_;
    EventReader events_{device_.EventsPath()};
    size_t lines_shown_ = 0;
    pid_t shown_pid_ = -1;
    std::string last_output_;
    std::string failure_;
    const char* bold_ = isatty(STDOUT_FILENO) ? "\033[1m" : "";
    const char* plain_ = isatty(STDOUT_FILENO) ? "\033[0m" : "";
};

// A fresh state folder: what an earlier run or a `tavi-device up` left there goes.
void ClearState(const std::string& state_dir) {
    AskOwner(state_dir + "/owner.sock", {"down"});
    for (const char* name : {"daemon.log", "daemon.log.old", "events.jsonl", "events.jsonl.old",
                             "persist/cache.bin"}) {
        unlink((state_dir + "/" + name).c_str());
    }
}

}  // namespace

int RunDemo(const std::string& state_dir, const Binaries& binaries) {
    if (std::string reason = SimulatedDevice::Availability(binaries); !reason.empty()) {
        fprintf(stderr, "tavi-device: demo: %s\n", reason.c_str());
        return kExitFailure;
    }
    ClearState(state_dir);
    Demo demo(state_dir, binaries);
    if (!demo.Run()) {
        fprintf(stderr, "\ntavi-device: DEMO FAILED: %s\n", demo.failure().c_str());
        return kExitFailure;
    }
    printf("\nDemo passed: every expected log line and event was seen.\n"
           "Daemon log: %s/daemon.log; events: %s/events.jsonl\n",
           state_dir.c_str(), state_dir.c_str());
    return 0;
}

}  // namespace vendor::vesk::tavi::sim
