// SPDX-License-Identifier: Apache-2.0
// The one process that owns a simulated device between two invocations of a command-line
// tool: it holds what its start-up created and answers requests on a Unix socket, one request
// per connection, until a reply ends it.
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
// Hands the start-up's reply to the waiting caller and, when it is a success, answers requests
// with the handler until one ends the owner.
using OwnerServe = std::function<void(const OwnerReply& started, const OwnerRequestHandler&)>;

// Forks the owner in a session of its own (a terminal's Ctrl-C or hang-up does not reach it),
// stdout and stderr appended to `log_path`, listening on `socket_path`, and runs `run` there:
// what `run` creates lives until it returns. Returns the reply `run` gave to `serve`.
OwnerReply StartOwner(const std::string& socket_path, const std::string& log_path,
                      const std::function<void(const OwnerServe& serve)>& run);

// Sends one request; nothing when no owner listens on `socket_path`.
std::optional<OwnerReply> AskOwner(const std::string& socket_path,
                                   const std::vector<std::string>& words);

}  // namespace vendor::vesk::tavi::sim
