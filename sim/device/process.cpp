// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <thread>

#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>

#include "simulated_device.h"

extern char** environ;

namespace vendor::vesk::tavi::sim {
namespace {

std::vector<char*> CStrings(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    pointers.reserve(strings.size() + 1);
    for (std::string& string : strings) pointers.push_back(string.data());
    pointers.push_back(nullptr);
    return pointers;
}

// Between fork and exec only async-signal-safe calls: says why the child gives up and ends.
[[noreturn]] void Fail(const char* what) {
    for (const char* piece : {"simulated device: ", what, "\n"}) {
        (void)!write(STDERR_FILENO, piece, strlen(piece));
    }
    _exit(126);
}

void MountOrFail(const char* source, const char* target, const char* type, uint64_t flags,
                 const char* data) {
    if (mount(source, target, type, flags, data) != 0) Fail(target);
}

void MakeDirOrFail(const char* path) {
    if (mkdir(path, 0755) != 0 && errno != EEXIST) Fail(path);
}

constexpr char kLogPath[] = "/sys/kernel/tavi/log";

// The device's layout in a mount namespace of its own, private so that nothing mounted here
// shows on the host.
void EnterDeviceNamespace(const DeviceMounts& mounts) {
    if (unshare(CLONE_NEWNS) != 0) Fail("unshare(CLONE_NEWNS)");
    MountOrFail(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    // The module's attribute is the real one: nothing to hide or bind.
    if (mounts.attribute != kLogPath) {
        MountOrFail("tavi-sysfs", "/sys/kernel", "tmpfs", 0, "mode=0755");
        MakeDirOrFail("/sys/kernel/tavi");
        if (!mounts.attribute.empty()) {
            const int target = open(kLogPath, O_WRONLY | O_CREAT | O_CLOEXEC, 0444);
            if (target < 0 || close(target) != 0) Fail(kLogPath);
            MountOrFail(mounts.attribute.c_str(), kLogPath, nullptr, MS_BIND, nullptr);
        }
    }
    MountOrFail("tavi-mnt", "/mnt", "tmpfs", 0, "mode=0755");
    for (const char* path : {"/mnt/vendor", "/mnt/vendor/persist", "/mnt/vendor/persist/tavi"}) {
        MakeDirOrFail(path);
    }
    MountOrFail(mounts.persist_dir.c_str(), "/mnt/vendor/persist/tavi", nullptr, MS_BIND, nullptr);
}

}  // namespace

std::string DescribeWaitStatus(int wait_status) {
    if (WIFEXITED(wait_status)) {
        return android::base::StringPrintf("exited with status %d", WEXITSTATUS(wait_status));
    }
    if (WIFSIGNALED(wait_status)) {
        const int signal_number = WTERMSIG(wait_status);
        const char* name = sigabbrev_np(signal_number);
        return android::base::StringPrintf("killed by SIG%s (%s)", name != nullptr ? name : "?",
                                           strsignal(signal_number));
    }
    return android::base::StringPrintf("wait status %d", wait_status);
}

bool WaitUntil(const std::function<bool()>& condition, milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout * WaitScale();
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(milliseconds(10));
    }
    return true;
}

std::string Process::Start(const std::vector<std::string>& argv, const std::string& output,
                           const std::vector<std::string>& env,
                           const std::optional<DeviceMounts>& mounts) {
    if (Running()) return "already running as pid " + std::to_string(pid_);
    // Everything the child needs is prepared here: it may not allocate.
    std::vector<std::string> args = argv, environment = env;
    for (char** entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
    const std::vector<char*> arg_pointers = CStrings(args), env_pointers = CStrings(environment);
    android::base::unique_fd input(open("/dev/null", O_RDONLY | O_CLOEXEC));
    android::base::unique_fd out(
            open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!input.ok() || !out.ok()) return output + ": " + strerror(errno);
    sigset_t none;
    sigemptyset(&none);
    // The daemon's deliberate aborts leave no core files behind.
    const rlimit no_core = {0, 0};

    const pid_t pid = fork();
    if (pid < 0) return std::string("fork(): ") + strerror(errno);
    if (pid == 0) {
        dup2(input.get(), STDIN_FILENO);
        dup2(out.get(), STDOUT_FILENO);
        dup2(out.get(), STDERR_FILENO);
        close_range(STDERR_FILENO + 1, ~0U, 0);
        setrlimit(RLIMIT_CORE, &no_core);
        // As init starts a service: every signal at its default action, none blocked.
        for (int signal_number = 1; signal_number < NSIG; ++signal_number) {
            (void)signal(signal_number, SIG_DFL);
        }
        sigprocmask(SIG_SETMASK, &none, nullptr);
        if (mounts) EnterDeviceNamespace(*mounts);
        execve(arg_pointers[0], arg_pointers.data(), env_pointers.data());
        Fail(arg_pointers[0]);
    }
    pid_ = pid;
    status_.reset();
    return "";
}

bool Process::Running() {
    if (pid_ <= 0 || status_) return false;
    int status = 0;
    const pid_t reaped = waitpid(pid_, &status, WNOHANG);
    if (reaped == 0) return true;
    status_ = reaped == pid_ ? status : -1;  // -1: reaped elsewhere (ECHILD)
    return false;
}

bool Process::Signal(int signal_number) {
    return Running() && kill(pid_, signal_number) == 0;
}

std::optional<int> Process::Wait(milliseconds timeout) {
    WaitUntil([this] { return !Running(); }, timeout);
    return status_;
}

std::optional<int> Process::Stop(int signal_number, milliseconds grace) {
    if (!Signal(signal_number) || Wait(grace)) return status_;
    kill(pid_, SIGKILL);
    int status = 0;
    status_ = waitpid(pid_, &status, 0) == pid_ ? status : -1;
    return status_;
}

}  // namespace vendor::vesk::tavi::sim
