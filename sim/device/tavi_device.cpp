// SPDX-License-Identifier: Apache-2.0
#include "tavi_device.h"

#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <thread>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "cache_decoder.h"

namespace vendor::vesk::tavi::sim {
namespace {

using namespace std::chrono_literals;
using android::base::StartsWith;
using android::base::StringPrintf;

constexpr const char* kUsage = R"(usage: tavi-device COMMAND [ARGS]

  up [--active]                  start the attribute emulator, the event service (inactive
                                 unless --active) and the daemon
  start-daemon [--no-attribute]  start the daemon, wait until it polls
  inject [--raw] RECORD...       write each RECORD as one kernel record and tell what became
                                 of it; a line feed is added unless --raw, which takes the
                                 escapes \n \r \t \0 \\ instead
  service active|inactive|fail CODE|ok|refuse|accept|status
                                 switch or show the event service
  stop-daemon [TERM|INT] [--timeout S]
                                 signal the daemon (default TERM) and wait for its end (30 s)
  restart [TERM|INT]             stop-daemon, then start-daemon
  status                         what runs, the service state, the cache file
  down                           stop everything and unmount; persist/ stays
  logs [-f]                      the daemon's log (-f: follow it)
  events                         the event service's records
  cache                          the cache file in persist/, decoded
  demo                           the daemon's story on a fresh device, every step checked
  help                           this text

environment: TAVI_DEVICE_STATE (state folder, default /var/lib/tavi-device)
             TAVI_BUILD_DIR (where the programs were built)
)";

// Each command with the optional words it takes; inject and service are checked apart.
const std::map<std::string, std::vector<std::string>> kCommands = {
        {"up", {"--active"}},
        {"start-daemon", {"--no-attribute"}},
        {"inject", {}},
        {"service", {}},
        {"stop-daemon", {"TERM", "INT", "--timeout"}},
        {"restart", {"TERM", "INT"}},
        {"status", {}},
        {"down", {}},
        {"logs", {"-f"}},
        {"events", {}},
        {"cache", {}},
        {"demo", {}},
        {"help", {}}};

const std::vector<std::string> kServiceCommands = {"active", "inactive", "ok",  "refuse",
                                                   "accept", "status",   "fail"};

// The daemon's lines that tell what became of one record.
constexpr const char* kSentPrefix = "Send the message to UBO: ";
constexpr const char* kCachedPrefix = "Store the message in the cache: ";
constexpr const char* kOutcomePrefixes[] = {
        kSentPrefix, kCachedPrefix,
        "Failed to pack the massage: ", "Failed to parse the string for MessageType "};
constexpr const char* kCacheFullLine = "Cache size limit, ignoring";
constexpr const char* kEndedLine = "tavi_daemon ended";
constexpr const char* kRetryPrefix = "UBO is not yet active or available";
constexpr const char* kPausePrefix = "UBO is not yet active or available after ";
constexpr milliseconds kOutcomeTimeout = 3s;
// A full cache is reported right after the line that stores the record.
constexpr milliseconds kCacheFullGrace = 100ms;
constexpr milliseconds kDownTimeout = 5s;
constexpr int kDefaultStopSeconds = 30;

bool Contains(const std::vector<std::string>& words, const std::string& word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

std::string CheckArguments(const std::string& command, const std::vector<std::string>& args) {
    if (command == "inject") {
        const size_t first = !args.empty() && args[0] == "--raw" ? 1 : 0;
        return args.size() > first ? "" : "inject needs at least one RECORD";
    }
    if (command == "service") {
        const bool fits = !args.empty() && Contains(kServiceCommands, args[0]) &&
                          args.size() == (args[0] == "fail" ? 2U : 1U);
        return fits ? "" : "service takes active|inactive|fail CODE|ok|refuse|accept|status";
    }
    for (size_t i = 0; i < args.size(); ++i) {
        int seconds = 0;
        if (!Contains(kCommands.at(command), args[i])) {
            return (StartsWith(args[i], "-") ? "unknown option '" : "unexpected argument '") +
                   args[i] + "' for " + command;
        }
        if (args[i] == "--timeout" &&
            (++i == args.size() || !android::base::ParseInt(args[i], &seconds, 1))) {
            return "--timeout takes whole seconds";
        }
    }
    return "";
}

void Say(OwnerReply* reply, const std::string& line) {
    reply->out += line + "\n";
}

OwnerReply Fail(OwnerReply reply, const std::string& line) {
    reply.err += "tavi-device: " + line + "\n";
    reply.status = kExitFailure;
    return reply;
}

// A RECORD argument as the bytes to write.
std::string RecordBytes(const std::string& word, bool raw) {
    if (!raw) return word + "\n";
    static const std::map<char, char> kEscapes = {
            {'n', '\n'}, {'r', '\r'}, {'t', '\t'}, {'0', '\0'}, {'\\', '\\'}};
    std::string bytes;
    for (size_t i = 0; i < word.size(); ++i) {
        auto escape = word[i] == '\\' ? kEscapes.find(word[i + 1]) : kEscapes.end();
        bytes += escape == kEscapes.end() ? word[i] : (++i, escape->second);
    }
    return bytes;
}

bool IsOutcome(const std::string& text) {
    return std::any_of(std::begin(kOutcomePrefixes), std::end(kOutcomePrefixes),
                       [&](const char* prefix) { return StartsWith(text, prefix); });
}

// The first line from `first` on that tells what became of a record, or -1. A cache flush
// replays other records; `sends` counts its sends before the line found.
int FindOutcome(const std::vector<LogLine>& lines, size_t first, size_t* sends) {
    bool flushing = false;
    *sends = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& text = lines[i].text;
        flushing = text == "Cache flush starting" || (flushing && text != "Cache flush ended");
        if (i < first) continue;
        if (!flushing && IsOutcome(text)) return static_cast<int>(i);
        *sends += StartsWith(text, kSentPrefix) ? 1 : 0;
    }
    return -1;
}

// The first line from `first` on that starts with `prefix`, or -1.
int FindFrom(const std::vector<LogLine>& lines, size_t first, const std::string& prefix) {
    for (size_t i = first; i < lines.size(); ++i) {
        if (StartsWith(lines[i].text, prefix)) return static_cast<int>(i);
    }
    return -1;
}

int SignalNumber(const std::vector<std::string>& args) {
    return Contains(args, "INT") ? SIGINT : SIGTERM;
}

}  // namespace

