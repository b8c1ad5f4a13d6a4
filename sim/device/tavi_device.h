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

std::string Usage();
// "" when `words` (command first) is a known command with fitting arguments; otherwise the error,
// such as "unknown command 'X'" or "unknown option '--x' for up".
std::string CheckCommand(const std::vector<std::string>& words);
// True for the commands that need a running device (its owner runs them).
bool NeedsDevice(const std::string& command);
// Checked `words` run on `device`; `up` starts it.
OwnerReply RunCommand(SimulatedDevice& device, const std::vector<std::string>& words);
// logs (without -f), events, cache: they only read the state folder.
OwnerReply ShowState(const std::vector<std::string>& words, const std::string& state_dir);
// The demo on a fresh device in `state_dir`: 0 when every expected line and event was seen.
int RunDemo(const std::string& state_dir, const Binaries& binaries);

// `words` as a shell would need them typed.
std::string ShellQuote(const std::vector<std::string>& words);
// Control characters shown as escapes (\n, \r, \t), so that a text stays on its line.
std::string Visible(std::string text);
// One line for one record of the event service.
std::string DescribeRecord(const nlohmann::json& record);

}  // namespace vendor::vesk::tavi::sim
