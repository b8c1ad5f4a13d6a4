// SPDX-License-Identifier: Apache-2.0
// tavi-device's commands: checked on the command line, run on the device by its owner process
// (or by the demo, which holds a device itself).
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "device_owner.h"
#include "simulated_device.h"

namespace vendor::vesk::tavi::sim {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// The command list with each command's arguments, for `help`.
std::string Usage();
// Whether `words` (command first) is a known command with fitting arguments: "" or the error,
// such as "unknown command 'X'" or "unknown option '--x'".
std::string CheckCommand(const std::vector<std::string>& words);
// True for the commands that need a running device (its owner runs them).
bool NeedsDevice(const std::string& command);
// `words` as a shell would need them typed: quoted where needed.
std::string ShellQuote(const std::vector<std::string>& words);
// Control characters shown as escapes (\n, \r, \t), so that a text stays on its line.
std::string Visible(std::string text);
// One line for one record of the event service.
std::string DescribeRecord(const nlohmann::json& record);
// The commands that only read the state folder: logs (without -f), events, cache.
OwnerReply ShowState(const std::vector<std::string>& words, const std::string& state_dir);
// The demo on a fresh device in `state_dir`: 0 when every expected line and event was seen.
int RunDemo(const std::string& state_dir, const Binaries& binaries);

// The commands that act on a device, on checked words.
class DeviceCommands {
  public:
    explicit DeviceCommands(SimulatedDevice& device) : device_(device) {}

    // up [--active]
    OwnerReply Up(const std::vector<std::string>& words);
    // start-daemon, inject, service, stop-daemon, restart, status, down.
    OwnerReply Run(const std::vector<std::string>& words);

  private:
    OwnerReply StartDaemon(const std::vector<std::string>& args);
    OwnerReply Inject(const std::vector<std::string>& args);
    OwnerReply Service(const std::vector<std::string>& args);
    OwnerReply StopDaemon(const std::vector<std::string>& args);
    OwnerReply Restart(const std::vector<std::string>& args);
    OwnerReply Status();
    OwnerReply Down();

    // One record's outcome from the daemon's lines after `first_line`; false when it failed.
    bool ReportOutcome(const std::string& shown, size_t first_line, size_t events_before,
                       OwnerReply* reply);
    // Waits up to `timeout` for the daemon to end or to wait for an inactive service.
    void WaitForDaemonEnd(milliseconds timeout, OwnerReply* reply);
    bool DaemonWaitsForService();
    bool ReadinessPaused();
    bool ServiceActive();

    SimulatedDevice& device_;
};

}  // namespace vendor::vesk::tavi::sim
