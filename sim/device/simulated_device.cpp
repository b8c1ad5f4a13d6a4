// SPDX-License-Identifier: Apache-2.0
#include "simulated_device.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

std::string ProbeAvailability(const Binaries& binaries) {
    if (geteuid() != 0) return "the simulated device needs root (FUSE, mount namespaces)";
    android::base::unique_fd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (!fuse.ok()) return std::string("/dev/fuse: ") + strerror(errno);
    for (const std::string& binary : {binaries.sysfs_emu, binaries.ubo_sim, binaries.daemon}) {
        if (access(binary.c_str(), X_OK) != 0) return binary + ": " + strerror(errno);
    }
    // Not every host lets a process mount in a namespace of its own.
    TemporaryDir dir;
    Process trial;
    const std::string output = std::string(dir.path) + "/trial.out";
    std::string failure = trial.Start({"/bin/true"}, output, {}, DeviceMounts{dir.path, ""});
    std::optional<int> status = failure.empty() ? trial.Wait(10s) : std::nullopt;
    if (status && *status == 0) {
        AttributeEmulator attribute;
        std::string mounted = attribute.Start(binaries.sysfs_emu, dir.path);
        return mounted.empty() ? "" : "the attribute emulator did not mount: " + mounted;
    }
    return "the device's mount namespace cannot be set up here: " + failure + ReadFrom(output, 0);
}

}  // namespace

Binaries Binaries::InBuildDir(const std::string& build_dir) {
    return {build_dir + "/sim/sysfs_emu/tavi_sysfs_emu", build_dir + "/sim/ubo_service/ubo_sim",
            build_dir + "/sim/ubo_service/ubo_simctl", build_dir + "/src/tavi_daemon"};
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
    : state_dir_(std::move(state_dir)), binaries_(std::move(binaries)) {
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
    const std::string mount_point = RunDir() + "/sysfs";
    mkdir(mount_point.c_str(), 0755);
    return attribute_.Start(binaries_.sysfs_emu, mount_point, RunDir() + "/sysfs_emu.out");
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
    if (with_attribute && !attribute_.Mounted()) return "the attribute emulator is not mounted";
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
