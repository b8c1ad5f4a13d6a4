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

// A FUSE mount shows as a device of its own under its parent folder.
bool IsMountPoint(const std::string& path) {
    struct stat self {
    }, parent{};
    return stat(path.c_str(), &self) == 0 && stat((path + "/..").c_str(), &parent) == 0 &&
           self.st_dev != parent.st_dev;
}

// Not every host lets a process mount in a namespace of its own.
std::string ProbeNamespace() {
    TemporaryDir dir;
    Process trial;
    const std::string output = std::string(dir.path) + "/trial.out";
    std::string failure = trial.Start({"/bin/true"}, output, {}, DeviceMounts{dir.path, ""});
    std::optional<int> status = failure.empty() ? trial.Wait(10s) : std::nullopt;
    if (status && *status == 0) return "";
    return "the device's mount namespace cannot be set up here: " + failure + ReadFrom(output, 0);
}

std::string ProbeAvailability(const Binaries& binaries) {
    std::string failure;
    const std::optional<AttributeKind> kind = AttributeFromEnvironment(&failure);
    if (!kind) return failure;
    if (const char* scale = getenv("TAVI_WAIT_SCALE"); WaitScale() == 0 && scale != nullptr) {
        return "TAVI_WAIT_SCALE is a positive integer, not \"" + std::string(scale) + "\"";
    }
    const bool kernel = *kind == AttributeKind::kKernel;
    if (geteuid() != 0) {
        return kernel ? "the simulated device needs root (mount namespaces, the module's files)"
                      : "the simulated device needs root (FUSE, mount namespaces)";
    }
    std::vector<std::string> needed = {binaries.ubo_sim, binaries.daemon};
    if (kernel) {
        for (const char* path : {kKernelLogPath, kKernelInjectPath}) {
            if (access(path, F_OK) != 0) {
                return std::string(path) + ": " + strerror(errno) +
                       " (is tavi_log loaded with allow_inject=1?)";
            }
        }
    } else {
        android::base::unique_fd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC));
        if (!fuse.ok()) return std::string("/dev/fuse: ") + strerror(errno);
        needed.push_back(binaries.sysfs_emu);
    }
    for (const std::string& binary : needed) {
        if (access(binary.c_str(), X_OK) != 0) return binary + ": " + strerror(errno);
    }
    if (failure = ProbeNamespace(); !failure.empty() || kernel) return failure;
    TemporaryDir dir;
    AttributeEmulator attribute;
    std::string mounted = attribute.Start(binaries.sysfs_emu, dir.path);
    return mounted.empty() ? "" : "the attribute emulator did not mount: " + mounted;
}

// tavi_sysfs_emu, mounted afresh by every start.
class EmulatedAttribute : public Attribute {
  public:
    EmulatedAttribute(std::string binary, std::string run_dir)
        : binary_(std::move(binary)), run_dir_(std::move(run_dir)) {}

    std::string Start() override {
        const std::string mount_point = run_dir_ + "/sysfs";
        mkdir(mount_point.c_str(), 0755);
        return emulator_.Start(binary_, mount_point, run_dir_ + "/sysfs_emu.out");
    }
    void Stop() override { emulator_.Stop(); }
    bool Started() const override { return emulator_.Mounted(); }
    std::string LogPath() const override { return emulator_.LogPath(); }
    bool Inject(const std::string& record) const override { return emulator_.Inject(record); }
    int PendingCount() const override { return emulator_.PendingCount(); }

  private:
    std::string binary_, run_dir_;
    AttributeEmulator emulator_;
};

// The tavi_log module's attribute: one queue for the whole machine, so every start drains what
// an earlier user left. The module must already be loaded with allow_inject=1.
class KernelAttribute : public Attribute {
  public:
    std::string Start() override {
        for (const char* path : {kKernelLogPath, kKernelInjectPath}) {
            if (access(path, F_OK) != 0) return std::string(path) + ": " + strerror(errno);
        }
        android::base::unique_fd log(open(kKernelLogPath, O_RDONLY | O_CLOEXEC));
        if (!log.ok()) return std::string(kKernelLogPath) + ": " + strerror(errno);
        // Each read from offset 0 takes one record; the queue holds 128 at most.
        char record[4096];
        int reads = 0;
        ssize_t size;
        while ((size = TEMP_FAILURE_RETRY(pread(log.get(), record, sizeof(record), 0))) > 0) {
            if (++reads > 1000) return std::string(kKernelLogPath) + " does not run empty";
        }
        if (size < 0) return std::string(kKernelLogPath) + ": " + strerror(errno);
        started_ = true;
        return "";
    }
    void Stop() override { started_ = false; }
    bool Started() const override { return started_; }
    std::string LogPath() const override { return kKernelLogPath; }

