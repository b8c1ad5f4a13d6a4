// SPDX-License-Identifier: Apache-2.0
/*
 * How fast the record queue is drained while it is non-empty, inside the test VM. The queue
 * is filled until it refuses a record, then one reader drains it, timed from its start to the
 * queue's end, again and again, the two readers taking turns:
 *  - the bare reader: poll() for POLLPRI|POLLERR, then read page size - 1 bytes from offset 0
 *    and seek back to 0 until a read returns nothing;
 *  - the daemon, with an event library that accepts and discards every event and its log in a
 *    file in tmpfs, stopped (SIGSTOP) while the queue fills and timed from SIGCONT until its
 *    log shows every record sent.
 * An injector writing beside a reader cannot keep pace with the bare reader, and its lock and
 * notification traffic would be measured too. Then, with the daemon running, the largest
 * burst injected back to back that the queue absorbs with no record dropped.
 *
 * Prints "TAVI-VM: drain ..." lines; exits 0 when every measurement ran, 1 otherwise.
 * Built static so that it runs in a bare initramfs.
 *
 * Usage: drainbench SECONDS [DAEMON LIBRARY_DIR]
 *   SECONDS of draining by the daemon (by the bare reader without one) in each of 3 rounds;
 *   DAEMON runs with LIBRARY_DIR (the discarding event library) ahead of /lib.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define LOG_PATH "/sys/kernel/tavi/log"
#define INJECT_PATH "/sys/kernel/tavi/inject"
#define DROPPED_PATH "/sys/kernel/tavi/dropped"
#define PERSIST_DIR "/mnt/vendor/persist/tavi"
#define DAEMON_LOG "/tmp/drain-daemon.log"
#define ROUNDS 3

/* A charger record: the daemon sends it as one event, logged with this mark. */
static const char kRecord[] = "4,1,3000,1,0,0,0\n";
static const ssize_t kRecordLength = sizeof(kRecord) - 1;
static const char kSentMark[] = "Send the message to UBO: ";
/* Bursts are searched up to this size; one the daemon keeps pace with is reported as ">=". */
static const long kBurstCap = 16384;

static char g_prefix[128];

