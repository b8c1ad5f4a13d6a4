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

#include <android-base/file.h>
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
    // Set once an exchange failed: the stream is out of step and never used again.
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

    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
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
bool SendAll(int fd, const std::string& data) {
    size_t sent = 0;
    while (sent < data.size()) {
        ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

bool ReceiveReply(int fd, protocol::Kind expected, int32_t* value) {
    char header[protocol::kLengthSize];
    if (!android::base::ReadFully(fd, header, sizeof(header))) return false;
    if (protocol::LoadU32(std::string_view(header, sizeof(header))) != protocol::kReplyBodySize) {
        return false;
    }
    char body[protocol::kReplyBodySize];
    if (!android::base::ReadFully(fd, body, sizeof(body))) return false;
    protocol::FrameReader reader(std::string_view(body, sizeof(body)));
    protocol::Kind kind;
    return reader.ReadKind(&kind) && kind == expected && reader.ReadI32(value);
}

// One request/reply exchange; the caller holds session->lock.
bool Exchange(ubo_session* session, const protocol::FrameWriter& request, protocol::Kind kind,
              int32_t* value) {
    if (session->broken) return false;
    if (SendAll(session->fd, request.Finish()) && ReceiveReply(session->fd, kind, value)) {
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
    int32_t session_id = 0;
    protocol::FrameWriter hello(protocol::Kind::kHello);
    hello.U32(protocol::kVersion);
    if (!Exchange(session.get(), hello, protocol::Kind::kHello, &session_id) || session_id <= 0) {
        return nullptr;
    }
    return session.release();
}

int32_t ubo_is_active(ubo_session_t* session) {
    if (session == nullptr) return 0;
    std::lock_guard<std::mutex> guard(session->lock);
    int32_t active = 0;
    protocol::FrameWriter request(protocol::Kind::kIsActive);
    if (!Exchange(session, request, protocol::Kind::kIsActive, &active)) return -1;
    return active;
}

int32_t ubo_add_event(ubo_session_t* session, const char* source, const char* probe,
                      const uint8_t* data, size_t size) {
    if (session == nullptr || source == nullptr || probe == nullptr) return -EINVAL;
    if (data == nullptr && size > 0) return -EINVAL;
    protocol::FrameWriter request(protocol::Kind::kAddEvent);
    request.Bytes(source).Bytes(probe).Bytes(
            std::string_view(reinterpret_cast<const char*>(data), size));
    // The simulator drops a peer that sends an oversized frame; refuse it here instead.
    if (request.BodySize() > protocol::kMaxBodySize) return -EMSGSIZE;
    std::lock_guard<std::mutex> guard(session->lock);
    int32_t code = 0;
    if (!Exchange(session, request, protocol::Kind::kAddEvent, &code)) return kBrokenSessionCode;
    return code;
}

void ubo_destroy(ubo_session_t** session) {
    if (session == nullptr || *session == nullptr) return;
    std::unique_ptr<ubo_session> owned(*session);
    *session = nullptr;
    std::lock_guard<std::mutex> guard(owned->lock);
    // Waiting for the reply means the simulator has recorded the close when this returns.
    int32_t ignored;
    Exchange(owned.get(), protocol::FrameWriter(protocol::Kind::kClose), protocol::Kind::kClose,
             &ignored);
}

}  // extern "C"
