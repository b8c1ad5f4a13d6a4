// Wire protocol between the host libubo.so and the event-service simulator (ubo_sim).
//
// One Unix stream connection is one session. Every frame is a little-endian u32 body length
// followed by the body; a body starts with its one-byte kind. The client sends one request and
// waits for its reply before the next, so neither side ever has more than one frame in flight.
//
// Requests:   hello     u32 protocol version
//             is_active (nothing)
//             add_event bytes source, bytes probe, bytes payload (bytes = u32 length + data)
//             close     (nothing)
// Replies repeat the request's kind and carry one i32: the session id (> 0) or a negative
// refusal for hello, 1 or 0 for is_active, the return code for add_event, 0 for close.
#pragma once

#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <string_view>

namespace vendor::vesk::tavi::ubo_protocol {

inline constexpr char kSocketEnv[] = "UBO_SIM_SOCKET";
inline constexpr char kControlEnv[] = "UBO_SIM_CONTROL";
inline constexpr char kDefaultSocketPath[] = "/run/ubo_sim/ubo.sock";
inline constexpr char kControlSocketName[] = "control.sock";
inline constexpr uint32_t kVersion = 1;
// Real bodies are a few dozen bytes; anything near this is a broken peer.
inline constexpr uint32_t kMaxBodySize = 64 * 1024;
inline constexpr size_t kLengthSize = 4;
inline constexpr size_t kReplyBodySize = 5;

enum class Kind : uint8_t { kHello = 1, kIsActive = 2, kAddEvent = 3, kClose = 4 };

// The session socket: $UBO_SIM_SOCKET, or the fixed default.
inline std::string SessionSocketPath() {
    const char* env = getenv(kSocketEnv);
    return env != nullptr && env[0] != '\0' ? env : kDefaultSocketPath;
}

// The control socket lives beside the session socket unless $UBO_SIM_CONTROL says otherwise.
inline std::string ControlSocketPathFor(const std::string& session_socket) {
    size_t slash = session_socket.rfind('/');
    if (slash == std::string::npos) return kControlSocketName;
    return session_socket.substr(0, slash + 1) + kControlSocketName;
}

inline std::string ControlSocketPath() {
    const char* env = getenv(kControlEnv);
    if (env != nullptr && env[0] != '\0') return env;
    return ControlSocketPathFor(SessionSocketPath());
}

inline void AppendU32(std::string* out, uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) out->push_back(static_cast<char>(value >> shift));
}

inline uint32_t LoadU32(std::string_view data) {
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i) value = (value << 8) | static_cast<uint8_t>(data[i]);
    return value;
}

// Builds one frame: kind, then fields in order; Finish() prefixes the length.
class FrameWriter {
  public:
    explicit FrameWriter(Kind kind) : body_(1, static_cast<char>(kind)) {}
    FrameWriter& U32(uint32_t value) {
        AppendU32(&body_, value);
        return *this;
    }
    FrameWriter& I32(int32_t value) { return U32(static_cast<uint32_t>(value)); }
    FrameWriter& Bytes(std::string_view data) {
        AppendU32(&body_, static_cast<uint32_t>(data.size()));
        body_.append(data);
        return *this;
    }
    size_t BodySize() const { return body_.size(); }
    std::string Finish() const {
        std::string frame;
        AppendU32(&frame, static_cast<uint32_t>(body_.size()));
        return frame + body_;
    }

  private:
    std::string body_;
};

// Reads the fields of one body; every getter fails once the body runs short.
class FrameReader {
  public:
    explicit FrameReader(std::string_view body) : rest_(body) {}
    bool ReadKind(ubo_protocol::Kind* kind) {
        if (rest_.empty()) return false;
        *kind = static_cast<ubo_protocol::Kind>(rest_[0]);
        rest_.remove_prefix(1);
        return true;
    }
    bool ReadU32(uint32_t* value) {
        if (rest_.size() < kLengthSize) return false;
        *value = LoadU32(rest_);
        rest_.remove_prefix(kLengthSize);
        return true;
    }
    bool ReadI32(int32_t* value) {
        uint32_t raw;
        if (!ReadU32(&raw)) return false;
        *value = static_cast<int32_t>(raw);
        return true;
    }
    bool ReadBytes(std::string_view* data) {
        uint32_t size;
        if (!ReadU32(&size) || rest_.size() < size) return false;
        *data = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return true;
    }
    bool AtEnd() const { return rest_.empty(); }

  private:
    std::string_view rest_;
};

}  // namespace vendor::vesk::tavi::ubo_protocol
