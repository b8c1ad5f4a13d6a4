// SPDX-License-Identifier: Apache-2.0

#include "message_listener.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <memory>

#include <android-base/logging.h>

namespace vendor::vesk::tavi {

using android::base::unique_fd;

namespace {

// Sysfs attributes announce new data with POLLPRI, or POLLERR once the attribute is gone.
constexpr int16_t kSysfsEvents = POLLPRI | POLLERR;

}  // namespace

bool MessageListener::Setup(const std::vector<std::string>& sysfs_paths,
                            const std::vector<SysfsCallback>& sysfs_callbacks) {
    if (sysfs_paths.size() != sysfs_callbacks.size()) {
        LOG(ERROR) << "The number of sysfs paths and sysfs callbacks does not match";
        return false;
    }

    std::vector<unique_fd> sysfs_fds;
    for (const auto& path : sysfs_paths) {
        unique_fd fd(open(path.c_str(), O_RDONLY));  // NOLINT(android-cloexec-open)
        if (fd == -1) {
            LOG(ERROR) << "Could not open " << path;
            return false;  // the descriptors opened so far close with the local vector
        }
        sysfs_fds.push_back(std::move(fd));
    }
    sysfs_fds_ = std::move(sysfs_fds);
    sysfs_callbacks_ = sysfs_callbacks;

    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &mask, nullptr) == -1) {
        LOG(ERROR) << "sigprocmask() failed with errno " << errno;
        return false;
    }

    signal_fd_.reset(signalfd(-1, &mask, 0));
    if (signal_fd_ == -1) {
        LOG(ERROR) << "signalfd() failed with errno " << errno;
        return false;
    }

    unique_fd read_end;
    unique_fd write_end;
    if (!android::base::Pipe(&read_end, &write_end)) {
        LOG(ERROR) << "android::base::Pipe() failed";
        return false;
    }
    pipe_read_fd_ = std::move(read_end);
    pipe_write_fd_ = std::move(write_end);
    return true;
}

bool MessageListener::InterruptPoll() {
    const char wake_up = 1;
    if (write(pipe_write_fd_.get(), &wake_up, 1) != 1) {
        LOG(ERROR) << "write() on pipe failed with errno " << errno;
        return false;
    }
    return true;
}

bool MessageListener::Poll(const MessageCallback& message_callback,
                           const SignalCallback& signal_callback,
                           const InterruptCallback& interrupt_callback) {
    const size_t buffer_size = getpagesize();
    auto buffer = std::make_unique<char[]>(buffer_size);

    std::vector<pollfd> poll_fds;
    poll_fds.reserve(sysfs_fds_.size() + 2);
    for (const auto& fd : sysfs_fds_) poll_fds.push_back({fd.get(), kSysfsEvents, 0});
    poll_fds.push_back({signal_fd_.get(), POLLIN, 0});
    poll_fds.push_back({pipe_read_fd_.get(), POLLIN, 0});

    LOG(INFO) << "poll() loop starting";
    while (true) {
        int ready = poll(poll_fds.data(), poll_fds.size(), -1);
        if (ready < 0) {
            if (errno == EAGAIN || errno == ENOMEM) {
                LOG(INFO) << "poll() failed due to out of kernel memory, continuing";
                continue;
            }
            if (errno == EINTR) {
                LOG(INFO) << "poll() is interrupted by a signal, continuing";
                continue;
            }
            LOG(ERROR) << "poll() failed unexpectedly with errno " << errno
                       << ", stopping poll() loop";
            return false;
        }
        if (ready == 0) {
            LOG(INFO) << "poll() timedout, continuing";
            continue;
        }

        // Every entry is visited in order: sysfs files are drained before a stop signal is
        // acted on, so records that arrive together with the signal are still delivered.
        for (const auto& entry : poll_fds) {
            if (entry.revents & kSysfsEvents) {
                auto found = std::find(sysfs_fds_.begin(), sysfs_fds_.end(), entry.fd);
                if (found != sysfs_fds_.end()) {
                    DrainSysfsFile(found - sysfs_fds_.begin(), buffer.get(), buffer_size,
                                   message_callback);
                }
            }
            if (entry.revents & POLLIN) {
                if (entry.fd == signal_fd_.get()) {
                    if (HandleSignal(signal_callback)) return true;
                } else if (entry.fd == pipe_read_fd_.get()) {
                    HandleInterrupt(interrupt_callback);
                }
            }
        }
    }
}

void MessageListener::DrainSysfsFile(size_t index, char* buffer, size_t buffer_size,
                                     const MessageCallback& message_callback) {
    const int fd = sysfs_fds_[index].get();
    while (true) {
        ssize_t bytes_read = read(fd, buffer, buffer_size - 1);
        if (bytes_read < 1) return;
        buffer[bytes_read] = '\0';
        lseek(fd, 0, SEEK_SET);

        std::string text(buffer);  // up to the first NUL byte, as the kernel hands out text
        Message message{};
        if (sysfs_callbacks_[index](text, message)) message_callback(message);
    }
}

bool MessageListener::HandleSignal(const SignalCallback& signal_callback) {
    signalfd_siginfo info;
    memset(&info, 0, sizeof(info));
    if (read(signal_fd_.get(), &info, sizeof(info)) != sizeof(info)) {
        LOG(ERROR) << "read() on signalfd failed with errno " << errno;
        return false;
    }
    if (info.ssi_signo != SIGTERM && info.ssi_signo != SIGINT) return false;

    LOG(INFO) << strsignal(info.ssi_signo) << " signal detected, calling signal callback and "
              << "stopping poll() loop";
    signal_callback(info);
    return true;
}

void MessageListener::HandleInterrupt(const InterruptCallback& interrupt_callback) {
    char wake_up = 0;
    if (read(pipe_read_fd_.get(), &wake_up, 1) != 1) {
        LOG(ERROR) << "read() on pipe failed with errno " << errno;
        return;
    }
    LOG(INFO) << "poll() is interrupted by a client, calling interrupt callback";
    interrupt_callback();
}

}  // namespace vendor::vesk::tavi
