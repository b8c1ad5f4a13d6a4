// SPDX-License-Identifier: Apache-2.0
// ubo_simctl: changes and reads the state of a running ubo_sim through its control socket.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>

#include "ubo_protocol.h"

namespace {

namespace protocol = vendor::vesk::tavi::ubo_protocol;
using android::base::unique_fd;

constexpr int kExitUsage = 2;
constexpr time_t kReplyTimeoutSeconds = 5;

unique_fd Connect(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return {};
    }
    path.copy(address.sun_path, path.size());
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    timeval timeout{kReplyTimeoutSeconds, 0};
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) < 0 ||
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
        return {};
    }
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    (void)signal(SIGPIPE, SIG_IGN);
    std::string control_path = protocol::ControlSocketPath();
    int first = 1;
    for (; first + 1 < argc; first += 2) {
        std::string flag = argv[first];
        if (flag != "--control" && flag != "--socket") break;
        control_path = flag == "--control" ? argv[first + 1]
                                           : protocol::ControlSocketPathFor(argv[first + 1]);
    }
    if (first >= argc || argv[first][0] == '-') {
        fprintf(stderr,
                "usage: ubo_simctl [--control PATH | --socket PATH] COMMAND\n"
                "  commands: active | inactive | fail CODE | ok | refuse | accept | status\n"
                "  --control PATH  control socket (default: $%s, or %s beside the session socket)\n"
                "  --socket PATH   session socket whose control socket to use (default: $%s or "
                "%s)\n",
                protocol::kControlEnv, protocol::kControlSocketName, protocol::kSocketEnv,
                protocol::kDefaultSocketPath);
        return kExitUsage;
    }
    std::string command =
            android::base::Join(std::vector<std::string>(argv + first, argv + argc), ' ');
    unique_fd fd = Connect(control_path);
    if (fd < 0) {
        fprintf(stderr, "ubo_simctl: cannot reach ubo_sim at %s: %s\n", control_path.c_str(),
                strerror(errno));
        return EXIT_FAILURE;
    }
    std::string reply;
    if (!android::base::WriteStringToFd(command + "\n", fd) ||
        !android::base::ReadFdToString(fd, &reply) || reply.empty()) {
        fprintf(stderr, "ubo_simctl: no reply from ubo_sim at %s\n", control_path.c_str());
        return EXIT_FAILURE;
    }
    bool failed = android::base::StartsWith(reply, "error:");
    fputs(reply.c_str(), failed ? stderr : stdout);
    return failed ? EXIT_FAILURE : 0;
}