static double Now(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

static void SleepSeconds(double seconds) {
    struct timespec pause = {.tv_sec = (time_t)seconds,
                             .tv_nsec = (long)((seconds - (double)(time_t)seconds) * 1e9)};
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
}

static void Fail(const char* what) {
    printf("TAVI-VM: drain %s: %s failed\n", g_prefix, what);
}

/* Architecture, online virtual CPUs and the accelerator vm-test.sh named on the command line. */
static void DescribeMachine(void) {
    struct utsname name;
    uname(&name);
    char accel[16] = "unknown";
    char cmdline[4096] = "";
    FILE* file = fopen("/proc/cmdline", "r");
    if (file != NULL) {
        if (fgets(cmdline, sizeof(cmdline), file) == NULL) cmdline[0] = '\0';
        fclose(file);
    }
    const char* found = strstr(cmdline, "tavi.accel=");
    if (found != NULL) sscanf(found + strlen("tavi.accel="), "%15[a-z]", accel);
    for (char* c = accel; *c != '\0'; c++) *c = (char)(*c - 'a' + 'A');
    snprintf(g_prefix, sizeof(g_prefix), "(%s, %ld vCPUs, %s)", name.machine,
             sysconf(_SC_NPROCESSORS_ONLN), accel);
}

static long ReadDropped(void) {
    FILE* file = fopen(DROPPED_PATH, "r");
    long dropped = -1;
    if (file == NULL) return -1;
    if (fscanf(file, "%ld", &dropped) != 1) dropped = -1;
    fclose(file);
    return dropped;
}

/*
 * Writes up to LIMIT records back to back (0: no limit) and stops at the first the queue
 * refuses; returns the number queued, -1 on an error other than a full queue.
 */
static long Inject(int inject, long limit) {
    long queued = 0;
    while (limit == 0 || queued < limit) {
        if (pwrite(inject, kRecord, (size_t)kRecordLength, 0) != kRecordLength) {
            return errno == ENOSPC ? queued : -1;
        }
        queued++;
    }
    return queued;
}

/* Reads records until the queue is empty; returns their number, -1 on error. */
static long DrainQueue(int log, char* buffer, size_t size) {
    long records = 0;
    ssize_t length;
    while ((length = read(log, buffer, size - 1)) > 0) {
        lseek(log, 0, SEEK_SET);
        records++;
    }
    return length == 0 ? records : -1;
}

/* Records drained and the time it took, summed over the drains of one reader. */
struct Drains {
    long records;
    double seconds;
};

static bool BareDrain(int log, char* buffer, size_t size, long filled, struct Drains* drains) {
    double start = Now();
    struct pollfd entry = {.fd = log, .events = POLLPRI | POLLERR};
    if (poll(&entry, 1, 1000) != 1) return false;
    long records = DrainQueue(log, buffer, size);
    drains->seconds += Now() - start;
    drains->records += records;
    return records == filled;
}

/* Counts the daemon's "sent" lines as its log grows; the mark may straddle two reads. */
struct LogCounter {
    int fd;
    long sent;
    char carry[sizeof(kSentMark)];
    size_t carried;
};

static long CountSent(struct LogCounter* counter) {
    const size_t mark = strlen(kSentMark);
    char buffer[65536];
    for (;;) {
        memcpy(buffer, counter->carry, counter->carried);
        ssize_t length =
                read(counter->fd, buffer + counter->carried, sizeof(buffer) - counter->carried);
        if (length < 0) return -1;
        if (length == 0) return counter->sent;
        size_t total = counter->carried + (size_t)length;
        const char* at = buffer;
        const char* found;
        while ((found = memmem(at, total - (size_t)(at - buffer), kSentMark, mark)) != NULL) {
            counter->sent++;
            at = found + mark;
        }
        /* Keep what could be the start of a mark, but nothing of one already counted. */
        size_t keep = total - (size_t)(at - buffer);
        if (keep > mark - 1) keep = mark - 1;
        memcpy(counter->carry, buffer + total - keep, keep);
        counter->carried = keep;
    }
}

static bool LogHas(const char* text) {
    static char content[65536];
    int fd = open(DAEMON_LOG, O_RDONLY);
    if (fd < 0) return false;
    ssize_t length = read(fd, content, sizeof(content) - 1);
    close(fd);
    content[length > 0 ? length : 0] = '\0';
    return strstr(content, text) != NULL;
}

/* Ready once it polls and its event session exists, so that no record goes to its cache. */
static bool WaitUntilReady(pid_t daemon) {
    for (int tries = 0; tries < 200; tries++) {
        if (LogHas("poll() loop starting") && LogHas("Created UBO session")) return true;
        if (waitpid(daemon, NULL, WNOHANG) == daemon) return false;
        SleepSeconds(0.1);
    }
    return false;
}

/* Waits until the daemon has logged EXPECTED events in all: the queue is then empty. */
static bool WaitForSent(struct LogCounter* counter, long expected) {
    for (double end = Now() + 30; Now() < end;) {
        long sent = CountSent(counter);
        if (sent < 0 || sent > expected) return false;
        if (sent == expected) return true;
        SleepSeconds(0.0002);
    }
    return false;
}

/* What the daemon has done so far: events sent, and from /proc its CPU time and calls. */
struct Sample {
    long sent;
    double user_seconds, system_seconds;
    unsigned long reads, writes, written;
};

static bool ReadUsage(pid_t pid, struct Sample* sample) {
    char path[64], text[1024];
    snprintf(path, sizeof(path), "/proc/%d/stat", pid);
    FILE* file = fopen(path, "r");
    if (file == NULL) return false;
    size_t length = fread(text, 1, sizeof(text) - 1, file);
    fclose(file);
    text[length] = '\0';
    /* utime and stime, fields 14 and 15; the name before them may hold spaces. */
    const char* fields = strrchr(text, ')');
    unsigned long user, system;
    if (fields == NULL || sscanf(fields + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu",
                                 &user, &system) != 2) {
        return false;
    }
    const double tick = 1.0 / (double)sysconf(_SC_CLK_TCK);
    sample->user_seconds = (double)user * tick;
    sample->system_seconds = (double)system * tick;
    snprintf(path, sizeof(path), "/proc/%d/io", pid);
    file = fopen(path, "r");
    if (file == NULL) return false;
    unsigned long read_bytes;
    int fields_read = fscanf(file, "rchar: %lu wchar: %lu syscr: %lu syscw: %lu", &read_bytes,
                             &sample->written, &sample->reads, &sample->writes);
    fclose(file);
    return fields_read == 4;
}

struct Daemon {
    pid_t pid;
    struct LogCounter counter;
    long injected; /* records queued for it in all */
};

static bool StartDaemon(const char* daemon, const char* library_dir, struct Daemon* started) {
    mkdir("/mnt", 0755);
    mkdir("/mnt/vendor", 0755);
    mkdir("/mnt/vendor/persist", 0755);
    mkdir(PERSIST_DIR, 0770);
    unlink(PERSIST_DIR "/cache.bin"); /* a replayed cache would add events to the count */
    memset(started, 0, sizeof(*started));
    started->counter.fd = -1;
    started->pid = fork();
    if (started->pid == 0) {
        int log = open(DAEMON_LOG, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (log < 0 || dup2(log, STDERR_FILENO) < 0) _exit(127);
        char path[512];
        snprintf(path, sizeof(path), "%s:/lib", library_dir);
        setenv("LD_LIBRARY_PATH", path, 1);
        execl(daemon, daemon, (char*)NULL);
        _exit(127);
    }
    if (started->pid < 0) return false;
    if (!WaitUntilReady(started->pid)) return false;
    started->counter.fd = open(DAEMON_LOG, O_RDONLY);
    return started->counter.fd >= 0;
}

/* Stops it with SIGTERM; true when it ended with status 0. */
static bool StopDaemon(struct Daemon* daemon) {
    if (daemon->counter.fd >= 0) close(daemon->counter.fd);
    if (daemon->pid <= 0) return false;
    kill(daemon->pid, SIGTERM);
    for (int tries = 0; tries < 100; tries++) {
        int status;
        if (waitpid(daemon->pid, &status, WNOHANG) == daemon->pid) {
            return WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
        SleepSeconds(0.1);
    }
    kill(daemon->pid, SIGKILL);
    waitpid(daemon->pid, NULL, 0);
    return false;
}

static bool Pause(struct Daemon* daemon) {
    int status;
    kill(daemon->pid, SIGSTOP);
    return waitpid(daemon->pid, &status, WUNTRACED) == daemon->pid && WIFSTOPPED(status);
}

/* The daemon, stopped while FILLED records were queued for it. Leaves it stopped. */
static bool DaemonDrain(struct Daemon* daemon, long filled, struct Drains* drains) {
    double start = Now();
    kill(daemon->pid, SIGCONT);
    daemon->injected += filled;
    bool sent = WaitForSent(&daemon->counter, daemon->injected);
    drains->seconds += Now() - start;
    drains->records += filled;
    return sent && Pause(daemon);
}

static bool TakeSample(struct Daemon* daemon, struct Sample* sample) {
    sample->sent = CountSent(&daemon->counter);
    return sample->sent >= 0 && ReadUsage(daemon->pid, sample);
}

/* One round's figures; the daemon's are zero without one. */
struct Round {
    double bare, daemon; /* records per second of draining */
    double ratio;
    double user_us, system_us;     /* the daemon's CPU per record */
    double reads, writes, written; /* the daemon's per record */
};

/* Alternates full-queue drains of the two readers until the daemon has drained SECONDS. */
static bool MeasureRound(double seconds, struct Daemon* daemon, struct Round* round) {
    int inject = open(INJECT_PATH, O_WRONLY);
    int log = open(LOG_PATH, O_RDONLY);
    const size_t size = (size_t)getpagesize();
    char* buffer = malloc(size);
    struct Drains bare = {0}, daemons = {0};
    struct Sample first = {0}, last = {0};
    bool ok = inject >= 0 && log >= 0 && buffer != NULL;
    ok = ok && (daemon == NULL || TakeSample(daemon, &first));
    while (ok && (daemon != NULL ? daemons.seconds : bare.seconds) < seconds) {
        long filled = Inject(inject, 0);
        ok = filled > 0 && BareDrain(log, buffer, size, filled, &bare);
        if (ok && daemon != NULL) {
            filled = Inject(inject, 0);
            ok = filled > 0 && DaemonDrain(daemon, filled, &daemons);
        }
    }
    ok = ok && (daemon == NULL || TakeSample(daemon, &last));
    free(buffer);
    if (log >= 0) close(log);
    if (inject >= 0) close(inject);
    if (!ok) return false;
    memset(round, 0, sizeof(*round));
    round->bare = (double)bare.records / bare.seconds;
    if (daemon == NULL) return true;
    double records = (double)daemons.records;
    round->daemon = records / daemons.seconds;
    round->ratio = round->daemon / round->bare;
    round->user_us = (last.user_seconds - first.user_seconds) * 1e6 / records;
    round->system_us = (last.system_seconds - first.system_seconds) * 1e6 / records;
    round->reads = (double)(last.reads - first.reads) / records;
    round->writes = (double)(last.writes - first.writes) / records;
    round->written = (double)(last.written - first.written) / records;
    return true;
}

/*
 * Injects SIZE records back to back while the daemon runs and waits until it has sent them
 * all: 1 when every record was queued and the dropped count did not move, 0 when not, -1 on
 * error.
 */
static int TryBurst(int inject, long size, struct Daemon* daemon) {
    long dropped = ReadDropped();
    long queued = Inject(inject, size);
    if (dropped < 0 || queued < 0) return -1;
    daemon->injected += queued;
    if (!WaitForSent(&daemon->counter, daemon->injected)) return -1;
    return queued == size && ReadDropped() == dropped;
}

/* Doubles the burst while it is absorbed, then bisects; returns the largest absorbed. */
static double LargestBurst(int inject, struct Daemon* daemon) {
    long absorbed = 0, refused = 0, size = 128;
    while (refused == 0 && size <= kBurstCap) {
        int outcome = TryBurst(inject, size, daemon);
        if (outcome < 0) return -1;
        if (outcome) {
            absorbed = size;
            size *= 2;
        } else {
            refused = size;
        }
    }
    while (refused != 0 && refused - absorbed > 1) {
        long middle = absorbed + (refused - absorbed) / 2;
        int outcome = TryBurst(inject, middle, daemon);
        if (outcome < 0) return -1;
        if (outcome) {
            absorbed = middle;
        } else {
            refused = middle;
        }
    }
    return (double)absorbed;
}

struct Spread {
    double least, median, most;
};

static int CompareDoubles(const void* a, const void* b) {
    double left = *(const double*)a, right = *(const double*)b;
    return (left > right) - (left < right);
}

/* Of one field of the rounds' figures, found at OFFSET in each. */
static struct Spread SpreadOf(const void* rounds, size_t size, size_t offset) {
    double values[ROUNDS];
    for (int i = 0; i < ROUNDS; i++) {
        values[i] = *(const double*)((const char*)rounds + (size_t)i * size + offset);
    }
    qsort(values, ROUNDS, sizeof(values[0]), CompareDoubles);
    return (struct Spread){values[0], values[ROUNDS / 2], values[ROUNDS - 1]};
}

static struct Spread RoundSpread(const struct Round rounds[ROUNDS], size_t offset) {
    return SpreadOf(rounds, sizeof(rounds[0]), offset);
}

static void PrintRounds(const struct Round rounds[ROUNDS], bool with_daemon, double seconds) {
    struct Spread bare = RoundSpread(rounds, offsetof(struct Round, bare));
    printf("TAVI-VM: drain %s: bare reader: %.0f records/s (%.0f-%.0f)\n", g_prefix, bare.median,
           bare.least, bare.most);
    if (!with_daemon) return;
    struct Spread daemon = RoundSpread(rounds, offsetof(struct Round, daemon));
    printf("TAVI-VM: drain %s: tavi_daemon: %.0f records/s (%.0f-%.0f); per record %.0f us "
           "user and %.0f us kernel CPU, %.2f reads, %.2f writes of %.0f bytes in all\n",
           g_prefix, daemon.median, daemon.least, daemon.most,
           RoundSpread(rounds, offsetof(struct Round, user_us)).median,
           RoundSpread(rounds, offsetof(struct Round, system_us)).median,
           RoundSpread(rounds, offsetof(struct Round, reads)).median,
           RoundSpread(rounds, offsetof(struct Round, writes)).median,
           RoundSpread(rounds, offsetof(struct Round, written)).median);
    struct Spread ratio = RoundSpread(rounds, offsetof(struct Round, ratio));
    printf("TAVI-VM: drain %s: tavi_daemon / bare reader: %.2f (%.2f-%.2f; %d rounds, each "
           "%.1f s of the daemon's drains of a full queue, taking turns with the bare "
           "reader)\n",
           g_prefix, ratio.median, ratio.least, ratio.most, ROUNDS, seconds);
}

static bool MeasureBursts(struct Daemon* daemon) {
    int inject = open(INJECT_PATH, O_WRONLY);
    double bursts[ROUNDS];
    bool measured = inject >= 0 && kill(daemon->pid, SIGCONT) == 0;
    for (int round = 0; round < ROUNDS && measured; round++) {
        bursts[round] = LargestBurst(inject, daemon);
        measured = bursts[round] > 0;
    }
    if (inject >= 0) close(inject);
    if (!measured) return false;
    struct Spread burst = SpreadOf(bursts, sizeof(bursts[0]), 0);
    printf("TAVI-VM: drain %s: largest burst absorbed with tavi_daemon reading, no record "
           "dropped: %s%.0f records (%d searches: %.0f-%.0f)\n",
           g_prefix, burst.median >= (double)kBurstCap ? ">= " : "", burst.median, ROUNDS,
           burst.least, burst.most);
    return true;
}

static bool Measure(double seconds, struct Daemon* daemon) {
    struct Round rounds[ROUNDS];
    for (int round = 0; round < ROUNDS; round++) {
        if (!MeasureRound(seconds, daemon, &rounds[round])) {
            Fail("measuring the drains");
            return false;
        }
    }
    PrintRounds(rounds, daemon != NULL, seconds);
    if (daemon != NULL && !MeasureBursts(daemon)) {
        Fail("the burst search");
        return false;
    }
    return true;
}

static bool EmptyQueue(void) {
    int log = open(LOG_PATH, O_RDONLY);
    if (log < 0) return false;
    char buffer[4096];
    bool emptied = DrainQueue(log, buffer, sizeof(buffer)) >= 0;
    close(log);
    return emptied;
}

int main(int argc, char** argv) {
    if (argc != 2 && argc != 4) {
        fprintf(stderr, "usage: %s SECONDS [DAEMON LIBRARY_DIR]\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    DescribeMachine();
    if (!EmptyQueue()) {
        Fail("emptying the queue");
        return 1;
    }
    const double seconds = atof(argv[1]);
    if (argc == 2 || access(argv[2], X_OK) != 0) {
        printf("TAVI-VM: drain %s: no daemon in this image\n", g_prefix);
        return Measure(seconds, NULL) ? 0 : 1;
    }
    struct Daemon daemon;
    bool started = StartDaemon(argv[2], argv[3], &daemon) && Pause(&daemon);
    if (!started) Fail("starting tavi_daemon");
    bool measured = started && Measure(seconds, &daemon);
    if (daemon.pid > 0) kill(daemon.pid, SIGCONT);
    bool stopped = StopDaemon(&daemon);
    if (!stopped) Fail("stopping tavi_daemon with SIGTERM (ending with status 0)");
    return measured && stopped ? 0 : 1;
}
