// SPDX-License-Identifier: Apache-2.0

#include "simulator.h"

#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>

namespace vendor::vesk::tavi::sim {
namespace {

namespace protocol = ubo_protocol;
using android::base::StringPrintf;
using android::base::unique_fd;

// One command line per control connection; anything longer is not a command.
constexpr size_t kMaxCommandSize = 1024;
constexpr int kListenBacklog = 16;
constexpr int kEventsPerWait = 16;

// The simulator's own output: one line each, flushed at once for whoever tails it.
void Say(const std::string& line) {
    fputs(line.c_str(), stdout);
    fputc('\n', stdout);
    (void)fflush(stdout);  // a lost progress line is no reason to stop serving
}

unique_fd OpenLog(const std::string& path) {
    unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (fd < 0) PLOG(ERROR) << "open(" << path << ") failed";
    return fd;
}

bool ToAddress(const std::string& path, sockaddr_un* address) {
    *address = {};
    address->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address->sun_path)) {
        LOG(ERROR) << "Unusable socket path \"" << path << "\"";
        return false;
    }
    memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

// A socket file left by a simulator that died is replaced; a live one is not.
bool RemoveStaleSocket(const std::string& path, const sockaddr_un& address) {
    struct stat status;
    if (lstat(path.c_str(), &status) < 0) {
        if (errno == ENOENT) return true;
        PLOG(ERROR) << "lstat(" << path << ") failed";
        return false;
    }
    if (!S_ISSOCK(status.st_mode)) {
        LOG(ERROR) << path << " exists and is not a socket";
        return false;
    }
    unique_fd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (probe >= 0 &&
        connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        LOG(ERROR) << "Another simulator is listening on " << path;
        return false;
    }
    if (unlink(path.c_str()) < 0) {
        PLOG(ERROR) << "unlink(" << path << ") failed";
        return false;
    }
    return true;
}

unique_fd Listen(const std::string& path, int type) {
    sockaddr_un address;
    if (!ToAddress(path, &address)) return {};
    std::string directory = android::base::Dirname(path);
    if (mkdir(directory.c_str(), 0755) < 0 && errno != EEXIST) {
        PLOG(ERROR) << "mkdir(" << directory << ") failed";
        return {};
    }
    if (!RemoveStaleSocket(path, address)) return {};
    unique_fd fd(socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0 ||
        listen(fd, kListenBacklog) < 0) {
        PLOG(ERROR) << "Cannot listen on " << path;
        return {};
    }
    return fd;
}

// Replies are a few bytes and every client waits for each one, so a reply that does not fit
// into the socket at once means a misbehaving peer.
bool SendAll(int fd, std::string_view data) {
    ssize_t sent;
    do {
        sent = send(fd, data.data(), data.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(data.size());
}

int32_t PeerPid(int fd) {
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) < 0) return 0;
    return credentials.pid;
}

unique_fd ArmTimer(double seconds) {
    unique_fd fd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    if (fd < 0) {
        PLOG(ERROR) << "timerfd_create() failed";
        return {};
    }
    itimerspec expiry{};
    expiry.it_value.tv_sec = static_cast<time_t>(floor(seconds));
    expiry.it_value.tv_nsec =
            static_cast<decltype(expiry.it_value.tv_nsec)>((seconds - floor(seconds)) * 1e9);
    // An all-zero value would disarm the timer instead of firing at once.
    if (expiry.it_value.tv_sec == 0 && expiry.it_value.tv_nsec == 0) expiry.it_value.tv_nsec = 1;
    if (timerfd_settime(fd, 0, &expiry, nullptr) < 0) {
        PLOG(ERROR) << "timerfd_settime() failed";
        return {};
    }
    return fd;
}

std::vector<std::string> Words(const std::string& line) {
    std::vector<std::string> words;
    for (std::string& word : android::base::Split(android::base::Trim(line), " \t")) {
        if (!word.empty()) words.push_back(std::move(word));
    }
    return words;
}

std::string EventLine(int64_t seq, int32_t session, std::string_view source, std::string_view probe,
                      int32_t code, const DecodedEvent& event, bool active,
                      std::string_view payload) {
    std::string line =
            StringPrintf("event #%lld session %d source=", static_cast<long long>(seq), session);
    line.append(source).append(" probe=").append(probe);
    line += " rc=" + std::to_string(code) + " " + event.text;
    if (!event.known_probe) line += " [unknown probe]";
    if (!event.error.empty()) line += " [malformed: " + event.error + "]";
    if (!active) line += " [service inactive]";
    line += " bytes=" + (payload.empty() ? std::string("(empty)") : SpacedHex(payload));
    return line;
}

}  // namespace