    // A full queue refuses a record until the reader has taken one: a burst the daemon is
    // draining waits for room. Any other refusal is the record's own.
    bool Inject(const std::string& record) const override {
        android::base::unique_fd inject(open(kKernelInjectPath, O_WRONLY | O_CLOEXEC));
        if (!inject.ok() || record.empty()) return false;
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
    int PendingCount() const override { return -1; }

  private:
    bool started_ = false;
};

// TAVI_ATTRIBUTE names none: every start says so.
class UnknownAttribute : public Attribute {
  public:
    explicit UnknownAttribute(std::string failure) : failure_(std::move(failure)) {}
    std::string Start() override { return failure_; }
    void Stop() override {}
    bool Started() const override { return false; }
    std::string LogPath() const override { return ""; }
    bool Inject(const std::string&) const override { return false; }
    int PendingCount() const override { return -1; }

  private:
    std::string failure_;
};

}  // namespace

std::optional<AttributeKind> AttributeFromEnvironment(std::string* failure) {
    const char* value = getenv("TAVI_ATTRIBUTE");
    const std::string name = value != nullptr ? value : "";
    if (name.empty() || name == "emulator") return AttributeKind::kEmulator;
    if (name == "kernel") return AttributeKind::kKernel;
    *failure = "TAVI_ATTRIBUTE is \"emulator\" (the default) or \"kernel\", not \"" + name + "\"";
    return std::nullopt;
}

bool OnKernelAttribute() {
    std::string failure;
    return AttributeFromEnvironment(&failure) == AttributeKind::kKernel;
}

int WaitScale() {
    const char* value = getenv("TAVI_WAIT_SCALE");
    int scale = 1;
    if (value == nullptr) return scale;
    return android::base::ParseInt(value, &scale, 1) ? scale : 0;
}

std::unique_ptr<Attribute> MakeAttribute(const Binaries& binaries, const std::string& run_dir) {
    std::string failure;
    const std::optional<AttributeKind> kind = AttributeFromEnvironment(&failure);
    if (!kind) return std::make_unique<UnknownAttribute>(failure);
    if (*kind == AttributeKind::kKernel) return std::make_unique<KernelAttribute>();
    return std::make_unique<EmulatedAttribute>(binaries.sysfs_emu, run_dir);
}

Binaries Binaries::InBuildDir(const std::string& build_dir) {
    const char* setting = getenv("TAVI_BUILD_DIR");
    const std::string dir = setting != nullptr && *setting != '\0' ? setting : build_dir;
    return {dir + "/sim/sysfs_emu/tavi_sysfs_emu", dir + "/sim/ubo_service/ubo_sim",
            dir + "/sim/ubo_service/ubo_simctl", dir + "/src/tavi_daemon"};
}

std::string AttributeEmulator::Start(const std::string& binary, const std::string& mount_point,
                                     const std::string& output) {
    if (Mounted()) return "already mounted at " + mount_point_;
    mount_point_ = mount_point;
    std::string failure = process_.Start({binary, "-f", mount_point}, output);
    if (failure.empty() &&
        !WaitUntil([&] { return !process_.Running() || IsMountPoint(mount_point); }, 5s)) {
        failure = "tavi_sysfs_emu did not mount " + mount_point;
    } else if (failure.empty() && !process_.Running()) {
        failure = "tavi_sysfs_emu " + DescribeWaitStatus(*process_.status()) + " before mounting";
    }
    if (!failure.empty()) Stop();
    return failure;
}

void AttributeEmulator::Stop() {
    if (mount_point_.empty()) return;
    // SIGTERM makes the emulator leave its session loop and unmount; a killed one leaves its
    // mount behind.
    process_.Stop(SIGTERM, 3s);
    umount2(mount_point_.c_str(), MNT_DETACH);
    mount_point_.clear();
}

bool AttributeEmulator::Inject(const std::string& bytes) const {
    if (bytes.empty() || !Mounted()) return false;
    android::base::unique_fd inject(open((mount_point_ + "/inject").c_str(), O_WRONLY | O_CLOEXEC));
    return inject.ok() && TEMP_FAILURE_RETRY(write(inject.get(), bytes.data(), bytes.size())) ==
                                  static_cast<ssize_t>(bytes.size());
}

int AttributeEmulator::PendingCount() const {
    std::string text;
    int count = -1;
    android::base::ReadFileToString(mount_point_ + "/pending", &text);
    return android::base::ParseInt(android::base::Trim(text), &count, 0) ? count : -1;
}

