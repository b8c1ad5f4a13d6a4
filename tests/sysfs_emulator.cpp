#include "sysfs_emulator.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>

extern char** environ;

namespace vendor::vesk::tavi::testing {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kMountTimeout(5000);
constexpr milliseconds kExitTimeout(3000);
constexpr milliseconds kPollInterval(2);

std::string ErrnoText(const std::string& call) {
    return call + ": " + strerror(errno);
}

std::string CheckBinary(const std::string& binary) {
    if (binary.empty()) return "this build has no tavi_sysfs_emu binary";
    if (access(binary.c_str(), X_OK) != 0) return ErrnoText("tavi_sysfs_emu binary " + binary);
    return "";
}

std::string ProbeAvailability() {
    if (geteuid() != 0) return "mounting the sysfs emulator (FUSE) needs root";
    android::base::unique_fd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (!fuse.ok()) return ErrnoText("/dev/fuse");
    if (std::string missing = CheckBinary(SysfsEmulator::DefaultBinary()); !missing.empty()) {
        return missing;
    }
    SysfsEmulator trial;
    if (std::string failure = trial.Start(); !failure.empty()) {
        return "the sysfs emulator did not mount: " + failure;
    }
    return "";
}

bool IsMountedOver(const std::string& file, const std::string& parent) {
    struct stat file_status, parent_status;
    return stat(file.c_str(), &file_status) == 0 && stat(parent.c_str(), &parent_status) == 0 &&
           file_status.st_dev != parent_status.st_dev;
}

std::string ExitText(int status) {
    if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return std::string("signal ") + strsignal(WTERMSIG(status));
    return "status " + std::to_string(status);
}

}  // namespace

std::string SysfsEmulator::Availability() {
    static const std::string reason = ProbeAvailability();
    return reason;
}

std::string SysfsEmulator::DefaultBinary() {
#ifdef TAVI_SYSFS_EMU_PATH
    return TAVI_SYSFS_EMU_PATH;
#else
    return "";
#endif
}

SysfsEmulator::SysfsEmulator(std::string binary) : binary_(std::move(binary)) {}

SysfsEmulator::~SysfsEmulator() {
    Stop();
}

std::string SysfsEmulator::Start() {
    if (Running()) return "already running on " + mount_point_;
    if (std::string missing = CheckBinary(binary_); !missing.empty()) return missing;
    std::string mount_point_template = "/tmp/tavi_sysfs_emu.XXXXXX";
    if (mkdtemp(mount_point_template.data()) == nullptr) return ErrnoText("mkdtemp()");
    mount_point_ = mount_point_template;
    std::string failure = Spawn();
    if (failure.empty()) failure = WaitUntilMounted();
    if (!failure.empty()) Stop();
    return failure;
}

// The child starts with default stop signals, unblocked (a listener under test blocks them),
// and none of the test's descriptors, so it never holds a file of its own mount open.
std::string SysfsEmulator::Spawn() {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    for (int signal_number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        sigaddset(&signals, signal_number);
    }
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<std::string> arguments = {binary_, "-f", mount_point_};
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    int error = posix_spawn(&pid_, binary_.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error == 0) return "";
    pid_ = -1;
    return "posix_spawn(" + binary_ + "): " + strerror(error);
}

std::string SysfsEmulator::WaitUntilMounted() {
    const auto deadline = Clock::now() + kMountTimeout;
    while (!IsMountedOver(LogPath(), mount_point_ + "/..")) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return "tavi_sysfs_emu ended before mounting (" + ExitText(status) + ")";
        }
        if (Clock::now() > deadline) return "tavi_sysfs_emu did not mount " + mount_point_;
        std::this_thread::sleep_for(kPollInterval);
    }
    return "";
}

bool SysfsEmulator::WaitForExit(milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    do {
        pid_t reaped = waitpid(pid_, nullptr, WNOHANG);
        if (reaped == pid_ || (reaped == -1 && errno == ECHILD)) return true;
        std::this_thread::sleep_for(kPollInterval);
    } while (Clock::now() < deadline);
    return false;
}

void SysfsEmulator::Stop() {
    if (Running()) {
        // SIGTERM makes the emulator leave its session loop and unmount.
        kill(pid_, SIGTERM);
        if (!WaitForExit(kExitTimeout)) {
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
    android::base::unique_fd inject(open(InjectPath().c_str(), O_WRONLY | O_CLOEXEC));
    if (!inject.ok()) return false;
    ssize_t written = TEMP_FAILURE_RETRY(write(inject.get(), bytes.data(), bytes.size()));
    return written == static_cast<ssize_t>(bytes.size());
}

int SysfsEmulator::PendingCount() const {
    std::string text;
    int count = -1;
    if (!android::base::ReadFileToString(mount_point_ + "/pending", &text)) return -1;
    if (!android::base::ParseInt(android::base::Trim(text), &count, 0)) return -1;
    return count;
}

bool SysfsEmulator::WaitForPendingCount(int count, milliseconds timeout) const {
    const auto deadline = Clock::now() + timeout;
    while (PendingCount() != count) {
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(kPollInterval);
    }
    return true;
}

}  // namespace vendor::vesk::tavi::testing
