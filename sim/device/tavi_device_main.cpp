// SPDX-License-Identifier: Apache-2.0
// tavi-device: the simulated device by hand. `up` leaves the device with an owner process;
// later invocations hand their command to it over the socket in the state folder.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include <android-base/file.h>

#include "tavi_device.h"

namespace vendor::vesk::tavi::sim {
namespace {

using namespace std::chrono_literals;

std::string FromEnvironment(const char* name, const char* fallback) {
    const char* value = getenv(name);
    return value != nullptr && *value != '\0' ? value : fallback;
}

int Print(const OwnerReply& reply) {
    fputs(reply.out.c_str(), stdout);
    fputs(reply.err.c_str(), stderr);
    return reply.status;
}

int Fail(const std::string& message) {
    return Print({kExitFailure, "", "tavi-device: " + message + "\n"});
}

int Up(const std::vector<std::string>& words, const std::string& state_dir,
       const Binaries& binaries) {
    const std::string socket = state_dir + "/owner.sock";
    if (AskOwner(socket, {"status"})) {
        return Fail("already up in " + state_dir + "; run 'tavi-device down' first");
    }
    if (std::string reason = SimulatedDevice::Availability(binaries); !reason.empty()) {
        return Fail(reason);
    }
    mkdir(state_dir.c_str(), 0755);
    // The device lives in the owner; a reply that ends the owner ends it first.
    std::optional<SimulatedDevice> device;
    auto handle = [&](const std::vector<std::string>& request) {
        if (!device) device.emplace(state_dir, binaries);
        OwnerReply reply = RunCommand(*device, request);
        if (reply.owner_ends) device.reset();
        return reply;
    };
    return Print(StartOwner(socket, state_dir + "/owner.log", handle, words));
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
    if (words.empty()) return Print({kExitUsage, "", Usage()});
    if (words[0] == "help" || words[0] == "--help" || words[0] == "-h") return Print({0, Usage()});
    if (std::string error = CheckCommand(words); !error.empty()) {
        return Print({kExitUsage, "",
                      "tavi-device: " + error +
                              "\ntavi-device: 'tavi-device help' lists the commands\n"});
    }
    // Absolute, since the owner outlives the caller's working folder.
    std::error_code error;
    const std::string state_dir = std::filesystem::absolute(
            FromEnvironment("TAVI_DEVICE_STATE", "/var/lib/tavi-device"), error);
    const Binaries binaries =
            Binaries::InBuildDir(FromEnvironment("TAVI_BUILD_DIR", TAVI_DEFAULT_BUILD_DIR));
    if (NeedsDevice(words[0])) {
        if (std::optional<OwnerReply> reply = AskOwner(state_dir + "/owner.sock", words)) {
            return Print(*reply);
        }
        if (words[0] == "down" || words[0] == "status") {
            return Print({0, "nothing is up in " + state_dir + "\n"});
        }
        return Fail("the device is not up in " + state_dir + "; run 'tavi-device up' first");
    }
    if (words[0] == "up") return Up(words, state_dir, binaries);
    if (words[0] == "demo") return RunDemo(state_dir, binaries);
    if (words.size() == 2) return FollowLog(state_dir);  // logs -f
    return Print(ShowState(words, state_dir));
}

}  // namespace
}  // namespace vendor::vesk::tavi::sim

int main(int argc, char** argv) {
    // A reply to a caller that went away must not end the owner or the caller.
    (void)signal(SIGPIPE, SIG_IGN);
    return vendor::vesk::tavi::sim::Main({argv + 1, argv + argc});
}
