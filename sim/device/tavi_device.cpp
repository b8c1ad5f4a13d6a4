// SPDX-License-Identifier: Apache-2.0
// tavi-device: the simulated device by hand. `up` leaves the device with an owner process;
// later invocations hand their command to it over the socket in the state folder.
#include "tavi_device.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
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
using Args = std::vector<std::string>;

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
  cache [FILE]                   the cache file in persist/ (or FILE, left as it is), decoded
  demo                           the daemon's story on a fresh device, every step checked
  help                           this text

environment: TAVI_DEVICE_STATE (state folder, default /var/lib/tavi-device)
             TAVI_BUILD_DIR (where the programs were built)
)";

const Args kServiceCommands = {"active", "inactive", "ok", "refuse", "accept", "status", "fail"};
const std::string kOutcomePrefixes[] = {kSentPrefix, kCachedPrefix, kUnpackedPrefix,
                                        kUnparsedPrefix};
constexpr const char* kRetryPrefix = "UBO is not yet active or available";
constexpr milliseconds kOutcomeTimeout = 3s;
constexpr int kDefaultStopSeconds = 30;
constexpr int kExitUsage = 2;

bool Contains(const Args& words, const std::string& word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

void Say(OwnerReply* reply, const std::string& line) {
    reply->out += line + "\n";
}

OwnerReply Fail(OwnerReply& reply, const std::string& line) {
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

// The first line from `first` on that tells what became of a record, or -1. A cache flush
// replays other records; `sends` counts its sends before the line found.
int FindOutcome(const std::vector<LogLine>& lines, size_t first, size_t* sends) {
    bool flushing = false;
    *sends = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& text = lines[i].text;
        flushing = text == "Cache flush starting" || (flushing && text != "Cache flush ended");
        if (i < first) continue;
        const bool outcome =
                std::any_of(std::begin(kOutcomePrefixes), std::end(kOutcomePrefixes),
                            [&](const std::string& prefix) { return StartsWith(text, prefix); });
        if (!flushing && outcome) return static_cast<int>(i);
        *sends += StartsWith(text, kSentPrefix) ? 1 : 0;
    }
    return -1;
}

// Past its end line only the readiness task holds the daemon; it ends once the service is
// active.
bool DaemonWaitsForService(SimulatedDevice& device) {
    return device.DaemonRunning() && device.Log().IndexOf("tavi_daemon ended") >= 0;
}

bool ServiceActive(SimulatedDevice& device) {
    std::string answer;
    return device.ServiceControl({"status"}, &answer) && StartsWith(answer, "state active");
}

// One record's outcome from the daemon's lines after `first_line`.
void ReportOutcome(SimulatedDevice& device, const std::string& shown, size_t first_line,
                   size_t events_before, OwnerReply* reply) {
    LogReader& log = device.Log();
    int found = -1;
    size_t flushed_sends = 0;
    WaitUntil(
            [&] {
                found = FindOutcome(log.Lines(), first_line, &flushed_sends);
                return found >= 0 || !device.DaemonRunning();
            },
            kOutcomeTimeout);
    if (found < 0) {
        const std::optional<int> status = device.WaitForDaemonExit(0ms);
        Fail(*reply, status ? "the daemon ended on '" + shown + "': " + DescribeWaitStatus(*status)
                            : "no outcome logged for '" + shown +
                                      "' within 3 s (a category that no handler takes?)");
        return;
    }
    const std::string line = log.Lines()[found].text;
    if (StartsWith(line, kCachedPrefix)) {
        // A full cache is reported right after the line that stores the record.
        const bool full = WaitUntil(
                [&] { return log.IndexOf("Cache size limit, ignoring", found) >= 0; }, 100ms);
        return Say(reply,
                   shown + ": " + (full ? "refused at the cache limit" : "kept in the cache"));
    }
    if (!StartsWith(line, kSentPrefix)) {
        return void(Fail(*reply, "the daemon rejected '" + shown + "': " + Visible(line)));
    }
    // Events come in the order of the daemon's sends; a refused one too.
    const size_t index = events_before + flushed_sends;
    WaitUntil([&] { return device.CountRecords("event") > index; }, kOutcomeTimeout);
    const std::vector<nlohmann::json> events = device.Records("event");
    if (events.size() <= index) {
        Say(reply, shown + ": sent, but the service shows no event");
    } else if (const int rc = events[index].value("rc", 0); rc != 0) {
        Say(reply, shown + ": refused by the service with return code " + std::to_string(rc));
    } else {
        Say(reply, shown + ": delivered as event #" + events[index]["seq"].dump() + " " +
                           events[index].value("probe", ""));
    }
}

// Waits up to `timeout` for the daemon to end, unless it waits for an inactive service.
void WaitForDaemonEnd(SimulatedDevice& device, milliseconds timeout, OwnerReply* reply) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (device.DaemonRunning() && std::chrono::steady_clock::now() < deadline) {
        if (DaemonWaitsForService(device) && !ServiceActive(device)) {
            return Say(reply,
                       "the daemon has saved its cache and waits for the event service; make "
                       "it active to let it end: tavi-device service active");
        }
        std::this_thread::sleep_for(100ms);
    }
    const std::vector<LogLine>& lines = device.Log().Lines();
    auto last_retry = std::find_if(lines.rbegin(), lines.rend(), [](const LogLine& line) {
        return StartsWith(line.text, kRetryPrefix);
    });
    if (std::optional<int> status = device.WaitForDaemonExit(0ms); status) {
        const std::string how = "the daemon ended: " + DescribeWaitStatus(*status);
        *status == 0 ? Say(reply, how) : void(Fail(*reply, how));
    } else if (DaemonWaitsForService(device) && last_retry != lines.rend() &&
               StartsWith(last_retry->text, kRetryPrefix + std::string(" after "))) {
        Fail(*reply,
             "the daemon still waits for the event service: its readiness task is in its "
             "one-minute pause");
    } else {
        Fail(*reply, StringPrintf("the daemon (pid %d) still runs after %lld ms",
                                  device.DaemonPid(), static_cast<long long>(timeout.count())));
    }
}

