// SPDX-License-Identifier: Apache-2.0

#include "device_harness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include <android-base/strings.h>
#include <android-base/unique_fd.h>

extern char** environ;

namespace vendor::vesk::tavi::testing {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kPollInterval(10);

std::vector<char*> CStrings(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    pointers.reserve(strings.size() + 1);
    for (std::string& string : strings) pointers.push_back(string.data());
    pointers.push_back(nullptr);
    return pointers;
}

// Starts `args` with stdin from /dev/null and stdout and stderr into `output_path`, with
// `env` ahead of this process's environment. Returns the pid, or -1.
pid_t Spawn(std::vector<std::string> args, std::vector<std::string> env,
            const std::string& output_path) {
    for (char** entry = environ; *entry != nullptr; ++entry) env.push_back(*entry);
    std::vector<char*> argv = CStrings(args);
    std::vector<char*> envp = CStrings(env);
    android::base::unique_fd input(open("/dev/null", O_RDONLY | O_CLOEXEC));
    android::base::unique_fd output(
            open(output_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!input.ok() || !output.ok()) return -1;
    pid_t pid = fork();
    if (pid != 0) return pid;
    // Child: async-signal-safe calls only. No core file from the daemon's deliberate abort.
    dup2(input.get(), STDIN_FILENO);
    dup2(output.get(), STDOUT_FILENO);
    dup2(output.get(), STDERR_FILENO);
    const rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    // Every disposition at its default, as init leaves it: a signal ignored here would never
    // reach the daemon.
    for (int signal_number = 1; signal_number < NSIG; ++signal_number) {
        (void)signal(signal_number, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
}

std::optional<int> Reap(pid_t pid, milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    do {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) return status;
        std::this_thread::sleep_for(kPollInterval);
    } while (Clock::now() < deadline);
    return std::nullopt;
}

void StopProcess(pid_t pid, int signal_number) {
    kill(pid, signal_number);
    if (Reap(pid, 3s)) return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

// Runs `args` to its end, within 10 s: true when it exits with 0.
bool RunToSuccess(std::vector<std::string> args, const std::string& output_path) {
    pid_t pid = Spawn(std::move(args), {}, output_path);
    if (pid < 0) return false;
    std::optional<int> status = Reap(pid, 10s);
    if (!status) StopProcess(pid, SIGKILL);
    return status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
}

// The value of a string member, e.g. "probe":"TaviDisplayShort"; the simulator writes
// none of the members read here with escapes.
std::string JsonString(const std::string& line, const std::string& key) {
    const std::string opening = "\"" + key + "\":\"";
    size_t start = line.find(opening);
    if (start == std::string::npos) return "";
    start += opening.size();
    return line.substr(start, line.find('"', start) - start);
}

std::string ProbeAvailability() {
    if (geteuid() != 0) return "the simulated device needs root (mount namespace, FUSE)";
    if (std::string reason = SysfsEmulator::Availability(); !reason.empty()) return reason;
    // The launcher needs unshare(1) and mounts in a new namespace, which not every host allows.
    TemporaryDir persist;
    const std::string output = std::string(persist.path) + "/launcher.out";
    if (RunToSuccess({TAVI_NS_EXEC, "--persist", persist.path, "--no-attribute", "--", "/bin/true"},
                     output)) {
        return "";
    }
    return "the namespace launcher failed (unshare or mount not usable here): " + ReadFile(output);
}

}  // namespace

std::string ReadFile(const std::string& path) {
    std::string content;
    android::base::ReadFileToString(path, &content);
    return content;
}

std::string SimulatedDevice::Availability() {
    static const std::string reason = ProbeAvailability();
    return reason;
}

// The persist folder exists from the start, so a test can leave an earlier run's cache file.
SimulatedDevice::SimulatedDevice() {
    mkdir(PersistDir().c_str(), 0700);
}

SimulatedDevice::~SimulatedDevice() {
    if (DaemonAlive()) StopProcess(daemon_, SIGKILL);
    if (service_ > 0) StopProcess(service_, SIGTERM);
}

std::string SimulatedDevice::Start(bool service_active, bool with_attribute) {
    if (with_attribute) {
        if (std::string failure = attribute_.Start(); !failure.empty()) return failure;
    }
    if (std::string failure = RestartService(service_active); !failure.empty()) return failure;
    with_attribute_ = with_attribute;
    return StartDaemon();
}

std::string SimulatedDevice::RestartService(bool active) {
    if (service_ > 0) StopProcess(service_, SIGTERM);
    const std::string socket = dir_ + "/ubo.sock";
    std::vector<std::string> service = {UBO_SIM_BINARY, "--socket", socket, "--events",
                                        dir_ + "/events.jsonl"};
    if (active) service.push_back("--active");
    service_ = Spawn(service, {}, dir_ + "/service.out");
    auto listening = [this] {
        return ReadFile(dir_ + "/service.out").find("listening") != std::string::npos;
    };
    if (service_ < 0 || !WaitUntil(listening, 5s)) return "ubo_sim did not listen on " + socket;
    return "";
}

std::string SimulatedDevice::StartDaemon() {
    if (DaemonAlive()) return "the previous daemon still runs";
    std::vector<std::string> daemon = {TAVI_NS_EXEC, "--persist", PersistDir()};
    if (with_attribute_) {
        daemon.insert(daemon.end(), {"--log", attribute_.LogPath()});
    } else {
        daemon.push_back("--no-attribute");
    }
    daemon.insert(daemon.end(), {"--", TAVI_DAEMON_BINARY});
    daemon_status_.reset();
    log_lines_.clear();
    log_bytes_read_ = 0;
    daemon_ = Spawn(daemon, {"UBO_SIM_SOCKET=" + dir_ + "/ubo.sock"}, dir_ + "/daemon.log");
    // Without the attribute the poll loop never starts; the first line is all there is.
    const std::string started = with_attribute_ ? "poll() loop starting" : "tavi_daemon starting";
    if (daemon_ < 0 || !WaitForLogLine(started, 5s)) return "the daemon did not log " + started;
    return "";
}

bool SimulatedDevice::ServiceControl(const std::vector<std::string>& command) const {
    std::vector<std::string> args = {UBO_SIMCTL_BINARY, "--socket", dir_ + "/ubo.sock"};
    args.insert(args.end(), command.begin(), command.end());
    return RunToSuccess(args, dir_ + "/simctl.out");
}

bool SimulatedDevice::Signal(int signal_number) const {
    return daemon_ > 0 && !daemon_status_ && kill(daemon_, signal_number) == 0;
}

bool SimulatedDevice::DaemonAlive() {
    if (daemon_ <= 0 || daemon_status_) return false;
    int status = 0;
    if (waitpid(daemon_, &status, WNOHANG) != daemon_) return true;
    daemon_status_ = status;
    return false;
}

std::optional<int> SimulatedDevice::WaitForExit(milliseconds timeout) {
    WaitUntil([this] { return !DaemonAlive(); }, timeout);
    return daemon_status_;
}

bool SimulatedDevice::WaitForLogLine(const std::string& text, milliseconds timeout) {
    return WaitUntil([&] { return LineIndex(text) >= 0; }, timeout);
}

bool SimulatedDevice::WaitForRecords(const std::string& kind, size_t count, milliseconds timeout) {
    return WaitUntil([&] { return CountRecords(kind) >= count; }, timeout);
}

const std::vector<LogLine>& SimulatedDevice::LogLines() {
    ReadNewLogLines();
    return log_lines_;
}

std::vector<LogLine> SimulatedDevice::LinesReading(const std::string& text) {
    std::vector<LogLine> matching;
    for (const LogLine& line : LogLines()) {
        if (line.text == text) matching.push_back(line);
    }
    return matching;
}

size_t SimulatedDevice::CountLinesStartingWith(const std::string& prefix) {
    size_t count = 0;
    for (const LogLine& line : LogLines()) {
        if (line.text.compare(0, prefix.size(), prefix) == 0) ++count;
    }
    return count;
}

bool SimulatedDevice::WaitForLinesStartingWith(const std::string& prefix, size_t count,
                                               milliseconds timeout) {
    return WaitUntil([&] { return CountLinesStartingWith(prefix) >= count; }, timeout);
}

int SimulatedDevice::LineIndex(const std::string& text) {
    const std::vector<LogLine>& lines = LogLines();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].text == text) return static_cast<int>(i);
    }
    return -1;
}

