// SPDX-License-Identifier: Apache-2.0

#include "log_capture.h"

#include <mutex>
#include <utility>

namespace vendor::vesk::tavi::testing {
namespace {

using android::base::LogSeverity;

std::mutex g_mutex;
std::vector<std::pair<LogSeverity, std::string>> g_lines;

void CaptureLogger(android::base::LogId, LogSeverity severity, const char*, const char*,
                   unsigned int, const char* message) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.emplace_back(severity, message);
}

}  // namespace

LogCapture::LogCapture() {
    Clear();
    android::base::SetMinimumLogSeverity(android::base::VERBOSE);
    android::base::SetLogger(CaptureLogger);
}

LogCapture::~LogCapture() {
    android::base::SetLogger(android::base::StderrLogger);
}

std::vector<std::string> LogCapture::Texts(std::optional<LogSeverity> severity) const {
    std::lock_guard<std::mutex> lock(g_mutex);
    std::vector<std::string> texts;
    for (const auto& [line_severity, text] : g_lines) {
        if (!severity || line_severity == *severity) texts.push_back(text);
    }
    return texts;
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

}  // namespace vendor::vesk::tavi::testing