OwnerReply Up(SimulatedDevice& device, const Args& args) {
    OwnerReply reply;
    const bool active = Contains(args, "--active");
    for (const std::string& file : {device.LogPath(), device.EventsPath()}) {
        (void)rename(file.c_str(), (file + ".old").c_str());
    }
    if (std::string failure = device.Start(active); !failure.empty()) {
        reply.owner_ends = true;  // a device that did not come up needs no owner
        return Fail(reply, "up failed: " + failure);
    }
    Say(&reply, StringPrintf("up in %s: attribute %s/sysfs/log, event service %s, daemon pid %d",
                             device.StateDir().c_str(), device.RunDir().c_str(),
                             active ? "active" : "inactive", device.DaemonPid()));
    return reply;
}

OwnerReply StartDaemon(SimulatedDevice& device, const Args& args) {
    OwnerReply reply;
    const bool with_attribute = !Contains(args, "--no-attribute");
    if (device.DaemonRunning()) {
        return Fail(reply, StringPrintf("the daemon already runs (pid %d)", device.DaemonPid()));
    }
    std::string failure = device.StartDaemon(with_attribute);
    if (std::optional<int> status = device.WaitForDaemonExit(0ms); status) {
        failure += (failure.empty() ? "the daemon ended: " : "; the daemon ended: ") +
                   DescribeWaitStatus(*status) + " (see tavi-device logs)";
    }
    if (!failure.empty()) return Fail(reply, failure);
    Say(&reply, StringPrintf("daemon started (pid %d)%s", device.DaemonPid(),
                             with_attribute ? ", polling" : " without the attribute"));
    return reply;
}

