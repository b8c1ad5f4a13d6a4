// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

// The simulated device on a Linux host: the kernel attribute (emulated by tavi_sysfs_emu, or the
// tavi_log module's own), the event service (ubo_sim) and the unmodified daemon in a private
// mount namespace laid out like the device. Everything that starts one of them goes through here.
//
// Chosen at run time, so that one test binary serves every host:
//   TAVI_ATTRIBUTE   "emulator" (the default) or "kernel": the module's /sys/kernel/tavi/log,
//                    fed through /sys/kernel/tavi/inject (loaded with allow_inject=1)
//   TAVI_BUILD_DIR   the build folder Binaries::InBuildDir takes the programs from
//   TAVI_WAIT_SCALE  a positive integer multiplying every bounded wait (slow emulated machines)
namespace vendor::vesk::tavi::sim {

using std::chrono::milliseconds;

// Where the programs are; paths are taken as they are, nothing is searched.
struct Binaries {
    std::string sysfs_emu;
    std::string ubo_sim;
    std::string daemon;

    // The programs of a build folder (scripts/build.sh's layout); TAVI_BUILD_DIR, when set,
    // replaces `build_dir`.
    static Binaries InBuildDir(const std::string& build_dir);
};

// How a case that cannot hold on the module's attribute says so when it skips.
inline constexpr char kNotOnKernel[] = "not on the kernel's attribute: ";

// True when TAVI_ATTRIBUTE names the module's attribute; `failure`, when given, says why for a
// value that names none.
bool OnKernelAttribute(std::string* failure = nullptr);
// TAVI_WAIT_SCALE, 1 when unset or no positive integer (`failure`, when given, then says why).
int WaitScale(std::string* failure = nullptr);

// The device's view of the host: tmpfs over /mnt with `persist_dir` at /mnt/vendor/persist/tavi,
// and at /sys/kernel/tavi/log: `attribute` bound over a tmpfs on /sys/kernel, the real one when
// `attribute` is that very path, none when empty (the daemon cannot set up its listener).
struct DeviceMounts {
    std::string persist_dir;
    std::string attribute;
};

// "exited with status 0", "killed by SIGABRT (Aborted)".
std::string DescribeWaitStatus(int wait_status);

// A child started as init starts a service: default signal actions, an empty mask, stdin from
// /dev/null, stdout and stderr appended to a file, no other descriptor, no core file. Killed and
// reaped on destruction.
class Process {
  public:
    Process() = default;
    ~Process() { Stop(SIGKILL, milliseconds(0)); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Starts `argv` (argv[0] a path) with `env` ahead of this process's environment, inside
    // `mounts` when given. Empty, or why it could not start.
    std::string Start(const std::vector<std::string>& argv, const std::string& output,
                      const std::vector<std::string>& env = {},
                      const std::optional<DeviceMounts>& mounts = std::nullopt);
    bool Running();  // reaps it once ended
    bool Signal(int signal_number);
    std::optional<int> Wait(milliseconds timeout);  // the wait status once it has ended
    // Sends `signal_number`, then SIGKILL after `grace`; the wait status, none if never started.
    std::optional<int> Stop(int signal_number, milliseconds grace);
    pid_t pid() const { return pid_; }  // the last one started; -1 before

  private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

// Polls `condition` every 10 ms until it holds or `timeout` times the wait scale has passed.
bool WaitUntil(const std::function<bool()>& condition, milliseconds timeout);

// The kernel attribute the daemon reads, with a queue of records fed through its `inject` file:
// the module's own, or tavi_sysfs_emu mounted afresh on `run_dir`/sysfs by every start.
class Attribute {
  public:
    Attribute(const std::string& emulator, const std::string& run_dir);
    ~Attribute() { Stop(); }

    // Makes it ready with nothing pending; empty, or why not.
    std::string Start();
    // Unmounts and reaps the emulator, within seconds even if it hangs; idempotent.
    void Stop();
    bool Started() const { return started_; }
    std::string LogPath() const { return dir_ + "/log"; }
    // Queues `record` verbatim (one write(); never empty); false when the attribute refuses it.
    bool Inject(const std::string& record) const;
    // Records not yet read by the daemon; -1 on the module's attribute, which has no such count.
    int PendingCount() const;

  private:
    std::string Mount();

    std::string failure_;   // why TAVI_ATTRIBUTE names no attribute
    std::string emulator_;  // empty for the module's attribute
    std::string dir_;       // where `log`, `inject` and the emulator's `pending` are
    std::string output_;
    Process process_;
    bool started_ = false;
};

// A line of the daemon's log: severity letter ('I', 'E', 'F'; '?' for other output, such as the
// C++ runtime's), the text after "] ", and when it was first read.
struct LogLine {
    char severity = '?';
    std::string text;
    std::chrono::steady_clock::time_point seen;
};

// The lines appended to a log file after an offset, read as they come.
class LogReader {
  public:
    LogReader() = default;
    LogReader(std::string path, size_t offset) : path_(std::move(path)), offset_(offset) {}

    const std::vector<LogLine>& Lines();  // every line so far
    // Of the first line reading `text` from line `from` on, or -1.
    int IndexOf(const std::string& text, size_t from = 0);
    bool WaitForLine(const std::string& text, milliseconds timeout);

  private:
    std::string path_;
    size_t offset_ = 0;
    std::vector<LogLine> lines_;
};

// The event service's JSON lines ("kind", "time", and per kind "source", "probe", "payload_hex",
// "rc", "fields", ...), read as they are appended.
class EventReader {
  public:
    explicit EventReader(std::string path, size_t offset = 0)
        : path_(std::move(path)), offset_(offset) {}

    // Those appended since the last call, in order; lines that are no JSON are skipped.
    std::vector<nlohmann::json> ReadNew();

  private:
    std::string path_;
    size_t offset_ = 0;
};

// The whole device in a state folder:
//   persist/       the daemon's /mnt/vendor/persist/tavi, kept across daemon runs
//   daemon.log     the daemon's output, appended by every start
//   events.jsonl   the event service's records, appended by every start
//   run/           the emulated attribute's mount point (run/sysfs), sockets and the helpers'
//                  output
class SimulatedDevice {
  public:
    SimulatedDevice(std::string state_dir, Binaries binaries);
    ~SimulatedDevice();  // the daemon gets SIGKILL, the others SIGTERM
    SimulatedDevice(const SimulatedDevice&) = delete;
    SimulatedDevice& operator=(const SimulatedDevice&) = delete;

    // Empty when a device can be simulated on this host (root, mount namespaces, and FUSE or
    // the module's attribute); otherwise why not. Checked once per process.
    static std::string Availability(const Binaries& binaries);

    // Each Start returns empty, or why it failed (nothing of that part left running).
    std::string StartAttribute() { return attribute_.Start(); }
    void StopAttribute() { attribute_.Stop(); }
    // (Re)starts the service, active or not, and waits until it listens.
    std::string StartService(bool active);
    // Its wait status (0: a clean exit), or none if it never started.
    std::optional<int> StopService() { return service_.Stop(SIGTERM, std::chrono::seconds(3)); }
    // Starts the daemon unless one runs and waits until its poll loop starts (without the
    // attribute: its first line). Log() reads its lines from here on.
    std::string StartDaemon(bool with_attribute = true);
    std::string Start(bool service_active, bool with_attribute = true);  // all three

    bool Inject(const std::string& record) const { return attribute_.Inject(record); }
    int PendingCount() const { return attribute_.PendingCount(); }
    // One command to the service, such as {"fail", "-5"}: true when it succeeded. Its reply
    // ("error: ..." on failure, empty without one) goes to `reply` when given.
    bool ServiceControl(const std::vector<std::string>& command, std::string* reply = nullptr);
    bool SetServiceActive(bool active) { return ServiceControl({active ? "active" : "inactive"}); }

    bool SignalDaemon(int signal_number) { return daemon_.Signal(signal_number); }
    bool DaemonRunning() { return daemon_.Running(); }
    std::optional<int> WaitForDaemonExit(milliseconds timeout) { return daemon_.Wait(timeout); }
    pid_t DaemonPid() const { return daemon_.pid(); }
    bool ServiceRunning() { return service_.Running(); }
    bool AttributeMounted() const { return attribute_.Started(); }
    std::string AttributeLogPath() const { return attribute_.LogPath(); }

    LogReader& Log() { return log_; }
    // The service's records of `kind` ("event", "session_lost", ...; empty: all).
    std::vector<nlohmann::json> Records(const std::string& kind = "") const;
    size_t CountRecords(const std::string& kind) const { return Records(kind).size(); }

    const std::string& StateDir() const { return state_dir_; }
    std::string PersistDir() const { return state_dir_ + "/persist"; }
    std::string CachePath() const { return PersistDir() + "/cache.bin"; }
    std::string LogPath() const { return state_dir_ + "/daemon.log"; }
    std::string EventsPath() const { return state_dir_ + "/events.jsonl"; }
    std::string RunDir() const { return state_dir_ + "/run"; }
    std::string SocketPath() const { return RunDir() + "/ubo.sock"; }

  private:
    std::string state_dir_;
    Binaries binaries_;
    Attribute attribute_;
    Process service_;
    Process daemon_;
    LogReader log_;
};

}  // namespace vendor::vesk::tavi::sim
