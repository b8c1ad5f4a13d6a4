// SPDX-License-Identifier: Apache-2.0
// tavi_sysfs_emu: emulates the kernel's log attribute on a plain Linux host with a FUSE file
// system. It serves three files:
//   log      0444  one pending record per read at offset 0, then an empty read; poll() reports
//                  POLLPRI|POLLERR while a record is pending and wakes waiters on a new one.
//   inject   0200  every write() queues exactly the bytes written as one record.
//   pending  0444  the number of pending records, in decimal with a newline.
// The session loop is single-threaded: injection, reads and polls never race.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
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

#include <fuse_lowlevel.h>

#include <android-base/logging.h>

namespace vendor::vesk::tavi::sim {
namespace {

enum Inode : fuse_ino_t { kRootInode = FUSE_ROOT_ID, kLogInode, kInjectInode, kPendingInode };

struct FileNode {
    Inode inode;
    const char* name;
    mode_t mode;
    int access_mode;  // the only O_ACCMODE an open may ask for
    off_t size;
};

// In inode order. Sysfs attributes report one page as their size whatever they hold.
constexpr FileNode kFiles[] = {
        {kLogInode, "log", S_IFREG | 0444, O_RDONLY, 4096},
        {kInjectInode, "inject", S_IFREG | 0200, O_WRONLY, 0},
        {kPendingInode, "pending", S_IFREG | 0444, O_RDONLY, 0},
};
constexpr FileNode kRoot = {kRootInode, "", S_IFDIR | 0755, O_RDONLY, 0};  // never opened

constexpr double kAttributeTimeout = 1.0;
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

EmulatorState& State(fuse_req_t request) {
    return *static_cast<EmulatorState*>(fuse_req_userdata(request));
}

const FileNode* FindFile(fuse_ino_t inode) {
    return inode >= kLogInode && inode <= kPendingInode ? &kFiles[inode - kLogInode] : nullptr;
}

bool FillAttributes(const EmulatorState& state, fuse_ino_t inode, struct stat* attributes) {
    *attributes = {};
    attributes->st_ino = inode;
    attributes->st_uid = getuid();
    attributes->st_gid = getgid();
    attributes->st_atim = attributes->st_mtim = attributes->st_ctim = state.start_time;
    const FileNode* file = inode == kRootInode ? &kRoot : FindFile(inode);
    if (file == nullptr) return false;
    attributes->st_mode = file->mode;
    attributes->st_nlink = S_ISDIR(file->mode) ? 2 : 1;
    attributes->st_size = file->size;
    return true;
}

void ReplyBufferFrom(fuse_req_t request, const std::string& text, off_t offset, size_t size) {
    const size_t start = std::min(text.size(), static_cast<size_t>(std::max<off_t>(offset, 0)));
    fuse_reply_buf(request, text.data() + start, std::min(size, text.size() - start));
}

void Lookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
    for (const FileNode& file : kFiles) {
        if (parent != kRootInode || strcmp(file.name, name) != 0) continue;
        fuse_entry_param entry{};
        entry.ino = file.inode;
        entry.attr_timeout = entry.entry_timeout = kAttributeTimeout;
        FillAttributes(State(request), file.inode, &entry.attr);
        fuse_reply_entry(request, &entry);
        return;
    }
    fuse_reply_err(request, ENOENT);
}

void GetAttributes(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
    struct stat attributes;
    if (!FillAttributes(State(request), inode, &attributes)) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    fuse_reply_attr(request, &attributes, kAttributeTimeout);
}

// Only the truncation that `> inject` asks for is accepted; it changes nothing.
void SetAttributes(fuse_req_t request, fuse_ino_t inode, struct stat*, int to_set,
                   fuse_file_info*) {
    if (inode != kInjectInode || (to_set & ~FUSE_SET_ATTR_SIZE) != 0) {
        fuse_reply_err(request, EPERM);
        return;
    }
    GetAttributes(request, inode, nullptr);
}

void ReadDirectory(fuse_req_t request, fuse_ino_t inode, size_t size, off_t offset,
                   fuse_file_info*) {
    if (inode != kRootInode) {
        fuse_reply_err(request, ENOTDIR);
        return;
    }
    std::string listing;
    auto add = [&](const char* name, fuse_ino_t entry_inode) {
        struct stat attributes;
        FillAttributes(State(request), entry_inode, &attributes);
        const size_t old_size = listing.size();
        listing.resize(old_size + fuse_add_direntry(request, nullptr, 0, name, nullptr, 0));
        fuse_add_direntry(request, listing.data() + old_size, listing.size() - old_size, name,
                          &attributes, listing.size());
    };
    add(".", kRootInode);
    add("..", kRootInode);
    for (const FileNode& file : kFiles) add(file.name, file.inode);
    ReplyBufferFrom(request, listing, offset, size);
}

// A sysfs attribute refuses an access mode its permissions do not offer, even to root.
void Open(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
    const FileNode* file = FindFile(inode);
    if (file == nullptr) {
        fuse_reply_err(request, inode == kRootInode ? EISDIR : ENOENT);
        return;
    }
    if ((info->flags & O_ACCMODE) != file->access_mode) {
        fuse_reply_err(request, EACCES);
        return;
    }
    // Every read and write must reach this process: a cached page would replay old records
    // and merge injected ones.
    info->direct_io = 1;
    info->fh = State(request).next_fh++;
    fuse_reply_open(request, info);
}

void Release(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
    if (inode == kLogInode) {
        State(request).watchers.erase(info->fh);
        State(request).shown.erase(info->fh);
    }
    fuse_reply_err(request, 0);
}

void Read(fuse_req_t request, fuse_ino_t inode, size_t size, off_t offset, fuse_file_info* info) {
    std::deque<std::string>& records = State(request).records;
    if (inode == kPendingInode) {
        ReplyBufferFrom(request, std::to_string(records.size()) + "\n", offset, size);
        return;
    }
    if (inode != kLogInode) {
        fuse_reply_err(request, EBADF);
        return;
    }
    // Only a read from the start takes a record; the reader rewinds before the next one. Reads
    // further on are served from the text that read took, as sysfs serves them.
    std::string& record = State(request).shown[info->fh];
    if (offset == 0) {
        record.clear();
        if (!records.empty()) {
            record = std::move(records.front());
            records.pop_front();
        }
    }
    ReplyBufferFrom(request, record, offset, size);
}

void Write(fuse_req_t request, fuse_ino_t inode, const char* data, size_t size, off_t,
           fuse_file_info*) {
    if (inode != kInjectInode) {
        fuse_reply_err(request, EBADF);
        return;
    }
    EmulatorState& state = State(request);
    if (state.records.size() >= kQueueCapacity) {
        LOG(ERROR) << "log queue full (" << kQueueCapacity << " records), record dropped; "
                   << ++state.dropped << " dropped so far";
    } else {
        state.records.emplace_back(data, size);
        // A handle is good for one wake-up; the woken poll() asks again and leaves a new one.
        // An error only means the descriptor was closed meanwhile.
        for (auto& [fh, handle] : state.watchers) fuse_lowlevel_notify_poll(handle.get());
        state.watchers.clear();
    }
    fuse_reply_write(request, size);
}

void Poll(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info, fuse_pollhandle* handle) {
    PollHandle owned(handle, &fuse_pollhandle_destroy);
    if (inode != kLogInode) {
        // The other files never change readiness, so nobody is ever notified on them.
        fuse_reply_poll(request,
                        inode == kInjectInode ? POLLOUT | POLLWRNORM : POLLIN | POLLRDNORM);
        return;
    }
    EmulatorState& state = State(request);
    if (owned != nullptr) state.watchers.insert_or_assign(info->fh, std::move(owned));
    fuse_reply_poll(request, state.records.empty() ? 0 : POLLPRI | POLLERR);
}

int Serve(fuse_args* args, const char* mountpoint, bool foreground) {
    EmulatorState state;
    clock_gettime(CLOCK_REALTIME, &state.start_time);
    fuse_lowlevel_ops operations{};
    operations.lookup = Lookup;
    operations.getattr = GetAttributes;
    operations.setattr = SetAttributes;
    operations.readdir = ReadDirectory;
    operations.open = Open;
    operations.release = Release;
    operations.read = Read;
    operations.write = Write;
    operations.poll = Poll;
    fuse_session* session = fuse_session_new(args, &operations, sizeof(operations), &state);
    if (session == nullptr) return 1;
    int status = 1;
    if (fuse_set_signal_handlers(session) == 0) {
        if (fuse_session_mount(session, mountpoint) == 0) {
            LOG(INFO) << "serving " << mountpoint << "/log";
            if (fuse_daemonize(foreground) == 0) status = fuse_session_loop(session) == 0 ? 0 : 1;
            fuse_session_unmount(session);
        }
        fuse_remove_signal_handlers(session);
    }
    fuse_session_destroy(session);
    if (state.dropped > 0) LOG(ERROR) << state.dropped << " records dropped in all";
    return status;
}

int Main(int argc, char** argv) {
    android::base::InitLogging(argv, &android::base::StderrLogger);
    // A parent that blocked the stop signals (as the daemon's tests do) must not leave them
    // blocked here, or SIGTERM could never unmount us.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    for (int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stop_signals, number);
    sigprocmask(SIG_UNBLOCK, &stop_signals, nullptr);

    fuse_args args = FUSE_ARGS_INIT(argc, argv);
    fuse_cmdline_opts options{};
    if (fuse_parse_cmdline(&args, &options) != 0) return 1;
    std::unique_ptr<char, decltype(&free)> mountpoint(options.mountpoint, &free);
    int status = 0;
    if (options.show_help || (mountpoint == nullptr && !options.show_version)) {
        printf("usage: %s [-f] [-d] [-o option[,option...]] MOUNTPOINT\n"
               "Serves the emulated kernel log attribute: MOUNTPOINT/log (read, poll),\n"
               "MOUNTPOINT/inject (each write queues one record), MOUNTPOINT/pending (count).\n\n",
               argv[0]);
        fuse_cmdline_help();
        fuse_lowlevel_help();
        status = options.show_help ? 0 : 1;
    } else if (options.show_version) {
        fuse_lowlevel_version();
    } else {
        // Root's mount is shared with everyone (a daemon under test may run as another user),
        // while the kernel still applies the modes above to them.
        fuse_opt_add_arg(&args,
                         "-odefault_permissions,fsname=tavi_sysfs_emu,subtype=tavi_sysfs_emu");
        if (geteuid() == 0) fuse_opt_add_arg(&args, "-oallow_other");
        status = Serve(&args, mountpoint.get(), options.foreground != 0);
    }
    fuse_opt_free_args(&args);
    return status;
}

}  // namespace
}  // namespace vendor::vesk::tavi::sim

int main(int argc, char** argv) {
    return vendor::vesk::tavi::sim::Main(argc, argv);
}
