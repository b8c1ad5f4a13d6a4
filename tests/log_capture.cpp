#include "log_capture.h"

#include <algorithm>
#include <mutex>

namespace vendor::vesk::tavi::testing {
namespace {

std::mutex g_mutex;
std::vector<LogLine> g_lines;

void CaptureLogger(android::base::LogId, android::base::LogSeverity severity, const char*,
                   const char*, unsigned int, const char* message) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.push_back({severity, message});
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

std::vector<LogLine> LogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

std::vector<std::string> LogCapture::Texts() const {
    std::vector<std::string> texts;
    for (const auto& line : Lines()) texts.push_back(line.text);
    return texts;
}

std::vector<std::string> LogCapture::Texts(android::base::LogSeverity severity) const {
    std::vector<std::string> texts;
    for (const auto& line : Lines()) {
        if (line.severity == severity) texts.push_back(line.text);
    }
    return texts;
}

size_t LogCapture::Count(const std::string& text) const {
    auto texts = Texts();
    return std::count(texts.begin(), texts.end(), text);
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

}  // namespace vendor::vesk::tavi::testing