std::string Usage() {
    return kUsage;
}

std::string Visible(std::string text) {
    static const char* const kControls[][2] = {{"\n", "\\n"}, {"\r", "\\r"}, {"\t", "\\t"}};
    for (const auto& control : kControls) {
        text = android::base::StringReplace(text, control[0], control[1], true);
    }
    return text;
}

std::string CheckCommand(const std::vector<std::string>& words) {
    if (kCommands.count(words[0]) == 0) return "unknown command '" + words[0] + "'";
    return CheckArguments(words[0], {words.begin() + 1, words.end()});
}

bool NeedsDevice(const std::string& command) {
    return Contains(
            {"start-daemon", "inject", "service", "stop-daemon", "restart", "status", "down"},
            command);
}

std::string ShellQuote(const std::vector<std::string>& words) {
    std::vector<std::string> quoted;
    for (const std::string& word : words) {
        const bool plain =
                !word.empty() && word.find_first_not_of(
                                         "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRS"
                                         "TUVWXYZ0123456789,._/:=@%+-") == std::string::npos;
        quoted.push_back(
                plain ? word : "'" + android::base::StringReplace(word, "'", "'\\''", true) + "'");
    }
    return android::base::Join(quoted, ' ');
}

std::string DescribeRecord(const nlohmann::json& record) {
    std::string text = record.value("kind", "?");
    for (const auto& [key, value] : record.items()) {
        if (key == "kind" || key == "time" || key == "fields") continue;
        text += " " + key + "=" + (value.is_string() ? value.get<std::string>() : value.dump());
    }
    if (record.contains("fields")) text += " fields=" + record["fields"].dump();
    return text;
}

