// SPDX-License-Identifier: Apache-2.0
// Host libubo.so: each session is one connection to the event-service simulator (ubo_sim).
#include <errno.h>

#include <memory>
#include <mutex>
#include <new>

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

// What ubo_add_event returns once the connection has broken.
constexpr int32_t kBrokenSessionCode = -EPIPE;

// One request/reply exchange; the caller holds session->lock.
bool Exchange(ubo_session* session, const protocol::Request& request, int32_t* value) {
    if (session->broken) return false;
    protocol::Reply reply;
    if (protocol::Exchange(session->fd, request, &reply)) {
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
    session->fd = protocol::Connect(protocol::SessionSocketPath());
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
