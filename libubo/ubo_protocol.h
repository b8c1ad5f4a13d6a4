// SPDX-License-Identifier: Apache-2.0
// Where the host libubo.so, the event-service simulator (ubo_sim) and those who switch it meet;
// the messages are in ubo_protocol.proto.
#pragma once

#include <stdint.h>
#include <stdlib.h>
#include <sys/un.h>

#include <optional>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "ubo_protocol.pb.h"

namespace vendor::vesk::tavi::ubo_protocol {

inline constexpr char kSocketEnv[] = "UBO_SIM_SOCKET";
inline constexpr char kDefaultSocketPath[] = "/run/ubo_sim/ubo.sock";
inline constexpr uint32_t kVersion = 2;
// Real requests are a few dozen bytes; anything near this is a broken peer.
inline constexpr size_t kMaxPacketSize = size_t{64} * 1024;

// The simulator's socket: $UBO_SIM_SOCKET, or the fixed default.
inline std::string SessionSocketPath() {
    const char* env = getenv(kSocketEnv);
    return env != nullptr && env[0] != '\0' ? env : kDefaultSocketPath;
}

// The address of the socket file at `path`; false when the path does not fit.
bool SocketAddress(const std::string& path, sockaddr_un* address);

// A connection to the simulator at `path`; invalid (errno set) when there is none.
android::base::unique_fd Connect(const std::string& path);

// Sends `request` and waits for its reply; false (errno set) when the connection failed or timed
// out.
bool Exchange(int fd, const Request& request, Reply* reply);

// Hands `words` as one command to the simulator at `path`: its reply's text ("error: ..." when
// the command failed), or nothing (errno set) when it did not answer.
std::optional<std::string> Command(const std::string& path, const std::vector<std::string>& words);

}  // namespace vendor::vesk::tavi::ubo_protocol
