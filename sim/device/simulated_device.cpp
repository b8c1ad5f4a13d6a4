// SPDX-License-Identifier: Apache-2.0
#include "simulated_device.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>

#include "ubo_protocol.h"

namespace vendor::vesk::tavi::sim {
namespace {

using namespace std::chrono_literals;

// What a file holds past `offset`; logs grow, so only the new part is read.
std::string ReadFrom(const std::string& path, size_t offset) {
    android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string content;
    if (!fd.ok() || lseek(fd.get(), static_cast<off_t>(offset), SEEK_SET) < 0 ||
        !android::base::ReadFdToString(fd.get(), &content)) {
        return "";
    }
    return content;
}

// The whole lines appended past `offset`, which moves past them; a line still being written
// waits for the next call.
std::vector<std::string> NewLines(const std::string& path, size_t& offset) {
    std::vector<std::string> lines = android::base::Split(ReadFrom(path, offset), "\n");
    for (const std::string& line : lines) offset += line.size() + 1;
    offset -= lines.back().size() + 1;
    lines.pop_back();
    return lines;
}

size_t FileSize(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
}

// The module's queue is one for the whole machine: what an earlier user left is read away. Each
// open and read takes one record; the queue holds 128 at most.
std::string DrainKernelQueue(const std::string& log_path) {
    std::string record;
    for (int reads = 0; reads <= 1000; ++reads) {
        if (!android::base::ReadFileToString(log_path, &record)) {
            return log_path + ": " + strerror(errno);
        }
        if (record.empty()) return "";
    }
    return log_path + " does not run empty";
}

}  // namespace

bool OnKernelAttribute(std::string* failure) {
    const char* value = getenv("TAVI_ATTRIBUTE");
    const std::string name = value != nullptr ? value : "";
    if (failure != nullptr && !name.empty() && name != "emulator" && name != "kernel") {
        *failure =
                "TAVI_ATTRIBUTE is \"emulator\" (the default) or \"kernel\", not \"" + name + "\"";
    }
    return name == "kernel";
}

int WaitScale(std::string* failure) {
    const char* value = getenv("TAVI_WAIT_SCALE");
    int scale = 1;
    if (value == nullptr || android::base::ParseInt(value, &scale, 1)) return scale;
    if (failure != nullptr) {
        *failure = "TAVI_WAIT_SCALE is a positive integer, not \"" + std::string(value) + "\"";
    }
    return 1;
}

Binaries Binaries::InBuildDir(const std::string& build_dir) {
    const char* setting = getenv("TAVI_BUILD_DIR");
    const std::string dir = setting != nullptr && *setting != '\0' ? setting : build_dir;
    return {dir + "/sim/sysfs_emu/tavi_sysfs_emu", dir + "/sim/ubo_service/ubo_sim",
            dir + "/src/tavi_daemon"};
}

Attribute::Attribute(const std::string& emulator, const std::string& run_dir) {
    if (OnKernelAttribute(&failure_)) {
        dir_ = "/sys/kernel/tavi";
    } else {
        emulator_ = emulator;
        dir_ = run_dir + "/sysfs";
        output_ = run_dir + "/sysfs_emu.out";
    }
}

std::string Attribute::Start() {
    if (!failure_.empty()) return failure_;
    if (started_) return LogPath() + " is already started";
    started_ = true;  // so that Stop() undoes a failed start
    std::string failure = emulator_.empty() ? DrainKernelQueue(LogPath()) : Mount();
    if (!failure.empty()) Stop();
    return failure;
}

std::string Attribute::Mount() {
    mkdir(dir_.c_str(), 0755);
    std::string failure = process_.Start({emulator_, "-f", dir_}, output_);
    // Mounted once its `pending` file answers.
    if (failure.empty() &&
        !WaitUntil([&] { return !process_.Running() || PendingCount() >= 0; }, 5s)) {
        failure = "tavi_sysfs_emu did not mount " + dir_;
    } else if (failure.empty() && !process_.Running()) {
        failure = "tavi_sysfs_emu " + DescribeWaitStatus(*process_.Wait(0ms)) + " before mounting";
    }
    return failure;
}

void Attribute::Stop() {
    if (started_ && !emulator_.empty()) {
        // SIGTERM makes the emulator leave its session loop and unmount; a killed one leaves its
        // mount behind.
        process_.Stop(SIGTERM, 3s);
        umount2(dir_.c_str(), MNT_DETACH);
    }
    started_ = false;
}

// Only the module's queue fills up: it refuses a record until the reader has taken one, so a
// burst the daemon is draining waits for room. Any other refusal is the record's own.
bool Attribute::Inject(const std::string& record) const {
    android::base::unique_fd inject(open((dir_ + "/inject").c_str(), O_WRONLY | O_CLOEXEC));
    if (!started_ || !inject.ok() || record.empty()) return false;
    bool written = false;
    WaitUntil(
            [&] {
                const ssize_t size =
                        TEMP_FAILURE_RETRY(write(inject.get(), record.data(), record.size()));
                written = size == static_cast<ssize_t>(record.size());
                return written || errno != ENOSPC;
            },
            5s);
    return written;
}

int Attribute::PendingCount() const {
    std::string text;
    int count = -1;
    android::base::ReadFileToString(dir_ + "/pending", &text);
    return android::base::ParseInt(android::base::Trim(text), &count, 0) ? count : -1;
}

// "tavi_daemon I 11-22 22:20:31  2903  2903 main.cpp:110] text"
const std::vector<LogLine>& LogReader::Lines() {
    const auto now = std::chrono::steady_clock::now();
    for (std::string& line : NewLines(path_, offset_)) {
        const size_t space = line.find(' '), text_start = line.find("] ");
        const bool parsed = space != std::string::npos && text_start != std::string::npos;
        lines_.push_back({parsed ? line[space + 1] : '?',
                          parsed ? line.substr(text_start + 2) : std::move(line), now});
    }
    return lines_;
}

int LogReader::IndexOf(const std::string& text, size_t from) {
    const std::vector<LogLine>& lines = Lines();
    const auto found = std::find_if(lines.begin() + std::min(from, lines.size()), lines.end(),
                                    [&](const LogLine& line) { return line.text == text; });
    return found == lines.end() ? -1 : static_cast<int>(found - lines.begin());
}

bool LogReader::WaitForLine(const std::string& text, milliseconds timeout) {
    return WaitUntil([&] { return IndexOf(text) >= 0; }, timeout);
}

std::vector<nlohmann::json> EventReader::ReadNew() {
    std::vector<nlohmann::json> records;
    for (const std::string& line : NewLines(path_, offset_)) {
        nlohmann::json record = nlohmann::json::parse(line, nullptr, /*allow_exceptions=*/false);
        if (!record.is_discarded()) records.push_back(std::move(record));
    }
    return records;
}

SimulatedDevice::SimulatedDevice(std::string state_dir, Binaries binaries)
    : state_dir_(std::move(state_dir)),
      binaries_(std::move(binaries)),
      attribute_(binaries_.sysfs_emu, RunDir()) {
    for (const std::string& dir : {state_dir_, PersistDir(), RunDir()}) mkdir(dir.c_str(), 0700);
}

SimulatedDevice::~SimulatedDevice() {
    daemon_.Stop(SIGKILL, 0ms);
    StopService();
    StopAttribute();
}

std::string SimulatedDevice::Availability(const Binaries& binaries) {
    static const std::string reason = [&]() -> std::string {
        std::string failure;
        const bool kernel = OnKernelAttribute(&failure);
        WaitScale(&failure);
        if (!failure.empty()) return failure;
        if (geteuid() != 0) {
            return kernel ? "the simulated device needs root (mount namespaces, the module's files)"
                          : "the simulated device needs root (FUSE, mount namespaces)";
        }
        if (kernel && access("/sys/kernel/tavi/inject", F_OK) != 0) {
            return std::string("/sys/kernel/tavi/inject: ") + strerror(errno) +
                   " (is tavi_log loaded with allow_inject=1?)";
        }
        std::vector<std::string> needed = {binaries.ubo_sim, binaries.daemon};
        if (!kernel) {
            android::base::unique_fd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC));
            if (!fuse.ok()) return std::string("/dev/fuse: ") + strerror(errno);
            needed.push_back(binaries.sysfs_emu);
        }
        for (const std::string& binary : needed) {
            if (access(binary.c_str(), X_OK) != 0) return binary + ": " + strerror(errno);
        }
        TemporaryDir dir;
        Attribute attribute(binaries.sysfs_emu, dir.path);
        if (failure = attribute.Start(); !failure.empty()) {
            return "the attribute did not start: " + failure;
        }
        // Not every host lets a process mount in a namespace of its own.
        Process trial;
        const std::string output = std::string(dir.path) + "/trial.out";
        const DeviceMounts mounts{dir.path, attribute.LogPath()};
        failure = trial.Start({"/bin/true"}, output, {}, mounts);
        if (failure.empty() && trial.Wait(10s) == 0) return "";
        return "the device's mount namespace cannot be set up here: " + failure +
               ReadFrom(output, 0);
    }();
    return reason;
}

