// SPDX-License-Identifier: Apache-2.0
/*
 * How fast the record queue is drained, inside the test VM:
 *  - the bare reader: poll() for POLLPRI|POLLERR, read page size - 1 bytes from offset 0,
 *    seek back to 0, until a read returns nothing, counting records;
 *  - the daemon, whose event library accepts and discards every event and whose log goes to
 *    a file in tmpfs: it logs one line per event sent, which is what is counted;
 *  - the largest burst, injected back to back, that the queue absorbs with the daemon reading
 *    and no record dropped.
 * For both rates an injector thread keeps the queue non-empty, writing one record after the
 * other (a full queue refuses them), on its own virtual CPU when there are two.
 *
 * Prints "TAVI-VM: drain ..." lines; exits 0 when every measurement ran, 1 otherwise.
 * Built static so that it runs in a bare initramfs.
 *
 * Usage: drainbench SECONDS [DAEMON LIBRARY_DIR]
 *   DAEMON runs with LIBRARY_DIR (the discarding event library) ahead of /lib.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdbool.h>
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

/* A charger record: the daemon sends it as one event and logs one line for it. */
static const char kRecord[] = "4,1,3000,1,0,0,0\n";
static const char kSentMark[] = "Send the message to UBO: ";
/* Bursts are searched up to this size; one the daemon keeps pace with is reported as ">=". */
static const long kBurstCap = 16384;
static const double kWarmupSeconds = 1.0;

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

/* Reads and discards records until the queue is empty. */
static bool EmptyQueue(void) {
    int fd = open(LOG_PATH, O_RDONLY);
    if (fd < 0) return false;
    char buffer[4096];
    ssize_t length;
    while ((length = read(fd, buffer, sizeof(buffer) - 1)) > 0) lseek(fd, 0, SEEK_SET);
    close(fd);
    return length == 0;
}

struct Injector {
    atomic_bool stop;
    atomic_long accepted;
    atomic_long refused;
    long limit;           /* 0: until stopped */
    bool stop_on_refusal; /* a burst ends at its first refused record */
    int error;            /* errno of a failure other than a full queue */
};

static void* Inject(void* arg) {
    struct Injector* injector = arg;
    int fd = open(INJECT_PATH, O_WRONLY);
    if (fd < 0) {
        injector->error = errno;
        return NULL;
    }
    const ssize_t length = (ssize_t)strlen(kRecord);
    while (!atomic_load_explicit(&injector->stop, memory_order_relaxed)) {
        if (injector->limit != 0 && atomic_load(&injector->accepted) >= injector->limit) break;
        if (pwrite(fd, kRecord, (size_t)length, 0) == length) {
            atomic_fetch_add_explicit(&injector->accepted, 1, memory_order_relaxed);
        } else if (errno == ENOSPC) {
            atomic_fetch_add_explicit(&injector->refused, 1, memory_order_relaxed);
            if (injector->stop_on_refusal) break;
        } else {
            injector->error = errno;
            break;
        }
    }
    close(fd);
    return NULL;
}

struct Reader {
    atomic_bool stop;
    atomic_long records;
    atomic_long empty_reads; /* times the queue ran dry */
    int error;
};