bool AttributeEmulator::WaitForPendingCount(int count, milliseconds timeout) const {
    return WaitUntil([&] { return PendingCount() == count; }, timeout);
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

std::vector<LogLine> LogReader::LinesReading(const std::string& text) {
    std::vector<LogLine> matching;
    const std::vector<LogLine>& lines = Lines();
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(matching),
                 [&](const LogLine& line) { return line.text == text; });
    return matching;
}

size_t LogReader::CountStartingWith(const std::string& prefix) {
    size_t count = 0;
    for (const LogLine& line : Lines()) count += android::base::StartsWith(line.text, prefix);
    return count;
}

int LogReader::IndexOf(const std::string& text) {
    const std::vector<LogLine>& lines = Lines();
    const auto found = std::find_if(lines.begin(), lines.end(),
                                    [&](const LogLine& line) { return line.text == text; });
    return found == lines.end() ? -1 : static_cast<int>(found - lines.begin());
}

bool LogReader::WaitForLine(const std::string& text, milliseconds timeout) {
    return WaitUntil([&] { return IndexOf(text) >= 0; }, timeout);
}

bool LogReader::WaitForStartingWith(const std::string& prefix, size_t count, milliseconds timeout) {
    return WaitUntil([&] { return CountStartingWith(prefix) >= count; }, timeout);
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
      attribute_(MakeAttribute(binaries_, RunDir())) {
    for (const std::string& dir : {state_dir_, PersistDir(), RunDir()}) mkdir(dir.c_str(), 0700);
}

SimulatedDevice::~SimulatedDevice() {
    daemon_.Stop(SIGKILL, 0ms);
    StopService();
    StopAttribute();
}

std::string SimulatedDevice::Availability(const Binaries& binaries) {
    static const std::string reason = ProbeAvailability(binaries);
    return reason;
}

std::string SimulatedDevice::StartAttribute() {
    return attribute_->Start();
}

std::string SimulatedDevice::StartService(bool active) {
    StopService();
    const std::string output = RunDir() + "/ubo_sim.out";
    const size_t offset = FileSize(output);
    std::vector<std::string> argv = {binaries_.ubo_sim, "--socket", SocketPath(), "--events",
                                     EventsPath()};
    if (active) argv.push_back("--active");
    std::string failure = service_.Start(argv, output);
    // Its own start line, not any line that mentions the socket: a refusal names it too.
    const std::string started = "ubo_sim: listening on " + SocketPath() + ",";
    auto listening = [&] {
        return ReadFrom(output, offset).find(started) != std::string::npos || !service_.Running();
    };
    if (failure.empty() && (!WaitUntil(listening, 5s) || !service_.Running())) {
        failure = "ubo_sim did not listen on " + SocketPath() + ": " + ReadFrom(output, offset);
    }
    if (!failure.empty()) StopService();
    return failure;
}

std::string SimulatedDevice::StartDaemon(bool with_attribute) {
    if (daemon_.Running()) return "the daemon already runs as pid " + std::to_string(DaemonPid());
    if (with_attribute && !attribute_->Started()) return "the attribute is not started";
    log_ = LogReader(LogPath(), FileSize(LogPath()));
    const DeviceMounts mounts{PersistDir(), with_attribute ? attribute_->LogPath() : ""};
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
    const std::string output = RunDir() + "/ubo_simctl.out";
    unlink(output.c_str());
    std::vector<std::string> argv = {binaries_.ubo_simctl, "--socket", SocketPath()};
    argv.insert(argv.end(), command.begin(), command.end());
    Process simctl;
    std::optional<int> status =
            simctl.Start(argv, output).empty() ? simctl.Wait(10s) : std::nullopt;
    if (reply != nullptr) *reply = ReadFrom(output, 0);
    return status == 0;
}

std::vector<nlohmann::json> SimulatedDevice::Records(const std::string& kind) const {
    std::vector<nlohmann::json> records = EventReader(EventsPath()).ReadNew();
    if (kind.empty()) return records;
    std::vector<nlohmann::json> matching;
    for (nlohmann::json& record : records) {
        if (record.value("kind", "") == kind) matching.push_back(std::move(record));
    }
    return matching;
}

bool SimulatedDevice::WaitForRecords(const std::string& kind, size_t count,
                                     milliseconds timeout) const {
    return WaitUntil([&] { return CountRecords(kind) >= count; }, timeout);
}

}  // namespace vendor::vesk::tavi::sim
