// SPDX-License-Identifier: Apache-2.0

#include "sysfs_emulator.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>

namespace vendor::vesk::tavi::testing {
namespace {

using namespace std::chrono_literals;

#ifdef TAVI_SYSFS_EMU_PATH
constexpr char kBinary[] = TAVI_SYSFS_EMU_PATH;
#else
constexpr char kBinary[] = "";
#endif

template <typename Condition>
bool WaitFor(Condition condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

std::string ErrnoText(const std::string& what) {
    return what + ": " + strerror(errno);
}

std::string ProbeAvailability() {
    if (geteuid() != 0) return "mounting the sysfs emulator (FUSE) needs root";
    android::base::unique_fd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (!fuse.ok()) return ErrnoText("/dev/fuse");
    SysfsEmulator trial;
    if (std::string failure = trial.Start(); !failure.empty()) {
        return "the sysfs emulator did not mount: " + failure;
    }
    return "";
}

}  // namespace

std::string SysfsEmulator::Availability() {
    static const std::string reason = ProbeAvailability();
    return reason;
}

std::string SysfsEmulator::Start() {
    if (kBinary[0] == '\0') return "this build has no tavi_sysfs_emu binary";
    if (access(kBinary, X_OK) != 0) return ErrnoText(kBinary);
    std::string mount_point = "/tmp/tavi_sysfs_emu.XXXXXX";
    if (mkdtemp(mount_point.data()) == nullptr) return ErrnoText("mkdtemp()");
    mount_point_ = mount_point;
    std::string failure = Spawn();
    int status = 0;
    auto mounted_or_ended = [&] {
        struct stat log, parent;
        if (waitpid(pid_, &status, WNOHANG) == pid_) pid_ = -1;
        return pid_ < 0 ||
               (stat(LogPath().c_str(), &log) == 0 &&
                stat((mount_point_ + "/..").c_str(), &parent) == 0 && log.st_dev != parent.st_dev);
    };
    if (failure.empty() && !WaitFor(mounted_or_ended, 5s)) {
        failure = "tavi_sysfs_emu did not mount " + mount_point_;
    } else if (failure.empty() && pid_ < 0) {
        failure = "tavi_sysfs_emu ended before mounting, wait status " + std::to_string(status);
    }
    if (!failure.empty()) Stop();
    return failure;
}

// The child starts with default stop signals, unblocked (a listener under test blocks them),
// and none of the test's descriptors, so it never holds a file of its own mount open. Only
// async-signal-safe calls between fork and exec: the test may run threads.
std::string SysfsEmulator::Spawn() {
    const char* argv[] = {kBinary, "-f", mount_point_.c_str(), nullptr};
    pid_ = fork();
    if (pid_ == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int signal_number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
            (void)signal(signal_number, SIG_DFL);
        }
        close_range(STDERR_FILENO + 1, ~0U, 0);
        execv(kBinary, const_cast<char* const*>(argv));
        _exit(127);
    }
    return pid_ > 0 ? "" : ErrnoText("fork()");
}

void SysfsEmulator::Stop() {
    if (pid_ > 0) {
        // SIGTERM makes the emulator leave its session loop and unmount.
        kill(pid_, SIGTERM);
        auto reaped = [this] {
            pid_t reaped = waitpid(pid_, nullptr, WNOHANG);
            return reaped == pid_ || (reaped == -1 && errno == ECHILD);
        };
        if (!WaitFor(reaped, 3s)) {
            umount2(mount_point_.c_str(), MNT_DETACH);
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        pid_ = -1;
    }
    if (mount_point_.empty()) return;
    // A killed emulator leaves its mount behind; otherwise this fails harmlessly with EINVAL.
    umount2(mount_point_.c_str(), MNT_DETACH);
    rmdir(mount_point_.c_str());
    mount_point_.clear();
}

bool SysfsEmulator::Inject(const std::string& bytes) const {
    if (bytes.empty()) return false;
    android::base::unique_fd inject(open((mount_point_ + "/inject").c_str(), O_WRONLY | O_CLOEXEC));
    return inject.ok() && TEMP_FAILURE_RETRY(write(inject.get(), bytes.data(), bytes.size())) ==
                                  static_cast<ssize_t>(bytes.size());
}

int SysfsEmulator::PendingCount() const {
    std::string text;
    int count = -1;
    android::base::ReadFileToString(mount_point_ + "/pending", &text);
    return android::base::ParseInt(android::base::Trim(text), &count, 0) ? count : -1;
}

bool SysfsEmulator::WaitForPendingCount(int count, std::chrono::milliseconds timeout) const {
    return WaitFor([&] { return PendingCount() == count; }, timeout);
}

}  // namespace vendor::vesk::tavi::testing
