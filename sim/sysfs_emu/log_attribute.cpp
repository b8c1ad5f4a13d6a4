// SPDX-License-Identifier: Apache-2.0

#include "log_attribute.h"

#include <poll.h>

#include <fuse_lowlevel.h>

#include <android-base/logging.h>

namespace vendor::vesk::tavi::sim {

LogAttribute::~LogAttribute() {
    for (auto& [fh, handle] : watchers_) fuse_pollhandle_destroy(handle);
}

bool LogAttribute::Push(std::string record) {
    if (records_.size() >= capacity_) {
        ++dropped_;
        LOG(ERROR) << "log queue full (" << capacity_ << " records), record dropped; " << dropped_
                   << " dropped so far";
        return false;
    }
    records_.push_back(std::move(record));
    NotifyWatchers();
    return true;
}

std::string LogAttribute::Pop(size_t max_size) {
    if (records_.empty()) return {};
    std::string record = std::move(records_.front());
    records_.pop_front();
    if (record.size() > max_size) record.resize(max_size);
    return record;
}

unsigned LogAttribute::PollEvents() const {
    return records_.empty() ? 0 : POLLPRI | POLLERR;
}

void LogAttribute::Watch(uint64_t fh, fuse_pollhandle* handle) {
    auto [it, inserted] = watchers_.emplace(fh, handle);
    if (inserted) return;
    fuse_pollhandle_destroy(it->second);
    it->second = handle;
}

void LogAttribute::Unwatch(uint64_t fh) {
    auto it = watchers_.find(fh);
    if (it == watchers_.end()) return;
    fuse_pollhandle_destroy(it->second);
    watchers_.erase(it);
}

void LogAttribute::NotifyWatchers() {
    // A handle is good for one wake-up; the woken poll() asks again and leaves a new one.
    // An error only means the descriptor was closed meanwhile.
    for (auto& [fh, handle] : watchers_) {
        fuse_lowlevel_notify_poll(handle);
        fuse_pollhandle_destroy(handle);
    }
    watchers_.clear();
}

}  // namespace vendor::vesk::tavi::sim
