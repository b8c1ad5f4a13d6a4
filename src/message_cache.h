// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "message.h"

namespace vendor::vesk::tavi {

constexpr size_t kCacheFileSizeLimit = 1048576;
constexpr char kCacheFieldSeparator = '\0';
// Two NUL bytes and a line feed end every entry of the cache file.
inline const std::string kCacheRecordTerminator{"\0\0\n", 3};

// Messages kept while the event service is not active, and their file across restarts.
class MessageCache {
  public:
    explicit MessageCache(uint32_t max_size) : max_size_(max_size) {}

    // Appends a copy unless `max_size` messages are held already.
    bool Store(const Message& message);
    // Moves every held message to the end of `out`, oldest first.
    void Restore(std::vector<Message>& out);
    // Merges the held messages into the file at `path` under the size ceiling.
    bool Save(const std::string& path);
    // Appends the file's messages after the held ones and deletes the file.
    bool Load(const std::string& path);

  private:
    uint32_t max_size_;
    std::vector<Message> messages_;
};

}  // namespace vendor::vesk::tavi
