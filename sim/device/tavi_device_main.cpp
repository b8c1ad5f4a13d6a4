// SPDX-License-Identifier: Apache-2.0
// tavi-device: the simulated device by hand. `up` leaves the device with an owner process;
// later invocations hand their command to it over the socket in the state folder.
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include <android-base/file.h>

#include "tavi_device.h"

namespace vendor::vesk::tavi::sim {
namespace {

using namespace std::chrono_literals;

// Absolute, since the owner outlives the caller's working folder.
std::string StateDir() {
    const char* dir = getenv("TAVI_DEVICE_STATE");
    std::string path = dir != nullptr && *dir != '\0' ? dir : "/var/lib/tavi-device";
    char cwd[PATH_MAX];
    if (path[0] != '/' && getcwd(cwd, sizeof(cwd)) != nullptr) path = std::string(cwd) + "/" + path;
    return path;
}

Binaries BuildBinaries() {
    const char* dir = getenv("TAVI_BUILD_DIR");
    return Binaries::InBuildDir(dir != nullptr && *dir != '\0' ? dir : TAVI_DEFAULT_BUILD_DIR);
}

std::string OwnerSocket(const std::string& state_dir) {
    return state_dir + "/owner.sock";
}

int Print(const OwnerReply& reply) {
    fputs(reply.out.c_str(), stdout);
    fputs(reply.err.c_str(), stderr);
    return reply.status;
}

int Fail(const std::string& message) {
    fprintf(stderr, "tavi-device: %s\n", message.c_str());
    return kExitFailure;
}

int Up(const std::vector<std::string>& words, const std::string& state_dir) {
    if (AskOwner(OwnerSocket(state_dir), {"status"})) {
        return Fail("already up in " + state_dir + "; run 'tavi-device down' first");
    }
    const Binaries binaries = BuildBinaries();
    if (std::string reason = SimulatedDevice::Availability(binaries); !reason.empty()) {
        return Fail(reason);
    }
    mkdir(state_dir.c_str(), 0755);
    return Print(StartOwner(
            OwnerSocket(state_dir), state_dir + "/owner.log", [&](const OwnerServe& serve) {
                SimulatedDevice device(state_dir, binaries);
                DeviceCommands commands(device);
                serve(commands.Up(words),
                      [&](const std::vector<std::string>& w) { return commands.Run(w); });
            }));
}

int AskDevice(const std::vector<std::string>& words, const std::string& state_dir) {
    if (std::optional<OwnerReply> reply = AskOwner(OwnerSocket(state_dir), words)) {
        return Print(*reply);
    }
    if (words[0] == "down" || words[0] == "status") {
        printf("nothing is up in %s\n", state_dir.c_str());
        return 0;
    }
    return Fail("the device is not up in " + state_dir + "; run 'tavi-device up' first");
}

// `logs -f`: the daemon's log as it grows, until interrupted.
int FollowLog(const std::string& state_dir) {
    const std::string path = state_dir + "/daemon.log";
    for (size_t shown = 0;; std::this_thread::sleep_for(200ms)) {
        std::string text;
        android::base::ReadFileToString(path, &text);
        if (text.size() < shown) shown = 0;  // moved aside by a new `up`
        fputs(text.substr(shown).c_str(), stdout);
        (void)fflush(stdout);
        shown = text.size();
    }
}

int Main(const std::vector<std::string>& words) {
    if (words.empty()) {
        fputs(Usage().c_str(), stderr);
        return kExitUsage;
    }
    if (words[0] == "help" || words[0] == "--help" || words[0] == "-h") {
        fputs(Usage().c_str(), stdout);
        return 0;
    }
    if (std::string error = CheckCommand(words); !error.empty()) {
        fprintf(stderr, "tavi-device: %s\ntavi-device: 'tavi-device help' lists the commands\n",
                error.c_str());
        return kExitUsage;
    }
    const std::string state_dir = StateDir();
    if (NeedsDevice(words[0])) return AskDevice(words, state_dir);
    if (words[0] == "up") return Up(words, state_dir);
    if (words[0] == "demo") return RunDemo(state_dir, BuildBinaries());
    if (words.size() == 2 && words[1] == "-f") return FollowLog(state_dir);
    return Print(ShowState(words, state_dir));
}

}  // namespace
}  // namespace vendor::vesk::tavi::sim

int main(int argc, char** argv) {
    // A reply to a caller that went away must not end the owner or the caller.
    (void)signal(SIGPIPE, SIG_IGN);
    return vendor::vesk::tavi::sim::Main({argv + 1, argv + argc});
}
