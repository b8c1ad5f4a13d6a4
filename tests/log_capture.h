// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <optional>
#include <string>
#include <vector>

#include <android-base/logging.h>

namespace vendor::vesk::tavi::testing {

// Captures every libbase log line written while it lives (on any thread); restores the
// default stderr logger when destroyed.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Texts in order: every one, or only those of `severity`.
    std::vector<std::string> Texts(
            std::optional<android::base::LogSeverity> severity = std::nullopt) const;
    void Clear();
};

}  // namespace vendor::vesk::tavi::testing