std::vector<ServiceRecord> SimulatedDevice::Records(const std::string& kind) const {
    std::vector<ServiceRecord> records;
    for (const std::string& line : android::base::Split(ReadFile(dir_ + "/events.jsonl"), "\n")) {
        if (JsonString(line, "kind") != kind) continue;
        records.push_back({JsonString(line, "source"), JsonString(line, "probe"),
                           JsonString(line, "payload_hex")});
    }
    return records;
}

// Reads the log on every pass, so that each line's `seen` is within one pass of its writing.
bool SimulatedDevice::WaitUntil(const std::function<bool()>& condition, milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (true) {
        ReadNewLogLines();
        if (condition()) return true;
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(kPollInterval);
    }
}

// "tavi_daemon I 11-22 22:20:31  2903  2903 main.cpp:110] text"
void SimulatedDevice::ReadNewLogLines() {
    std::string text = ReadFile(dir_ + "/daemon.log");
    const auto now = Clock::now();
    size_t start = log_bytes_read_;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        const std::string line = text.substr(start, end - start);
        const size_t space = line.find(' '), text_start = line.find("] ");
        if (space == std::string::npos || text_start == std::string::npos) {
            log_lines_.push_back({'?', line, now});
        } else {
            log_lines_.push_back({line[space + 1], line.substr(text_start + 2), now});
        }
    }
    log_bytes_read_ = start;
}

}  // namespace vendor::vesk::tavi::testing
