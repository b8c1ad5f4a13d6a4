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
#include <memory>
#include <string>

#include <fuse_lowlevel.h>

#include <android-base/logging.h>

#include "log_attribute.h"

namespace vendor::vesk::tavi::sim {
namespace {

enum Inode : fuse_ino_t {
    kRootInode = FUSE_ROOT_ID,
    kLogInode,
    kInjectInode,
    kPendingInode,
};

struct FileNode {
    Inode inode;
    const char* name;
    mode_t mode;
    int access_mode;  // the only O_ACCMODE an open may ask for
    off_t size;
};

// Sysfs attributes report one page as their size whatever they hold.
constexpr FileNode kFiles[] = {
        {kLogInode, "log", S_IFREG | 0444, O_RDONLY, 4096},
        {kInjectInode, "inject", S_IFREG | 0200, O_WRONLY, 0},
        {kPendingInode, "pending", S_IFREG | 0444, O_RDONLY, 0},
};

constexpr double kAttributeTimeout = 1.0;

struct EmulatorState {
    LogAttribute log;
    uint64_t next_fh = 1;
    struct timespec start_time {};
};

EmulatorState& State(fuse_req_t request) {
    return *static_cast<EmulatorState*>(fuse_req_userdata(request));
}

const FileNode* FindFile(fuse_ino_t inode) {
    for (const FileNode& file : kFiles) {
        if (file.inode == inode) return &file;
    }
    return nullptr;
}

const FileNode* FindFile(const char* name) {
    for (const FileNode& file : kFiles) {
        if (strcmp(file.name, name) == 0) return &file;
    }
    return nullptr;
}

bool FillAttributes(const EmulatorState& state, fuse_ino_t inode, struct stat* attributes) {
    *attributes = {};
    attributes->st_ino = inode;
    attributes->st_uid = getuid();
    attributes->st_gid = getgid();
    attributes->st_atim = attributes->st_mtim = attributes->st_ctim = state.start_time;
    if (inode == kRootInode) {
        attributes->st_mode = S_IFDIR | 0755;
        attributes->st_nlink = 2;
        return true;
    }
    const FileNode* file = FindFile(inode);
    if (file == nullptr) return false;
    attributes->st_mode = file->mode;
    attributes->st_nlink = 1;
    attributes->st_size = file->size;
    return true;
}

void ReplyBufferFrom(fuse_req_t request, const std::string& text, off_t offset, size_t size) {
    if (offset < 0 || static_cast<size_t>(offset) >= text.size()) {
        fuse_reply_buf(request, nullptr, 0);
        return;
    }
    fuse_reply_buf(request, text.data() + offset, std::min(size, text.size() - offset));
}

void Lookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
    const FileNode* file = parent == kRootInode ? FindFile(name) : nullptr;
    if (file == nullptr) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    fuse_entry_param entry{};
    entry.ino = file->inode;
    entry.attr_timeout = kAttributeTimeout;
    entry.entry_timeout = kAttributeTimeout;
    FillAttributes(State(request), file->inode, &entry.attr);
    fuse_reply_entry(request, &entry);
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
    auto add = [&](const char* name, fuse_ino_t entry_inode, mode_t mode) {
        struct stat attributes {};
        attributes.st_ino = entry_inode;
        attributes.st_mode = mode;
        size_t entry_size = fuse_add_direntry(request, nullptr, 0, name, nullptr, 0);
        size_t old_size = listing.size();
        listing.resize(old_size + entry_size);
        fuse_add_direntry(request, listing.data() + old_size, entry_size, name, &attributes,
                          listing.size());
    };
    add(".", kRootInode, S_IFDIR);
    add("..", kRootInode, S_IFDIR);
    for (const FileNode& file : kFiles) add(file.name, file.inode, file.mode);
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
    info->keep_cache = 0;
    info->nonseekable = 0;
    info->fh = State(request).next_fh++;
    fuse_reply_open(request, info);
}

void Release(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
    if (inode == kLogInode) State(request).log.Unwatch(info->fh);
    fuse_reply_err(request, 0);
}

void Read(fuse_req_t request, fuse_ino_t inode, size_t size, off_t offset, fuse_file_info*) {
    EmulatorState& state = State(request);
    if (inode == kPendingInode) {
        ReplyBufferFrom(request, std::to_string(state.log.Pending()) + "\n", offset, size);
        return;
    }
    if (inode != kLogInode) {
        fuse_reply_err(request, EBADF);
        return;
    }
    // Only a read from the start takes a record; the reader rewinds before the next one.
    std::string record = offset == 0 ? state.log.Pop(size) : std::string();
    fuse_reply_buf(request, record.data(), record.size());
}

void Write(fuse_req_t request, fuse_ino_t inode, const char* data, size_t size, off_t,
           fuse_file_info*) {
    if (inode != kInjectInode) {
        fuse_reply_err(request, EBADF);
        return;
    }
    State(request).log.Push(std::string(data, size));
    fuse_reply_write(request, size);
}

void Poll(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info, fuse_pollhandle* handle) {
    if (inode != kLogInode) {
        // The other files never change readiness, so nobody is ever notified on them.
        if (handle != nullptr) fuse_pollhandle_destroy(handle);
        fuse_reply_poll(request,
                        inode == kInjectInode ? POLLOUT | POLLWRNORM : POLLIN | POLLRDNORM);
        return;
    }
    LogAttribute& log = State(request).log;
    if (handle != nullptr) log.Watch(info->fh, handle);
    fuse_reply_poll(request, log.PollEvents());
}

fuse_lowlevel_ops MakeOperations() {
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
    return operations;
}

void PrintUsage(const char* program) {
    printf("usage: %s [-f] [-d] [-o option[,option...]] MOUNTPOINT\n"
           "Serves the emulated kernel log attribute: MOUNTPOINT/log (read, poll),\n"
           "MOUNTPOINT/inject (each write queues one record), MOUNTPOINT/pending (count).\n\n",
           program);
    fuse_cmdline_help();
    fuse_lowlevel_help();
}

// A parent that blocked the stop signals (as the daemon's tests do) must not leave them
// blocked here, or SIGTERM could never unmount us.
void UnblockStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    sigprocmask(SIG_UNBLOCK, &signals, nullptr);
}

