// SPDX-License-Identifier: Apache-2.0
// The event service as seen through libubo.so: sessions, an active flag, a scripted
// add_event result and a log of every event, all on one thread driven by epoll.
#pragma once

#include <stdint.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <android-base/unique_fd.h>

#include "event_decoder.h"
#include "ubo_protocol.h"

namespace vendor::vesk::tavi::sim {

struct SimulatorOptions {
    std::string socket_path;
    std::string control_path;
    // Empty: no event log (one JSON record a line).
    std::string events_path;
    bool active = false;
    // Becomes active this many seconds after start; negative: only on command.
    double active_after_seconds = -1;
    // What ubo_add_event returns: 0, or a negative failure code.
    int32_t add_event_code = 0;
};

class Simulator {
  public:
    Simulator(SimulatorOptions options, std::unique_ptr<EventDecoder> decoder);
    // Removes the sockets it created.
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    // Opens the log, binds both sockets and arms the start-up timer; false after logging why.
    bool Start();
    // Serves until SIGINT or SIGTERM; false if waiting for events failed.
    bool Run();

  private:
    enum class PeerKind { kSession, kControl };
    struct Peer {
        PeerKind kind = PeerKind::kSession;
        android::base::unique_fd fd;
        // A control command still arriving.
        std::string input;
        // 0 until the hello.
        int32_t session_id = 0;
        // Set by a close request: the hang-up that follows is no lost session.
        bool closed = false;
    };

    bool Watch(int fd);
    void AcceptPeers(int listener, PeerKind kind);
    void ServePeer(int fd);
    bool ReadInput(Peer* peer);
    // False once the peer is to be dropped: hung up, closed or misbehaving.
    bool ServeSession(Peer* peer);
    bool HandleRequest(Peer* peer, const ubo_protocol::Request& request);
    int32_t OpenSession(Peer* peer, const ubo_protocol::Hello& hello);
    int32_t AddEvent(const Peer& peer, const ubo_protocol::AddEvent& request);
    void CloseSession(Peer* peer);
    bool HandleControlInput(Peer* peer, bool at_end);
    std::string RunCommand(const std::string& line);
    std::string Status() const;
    // Starts a record with its kind and the wall-clock time in seconds.
    static Json Record(std::string_view kind);
    // Each record is written whole, so that a reader tailing the log never sees half a line.
    void Log(const Json& record);
    void DropPeer(int fd);
    void SetActive(bool active, std::string_view cause);
    void SetAddEventCode(int32_t code);
    void OnTimer();
    bool OnSignal();

    SimulatorOptions options_;
    std::unique_ptr<EventDecoder> decoder_;
    android::base::unique_fd log_fd_;
    android::base::unique_fd epoll_fd_;
    android::base::unique_fd session_listener_;
    android::base::unique_fd control_listener_;
    android::base::unique_fd timer_fd_;
    android::base::unique_fd signal_fd_;
    std::map<int, Peer> peers_;
    bool active_ = false;
    bool refuse_sessions_ = false;
    int32_t add_event_code_ = 0;
    int32_t last_session_id_ = 0;
    int64_t sessions_open_ = 0;
    int64_t sessions_closed_ = 0;
    int64_t sessions_lost_ = 0;
    int64_t sessions_refused_ = 0;
    int64_t events_ = 0;
};

}  // namespace vendor::vesk::tavi::sim