OwnerReply Inject(SimulatedDevice& device, const Args& args) {
    OwnerReply reply;
    const bool raw = args[0] == "--raw";
    const bool daemon_runs = device.DaemonRunning();
    for (auto record = args.begin() + (raw ? 1 : 0); record != args.end(); ++record) {
        const size_t events_before = device.CountRecords("event");
        const size_t first_line = device.Log().Lines().size();
        if (!device.Inject(RecordBytes(*record, raw))) {
            Fail(reply, "could not write '" + *record + "' to the attribute");
        } else if (daemon_runs) {
            ReportOutcome(device, *record, first_line, events_before, &reply);
            if (!device.DaemonRunning()) break;
        }
    }
    if (!daemon_runs) {
        return Fail(reply, StringPrintf("no daemon runs; the attribute holds %d pending "
                                        "record(s) until one starts",
                                        device.PendingCount()));
    }
    return reply;
}

OwnerReply Service(SimulatedDevice& device, const Args& args) {
    OwnerReply reply;
    std::string answer;
    const bool done = device.ServiceControl(args, &answer);
    answer = android::base::Trim(answer);
    if (!done) {
        if (StartsWith(answer, "error: ")) answer = answer.substr(strlen("error: "));
        return Fail(reply, answer.empty() ? "the event service does not answer" : answer);
    }
    Say(&reply, answer);
    if (args[0] == "active" && DaemonWaitsForService(device)) {
        Say(&reply, "the daemon can end now that the service is active");
        WaitForDaemonEnd(device, std::chrono::seconds(kDefaultStopSeconds), &reply);
    }
    return reply;
}

OwnerReply StopDaemon(SimulatedDevice& device, const Args& args) {
    OwnerReply reply;
    if (!device.DaemonRunning()) return Fail(reply, "the daemon is not running");
    int seconds = kDefaultStopSeconds;
    auto timeout = std::find(args.begin(), args.end(), "--timeout");
    if (timeout != args.end()) android::base::ParseInt(*(timeout + 1), &seconds);
    const int signal_number = Contains(args, "INT") ? SIGINT : SIGTERM;
    Say(&reply, StringPrintf("sending SIG%s to the daemon (pid %d)", sigabbrev_np(signal_number),
                             device.DaemonPid()));
    device.SignalDaemon(signal_number);
    WaitForDaemonEnd(device, std::chrono::seconds(seconds), &reply);
    return reply;
}

OwnerReply Restart(SimulatedDevice& device, const Args& args) {
    OwnerReply reply;
    if (device.DaemonRunning()) {
        reply = StopDaemon(device, args);
        if (device.DaemonRunning()) return Fail(reply, "not restarted: the daemon still runs");
    }
    OwnerReply started = StartDaemon(device, {});
    return {started.status, reply.out + started.out, reply.err + started.err};
}

OwnerReply Status(SimulatedDevice& device, const Args& /*args*/) {
    std::string service = "stopped", cache = "none";
    if (device.ServiceRunning()) device.ServiceControl({"status"}, &service);
    std::string daemon = StringPrintf("running (pid %d)", device.DaemonPid());
    if (DaemonWaitsForService(device)) daemon += ", past its end: waits for the event service";
    if (std::optional<int> status = device.WaitForDaemonExit(0ms); status) {
        daemon = "ended: " + DescribeWaitStatus(*status);
    } else if (device.DaemonPid() < 0) {
        daemon = "not started";
    }
    const std::string cache_file = device.CachePath();
    if (access(cache_file.c_str(), F_OK) == 0) DescribeCacheFile(cache_file, &cache);
    const std::string attribute =
            device.AttributeMounted()
                    ? StringPrintf("mounted, %d record(s) pending", device.PendingCount())
                    : "not mounted";
    return {0, StringPrintf("state folder   %s\nattribute      %s\nevent service  %s\n"
                            "daemon         %s\ncache file     %s\n",
                            device.StateDir().c_str(), attribute.c_str(),
                            android::base::Split(service, "\n")[0].c_str(), daemon.c_str(),
                            android::base::Split(cache, "\n")[0].c_str())};
}

