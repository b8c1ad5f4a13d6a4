// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

namespace vendor::vesk::tavi::testing {

// The tavi_sysfs_emu FUSE file system on a fresh mount point: its `log` file behaves as the
// kernel attribute does; records are queued through `Inject`.
class SysfsEmulator {
  public:
    // Empty when an emulator can be mounted here, otherwise why not (checked once).
    static std::string Availability();

    SysfsEmulator() = default;
    ~SysfsEmulator() { Stop(); }
    SysfsEmulator(const SysfsEmulator&) = delete;
    SysfsEmulator& operator=(const SysfsEmulator&) = delete;

    // Mounts and waits until the files are served: empty, or the reason (nothing left behind).
    std::string Start();
    // Unmounts and reaps, within seconds even if the emulator hangs; idempotent.
    void Stop();

    std::string LogPath() const { return mount_point_ + "/log"; }
    // Queues `bytes` verbatim as one record (single write(); never empty).
    bool Inject(const std::string& bytes) const;
    int PendingCount() const;  // -1 when unreadable
    bool WaitForPendingCount(int count, std::chrono::milliseconds timeout) const;

  private:
    std::string Spawn();

    std::string mount_point_;
    pid_t pid_ = -1;
};

}  // namespace vendor::vesk::tavi::testing
