// SPDX-License-Identifier: Apache-2.0
// tavi_sysfs_emu: emulates the kernel's log attribute on a plain Linux host with a FUSE file
// system. It serves three files:
//   log      0444  one pending record per read at offset 0, then an empty read; poll() reports
//                  POLLPRI|POLLERR while a record is pending and wakes waiters on a new one.
//   inject   0200  every write() queues exactly the bytes written as one record.
//   pending  0444  the number of pending records, in decimal with a newline.
// The file system runs single-threaded: injection, reads and polls never race.

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fuse.h>

#include <android-base/logging.h>

namespace vendor::vesk::tavi::sim {
namespace {

struct FileNode {
    const char* path;
    mode_t mode;
    int access_mode;  // the only O_ACCMODE an open may ask for
    off_t size;
};

// Sysfs attributes report one page as their size whatever they hold.
constexpr FileNode kRoot = {"/", S_IFDIR | 0755, O_RDONLY, 0};
constexpr FileNode kLog = {"/log", S_IFREG | 0444, O_RDONLY, 4096};
constexpr FileNode kInject = {"/inject", S_IFREG | 0200, O_WRONLY, 0};
constexpr FileNode kPending = {"/pending", S_IFREG | 0444, O_RDONLY, 0};
constexpr const FileNode* kNodes[] = {&kRoot, &kLog, &kInject, &kPending};

// A full queue drops the new record, as a driver with a full buffer would.
constexpr size_t kQueueCapacity = 4096;

using PollHandle = std::unique_ptr<fuse_pollhandle, decltype(&fuse_pollhandle_destroy)>;

struct EmulatorState {
    std::deque<std::string> records;
    // The handle of each open `log` file waiting for the next record. The kernel keeps one wait
    // queue per open file, so one handle per file is enough; a newer one replaces the older.
    std::map<uint64_t, PollHandle> watchers;
    // The text each open `log` file took at its last read from offset 0: later offsets read it.
    std::map<uint64_t, std::string> shown;
    uint64_t dropped = 0;
    uint64_t next_fh = 1;
    struct timespec start_time {};
};

EmulatorState& State() {
    return *static_cast<EmulatorState*>(fuse_get_context()->private_data);
}

const FileNode* Find(const char* path) {
    for (const FileNode* node : kNodes) {
        if (strcmp(node->path, path) == 0) return node;
    }
    return nullptr;
}

int GetAttributes(const char* path, struct stat* attributes, fuse_file_info*) {
    const FileNode* node = Find(path);
    if (node == nullptr) return -ENOENT;
    *attributes = {};
    attributes->st_mode = node->mode;
    attributes->st_nlink = S_ISDIR(node->mode) ? 2 : 1;
    attributes->st_size = node->size;
    attributes->st_uid = getuid();
    attributes->st_gid = getgid();
    attributes->st_atim = attributes->st_mtim = attributes->st_ctim = State().start_time;
    return 0;
}

// Only the truncation that `> inject` asks for is accepted; it changes nothing.
int Truncate(const char* path, off_t, fuse_file_info*) {
    return Find(path) == &kInject ? 0 : -EPERM;
}

int ReadDirectory(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*,
                  fuse_readdir_flags) {
    if (Find(path) != &kRoot) return -ENOTDIR;
    for (const char* name : {".", "..", "log", "inject", "pending"}) {
        fill(buffer, name, nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    }
    return 0;
}

// A sysfs attribute refuses an access mode its permissions do not offer, even to root.
int Open(const char* path, fuse_file_info* info) {
    const FileNode* node = Find(path);
    if (node == nullptr) return -ENOENT;
    if ((info->flags & O_ACCMODE) != node->access_mode) return -EACCES;
    // Every read and write must reach this process: a cached page would replay old records
    // and merge injected ones.
    info->direct_io = 1;
    info->fh = State().next_fh++;
    return 0;
}

int Release(const char*, fuse_file_info* info) {
    State().watchers.erase(info->fh);
    State().shown.erase(info->fh);
    return 0;
}

// Only `log` and `pending` open for reading.
int Read(const char* path, char* buffer, size_t size, off_t offset, fuse_file_info* info) {
    std::deque<std::string>& records = State().records;
    std::string text;
    if (Find(path) == &kPending) {
        text = std::to_string(records.size()) + "\n";
    } else {
        // Only a read from the start takes a record; the reader rewinds before the next one.
        // Reads further on are served from the text that read took, as sysfs serves them.
        std::string& shown = State().shown[info->fh];
        if (offset == 0) {
            shown.clear();
            if (!records.empty()) {
                shown = std::move(records.front());
                records.pop_front();
            }
        }
        text = shown;
    }
    text.erase(0, std::min(text.size(), static_cast<size_t>(std::max<off_t>(offset, 0))));
    size = std::min(size, text.size());
    memcpy(buffer, text.data(), size);
    return static_cast<int>(size);
}

// Only `inject` opens for writing.
int Write(const char*, const char* data, size_t size, off_t, fuse_file_info*) {
    EmulatorState& state = State();
    if (state.records.size() >= kQueueCapacity) {
        LOG(ERROR) << "log queue full (" << kQueueCapacity << " records), record dropped; "
                   << ++state.dropped << " dropped so far";
    } else {
        state.records.emplace_back(data, size);
        // A handle is good for one wake-up; the woken poll() asks again and leaves a new one.
        // An error only means the descriptor was closed meanwhile.
        for (auto& [fh, handle] : state.watchers) fuse_notify_poll(handle.get());
        state.watchers.clear();
    }
    return static_cast<int>(size);
}

int Poll(const char* path, fuse_file_info* info, fuse_pollhandle* handle, unsigned* events) {
    PollHandle owned(handle, &fuse_pollhandle_destroy);
    const FileNode* node = Find(path);
    EmulatorState& state = State();
    if (node == &kLog) {
        if (owned != nullptr) state.watchers.insert_or_assign(info->fh, std::move(owned));
        *events = state.records.empty() ? 0 : POLLPRI | POLLERR;
    } else {
        // The other files never change readiness, so nobody is ever notified on them.
        *events = node == &kInject ? POLLOUT | POLLWRNORM : POLLIN | POLLRDNORM;
    }
    return 0;
}

int Main(int argc, char** argv) {
    android::base::InitLogging(argv, &android::base::StderrLogger);
    // fuse_main parses the command line (-h, -f, -d, -o ..., MOUNTPOINT), mounts and serves.
    std::vector<char*> args(argv, argv + argc);
    // Root's mount is shared with everyone (a daemon under test may run as another user), while
    // the kernel still applies the modes above to them.
    std::string options = "-odefault_permissions,fsname=tavi_sysfs_emu,subtype=tavi_sysfs_emu";
    if (geteuid() == 0) options += ",allow_other";
    char single_threaded[] = "-s";
    args.push_back(single_threaded);
    args.push_back(options.data());

    EmulatorState state;
    clock_gettime(CLOCK_REALTIME, &state.start_time);
    fuse_operations operations{};
    operations.getattr = GetAttributes;
    operations.truncate = Truncate;
    operations.readdir = ReadDirectory;
    operations.open = Open;
    operations.release = Release;
    operations.read = Read;
    operations.write = Write;
    operations.poll = Poll;
    int status = fuse_main(static_cast<int>(args.size()), args.data(), &operations, &state);
    if (state.dropped > 0) LOG(ERROR) << state.dropped << " records dropped in all";
    return status;
}

}  // namespace
}  // namespace vendor::vesk::tavi::sim

int main(int argc, char** argv) {
    return vendor::vesk::tavi::sim::Main(argc, argv);
}
