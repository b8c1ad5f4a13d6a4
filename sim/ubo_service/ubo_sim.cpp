// SPDX-License-Identifier: Apache-2.0
// ubo_sim: the event-reporting service of the simulated device, as seen through libubo.so:
// sessions, an active flag, a scripted add_event result and a log of every event and change of
// state (one JSON record a line), all on one thread driven by poll().
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <google/protobuf/compiler/importer.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/empty.pb.h>
#include <google/protobuf/unknown_field_set.h>
#include <google/protobuf/util/json_util.h>
#include <nlohmann/json.hpp>

#include "ubo_protocol.h"

namespace vendor::vesk::tavi::sim {
namespace {

namespace protocol = ubo_protocol;
using android::base::StringPrintf;
using android::base::unique_fd;
namespace protobuf = google::protobuf;
using protobuf::UnknownField;

constexpr int kExitUsage = 2;

using Json = nlohmann::ordered_json;

// "080210ba17".
std::string Hex(std::string_view bytes) {
    std::string hex;
    for (unsigned char byte : bytes) hex += StringPrintf("%02x", byte);
    return hex;
}

// Every enumeration field becomes an int32 with the same number and wire type.
void PlainEnums(protobuf::DescriptorProto* message) {
    for (protobuf::FieldDescriptorProto& field : *message->mutable_field()) {
        if (field.type() != protobuf::FieldDescriptorProto::TYPE_ENUM) continue;
        field.set_type(protobuf::FieldDescriptorProto::TYPE_INT32);
        field.clear_type_name();
        field.clear_default_value();
    }
    for (protobuf::DescriptorProto& nested : *message->mutable_nested_type()) PlainEnums(&nested);
}

// As it was on the wire: a varint as a signed 64-bit number, fixed ones unsigned.
Json UnknownValue(const UnknownField& field) {
    switch (field.type()) {
        case UnknownField::TYPE_VARINT:
            return static_cast<int64_t>(field.varint());
        case UnknownField::TYPE_FIXED32:
            return field.fixed32();
        case UnknownField::TYPE_FIXED64:
            return field.fixed64();
        case UnknownField::TYPE_LENGTH_DELIMITED:
            return Hex(field.length_delimited());
        default:
            return "group";
    }
}

// Fields the schema does not declare, by number; a number sent more than once shows a list.
void AddUnknown(const protobuf::UnknownFieldSet& unknown, Json* fields) {
    std::map<int, Json> by_number;
    for (int i = 0; i < unknown.field_count(); ++i) {
        by_number[unknown.field(i).number()].push_back(UnknownValue(unknown.field(i)));
    }
    for (const auto& [number, values] : by_number) {
        (*fields)[std::to_string(number)] = values.size() > 1 ? values : values[0];
    }
}

// Decodes event payloads with the event schema read at run time, and shows values a
// schema-true parser would drop (undeclared enum numbers, unknown fields) as they were sent.
class EventDecoder : public protobuf::compiler::MultiFileErrorCollector {
  public:
    // Parses the schema file; false (after logging the parser's complaints) when it fails.
    bool Load(const std::string& proto_path) {
        source_tree_.MapPath("", android::base::Dirname(proto_path));
        importer_ = std::make_unique<protobuf::compiler::Importer>(&source_tree_, this);
        file_ = importer_->Import(android::base::Basename(proto_path));
        if (file_ == nullptr) {
            LOG(ERROR) << "Cannot load the event schema " << proto_path;
            return false;
        }
        protobuf::FileDescriptorProto plain;
        file_->CopyTo(&plain);
        for (protobuf::DescriptorProto& message : *plain.mutable_message_type()) {
            PlainEnums(&message);
        }
        if (plain_pool_.BuildFile(plain) != nullptr) return true;
        LOG(ERROR) << "Cannot rebuild the event schema " << proto_path;
        return false;
    }

