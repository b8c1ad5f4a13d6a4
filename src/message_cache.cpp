// SPDX-License-Identifier: Apache-2.0

#include "message_cache.h"

#include <unistd.h>

#include <iterator>

#include <android-base/file.h>
#include <android-base/logging.h>

#include "utils.h"

namespace vendor::vesk::tavi {
namespace {

constexpr mode_t kCacheFileMode = 0600;

// Appends one entry per message, oldest first, until the next one would pass the ceiling.
// Messages after the first misfit are not tried, so the file keeps a prefix of the list.
void AppendEntries(const std::vector<Message>& messages, std::string& buffer) {
    for (const auto& message : messages) {
        std::string record;
        message.SerializeToString(&record);
        if (buffer.size() + record.size() + kCacheRecordTerminator.size() > kCacheFileSizeLimit) {
            LOG(INFO) << "The cache file size reaches the limit(" << kCacheFileSizeLimit
                      << " bytes), ignoring the remaining messages";
            return;
        }
        buffer += record;
        buffer += kCacheRecordTerminator;
    }
}

// A record that does not read is logged and skipped; one that does is offered to the cache,
// which refuses it (with its own line) once full.
void LoadRecord(MessageCache& cache, const std::string& record) {
    Message message;
    if (message.DeserializeFromString(record)) {
        cache.Store(message);
    } else {
        LOG(ERROR) << "Failed to deserialize: " << record;
    }
}

}  // namespace

bool MessageCache::Store(const Message& message) {
    if (messages_.size() >= max_size_) {
        LOG(ERROR) << "Cache size limit, ignoring";
        return false;
    }
    messages_.push_back(message);
    return true;
}

void MessageCache::Restore(std::vector<Message>& out) {
    out.insert(out.end(), std::make_move_iterator(messages_.begin()),
               std::make_move_iterator(messages_.end()));
    messages_.clear();
}

bool MessageCache::Save(const std::string& path) {
    if (messages_.empty()) return true;

    // Entries of an earlier run that no flush consumed are kept verbatim, ahead of ours.
    std::string buffer;
    if (FileExist(path) &&
        !android::base::ReadFileToString(path, &buffer, /*follow_symlinks=*/false)) {
        LOG(ERROR) << "Failed to read the existing cache from " << path
                   << ", stop saving the cache";
        return false;
    }
    AppendEntries(messages_, buffer);

    if (!android::base::WriteStringToFile(buffer, path, kCacheFileMode, getuid(), getgid(),
                                          /*follow_symlinks=*/false)) {
        LOG(ERROR) << "Failed to save the cache to " << path;
        return false;
    }
    // What did not fit under the ceiling is dropped with the rest: nothing is retried later.
    messages_.clear();
    LOG(INFO) << "Saved the cache to " << path;
    return true;
}

bool MessageCache::Load(const std::string& path) {
    if (!FileExist(path)) {
        LOG(INFO) << "The cache file not found, stop loading the cache";
        return false;
    }
    std::string content;
    if (!android::base::ReadFileToString(path, &content, /*follow_symlinks=*/false)) {
        LOG(ERROR) << "Failed to load the cache to " << path;
        return false;
    }
    // Removed before any record is examined: a record that ends the process must not be
    // found again by the next run.
    android::base::RemoveFileIfExists(path);

    // Entry by entry rather than through Split: a full file holds some 36,000 entries, and
    // holding each as a string of its own would more than double the memory Load needs.
    std::string record;
    for (size_t start = 0;;) {
        const size_t found = content.find(kCacheRecordTerminator, start);
        const size_t end = found == std::string::npos ? content.size() : found;
        if (end > start) LoadRecord(*this, record.assign(content, start, end - start));
        if (found == std::string::npos) break;
        start = found + kCacheRecordTerminator.size();
    }
    LOG(INFO) << "Loaded the cache from " << path;
    return true;
}

}  // namespace vendor::vesk::tavi
