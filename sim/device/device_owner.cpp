// SPDX-License-Identifier: Apache-2.0
#include "device_owner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <nlohmann/json.hpp>

#include "ubo_protocol.h"

namespace vendor::vesk::tavi::sim {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(OwnerReply, status, out, err, owner_ends)

namespace {

using android::base::unique_fd;
using Json = nlohmann::json;

const std::string kWordSeparator(1, '\0');

unique_fd UnixSocket(const std::string& path, sockaddr_un* address) {
    if (!ubo_protocol::SocketAddress(path, address)) {
        LOG(ERROR) << "Socket path too long: " << path;
        return {};
    }
    return unique_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

unique_fd Listen(const std::string& path) {
    sockaddr_un address;
    unique_fd fd = UnixSocket(path, &address);
    // Only called when nobody answers there: whatever is left is a dead owner's socket.
    unlink(path.c_str());
    if (!fd.ok() || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd, 8) != 0) {
        PLOG(ERROR) << "Cannot listen on " << path;
        return {};
    }
    return fd;
}

void Serve(const unique_fd& listener, const OwnerRequestHandler& handle) {
    while (true) {
        unique_fd client(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        if (!client.ok()) {
            if (errno == EINTR) continue;
            PLOG(ERROR) << "accept4() failed";
            return;
        }
        std::string request;
        if (!android::base::ReadFdToString(client, &request)) continue;
        const OwnerReply reply = handle(android::base::Split(request, kWordSeparator));
        android::base::WriteStringToFd(
                Json(reply).dump(-1, ' ', false, Json::error_handler_t::replace), client);
        if (reply.owner_ends) return;
    }
}

// The owner itself, a grandchild of the caller so that nobody has to reap it.
[[noreturn]] void RunOwner(const std::string& socket_path, const std::string& log_path,
                           const OwnerRequestHandler& handle, const unique_fd& listener) {
    setsid();
    if (fork() != 0) _exit(0);
    unique_fd input(open("/dev/null", O_RDONLY | O_CLOEXEC));
    unique_fd output(open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    dup2(input.get(), STDIN_FILENO);
    dup2(output.get(), STDOUT_FILENO);
    dup2(output.get(), STDERR_FILENO);
    (void)signal(SIGPIPE, SIG_IGN);
    Serve(listener, handle);
    unlink(socket_path.c_str());
    _exit(0);
}

}  // namespace

OwnerReply StartOwner(const std::string& socket_path, const std::string& log_path,
                      const OwnerRequestHandler& handle, const std::vector<std::string>& first) {
    // Listening before the fork: the first request waits in the backlog until the owner serves.
    unique_fd listener = Listen(socket_path);
    if (!listener.ok()) return {1, "", "cannot listen on " + socket_path + "\n"};
    const pid_t child = fork();
    if (child == 0) RunOwner(socket_path, log_path, handle, listener);
    listener.reset();  // an owner that ended must refuse the request, not leave it waiting
    if (child > 0) waitpid(child, nullptr, 0);
    return AskOwner(socket_path, first)
            .value_or(OwnerReply{
                    1, "", "the device's owner ended during start-up; see " + log_path + "\n"});
}

std::optional<OwnerReply> AskOwner(const std::string& socket_path,
                                   const std::vector<std::string>& words) {
    sockaddr_un address;
    unique_fd fd = UnixSocket(socket_path, &address);
    if (!fd.ok() || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        return std::nullopt;
    }
    std::string reply;
    if (!android::base::WriteStringToFd(android::base::Join(words, kWordSeparator), fd) ||
        shutdown(fd, SHUT_WR) != 0 || !android::base::ReadFdToString(fd, &reply)) {
        return std::nullopt;
    }
    const Json json = Json::parse(reply, nullptr, /*allow_exceptions=*/false);
    if (!json.is_object()) return std::nullopt;
    return json.get<OwnerReply>();
}

}  // namespace vendor::vesk::tavi::sim