// Root's mount is shared with everyone (a daemon under test may run as another user), while
// the kernel still applies the modes above to them.
void AddMountOptions(fuse_args* args) {
    fuse_opt_add_arg(args, "-odefault_permissions,fsname=tavi_sysfs_emu,subtype=tavi_sysfs_emu");
    if (geteuid() == 0) fuse_opt_add_arg(args, "-oallow_other");
}

int Serve(fuse_args* args, const char* mountpoint, bool foreground) {
    EmulatorState state;
    clock_gettime(CLOCK_REALTIME, &state.start_time);
    fuse_lowlevel_ops operations = MakeOperations();
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
    if (state.log.Dropped() > 0) LOG(ERROR) << state.log.Dropped() << " records dropped in all";
    return status;
}

int Main(int argc, char** argv) {
    android::base::InitLogging(argv, &android::base::StderrLogger);
    UnblockStopSignals();

    fuse_args args = FUSE_ARGS_INIT(argc, argv);
    fuse_cmdline_opts options{};
    if (fuse_parse_cmdline(&args, &options) != 0) return 1;
    std::unique_ptr<char, decltype(&free)> mountpoint(options.mountpoint, &free);
    int status = 0;
    if (options.show_help) {
        PrintUsage(argv[0]);
    } else if (options.show_version) {
        fuse_lowlevel_version();
    } else if (mountpoint == nullptr) {
        PrintUsage(argv[0]);
        status = 1;
    } else {
        AddMountOptions(&args);
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
