// SPDX-License-Identifier: Apache-2.0
// ubo_sim: the event-reporting service of the simulated device.
#include <stdio.h>
#include <string.h>

#include <string>

#include <android-base/logging.h>
#include <android-base/parsedouble.h>
#include <android-base/parseint.h>

#include "event_decoder.h"
#include "simulator.h"
#include "ubo_protocol.h"

namespace {

using vendor::vesk::tavi::sim::EventDecoder;
using vendor::vesk::tavi::sim::Simulator;
using vendor::vesk::tavi::sim::SimulatorOptions;
namespace protocol = vendor::vesk::tavi::ubo_protocol;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

void PrintUsage(FILE* out) {
    fprintf(out,
            "usage: ubo_sim [--socket PATH] [--control PATH] [--events PATH] [--proto PATH]\n"
            "               [--active | --active-after SECONDS] [--fail CODE]\n"
            "  --socket PATH          session socket (default: $%s or %s)\n"
            "  --control PATH         control socket (default: $%s or %s beside the socket)\n"
            "  --events PATH          append one JSON record per line to PATH\n"
            "  --proto PATH           event schema (default: %s)\n"
            "  --active               start active (default: inactive)\n"
            "  --active-after SECONDS become active after SECONDS (fractions allowed)\n"
            "  --fail CODE            ubo_add_event returns the negative CODE from the start\n",
            protocol::kSocketEnv, protocol::kDefaultSocketPath, protocol::kControlEnv,
            protocol::kControlSocketName, UBO_SIM_DEFAULT_PROTO);
}

struct CommandLine {
    SimulatorOptions options;
    std::string proto_path = UBO_SIM_DEFAULT_PROTO;
};

bool ParseCommandLine(int argc, char** argv, CommandLine* command_line) {
    SimulatorOptions& options = command_line->options;
    options.socket_path = protocol::SessionSocketPath();
    const char* control_env = getenv(protocol::kControlEnv);
    if (control_env != nullptr) options.control_path = control_env;
    for (int i = 1; i < argc; ++i) {
        std::string flag = argv[i];
        if (flag == "--active") {
            options.active = true;
            continue;
        }
        if (i + 1 >= argc) return false;
        const char* value = argv[++i];
        if (flag == "--socket") {
            options.socket_path = value;
        } else if (flag == "--control") {
            options.control_path = value;
        } else if (flag == "--events") {
            options.events_path = value;
        } else if (flag == "--proto") {
            command_line->proto_path = value;
        } else if (flag == "--active-after") {
            if (!android::base::ParseDouble(value, &options.active_after_seconds, 0.0, 1e6)) {
                return false;
            }
        } else if (flag == "--fail") {
            if (!android::base::ParseInt(value, &options.add_event_code, INT32_MIN, -1)) {
                return false;
            }
        } else {
            return false;
        }
    }
    if (options.control_path.empty()) {
        options.control_path = protocol::ControlSocketPathFor(options.socket_path);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    android::base::InitLogging(argv, android::base::StderrLogger);
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        PrintUsage(stdout);
        return 0;
    }
    CommandLine command_line;
    if (!ParseCommandLine(argc, argv, &command_line)) {
        PrintUsage(stderr);
        return kExitUsage;
    }
    std::unique_ptr<EventDecoder> decoder = EventDecoder::Load(command_line.proto_path);
    if (!decoder) return kExitFailure;
    Simulator simulator(std::move(command_line.options), std::move(decoder));
    if (!simulator.Start()) return kExitFailure;
    return simulator.Run() ? 0 : kExitFailure;
}
