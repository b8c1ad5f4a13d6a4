// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>

#include "message.h"

namespace vendor::vesk::tavi {

// Parses one kernel record "c,l,e,p1,p2,p3,p4\n" into `message` (type LOG). A malformed
// record is logged and leaves `message` unchanged. A number outside the signed 32-bit
// range ends the process through the conversion's own error.
bool ParseSysfsLogValue(const std::string& value, Message& message);

}  // namespace vendor::vesk::tavi