    // Adds to `event` "known_probe", the "fields" from the plain schema (declared ones by name,
    // then the others by number: {"log_level":2,"error_code":3002,"7":-1}) and, unless the
    // whole payload parsed, a "decode_error".
    void Decode(const std::string& probe, std::string_view payload, Json* event) {
        const protobuf::Descriptor* declared = file_->FindMessageTypeByName(probe);
        (*event)["known_probe"] = declared != nullptr;
        // Nothing declared: an empty message shows every field by its number.
        const protobuf::Descriptor* type =
                declared ? plain_pool_.FindMessageTypeByName(declared->full_name())
                         : protobuf::Empty::descriptor();
        std::unique_ptr<protobuf::Message> message(factory_.GetPrototype(type)->New());
        if (!message->ParsePartialFromArray(payload.data(), static_cast<int>(payload.size()))) {
            (*event)["decode_error"] = declared ? "does not parse as " + declared->name()
                                                : "not a protocol-buffers message";
            if (!declared) message->Clear();  // of what is no message at all, nothing
        }
        std::string json;
        protobuf::util::JsonPrintOptions options;
        options.preserve_proto_field_names = true;
        Json& fields = (*event)["fields"] = Json::object();
        if (protobuf::util::MessageToJsonString(*message, &json, options).ok()) {
            fields = Json::parse(json, nullptr, false);
        }
        AddUnknown(message->GetReflection()->GetUnknownFields(*message), &fields);
    }

  private:
    void AddError(const std::string& filename, int line, int column,
                  const std::string& message) override {
        // The parser counts from 0 and reports -1 for errors about the whole file.
        const std::string where = line < 0 ? "" : StringPrintf(":%d:%d", line + 1, column + 1);
        LOG(ERROR) << filename << where << ": " << message;
    }

    protobuf::compiler::DiskSourceTree source_tree_;
    std::unique_ptr<protobuf::compiler::Importer> importer_;
    const protobuf::FileDescriptor* file_ = nullptr;
    // The schema with every enumeration field turned into a plain int32: the parser then keeps
    // an undeclared number in its field instead of moving it to the unknown fields.
    protobuf::DescriptorPool plain_pool_;
    protobuf::DynamicMessageFactory factory_;
};

// Where the event schema is when --proto does not say: the source tree it was built from, unless
// the environment names another place (a machine without that tree, such as the test VM).
constexpr char kProtoEnv[] = "UBO_SIM_PROTO";
std::string DefaultProtoPath() {
    const char* path = getenv(kProtoEnv);
    return path != nullptr && *path != '\0' ? path : UBO_SIM_DEFAULT_PROTO;
}

struct Options {
    std::string socket_path = protocol::SessionSocketPath();
    // Words of a command for the simulator serving there; none: serve.
    std::vector<std::string> command;
    // Where the records go, one JSON object a line.
    std::string events_path = "/dev/stdout";
    std::string proto_path = DefaultProtoPath();
    bool active = false;
};

// A socket file left by a simulator that died is replaced; a live one, or any other file, is not.
bool RemoveStaleSocket(const std::string& path) {
    struct stat status;
    if (protocol::Connect(path) >= 0) {
        LOG(ERROR) << "Another simulator is listening on " << path;
    } else if (lstat(path.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode)) {
        LOG(ERROR) << path << " exists and is not a socket";
    } else if (unlink(path.c_str()) < 0 && errno != ENOENT) {
        PLOG(ERROR) << "unlink(" << path << ") failed";
    } else {
        return true;
    }
    return false;
}

unique_fd Listen(const std::string& path) {
    sockaddr_un address;
    if (path.empty() || !protocol::SocketAddress(path, &address)) {
        LOG(ERROR) << "Unusable socket path \"" << path << "\"";
        return {};
    }
    std::string directory = android::base::Dirname(path);
    if (mkdir(directory.c_str(), 0755) < 0 && errno != EEXIST) {
        PLOG(ERROR) << "mkdir(" << directory << ") failed";
        return {};
    }
    if (!RemoveStaleSocket(path)) return {};
    unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0 ||
        listen(fd, SOMAXCONN) < 0) {
        PLOG(ERROR) << "Cannot listen on " << path;
        return {};
    }
    return fd;
}

// Replies are a few bytes and every client waits for each one, so a reply that does not fit
// into the socket at once means a misbehaving peer.
bool SendAll(int fd, std::string_view data) {
    return TEMP_FAILURE_RETRY(send(fd, data.data(), data.size(), MSG_NOSIGNAL | MSG_DONTWAIT)) ==
           static_cast<ssize_t>(data.size());
}

int32_t PeerPid(int fd) {
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) < 0) return 0;
    return credentials.pid;
}