OwnerReply ShowState(const std::vector<std::string>& words, const std::string& state_dir) {
    const std::string& command = words[0];
    const std::string path = state_dir + (command == "logs"     ? "/daemon.log"
                                          : command == "events" ? "/events.jsonl"
                                                                : "/persist");
    OwnerReply reply;
    if (access(path.c_str(), F_OK) != 0) {
        return Fail(reply, "nothing has run yet in " + state_dir + " (no " + path + ")");
    }
    if (command == "logs") {
        android::base::ReadFileToString(path, &reply.out);
    } else if (command == "events") {
        for (const nlohmann::json& record : EventReader(path).ReadNew()) {
            Say(&reply, DescribeRecord(record));
        }
    } else if (access((path + "/cache.bin").c_str(), F_OK) != 0) {
        Say(&reply, "no cache file (" + path + "/cache.bin)");
    } else if (!DescribeCacheFile(path + "/cache.bin", &reply.out)) {
        return Fail(reply, reply.out);
    }
    return reply;
}

OwnerReply DeviceCommands::Up(const std::vector<std::string>& words) {
    OwnerReply reply;
    const bool active = Contains(words, "--active");
    for (const std::string& file : {device_.LogPath(), device_.EventsPath()}) {
        (void)rename(file.c_str(), (file + ".old").c_str());
    }
    std::string failure = device_.Start(active);
    if (!failure.empty()) return Fail(reply, "up failed: " + failure);
    Say(&reply, StringPrintf("up in %s: attribute %s/sysfs/log, event service %s, daemon pid %d",
                             device_.StateDir().c_str(), device_.RunDir().c_str(),
                             active ? "active" : "inactive", device_.DaemonPid()));
    return reply;
}

OwnerReply DeviceCommands::Run(const std::vector<std::string>& words) {
    const std::string& command = words[0];
    const std::vector<std::string> args(words.begin() + 1, words.end());
    if (command == "start-daemon") return StartDaemon(args);
    if (command == "inject") return Inject(args);
    if (command == "service") return Service(args);
    if (command == "stop-daemon") return StopDaemon(args);
    if (command == "restart") return Restart(args);
    if (command == "status") return Status();
    if (command == "down") return Down();
    return Fail({}, "unknown command '" + command + "'");
}

OwnerReply DeviceCommands::StartDaemon(const std::vector<std::string>& args) {
    OwnerReply reply;
    const bool with_attribute = !Contains(args, "--no-attribute");
    if (device_.DaemonRunning()) {
        return Fail(reply, StringPrintf("the daemon already runs (pid %d)", device_.DaemonPid()));
    }
    std::string failure = device_.StartDaemon(with_attribute);
    if (std::optional<int> status = device_.WaitForDaemonExit(0ms); status) {
        failure += (failure.empty() ? "the daemon ended: " : "; the daemon ended: ") +
                   DescribeWaitStatus(*status) + " (see tavi-device logs)";
    }
    if (!failure.empty()) return Fail(reply, failure);
    Say(&reply, StringPrintf("daemon started (pid %d)%s", device_.DaemonPid(),
                             with_attribute ? ", polling" : " without the attribute"));
    return reply;
}

OwnerReply DeviceCommands::Inject(const std::vector<std::string>& args) {
    OwnerReply reply;
    const bool raw = args[0] == "--raw";
    const std::vector<std::string> records(args.begin() + (raw ? 1 : 0), args.end());
    const bool daemon_runs = device_.DaemonRunning();
    for (const std::string& record : records) {
        const size_t events_before = device_.CountRecords("event");
        const size_t first_line = device_.Log().Lines().size();
        if (!device_.Inject(RecordBytes(record, raw))) {
            reply = Fail(reply, "could not write '" + record + "' to the attribute");
        } else if (daemon_runs && !ReportOutcome(record, first_line, events_before, &reply)) {
            reply.status = kExitFailure;
            if (!device_.DaemonRunning()) break;
        }
    }
    if (!daemon_runs) {
        return Fail(reply, StringPrintf("no daemon runs; the attribute holds %d pending "
                                        "record(s) until one starts",
                                        device_.PendingCount()));
    }
    return reply;
}

