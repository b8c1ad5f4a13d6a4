// SPDX-License-Identifier: Apache-2.0
// Where the host libubo.so and the event-service simulator (ubo_sim) meet; the messages are in
// ubo_protocol.proto.
#pragma once

#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "ubo_protocol.pb.h"

namespace vendor::vesk::tavi::ubo_protocol {

inline constexpr char kSocketEnv[] = "UBO_SIM_SOCKET";
inline constexpr char kControlEnv[] = "UBO_SIM_CONTROL";
inline constexpr char kDefaultSocketPath[] = "/run/ubo_sim/ubo.sock";
inline constexpr char kControlSocketName[] = "control.sock";
inline constexpr uint32_t kVersion = 2;
// Real requests are a few dozen bytes; anything near this is a broken peer.
inline constexpr size_t kMaxPacketSize = size_t{64} * 1024;

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

}  // namespace vendor::vesk::tavi::ubo_protocol
