#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

namespace vendor::vesk::tavi::testing {

// A live emulated kernel log attribute: the tavi_sysfs_emu FUSE file system on a fresh
// temporary mount point. Its `log` file behaves as the kernel attribute does (one record per
// read from offset 0, POLLPRI|POLLERR notification); records are queued through `Inject`.
class SysfsEmulator {
  public:
    // Empty when an emulator can be mounted here (not root, no /dev/fuse, no binary, mount
    // failed); the first call mounts a trial emulator and the answer is kept.
    static std::string Availability();

    SysfsEmulator() = default;
    ~SysfsEmulator() { Stop(); }
    SysfsEmulator(const SysfsEmulator&) = delete;
    SysfsEmulator& operator=(const SysfsEmulator&) = delete;

    // Mounts a new emulator and waits until its files are served: empty on success, otherwise
    // the reason (and nothing is left running or mounted).
    std::string Start();
    // Unmounts, reaps the emulator and removes the mount point, within a few seconds even if
    // the emulator hangs. Safe to call more than once.
    void Stop();

    std::string LogPath() const { return mount_point_ + "/log"; }
    // Queues `bytes` verbatim as one record with a single write(). An empty record cannot be
    // queued (the kernel sends nothing for a zero-length write): returns false for it.
    bool Inject(const std::string& bytes) const;
    // Records still pending, or -1 when the count cannot be read.
    int PendingCount() const;
    // Waits until PendingCount() equals `count` (e.g. 0 once a reader drained the attribute).
    bool WaitForPendingCount(int count, std::chrono::milliseconds timeout) const;

  private:
    std::string Spawn();

    std::string mount_point_;
    pid_t pid_ = -1;
};

}  // namespace vendor::vesk::tavi::testing
