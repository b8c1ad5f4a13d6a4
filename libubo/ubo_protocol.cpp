// SPDX-License-Identifier: Apache-2.0
// The client end of the simulator's socket, shared by libubo.so, ubo_sim's command mode and the
// simulated device.
#include "ubo_protocol.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace vendor::vesk::tavi::ubo_protocol {

namespace {

// A simulator that stops answering must not hang the caller's thread for good.
constexpr int kReplyTimeoutSeconds = 5;
// Replies are a number, or the few lines a command answers.
constexpr size_t kMaxReplySize = 1024;

}  // namespace

bool SocketAddress(const std::string& path, sockaddr_un* address) {
    *address = {};
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof(address->sun_path)) return false;
    path.copy(address->sun_path, path.size());
    return true;
}

android::base::unique_fd Connect(const std::string& path) {
    sockaddr_un address;
    if (!SocketAddress(path, &address)) {
        errno = ENAMETOOLONG;
        return {};
    }

    android::base::unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (fd < 0) return {};
    timeval timeout{kReplyTimeoutSeconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    if (TEMP_FAILURE_RETRY(
                connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address))) < 0) {
        return {};
    }
    return fd;
}

// send() rather than write(): a vanished simulator must not raise SIGPIPE in the caller.
bool Exchange(int fd, const Request& request, Reply* reply) {
    std::string packet = request.SerializeAsString();
    if (TEMP_FAILURE_RETRY(send(fd, packet.data(), packet.size(), MSG_NOSIGNAL)) !=
        static_cast<ssize_t>(packet.size())) {
        return false;
    }
    char buffer[kMaxReplySize];
    ssize_t n = TEMP_FAILURE_RETRY(recv(fd, buffer, sizeof(buffer), 0));
    if (n > 0 && reply->ParseFromArray(buffer, static_cast<int>(n))) return true;
    // A hang-up, or a packet that is no reply.
    if (n >= 0) errno = n == 0 ? ECONNRESET : EPROTO;
    return false;
}

std::optional<std::string> Command(const std::string& path, const std::vector<std::string>& words) {
    Request request;
    for (const std::string& word : words) request.mutable_command()->add_words(word);
    Reply reply;
    const android::base::unique_fd fd = Connect(path);
    if (!fd.ok() || !Exchange(fd, request, &reply)) return std::nullopt;
    return reply.text();
}

}  // namespace vendor::vesk::tavi::ubo_protocol