OwnerReply Down(SimulatedDevice& device, const Args& /*args*/) {
    OwnerReply reply;
    if (device.DaemonRunning()) {
        reply = StopDaemon(device, {"--timeout", "5"});
        if (DaemonWaitsForService(device) && device.SetServiceActive(true)) {
            Say(&reply, "made the event service active for it");
            WaitForDaemonEnd(device, 5s, &reply);
        }
        // Whatever still holds it, its cache was saved before.
        if (device.SignalDaemon(SIGKILL)) device.WaitForDaemonExit(5s);
    }
    device.StopService();
    device.StopAttribute();
    Say(&reply, "down; persist/ stays in " + device.PersistDir());
    return {0, reply.out, reply.err, /*owner_ends=*/true};
}

using Handler = OwnerReply (*)(SimulatedDevice&, const Args&);

// A command's optional words (inject and service are checked apart) and what runs it on the
// device; those without run in the caller.
struct Command {
    Args options;
    Handler on_device = nullptr;
};

const std::map<std::string, Command> kCommands = {
        {"up", {{"--active"}, Up}},
        {"start-daemon", {{"--no-attribute"}, StartDaemon}},
        {"inject", {{}, Inject}},
        {"service", {{}, Service}},
        {"stop-daemon", {{"TERM", "INT", "--timeout"}, StopDaemon}},
        {"restart", {{"TERM", "INT"}, Restart}},
        {"status", {{}, Status}},
        {"down", {{}, Down}},
        {"logs", {{"-f"}}},
        {"events", {}},
        {"cache", {}},
        {"demo", {}},
        {"help", {}}};