/* The bare reader. Once stopped, it returns at its next empty read. */
static void* Read(void* arg) {
    struct Reader* reader = arg;
    int fd = open(LOG_PATH, O_RDONLY);
    if (fd < 0) {
        reader->error = errno;
        return NULL;
    }
    const size_t size = (size_t)getpagesize();
    char* buffer = malloc(size);
    while (buffer != NULL) {
        struct pollfd entry = {.fd = fd, .events = POLLPRI | POLLERR};
        int ready = poll(&entry, 1, 100);
        if (ready < 0) {
            reader->error = errno;
            break;
        }
        bool stopping = atomic_load(&reader->stop);
        if (ready == 0) {
            if (stopping) break;
            continue;
        }
        for (;;) {
            ssize_t length = read(fd, buffer, size - 1);
            if (length < 0) {
                reader->error = errno;
                break;
            }
            if (length == 0) {
                atomic_fetch_add_explicit(&reader->empty_reads, 1, memory_order_relaxed);
                break;
            }
            lseek(fd, 0, SEEK_SET);
            atomic_fetch_add_explicit(&reader->records, 1, memory_order_relaxed);
        }
        if (reader->error != 0 || stopping) break;
    }
    free(buffer);
    close(fd);
    return NULL;
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
        ssize_t length = read(counter->fd, buffer + counter->carried,
                              sizeof(buffer) - counter->carried);
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

static pid_t StartDaemon(const char* daemon, const char* library_dir) {
    mkdir("/mnt", 0755);
    mkdir("/mnt/vendor", 0755);
    mkdir("/mnt/vendor/persist", 0755);
    mkdir(PERSIST_DIR, 0770);
    unlink(PERSIST_DIR "/cache.bin"); /* a replayed cache would add events to the count */
    pid_t pid = fork();
    if (pid != 0) return pid;
    int log = open(DAEMON_LOG, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (log < 0 || dup2(log, STDERR_FILENO) < 0) _exit(127);
    char path[512];
    snprintf(path, sizeof(path), "%s:/lib", library_dir);
    setenv("LD_LIBRARY_PATH", path, 1);
    execl(daemon, daemon, (char*)NULL);
    _exit(127);
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

static bool StopDaemon(pid_t daemon) {
    kill(daemon, SIGTERM);
    for (int tries = 0; tries < 100; tries++) {
        int status;
        if (waitpid(daemon, &status, WNOHANG) == daemon) {
            return WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
        SleepSeconds(0.1);
    }
    kill(daemon, SIGKILL);
    waitpid(daemon, NULL, 0);
    return false;
}

/* Waits until the daemon has logged EXPECTED events in all: the queue is then empty. */
static bool WaitForSent(struct LogCounter* counter, long expected) {
    for (int tries = 0; tries < 600; tries++) {
        long sent = CountSent(counter);
        if (sent < 0 || sent > expected) return false;
        if (sent == expected) return true;
        SleepSeconds(0.05);
    }
    return false;
}

typedef long (*Counter)(void* context);

static long ReaderRecords(void* reader) { return atomic_load(&((struct Reader*)reader)->records); }

static long DaemonRecords(void* counter) { return CountSent(counter); }

/*
 * Records per second counted by COUNT over SECONDS, while an injector keeps the queue
 * non-empty; the first second is left out. INJECTOR is left stopped, its totals in it.
 */
static double MeasureRate(struct Injector* injector, double seconds, Counter count,
                          void* context) {
    pthread_t thread;
    if (pthread_create(&thread, NULL, Inject, injector) != 0) return -1;
    SleepSeconds(kWarmupSeconds);
    long first = count(context);
    double start = Now();
    SleepSeconds(seconds);
    long last = count(context);
    double end = Now();
    atomic_store(&injector->stop, true);
    pthread_join(thread, NULL);
    if (injector->error != 0 || first < 0 || last < 0) return -1;
    return (double)(last - first) / (end - start);
}

static double MeasureBareReader(double seconds) {
    struct Reader reader = {0};
    pthread_t thread;
    if (pthread_create(&thread, NULL, Read, &reader) != 0) return -1;
    struct Injector injector = {0};
    double rate = MeasureRate(&injector, seconds, ReaderRecords, &reader);
    atomic_store(&reader.stop, true);
    pthread_join(thread, NULL);
    if (rate < 0 || reader.error != 0) return -1;
    printf("TAVI-VM: drain %s: bare reader %.0f records/s (%.1f s; the queue ran dry %ld "
           "times, the injector was refused %ld times)\n",
           g_prefix, rate, seconds, atomic_load(&reader.empty_reads),
           atomic_load(&injector.refused));
    return rate;
}

/*
 * Injects SIZE records back to back and waits until the daemon has sent them all: 1 when
 * every record was queued and the dropped count did not move, 0 when not, -1 on error.
 */
static int TryBurst(long size, struct LogCounter* counter, long* injected) {
    long dropped = ReadDropped();
    struct Injector injector = {.limit = size, .stop_on_refusal = true};
    Inject(&injector);
    *injected += atomic_load(&injector.accepted);
    if (dropped < 0 || injector.error != 0 || !WaitForSent(counter, *injected)) return -1;
    return atomic_load(&injector.accepted) == size && ReadDropped() == dropped;
}

/* Doubles the burst while it is absorbed, then bisects; returns the largest absorbed. */
static long LargestBurst(struct LogCounter* counter, long* injected) {
    long absorbed = 0, refused = 0, size = 128;
    while (refused == 0 && size <= kBurstCap) {
        int outcome = TryBurst(size, counter, injected);
        if (outcome < 0) return -1;
        if (outcome) absorbed = size, size *= 2;
        else refused = size;
    }
    while (refused != 0 && refused - absorbed > 1) {
        long middle = absorbed + (refused - absorbed) / 2;
        int outcome = TryBurst(middle, counter, injected);
        if (outcome < 0) return -1;
        if (outcome) absorbed = middle;
        else refused = middle;
    }
    return absorbed;
}

static bool MeasureDaemon(double seconds, const char* daemon, const char* library_dir,
                          double bare_rate) {
    pid_t pid = StartDaemon(daemon, library_dir);
    if (pid < 0 || !WaitUntilReady(pid)) {
        Fail("starting the daemon");
        if (pid > 0) StopDaemon(pid);
        return false;
    }
    struct LogCounter counter = {.fd = open(DAEMON_LOG, O_RDONLY)};
    struct Injector injector = {0};
    double rate = MeasureRate(&injector, seconds, DaemonRecords, &counter);
    long injected = atomic_load(&injector.accepted);
    bool drained = rate >= 0 && WaitForSent(&counter, injected);
    if (drained) {
        printf("TAVI-VM: drain %s: tavi_daemon %.0f records/s (%.1f s), %.2f of the bare "
               "reader\n",
               g_prefix, rate, seconds, bare_rate > 0 ? rate / bare_rate : 0.0);
    } else {
        Fail("measuring the daemon");
    }
    long burst = drained ? LargestBurst(&counter, &injected) : -1;
    if (burst > 0) {
        printf("TAVI-VM: drain %s: largest burst absorbed with tavi_daemon reading, no record "
               "dropped: %s%ld records\n",
               g_prefix, burst >= kBurstCap ? ">= " : "", burst);
    } else if (drained) {
        Fail("the burst search");
    }
    bool stopped = StopDaemon(pid);
    if (!stopped) Fail("stopping the daemon with SIGTERM");
    close(counter.fd);
    return drained && burst > 0 && stopped;
}

int main(int argc, char** argv) {
    if (argc != 2 && argc != 4) {
        fprintf(stderr, "usage: %s SECONDS [DAEMON LIBRARY_DIR]\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    DescribeMachine();
    double seconds = atof(argv[1]);
    if (!EmptyQueue()) {
        Fail("emptying the queue");
        return 1;
    }
    double bare_rate = MeasureBareReader(seconds);
    if (bare_rate < 0) {
        Fail("measuring the bare reader");
        return 1;
    }
    if (argc == 2 || access(argv[2], X_OK) != 0) {
        printf("TAVI-VM: drain %s: no daemon in this image\n", g_prefix);
        return 0;
    }
    return MeasureDaemon(seconds, argv[2], argv[3], bare_rate) ? 0 : 1;
}
