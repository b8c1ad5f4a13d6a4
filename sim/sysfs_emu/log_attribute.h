// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>

struct fuse_pollhandle;

namespace vendor::vesk::tavi::sim {

// The state behind the emulated kernel log attribute: a bounded FIFO of pending records and
// the poll handles of open descriptors waiting for the next one. Used on the FUSE session
// thread only, so it takes no lock.
class LogAttribute {
  public:
    static constexpr size_t kDefaultCapacity = 4096;

    explicit LogAttribute(size_t capacity = kDefaultCapacity) : capacity_(capacity) {}
    ~LogAttribute();
    LogAttribute(const LogAttribute&) = delete;
    LogAttribute& operator=(const LogAttribute&) = delete;

    // Queues one record and wakes every waiting poller. A full queue drops the new record, as a
    // driver with a full buffer would; returns false then.
    bool Push(std::string record);
    // Removes the oldest record and returns at most max_size bytes of it (the rest is lost, as
    // when the attribute's single buffer is read short); empty when nothing is pending.
    std::string Pop(size_t max_size);

    size_t Pending() const { return records_.size(); }
    uint64_t Dropped() const { return dropped_; }
    // What a notified attribute reports: POLLPRI|POLLERR while a record is pending, else 0.
    unsigned PollEvents() const;

    // Keeps the poll handle of open file `fh` until the next record, replacing an older one:
    // the kernel keeps one wait queue per open file, so one handle per file is enough.
    void Watch(uint64_t fh, fuse_pollhandle* handle);
    void Unwatch(uint64_t fh);

  private:
    void NotifyWatchers();

    size_t capacity_;
    uint64_t dropped_ = 0;
    std::deque<std::string> records_;
    std::map<uint64_t, fuse_pollhandle*> watchers_;
};

}  // namespace vendor::vesk::tavi::sim
