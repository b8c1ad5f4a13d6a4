// SPDX-License-Identifier: Apache-2.0
// The one process that owns a simulated device between two invocations of a command-line
// tool: it answers requests on a Unix socket, one per connection, until a reply ends it.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vendor::vesk::tavi::sim {

// What one request produced: its exit status and what it printed on each stream.
struct OwnerReply {
    int status = 0;
    std::string out{};
    std::string err{};
    // The owner stops serving once this reply is sent.
    bool owner_ends = false;
};

using OwnerRequestHandler = std::function<OwnerReply(const std::vector<std::string>& words)>;

// Forks the owner in a session of its own (a terminal's Ctrl-C or hang-up does not reach it),
// stdout and stderr appended to `log_path`, answering requests on `socket_path` with `handle`
// until a reply ends it. Returns its reply to `first`, its first request.
OwnerReply StartOwner(const std::string& socket_path, const std::string& log_path,
                      const OwnerRequestHandler& handle, const std::vector<std::string>& first);

// Sends one request; nothing when no owner listens on `socket_path`.
std::optional<OwnerReply> AskOwner(const std::string& socket_path,
                                   const std::vector<std::string>& words);

}  // namespace vendor::vesk::tavi::sim
