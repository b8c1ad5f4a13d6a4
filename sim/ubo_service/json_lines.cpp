#include "json_lines.h"

#include <fcntl.h>
#include <stdio.h>
#include <time.h>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/stringprintf.h>

namespace vendor::vesk::tavi::sim {

std::string JsonQuote(std::string_view text) {
    std::string quoted = "\"";
    for (char c : text) {
        switch (c) {
            case '"':
                quoted += "\\\"";
                break;
            case '\\':
                quoted += "\\\\";
                break;
            case '\n':
                quoted += "\\n";
                break;
            case '\t':
                quoted += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    quoted += android::base::StringPrintf("\\u%04x", c);
                } else {
                    quoted += c;
                }
        }
    }
    return quoted + "\"";
}

JsonObject& JsonObject::AddInt(std::string_view key, int64_t value) {
    return AddRaw(key, std::to_string(value));
}

JsonObject& JsonObject::AddBool(std::string_view key, bool value) {
    return AddRaw(key, value ? "true" : "false");
}

JsonObject& JsonObject::AddString(std::string_view key, std::string_view value) {
    return AddRaw(key, JsonQuote(value));
}

JsonObject& JsonObject::AddRaw(std::string_view key, std::string_view value) {
    if (!members_.empty()) members_ += ',';
    members_ += JsonQuote(key);
    members_ += ':';
    members_ += value;
    return *this;
}

bool JsonLinesLog::Open(const std::string& path) {
    if (path.empty()) return true;
    fd_.reset(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (fd_ < 0) {
        PLOG(ERROR) << "open(" << path << ") failed";
        return false;
    }
    return true;
}

JsonObject JsonLinesLog::Record(std::string_view kind) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    JsonObject record;
    record.AddString("kind", kind);
    record.AddRaw("time",
                  android::base::StringPrintf("%lld.%06ld", static_cast<long long>(now.tv_sec),
                                              now.tv_nsec / 1000));
    return record;
}

void JsonLinesLog::Append(const JsonObject& record) {
    if (fd_ < 0) return;
    // One write per line: with O_APPEND the line lands whole.
    if (!android::base::WriteStringToFd(record.ToString() + "\n", fd_)) {
        PLOG(ERROR) << "writing the event log failed";
    }
}

}  // namespace vendor::vesk::tavi::sim