Simulator::Simulator(SimulatorOptions options, std::unique_ptr<EventDecoder> decoder)
    : options_(std::move(options)), decoder_(std::move(decoder)) {}

Simulator::~Simulator() {
    if (session_listener_ >= 0) unlink(options_.socket_path.c_str());
    if (control_listener_ >= 0) unlink(options_.control_path.c_str());
}

bool Simulator::Start() {
    if (!options_.events_path.empty()) {
        log_fd_ = OpenLog(options_.events_path);
        if (log_fd_ < 0) return false;
    }
    epoll_fd_.reset(epoll_create1(EPOLL_CLOEXEC));
    if (epoll_fd_ < 0) {
        PLOG(ERROR) << "epoll_create1() failed";
        return false;
    }
    // Blocked before anything else so that a stop request during start-up waits in the queue.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop_signals, nullptr);
    (void)signal(SIGPIPE, SIG_IGN);  // a vanished client shows up as EPIPE instead
    signal_fd_.reset(signalfd(-1, &stop_signals, SFD_NONBLOCK | SFD_CLOEXEC));
    if (signal_fd_ < 0) {
        PLOG(ERROR) << "signalfd() failed";
        return false;
    }
    session_listener_ = Listen(options_.socket_path, SOCK_SEQPACKET);
    if (session_listener_ < 0) return false;
    control_listener_ = Listen(options_.control_path, SOCK_STREAM);
    if (control_listener_ < 0) return false;

    active_ = options_.active || options_.active_after_seconds == 0;
    add_event_code_ = options_.add_event_code;
    std::string start_line = StringPrintf(
            "ubo_sim: listening on %s, control %s, state %s", options_.socket_path.c_str(),
            options_.control_path.c_str(), active_ ? "active" : "inactive");
    if (!active_ && options_.active_after_seconds > 0) {
        timer_fd_ = ArmTimer(options_.active_after_seconds);
        if (timer_fd_ < 0) return false;
        start_line += StringPrintf(", active after %g s", options_.active_after_seconds);
    }
    for (int fd :
         {signal_fd_.get(), session_listener_.get(), control_listener_.get(), timer_fd_.get()}) {
        if (fd >= 0 && !Watch(fd)) return false;
    }
    Say(start_line);
    Json record = Record("started");
    record["socket"] = options_.socket_path;
    record["control"] = options_.control_path;
    record["active"] = active_;
    Log(record);
    return true;
}

bool Simulator::Run() {
    epoll_event events[kEventsPerWait];
    while (true) {
        int count = epoll_wait(epoll_fd_, events, kEventsPerWait, -1);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            PLOG(ERROR) << "epoll_wait() failed";
            return false;
        }
        for (int i = 0; i < count; ++i) {
            int fd = events[i].data.fd;
            if (fd == signal_fd_.get()) {
                if (OnSignal()) return true;
            } else if (fd == timer_fd_.get()) {
                OnTimer();
            } else if (fd == session_listener_.get()) {
                AcceptPeers(fd, PeerKind::kSession);
            } else if (fd == control_listener_.get()) {
                AcceptPeers(fd, PeerKind::kControl);
            } else {
                ServePeer(fd);
            }
        }
    }
}

bool Simulator::Watch(int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event) < 0) {
        PLOG(ERROR) << "epoll_ctl() failed";
        return false;
    }
    return true;
}

void Simulator::AcceptPeers(int listener, PeerKind kind) {
    while (true) {
        unique_fd fd(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (fd < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                PLOG(ERROR) << "accept4() failed";
            }
            if (errno != EINTR) return;
            continue;
        }
        if (!Watch(fd)) continue;
        Peer& peer = peers_[fd.get()];
        peer.kind = kind;
        peer.fd = std::move(fd);
    }
}

void Simulator::ServePeer(int fd) {
    auto it = peers_.find(fd);
    // Dropped earlier in the same batch of events.
    if (it == peers_.end()) return;
    Peer& peer = it->second;
    if (peer.kind == PeerKind::kSession) {
        if (!ServeSession(&peer)) DropPeer(fd);
        return;
    }
    bool at_end = !ReadInput(&peer);
    if (!HandleControlInput(&peer, at_end) || at_end) DropPeer(fd);
}

