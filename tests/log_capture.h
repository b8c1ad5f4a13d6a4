#pragma once

#include <string>
#include <vector>

#include <android-base/logging.h>

namespace vendor::vesk::tavi::testing {

struct LogLine {
    android::base::LogSeverity severity;
    std::string text;
};

// Captures every libbase log line written while it lives (on any thread); restores the
// default stderr logger when destroyed.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> Lines() const;
    // Texts only, in order, optionally only of one severity.
    std::vector<std::string> Texts() const;
    std::vector<std::string> Texts(android::base::LogSeverity severity) const;
    size_t Count(const std::string& text) const;
    void Clear();
};

}  // namespace vendor::vesk::tavi::testing
