// SPDX-License-Identifier: Apache-2.0
// Host libubo.so: each session is one connection to the event-service simulator (ubo_sim).
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <memory>
#include <mutex>
#include <new>
#include <string>

#include <android-base/unique_fd.h>

// The library is built with hidden visibility; only the client API is exported.
#pragma GCC visibility push(default)
#include "ubo.h"
#pragma GCC visibility pop

#include "ubo_protocol.h"

struct ubo_session {
    android::base::unique_fd fd;
    // Calls may come from two threads; one request/reply exchange at a time.
    std::mutex lock;
    // Set once an exchange failed: the session is out of step and never used again.
    bool broken = false;
};

namespace {

namespace protocol = vendor::vesk::tavi::ubo_protocol;
using android::base::unique_fd;

// A simulator that stops answering must not hang the caller's thread for good.
constexpr int kReplyTimeoutSeconds = 5;
// What ubo_add_event returns once the connection has broken.
constexpr int32_t kBrokenSessionCode = -EPIPE;

unique_fd ConnectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) return {};
    memcpy(address.sun_path, path.c_str(), path.size() + 1);

    unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (fd < 0) return {};
    timeval timeout{kReplyTimeoutSeconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    int result;
    do {
        result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    } while (result < 0 && errno == EINTR);
    if (result < 0) return {};
    return fd;
}

// send() rather than write(): a vanished simulator must not raise SIGPIPE in the caller.
bool Transfer(int fd, const protocol::Request& request, protocol::Reply* reply) {
    std::string packet = request.SerializeAsString();
    ssize_t n;
    do {
        n = send(fd, packet.data(), packet.size(), MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(packet.size())) return false;
    char buffer[64];
    do {
        n = recv(fd, buffer, sizeof(buffer), 0);
    } while (n < 0 && errno == EINTR);
    return n > 0 && reply->ParseFromArray(buffer, static_cast<int>(n));
}

// One request/reply exchange; the caller holds session->lock.
bool Exchange(ubo_session* session, const protocol::Request& request, int32_t* value) {
    if (session->broken) return false;
    protocol::Reply reply;
    if (Transfer(session->fd, request, &reply)) {
        *value = reply.value();
        return true;
    }
    session->broken = true;
    return false;
}

}  // namespace

extern "C" {

ubo_session_t* ubo_create(void) {
    std::unique_ptr<ubo_session> session(new (std::nothrow) ubo_session);
    if (!session) return nullptr;
    session->fd = ConnectTo(protocol::SessionSocketPath());
    if (session->fd < 0) return nullptr;
    protocol::Request hello;
    hello.mutable_hello()->set_version(protocol::kVersion);
    int32_t session_id = 0;
    if (!Exchange(session.get(), hello, &session_id) || session_id <= 0) return nullptr;
    return session.release();
}

int32_t ubo_is_active(ubo_session_t* session) {
    if (session == nullptr) return 0;
    std::lock_guard<std::mutex> guard(session->lock);
    protocol::Request request;
    request.mutable_is_active();
    int32_t active = 0;
    if (!Exchange(session, request, &active)) return -1;
    return active;
}

int32_t ubo_add_event(ubo_session_t* session, const char* source, const char* probe,
                      const uint8_t* data, size_t size) {
    if (session == nullptr || source == nullptr || probe == nullptr) return -EINVAL;
    if (data == nullptr && size > 0) return -EINVAL;
    protocol::Request request;
    protocol::AddEvent* event = request.mutable_add_event();
    event->set_source(source);
    event->set_probe(probe);
    if (size > 0) event->set_payload(data, size);
    // The simulator drops a peer that sends an oversized packet; refuse it here instead.
    if (request.ByteSizeLong() > protocol::kMaxPacketSize) return -EMSGSIZE;
    std::lock_guard<std::mutex> guard(session->lock);
    int32_t code = 0;
    if (!Exchange(session, request, &code)) return kBrokenSessionCode;
    return code;
}

void ubo_destroy(ubo_session_t** session) {
    if (session == nullptr || *session == nullptr) return;
    std::unique_ptr<ubo_session> owned(*session);
    *session = nullptr;
    std::lock_guard<std::mutex> guard(owned->lock);
    // Waiting for the reply means the simulator has recorded the close when this returns.
    protocol::Request request;
    request.mutable_close();
    int32_t ignored;
    Exchange(owned.get(), request, &ignored);
}

}  // extern "C"
