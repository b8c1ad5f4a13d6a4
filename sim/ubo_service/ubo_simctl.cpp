// SPDX-License-Identifier: Apache-2.0
// ubo_simctl: changes and reads the state of a running ubo_sim, one command a run, over the
// socket its sessions use.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <android-base/strings.h>
#include <android-base/unique_fd.h>

#include "ubo_protocol.h"

namespace {

namespace protocol = vendor::vesk::tavi::ubo_protocol;

constexpr int kExitUsage = 2;

}  // namespace

int main(int argc, char** argv) {
    std::string socket_path = protocol::SessionSocketPath();
    int first = 1;
    if (argc > 2 && strcmp(argv[1], "--socket") == 0) {
        socket_path = argv[2];
        first = 3;
    }
    if (first >= argc || argv[first][0] == '-') {
        fprintf(stderr,
                "usage: ubo_simctl [--socket PATH] COMMAND\n"
                "  commands: active | inactive | fail CODE | ok | refuse | accept | status\n"
                "  --socket PATH  the simulator's socket (default: $%s or %s)\n",
                protocol::kSocketEnv, protocol::kDefaultSocketPath);
        return kExitUsage;
    }
    protocol::Request request;
    for (int i = first; i < argc; ++i) request.mutable_command()->add_words(argv[i]);
    android::base::unique_fd fd = protocol::Connect(socket_path);
    protocol::Reply reply;
    if (fd < 0 || !protocol::Exchange(fd, request, &reply)) {
        fprintf(stderr, "ubo_simctl: no reply from ubo_sim at %s: %s\n", socket_path.c_str(),
                strerror(errno));
        return EXIT_FAILURE;
    }
    bool failed = android::base::StartsWith(reply.text(), "error:");
    fprintf(failed ? stderr : stdout, "%s\n", reply.text().c_str());
    return failed ? EXIT_FAILURE : 0;
}
