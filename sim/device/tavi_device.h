// SPDX-License-Identifier: Apache-2.0
// tavi-device's commands, run on the device by its owner process or by the demo, which holds a
// device itself.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "device_owner.h"
#include "simulated_device.h"

namespace vendor::vesk::tavi::sim {

constexpr int kExitFailure = 1;
// The daemon's lines that tell what became of one record.
inline const std::string kSentPrefix = "Send the message to UBO: ";
inline const std::string kCachedPrefix = "Store the message in the cache: ";
inline const std::string kUnpackedPrefix = "Failed to pack the massage: ";
inline const std::string kUnparsedPrefix = "Failed to parse the string for MessageType ";

// Checked `words` run on `device`; `up` starts it.
OwnerReply RunCommand(SimulatedDevice& device, const std::vector<std::string>& words);
// The demo on a fresh device in `state_dir`: 0 when every expected line and event was seen.
int RunDemo(const std::string& state_dir, const Binaries& binaries);

// Control characters shown as escapes (\n, \r, \t), so that a text stays on its line.
std::string Visible(std::string text);
// One line for one record of the event service.
std::string DescribeRecord(const nlohmann::json& record);

}  // namespace vendor::vesk::tavi::sim