std::string SimulatedDevice::StartService(bool active) {
    StopService();
    const std::string output = RunDir() + "/ubo_sim.out";
    const size_t offset = FileSize(output);
    EventReader records(EventsPath(), FileSize(EventsPath()));
    std::vector<std::string> argv = {binaries_.ubo_sim, "--socket", SocketPath(), "--events",
                                     EventsPath()};
    if (active) argv.push_back("--active");
    std::string failure = service_.Start(argv, output);
    // Its own start record: a simulator already serving there makes this one give up.
    bool started = false;
    auto listening = [&] {
        for (const nlohmann::json& record : records.ReadNew()) {
            started = started || record.value("kind", "") == "started";
        }
        return started || !service_.Running();
    };
    if (failure.empty() && (!WaitUntil(listening, 5s) || !started)) {
        failure = "ubo_sim did not listen on " + SocketPath() + ": " + ReadFrom(output, offset);
    }
    if (!failure.empty()) StopService();
    return failure;
}

std::string SimulatedDevice::StartDaemon(bool with_attribute) {
    if (daemon_.Running()) return "the daemon already runs as pid " + std::to_string(DaemonPid());
    if (with_attribute && !attribute_.Started()) return "the attribute is not started";
    log_ = LogReader(LogPath(), FileSize(LogPath()));
    const DeviceMounts mounts{PersistDir(), with_attribute ? attribute_.LogPath() : ""};
    std::string failure = daemon_.Start({binaries_.daemon}, LogPath(),
                                        {"UBO_SIM_SOCKET=" + SocketPath()}, mounts);
    // Without the attribute the poll loop never starts; the first line is all there is.
    const std::string started = with_attribute ? "poll() loop starting" : "tavi_daemon starting";
    if (failure.empty() && !log_.WaitForLine(started, 10s)) {
        failure = "the daemon did not log " + started;
    }
    return failure;
}

std::string SimulatedDevice::Start(bool service_active, bool with_attribute) {
    if (with_attribute) {
        if (std::string failure = StartAttribute(); !failure.empty()) return failure;
    }
    if (std::string failure = StartService(service_active); !failure.empty()) return failure;
    return StartDaemon(with_attribute);
}

bool SimulatedDevice::ServiceControl(const std::vector<std::string>& command, std::string* reply) {
    const std::optional<std::string> answer = ubo_protocol::Command(SocketPath(), command);
    if (reply != nullptr) *reply = answer.value_or("");
    return answer && !android::base::StartsWith(*answer, "error:");
}

std::vector<nlohmann::json> SimulatedDevice::Records(const std::string& kind) const {
    std::vector<nlohmann::json> records = EventReader(EventsPath()).ReadNew();
    const auto other_kind = [&](const nlohmann::json& record) {
        return !kind.empty() && record.value("kind", "") != kind;
    };
    records.erase(std::remove_if(records.begin(), records.end(), other_kind), records.end());
    return records;
}

}  // namespace vendor::vesk::tavi::sim
