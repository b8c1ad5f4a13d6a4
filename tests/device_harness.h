// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <android-base/file.h>

#include "sysfs_emulator.h"

namespace vendor::vesk::tavi::testing {

// The whole file, or "" when it cannot be read.
std::string ReadFile(const std::string& path);

// One daemon log line: severity letter, text, and when the harness first saw it (precise
// enough to check pauses of a second).
struct LogLine {
    char severity = '?';
    std::string text;
    std::chrono::steady_clock::time_point seen;
};

// One record of the event service's JSON lines log (the members the tests look at).
struct ServiceRecord {
    std::string source;
    std::string probe;
    std::string payload_hex;
};

// The real daemon in its own mount namespace with the emulated attribute and the event service,
// in a fresh temporary folder. Every wait is bounded; the destructor reaps what still runs.
class SimulatedDevice {
  public:
    // Empty when the device can be simulated here; otherwise why not.
    static std::string Availability();

    SimulatedDevice();
    ~SimulatedDevice();
    SimulatedDevice(const SimulatedDevice&) = delete;
    SimulatedDevice& operator=(const SimulatedDevice&) = delete;

    // Starts the attribute (if wanted), the service and the daemon: "" or the reason.
    std::string Start(bool service_active, bool with_attribute = true);

    // Starts the daemon again after the previous one ended, on the same attribute, service and
    // persist folder, with a fresh log: "" or the reason.
    std::string StartDaemon();
    // Stops the event service (if it runs) and starts a new one: "" or the reason.
    std::string RestartService(bool active);

    bool Inject(const std::string& record) const { return attribute_.Inject(record); }
    bool SetServiceActive(bool active) const {
        return ServiceControl({active ? "active" : "inactive"});
    }
    // One ubo_simctl command, e.g. {"fail", "-5"}.
    bool ServiceControl(const std::vector<std::string>& command) const;
    bool Signal(int signal_number) const;
    bool DaemonAlive();
    // The daemon's wait status once it has ended within `timeout`.
    std::optional<int> WaitForExit(std::chrono::milliseconds timeout);

    // Waits until the log holds a line reading exactly `text`.
    bool WaitForLogLine(const std::string& text, std::chrono::milliseconds timeout);
    bool WaitForRecords(const std::string& kind, size_t count, std::chrono::milliseconds timeout);
    const std::vector<LogLine>& LogLines();
    std::vector<LogLine> LinesReading(const std::string& text);
    size_t CountLinesStartingWith(const std::string& prefix);
    bool WaitForLinesStartingWith(const std::string& prefix, size_t count,
                                  std::chrono::milliseconds timeout);
    // Position of the first line reading `text`, or -1.
    int LineIndex(const std::string& text);

    // The service's records of one kind ("event", "session_lost", ...), in order.
    std::vector<ServiceRecord> Records(const std::string& kind) const;
    size_t CountRecords(const std::string& kind) const { return Records(kind).size(); }

    std::string PersistDir() const { return dir_ + "/persist"; }
    std::string CachePath() const { return PersistDir() + "/cache.bin"; }

  private:
    bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);
    void ReadNewLogLines();

    TemporaryDir temp_;
    std::string dir_ = temp_.path;
    SysfsEmulator attribute_;
    pid_t service_ = -1;
    bool with_attribute_ = true;
    pid_t daemon_ = -1;
    std::optional<int> daemon_status_;
    size_t log_bytes_read_ = 0;
    std::vector<LogLine> log_lines_;
};

}  // namespace vendor::vesk::tavi::testing
