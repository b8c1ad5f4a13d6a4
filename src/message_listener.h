// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <sys/signalfd.h>

#include <functional>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "message.h"

namespace vendor::vesk::tavi {

// Turns the text read from one sysfs file into a Message; true when it is to be delivered.
using SysfsCallback = std::function<bool(const std::string&, Message&)>;
using MessageCallback = std::function<void(const Message&)>;
using SignalCallback = std::function<void(const signalfd_siginfo&)>;
using InterruptCallback = std::function<void()>;

// The daemon's event loop: sysfs notifications, SIGINT/SIGTERM through a signalfd, and
// wake-ups from other threads through a pipe.
class MessageListener {
  public:
    // Opens every path and blocks SIGINT and SIGTERM for the calling thread; call it before
    // starting any other thread so that they inherit the mask.
    bool Setup(const std::vector<std::string>& sysfs_paths,
               const std::vector<SysfsCallback>& sysfs_callbacks);

    // Wakes Poll() from any thread; each call leads to one interrupt callback.
    bool InterruptPoll();

    // Runs until SIGINT or SIGTERM (true) or an unexpected poll() failure (false).
    bool Poll(const MessageCallback& message_callback, const SignalCallback& signal_callback,
              const InterruptCallback& interrupt_callback);

  private:
    void DrainSysfsFile(size_t index, char* buffer, size_t buffer_size,
                        const MessageCallback& message_callback);
    bool HandleSignal(const SignalCallback& signal_callback);
    void HandleInterrupt(const InterruptCallback& interrupt_callback);

    std::vector<android::base::unique_fd> sysfs_fds_;
    std::vector<SysfsCallback> sysfs_callbacks_;
    android::base::unique_fd signal_fd_;
    android::base::unique_fd pipe_read_fd_;
    android::base::unique_fd pipe_write_fd_;
};

}  // namespace vendor::vesk::tavi
