// JSON records, one per line, for the simulator's event log.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>

#include <android-base/unique_fd.h>

namespace vendor::vesk::tavi::sim {

// A JSON string literal, quotes included.
std::string JsonQuote(std::string_view text);

// Builds one flat JSON object; keys keep the order in which they were added.
class JsonObject {
  public:
    JsonObject& AddInt(std::string_view key, int64_t value);
    JsonObject& AddBool(std::string_view key, bool value);
    JsonObject& AddString(std::string_view key, std::string_view value);
    // value must already be valid JSON.
    JsonObject& AddRaw(std::string_view key, std::string_view value);
    std::string ToString() const { return "{" + members_ + "}"; }

  private:
    std::string members_;
};

// Appends records to a file, each written whole as soon as it is made so that a reader
// tailing the file never sees half a line. Without a path it discards them.
class JsonLinesLog {
  public:
    bool Open(const std::string& path);
    // Starts a record with its kind and the wall-clock time in seconds.
    static JsonObject Record(std::string_view kind);
    void Append(const JsonObject& record);

  private:
    android::base::unique_fd fd_;
};

}  // namespace vendor::vesk::tavi::sim