class Simulator {
  public:
    explicit Simulator(Options options) : options_(std::move(options)) {}

    ~Simulator() {
        if (listener_ >= 0) unlink(options_.socket_path.c_str());
    }

    // Loads the schema, opens the log and binds the socket; false after logging why.
    bool Start() {
        if (!decoder_.Load(options_.proto_path)) return false;
        log_fd_.reset(open(options_.events_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC,
                           0644));
        if (log_fd_ < 0) {
            PLOG(ERROR) << "open(" << options_.events_path << ") failed";
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
        listener_ = Listen(options_.socket_path);
        if (listener_ < 0) return false;
        active_ = options_.active;
        Report("started", {{"socket", options_.socket_path}, {"active", active_}});
        return true;
    }

    // Serves until SIGINT or SIGTERM; false if waiting for events failed.
    bool Run() {
        while (true) {
            std::vector<pollfd> fds = {{signal_fd_, POLLIN, 0}, {listener_, POLLIN, 0}};
            for (const auto& [fd, peer] : peers_) fds.push_back({fd, POLLIN, 0});
            if (poll(fds.data(), fds.size(), -1) < 0) {
                if (errno == EINTR) continue;
                PLOG(ERROR) << "poll() failed";
                return false;
            }
            if (signalfd_siginfo info;
                fds[0].revents != 0 && read(signal_fd_, &info, sizeof(info)) == sizeof(info)) {
                Report("stopped", {{"signal", info.ssi_signo}});
                return true;
            }
            if (fds[1].revents != 0) Accept();
            for (auto fd = fds.begin() + 2; fd != fds.end(); ++fd) {
                if (fd->revents != 0) ServePeer(fd->fd);
            }
        }
    }

  private:
    struct Peer {
        unique_fd fd;
        // 0 until the hello, and again once the session is closed.
        int32_t session_id = 0;
    };

    // One connection a wake-up: the listener stays readable while more are waiting.
    void Accept() {
        unique_fd fd(accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (fd < 0) {
            if (errno != EAGAIN && errno != EINTR) PLOG(ERROR) << "accept4() failed";
            return;
        }
        peers_[fd.get()].fd = std::move(fd);
    }

    // One packet or one read a wake-up, like the listeners.
    void ServePeer(int fd) {
        auto it = peers_.find(fd);
        // One more byte than any request may have, to tell an oversized one from a full one.
        static char buffer[protocol::kMaxPacketSize + 1];
        ssize_t n = TEMP_FAILURE_RETRY(recv(fd, buffer, sizeof(buffer), 0));
        if (n < 0 && errno == EAGAIN) return;
        Peer& peer = it->second;
        std::string_view data(buffer, n > 0 ? static_cast<size_t>(n) : 0);
        // Requests are never empty: nothing read is the hang-up.
        if (n > 0 && HandleRequest(&peer, data)) return;
        if (peer.session_id > 0) EndSession(peer, /*lost=*/true);
        peers_.erase(it);
    }

    // False once the peer is to be dropped: closed or misbehaving.
    bool HandleRequest(Peer* peer, std::string_view packet) {
        protocol::Request request;
        if (packet.size() > protocol::kMaxPacketSize ||
            !request.ParseFromArray(packet.data(), static_cast<int>(packet.size()))) {
            LOG(WARNING) << "Dropping a client that sent a malformed request of " << packet.size()
                         << " bytes";
            return false;
        }
        if (!request.has_command() && (peer->session_id == 0) != request.has_hello()) {
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
                EndSession(*peer, /*lost=*/false);
                peer->session_id = 0;
                reply.set_value(0);
                break;
            case protocol::Request::kCommand:
                reply.set_value(0);
                reply.set_text(RunCommand(request.command().words()));
                break;
            case protocol::Request::KIND_NOT_SET:
                LOG(WARNING) << "Dropping a client that sent an empty request";
                return false;
        }
        return SendAll(peer->fd, reply.SerializeAsString()) &&
               (peer->session_id > 0 || request.has_command());
    }

    int32_t OpenSession(Peer* peer, const protocol::Hello& hello) {
        if (hello.version() != protocol::kVersion) {
            LOG(WARNING) << "Refusing a client of protocol version " << hello.version();
            return -EPROTONOSUPPORT;
        }
        int32_t pid = PeerPid(peer->fd);
        if (refuse_sessions_) {
            ++sessions_refused_;
            Report("session_refused", {{"pid", pid}});
            return -ECONNREFUSED;
        }
        peer->session_id = ++last_session_id_;
        Report("session_created", {{"session", peer->session_id}, {"pid", pid}});
        return peer->session_id;
    }

    // A session ends with a close request, or is lost when its client hangs up without one.
    void EndSession(const Peer& peer, bool lost) {
        ++(lost ? sessions_lost_ : sessions_closed_);
        Report(lost ? "session_lost" : "session_destroyed", {{"session", peer.session_id}});
    }

    int32_t AddEvent(const Peer& peer, const protocol::AddEvent& request) {
        const std::string& payload = request.payload();
        Json record = {{"seq", ++events_},           {"session", peer.session_id},
                       {"source", request.source()}, {"probe", request.probe()},
                       {"active", active_},          {"rc", add_event_code_},
                       {"size", payload.size()},     {"payload_hex", Hex(payload)}};
        decoder_.Decode(request.probe(), payload, &record);
        Report("event", record);
        return add_event_code_;
    }

    // A command (`ubo_sim COMMAND`, the simulated device): the reply's text, "error: ..." when it
    // failed.
    std::string RunCommand(const protobuf::RepeatedPtrField<std::string>& words) {
        const std::string command = android::base::Join(words, ' ');
        if (command == "active" || command == "inactive") {
            const bool active = command == "active";
            if (std::exchange(active_, active) != active) Report("state", {{"active", active}});
            return "service " + command;
        }
        if (command == "refuse" || command == "accept") {
            refuse_sessions_ = command == "refuse";
            return refuse_sessions_ ? "new sessions refused" : "new sessions accepted";
        }
        if (command == "status") return Status();
        int32_t code = 0;
        if (command == "ok" || (words.size() == 2 && words[0] == "fail")) {
            if (command != "ok" && !android::base::ParseInt(words[1], &code, INT32_MIN, -1)) {
                return "error: fail takes a negative 32-bit code, not '" + words[1] + "'";
            }
            if (std::exchange(add_event_code_, code) != code) {
                Report("add_event_rc", {{"rc", code}});
            }
            return "add_event returns " + std::to_string(code);
        }
        return "error: unknown command '" + command +
               "'; commands: active, inactive, fail CODE, ok, refuse, accept, status";
    }

    std::string Status() const {
        return StringPrintf("state %s\nadd_event_rc %d\nnew_sessions %s\nsessions_open %" PRId64
                            "\nsessions_closed %" PRId64 "\nsessions_lost %" PRId64
                            "\nsessions_refused %" PRId64 "\nevents %" PRId64,
                            active_ ? "active" : "inactive", add_event_code_,
                            refuse_sessions_ ? "refused" : "accepted",
                            last_session_id_ - sessions_closed_ - sessions_lost_, sessions_closed_,
                            sessions_lost_, sessions_refused_, events_);
    }

    // A record in the log: `kind`, the wall-clock time in seconds and `fields`. Each is one write
    // of a whole line: with O_APPEND a reader tailing the log never sees half a line.
    void Report(const char* kind, const Json& fields) {
        std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
        Json record = {{"kind", kind}, {"time", now.count()}};
        record.update(fields);
        // Bytes that are not UTF-8 (a client's source or probe name) are replaced, not fatal.
        std::string text = record.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
        if (!android::base::WriteStringToFd(text, log_fd_)) {
            PLOG(ERROR) << "writing the event log failed";
        }
    }

    Options options_;
    EventDecoder decoder_;
    unique_fd log_fd_;
    unique_fd listener_;
    unique_fd signal_fd_;
    std::map<int, Peer> peers_;
    bool active_ = false;
    bool refuse_sessions_ = false;
    int32_t add_event_code_ = 0;
    int32_t last_session_id_ = 0;
    int64_t sessions_closed_ = 0;
    int64_t sessions_lost_ = 0;
    int64_t sessions_refused_ = 0;
    int64_t events_ = 0;
};

void PrintUsage(FILE* out) {
    fprintf(out,
            "usage: ubo_sim [--socket PATH] [--events PATH] [--proto PATH] [--active]\n"
            "       ubo_sim [--socket PATH] COMMAND\n"
            "Serves the event service; with a COMMAND, switches or shows the one serving:\n"
            "  active | inactive | fail CODE | ok | refuse | accept (new sessions) | status\n"
            "  --socket PATH  the socket of sessions and commands (default: $%s or %s)\n"
            "  --events PATH  append the records, one JSON object a line, to PATH (default: "
            "stdout)\n"
            "  --proto PATH   event schema (default: $%s or %s)\n"
            "  --active       start active (default: inactive)\n",
            protocol::kSocketEnv, protocol::kDefaultSocketPath, kProtoEnv, UBO_SIM_DEFAULT_PROTO);
}

bool ParseCommandLine(int argc, char** argv, Options* options) {
    const std::map<std::string, std::string*> paths = {{"--socket", &options->socket_path},
                                                       {"--events", &options->events_path},
                                                       {"--proto", &options->proto_path}};
    for (int i = 1; i < argc; ++i) {
        auto path = paths.find(argv[i]);
        if (argv[i][0] != '-') {
            options->command.assign(argv + i, argv + argc);  // "fail -5": the rest is its own
            break;
        }
        if (strcmp(argv[i], "--active") == 0) {
            options->active = true;
        } else if (path != paths.end() && i + 1 < argc) {
            *path->second = argv[++i];
        } else {
            return false;
        }
    }
    return true;
}

int Main(int argc, char** argv) {
    android::base::InitLogging(argv, android::base::StderrLogger);
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        PrintUsage(stdout);
        return 0;
    }
    Options options;
    if (!ParseCommandLine(argc, argv, &options)) {
        PrintUsage(stderr);
        return kExitUsage;
    }
    if (!options.command.empty()) {
        const std::optional<std::string> reply =
                protocol::Command(options.socket_path, options.command);
        if (!reply) PLOG(ERROR) << "No reply from ubo_sim at " << options.socket_path;
        const bool done = reply && !android::base::StartsWith(*reply, "error:");
        if (reply) fprintf(done ? stdout : stderr, "%s\n", reply->c_str());
        return done ? 0 : EXIT_FAILURE;
    }
    Simulator simulator(std::move(options));
    return simulator.Start() && simulator.Run() ? 0 : EXIT_FAILURE;
}

}  // namespace
}  // namespace vendor::vesk::tavi::sim

int main(int argc, char** argv) {
    return vendor::vesk::tavi::sim::Main(argc, argv);
}