bool DeviceCommands::ReportOutcome(const std::string& shown, size_t first_line,
                                   size_t events_before, OwnerReply* reply) {
    LogReader& log = device_.Log();
    int found = -1;
    size_t flushed_sends = 0;
    WaitUntil(
            [&] {
                found = FindOutcome(log.Lines(), first_line, &flushed_sends);
                return found >= 0 || !device_.DaemonRunning();
            },
            kOutcomeTimeout);
    if (found < 0 && !device_.DaemonRunning()) {
        *reply = Fail(*reply, "the daemon ended on '" + shown +
                                      "': " + DescribeWaitStatus(*device_.WaitForDaemonExit(0ms)));
        return false;
    }
    if (found < 0) {
        *reply = Fail(*reply, "no outcome logged for '" + shown + "' within 3 s (a category " +
                                      "that no handler takes?)");
        return false;
    }
    const std::string line = log.Lines()[found].text;
    if (StartsWith(line, kCachedPrefix)) {
        const bool full = WaitUntil(
                [&] { return FindFrom(log.Lines(), found, kCacheFullLine) >= 0; }, kCacheFullGrace);
        Say(reply, shown + ": " + (full ? "refused at the cache limit" : "kept in the cache"));
        return true;
    }
    if (!StartsWith(line, kSentPrefix)) {
        *reply = Fail(*reply, "the daemon rejected '" + shown + "': " + Visible(line));
        return false;
    }
    // Events come in the order of the daemon's sends; a refused one too.
    const size_t index = events_before + flushed_sends;
    WaitUntil([&] { return device_.CountRecords("event") > index; }, kOutcomeTimeout);
    const std::vector<nlohmann::json> events = device_.Records("event");
    if (events.size() <= index) {
        Say(reply, shown + ": sent, but the service shows no event");
    } else if (const int rc = events[index].value("rc", 0); rc != 0) {
        Say(reply, shown + ": refused by the service with return code " + std::to_string(rc));
    } else {
        Say(reply, shown + ": delivered as event #" + events[index]["seq"].dump() + " " +
                           events[index].value("probe", ""));
    }
    return true;
}

OwnerReply DeviceCommands::Service(const std::vector<std::string>& args) {
    OwnerReply reply;
    std::string answer;
    const bool done = device_.ServiceControl(args, &answer);
    answer = android::base::Trim(answer);
    if (!done) {
        if (StartsWith(answer, "error: ")) answer = answer.substr(strlen("error: "));
        return Fail(reply, answer.empty() ? "the event service does not answer" : answer);
    }
    Say(&reply, answer);
    if (args[0] == "active" && DaemonWaitsForService()) {
        Say(&reply, "the daemon can end now that the service is active");
        WaitForDaemonEnd(std::chrono::seconds(kDefaultStopSeconds), &reply);
    }
    return reply;
}

OwnerReply DeviceCommands::StopDaemon(const std::vector<std::string>& args) {
    OwnerReply reply;
    if (!device_.DaemonRunning()) return Fail(reply, "the daemon is not running");
    int seconds = kDefaultStopSeconds;
    for (size_t i = 0; i + 1 < args.size(); ++i) {
        if (args[i] == "--timeout") android::base::ParseInt(args[i + 1], &seconds);
    }
    const int signal_number = SignalNumber(args);
    Say(&reply, StringPrintf("sending SIG%s to the daemon (pid %d)", sigabbrev_np(signal_number),
                             device_.DaemonPid()));
    device_.SignalDaemon(signal_number);
    WaitForDaemonEnd(std::chrono::seconds(seconds), &reply);
    return reply;
}