bool Simulator::ReadInput(Peer* peer) {
    char buffer[4096];
    while (true) {
        ssize_t n = read(peer->fd, buffer, sizeof(buffer));
        if (n > 0) {
            peer->input.append(buffer, static_cast<size_t>(n));
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
        }
    }
}

bool Simulator::ServeSession(Peer* peer) {
    // One more byte than any request may have, to tell an oversized one from a full one.
    static char packet[protocol::kMaxPacketSize + 1];
    while (true) {
        ssize_t n = recv(peer->fd, packet, sizeof(packet), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
        // Requests are never empty: nothing read is the hang-up.
        if (n == 0) return false;
        protocol::Request request;
        if (static_cast<size_t>(n) > protocol::kMaxPacketSize ||
            !request.ParseFromArray(packet, static_cast<int>(n))) {
            LOG(WARNING) << "Dropping a client that sent a malformed request of " << n << " bytes";
            return false;
        }
        if (!HandleRequest(peer, request)) return false;
    }
}

bool Simulator::HandleRequest(Peer* peer, const protocol::Request& request) {
    bool hello = request.has_hello();
    if ((peer->session_id == 0) != hello) {
        LOG(WARNING) << "Dropping a client that sent request " << request.kind_case()
                     << (peer->session_id == 0 ? " before" : " after") << " its hello";
        return false;
    }
    protocol::Reply reply;
    switch (request.kind_case()) {
        case protocol::Request::kHello:
            reply.set_value(OpenSession(peer, request.hello()));
            break;
        case protocol::Request::kIsActive:
            reply.set_value(active_ ? 1 : 0);
            break;
        case protocol::Request::kAddEvent:
            reply.set_value(AddEvent(*peer, request.add_event()));
            break;
        case protocol::Request::kClose:
            CloseSession(peer);
            reply.set_value(0);
            break;
        case protocol::Request::KIND_NOT_SET:
            LOG(WARNING) << "Dropping a client that sent an empty request";
            return false;
    }
    if (!SendAll(peer->fd, reply.SerializeAsString())) return false;
    return !request.has_close() && peer->session_id > 0;
}

int32_t Simulator::OpenSession(Peer* peer, const protocol::Hello& hello) {
    if (hello.version() != protocol::kVersion) {
        LOG(WARNING) << "Refusing a client of protocol version " << hello.version();
        return -EPROTONOSUPPORT;
    }
    int32_t pid = PeerPid(peer->fd);
    if (refuse_sessions_) {
        ++sessions_refused_;
        Say(StringPrintf("ubo_sim: session refused (pid %d)", pid));
        Json record = Record("session_refused");
        record["pid"] = pid;
        Log(record);
        return -ECONNREFUSED;
    }
    peer->session_id = ++last_session_id_;
    ++sessions_open_;
    Say(StringPrintf("ubo_sim: session %d created (pid %d)", peer->session_id, pid));
    Json record = Record("session_created");
    record["session"] = peer->session_id;
    record["pid"] = pid;
    Log(record);
    return peer->session_id;
}

int32_t Simulator::AddEvent(const Peer& peer, const protocol::AddEvent& request) {
    int64_t seq = ++events_;
    int32_t code = add_event_code_;
    const std::string& payload = request.payload();
    DecodedEvent event = decoder_->Decode(request.probe(), payload);
    Say(EventLine(seq, peer.session_id, request.source(), request.probe(), code, event, active_,
                  payload));
    Json record = Record("event");
    record["seq"] = seq;
    record["session"] = peer.session_id;
    record["source"] = request.source();
    record["probe"] = request.probe();
    record["known_probe"] = event.known_probe;
    record["active"] = active_;
    record["rc"] = code;
    record["size"] = payload.size();
    record["payload_hex"] = CompactHex(payload);
    record["fields"] = std::move(event.fields);
    if (!event.error.empty()) record["decode_error"] = event.error;
    Log(record);
    return code;
}

void Simulator::CloseSession(Peer* peer) {
    peer->closed = true;
    --sessions_open_;
    ++sessions_closed_;
    Say(StringPrintf("ubo_sim: session %d destroyed", peer->session_id));
    Json record = Record("session_destroyed");
    record["session"] = peer->session_id;
    Log(record);
}

void Simulator::DropPeer(int fd) {
    auto it = peers_.find(fd);
    if (it == peers_.end()) return;
    const Peer& peer = it->second;
    if (peer.kind == PeerKind::kSession && peer.session_id > 0 && !peer.closed) {
        --sessions_open_;
        ++sessions_lost_;
        Say(StringPrintf("ubo_sim: session %d lost (closed without ubo_destroy)", peer.session_id));
        Json record = Record("session_lost");
        record["session"] = peer.session_id;
        Log(record);
    }
    // Closing the descriptor also takes it out of the epoll set.
    peers_.erase(it);
}

bool Simulator::HandleControlInput(Peer* peer, bool at_end) {
    size_t newline = peer->input.find('\n');
    if (newline == std::string::npos && !at_end) return peer->input.size() <= kMaxCommandSize;
    if (newline == std::string::npos && peer->input.empty()) return false;
    std::string reply = RunCommand(peer->input.substr(0, newline)) + "\n";
    SendAll(peer->fd, reply);
    // One command per connection: the hang-up tells the client the reply is complete.
    return false;
}

std::string Simulator::RunCommand(const std::string& line) {
    std::vector<std::string> words = Words(line);
    std::string command = words.empty() ? "" : words[0];
    size_t arguments = words.empty() ? 0 : words.size() - 1;
    if (command == "active" && arguments == 0) {
        SetActive(true, "control");
        return "service active";
    }
    if (command == "inactive" && arguments == 0) {
        SetActive(false, "control");
        return "service inactive";
    }
    if (command == "fail" && arguments == 1) {
        int32_t code;
        if (!android::base::ParseInt(words[1], &code, INT32_MIN, -1)) {
            return "error: fail takes a negative 32-bit code, not '" + words[1] + "'";
        }
        SetAddEventCode(code);
        return "add_event returns " + std::to_string(code);
    }
    if (command == "ok" && arguments == 0) {
        SetAddEventCode(0);
        return "add_event returns 0";
    }
    if ((command == "refuse" || command == "accept") && arguments == 0) {
        refuse_sessions_ = command == "refuse";
        std::string state = refuse_sessions_ ? "new sessions refused" : "new sessions accepted";
        Say("ubo_sim: " + state);
        return state;
    }
    if (command == "status" && arguments == 0) return Status();
    return "error: unknown command '" + android::base::Trim(line) +
           "'; commands: active, inactive, fail CODE, ok, refuse, accept, status";
}

std::string Simulator::Status() const {
    return StringPrintf(
            "state %s\nadd_event_rc %d\nnew_sessions %s\nsessions_open %lld\n"
            "sessions_closed %lld\nsessions_lost %lld\nsessions_refused %lld\nevents %lld",
            active_ ? "active" : "inactive", add_event_code_,
            refuse_sessions_ ? "refused" : "accepted", static_cast<long long>(sessions_open_),
            static_cast<long long>(sessions_closed_), static_cast<long long>(sessions_lost_),
            static_cast<long long>(sessions_refused_), static_cast<long long>(events_));
}

void Simulator::SetActive(bool active, std::string_view cause) {
    // A command overrides the start-up timer.
    timer_fd_.reset();
    if (active_ == active) return;
    active_ = active;
    Say(active ? "ubo_sim: service active" : "ubo_sim: service inactive");
    Json record = Record("state");
    record["active"] = active;
    record["cause"] = std::string(cause);
    Log(record);
}

void Simulator::SetAddEventCode(int32_t code) {
    if (add_event_code_ == code) return;
    add_event_code_ = code;
    Say("ubo_sim: add_event returns " + std::to_string(code));
    Json record = Record("add_event_rc");
    record["rc"] = code;
    Log(record);
}

void Simulator::OnTimer() {
    uint64_t expirations;
    if (read(timer_fd_, &expirations, sizeof(expirations)) != sizeof(expirations)) return;
    SetActive(true, "timer");
}

bool Simulator::OnSignal() {
    signalfd_siginfo info;
    if (read(signal_fd_, &info, sizeof(info)) != sizeof(info)) return false;
    int signal_number = static_cast<int>(info.ssi_signo);
    Say(StringPrintf("ubo_sim: stopping on %s", strsignal(signal_number)));
    Json record = Record("stopped");
    record["signal"] = signal_number;
    Log(record);
    return true;
}

Json Simulator::Record(std::string_view kind) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    Json record = Json::object();
    record["kind"] = std::string(kind);
    record["time"] = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
    return record;
}

void Simulator::Log(const Json& record) {
    if (log_fd_ < 0) return;
    // One write per line: with O_APPEND the line lands whole.
    if (!android::base::WriteStringToFd(Dump(record) + "\n", log_fd_)) {
        PLOG(ERROR) << "writing the event log failed";
    }
}

}  // namespace vendor::vesk::tavi::sim