std::string CheckCommand(const Args& words) {
    const std::string& command = words[0];
    const Args args(words.begin() + 1, words.end());
    if (kCommands.count(command) == 0) return "unknown command '" + command + "'";
    if (command == "inject") {
        const size_t first = !args.empty() && args[0] == "--raw" ? 1 : 0;
        return args.size() > first ? "" : "inject needs at least one RECORD";
    }
    if (command == "cache") return args.size() <= 1 ? "" : "cache takes at most one FILE";
    if (command == "service") {
        const bool fits = !args.empty() && Contains(kServiceCommands, args[0]) &&
                          args.size() == (args[0] == "fail" ? 2U : 1U);
        return fits ? "" : "service takes active|inactive|fail CODE|ok|refuse|accept|status";
    }
    for (size_t i = 0; i < args.size(); ++i) {
        int seconds = 0;
        if (!Contains(kCommands.at(command).options, args[i])) {
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

// `logs`, `events` and `cache [FILE]`, read from the state folder's files.
OwnerReply ShowState(const Args& words, const std::string& state_dir) {
    const std::string& command = words[0];
    const std::string path = state_dir + (command == "logs"     ? "/daemon.log"
                                          : command == "events" ? "/events.jsonl"
                                                                : "/persist");
    const bool own_file = words.size() == 1;
    const std::string cache_file = own_file ? path + "/cache.bin" : words[1];
    OwnerReply reply;
    if (own_file && access(path.c_str(), F_OK) != 0) {
        return Fail(reply, "nothing has run yet in " + state_dir + " (no " + path + ")");
    }
    if (command == "logs") {
        android::base::ReadFileToString(path, &reply.out);
    } else if (command == "events") {
        for (const nlohmann::json& record : EventReader(path).ReadNew()) {
            Say(&reply, DescribeRecord(record));
        }
    } else if (own_file && access(cache_file.c_str(), F_OK) != 0) {
        Say(&reply, "no cache file (" + cache_file + ")");
    } else if (std::string text; DescribeCacheFile(cache_file, &text)) {
        reply.out = text;
    } else {
        return Fail(reply, text);
    }
    return reply;
}

std::string FromEnvironment(const char* name, const char* fallback) {
    const char* value = getenv(name);
    return value != nullptr && *value != '\0' ? value : fallback;
}

int Print(const OwnerReply& reply) {
    fputs(reply.out.c_str(), stdout);
    fputs(reply.err.c_str(), stderr);
    return reply.status;
}

int PrintError(const std::string& message) {
    return Print({kExitFailure, "", "tavi-device: " + message + "\n"});
}

int BringUp(const std::vector<std::string>& words, const std::string& state_dir,
            const Binaries& binaries) {
    const std::string socket = state_dir + "/owner.sock";
    if (AskOwner(socket, {"status"})) {
        return PrintError("already up in " + state_dir + "; run 'tavi-device down' first");
    }
    if (std::string reason = SimulatedDevice::Availability(binaries); !reason.empty()) {
        return PrintError(reason);
    }
    mkdir(state_dir.c_str(), 0755);
    // The device lives in the owner; a reply that ends the owner ends it first.
    std::optional<SimulatedDevice> device;
    auto handle = [&](const std::vector<std::string>& request) {
        if (!device) device.emplace(state_dir, binaries);
        OwnerReply reply = RunCommand(*device, request);
        if (reply.owner_ends) device.reset();
        return reply;
    };
    return Print(StartOwner(socket, state_dir + "/owner.log", handle, words));
}

// `logs -f`: the daemon's log as it grows, until interrupted; by name, so that the log of a
// new `up` is followed once the old one is moved aside.
int FollowLog(const std::string& state_dir) {
    const std::string path = state_dir + "/daemon.log";
    execl("/usr/bin/tail", "tail", "-n", "+1", "-F", path.c_str(), nullptr);
    return PrintError("cannot run /usr/bin/tail: " + std::string(strerror(errno)));
}

int Main(const std::vector<std::string>& words) {
    if (words.empty()) return Print({kExitUsage, "", kUsage});
    if (words[0] == "help" || words[0] == "--help" || words[0] == "-h") return Print({0, kUsage});
    if (std::string error = CheckCommand(words); !error.empty()) {
        return Print({kExitUsage, "",
                      "tavi-device: " + error +
                              "\ntavi-device: 'tavi-device help' lists the commands\n"});
    }
    // Absolute, since the owner outlives the caller's working folder.
    std::error_code error;
    const std::string state_dir = std::filesystem::absolute(
            FromEnvironment("TAVI_DEVICE_STATE", "/var/lib/tavi-device"), error);
    const Binaries binaries = Binaries::InBuildDir(TAVI_DEFAULT_BUILD_DIR);  // or TAVI_BUILD_DIR
    // `up` makes the device's owner; the others on the device ask it.
    if (words[0] != "up" && kCommands.at(words[0]).on_device != nullptr) {
        if (std::optional<OwnerReply> reply = AskOwner(state_dir + "/owner.sock", words)) {
            return Print(*reply);
        }
        if (words[0] == "down" || words[0] == "status") {
            return Print({0, "nothing is up in " + state_dir + "\n"});
        }
        return PrintError("the device is not up in " + state_dir + "; run 'tavi-device up' first");
    }
    if (words[0] == "up") return BringUp(words, state_dir, binaries);
    if (words[0] == "demo") return RunDemo(state_dir, binaries);
    if (words[0] == "logs" && words.size() == 2) return FollowLog(state_dir);  // logs -f
    return Print(ShowState(words, state_dir));
}

}  // namespace

OwnerReply RunCommand(SimulatedDevice& device, const Args& words) {
    const Handler on_device = kCommands.at(words[0]).on_device;
    if (on_device == nullptr) return ShowState(words, device.StateDir());
    return on_device(device, {words.begin() + 1, words.end()});
}

std::string Visible(std::string text) {
    static const char* const kControls[][2] = {{"\n", "\\n"}, {"\r", "\\r"}, {"\t", "\\t"}};
    for (const auto& control : kControls) {
        text = android::base::StringReplace(text, control[0], control[1], true);
    }
    return text;
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

}  // namespace vendor::vesk::tavi::sim

int main(int argc, char** argv) {
    // A reply to a caller that went away must not end the owner or the caller.
    (void)signal(SIGPIPE, SIG_IGN);
    return vendor::vesk::tavi::sim::Main({argv + 1, argv + argc});
}