void DeviceCommands::WaitForDaemonEnd(milliseconds timeout, OwnerReply* reply) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (device_.DaemonRunning() && std::chrono::steady_clock::now() < deadline) {
        // Past its end line only the readiness task holds the daemon; it ends once the
        // service is active.
        if (DaemonWaitsForService() && !ServiceActive()) {
            Say(reply,
                "the daemon has saved its cache and waits for the event service; make "
                "it active to let it end: tavi-device service active");
            return;
        }
        std::this_thread::sleep_for(100ms);
    }
    if (std::optional<int> status = device_.WaitForDaemonExit(0ms); status) {
        const std::string how = "the daemon ended: " + DescribeWaitStatus(*status);
        *status == 0 ? Say(reply, how) : void(*reply = Fail(*reply, how));
    } else if (DaemonWaitsForService() && ReadinessPaused()) {
        *reply = Fail(*reply,
                      "the daemon still waits for the event service: its readiness "
                      "task is in its one-minute pause");
    } else {
        *reply = Fail(*reply,
                      StringPrintf("the daemon (pid %d) still runs after %lld ms",
                                   device_.DaemonPid(), static_cast<long long>(timeout.count())));
    }
}

bool DeviceCommands::DaemonWaitsForService() {
    return device_.DaemonRunning() && device_.Log().IndexOf(kEndedLine) >= 0;
}

bool DeviceCommands::ReadinessPaused() {
    const std::vector<LogLine>& lines = device_.Log().Lines();
    auto last = std::find_if(lines.rbegin(), lines.rend(), [](const LogLine& line) {
        return StartsWith(line.text, kRetryPrefix);
    });
    return last != lines.rend() && StartsWith(last->text, kPausePrefix);
}

bool DeviceCommands::ServiceActive() {
    std::string answer;
    return device_.ServiceControl({"status"}, &answer) && StartsWith(answer, "state active");
}

OwnerReply DeviceCommands::Restart(const std::vector<std::string>& args) {
    OwnerReply reply;
    if (device_.DaemonRunning()) {
        reply = StopDaemon(args);
        if (device_.DaemonRunning()) return Fail(reply, "not restarted: the daemon still runs");
    }
    OwnerReply started = StartDaemon({});
    return {started.status, reply.out + started.out, reply.err + started.err};
}

OwnerReply DeviceCommands::Status() {
    OwnerReply reply;
    std::string service;
    device_.ServiceControl({"status"}, &service);
    Say(&reply, "state folder   " + device_.StateDir());
    Say(&reply, device_.AttributeMounted()
                        ? StringPrintf("attribute      mounted, %d record(s) pending",
                                       device_.PendingCount())
                        : "attribute      not mounted");
    Say(&reply,
        "event service  " + (device_.ServiceRunning() ? android::base::Split(service, "\n")[0]
                                                      : std::string("stopped")));
    std::string daemon = StringPrintf("running (pid %d)", device_.DaemonPid());
    if (DaemonWaitsForService()) daemon += ", past its end: waits for the event service";
    if (std::optional<int> status = device_.WaitForDaemonExit(0ms); status) {
        daemon = "ended: " + DescribeWaitStatus(*status);
    } else if (device_.DaemonPid() < 0) {
        daemon = "not started";
    }
    Say(&reply, "daemon         " + daemon);
    const std::string cache_path = device_.CachePath();
    std::string cache = "none";
    if (access(cache_path.c_str(), F_OK) == 0) DescribeCacheFile(cache_path, &cache);
    Say(&reply, "cache file     " + android::base::Split(cache, "\n")[0]);
    return reply;
}

OwnerReply DeviceCommands::Down() {
    OwnerReply reply;
    if (device_.DaemonRunning()) {
        reply = StopDaemon({"--timeout", "5"});
        if (DaemonWaitsForService() && device_.SetServiceActive(true)) {
            Say(&reply, "made the event service active for it");
            WaitForDaemonEnd(kDownTimeout, &reply);
        }
        // Whatever still holds it, its cache was saved before.
        if (device_.SignalDaemon(SIGKILL)) device_.WaitForDaemonExit(kDownTimeout);
    }
    device_.StopService();
    device_.StopAttribute();
    Say(&reply, "down; persist/ stays in " + device_.PersistDir());
    reply.status = 0;
    reply.owner_ends = true;
    return reply;
}

}  // namespace vendor::vesk::tavi::sim
