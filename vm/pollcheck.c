// SPDX-License-Identifier: Apache-2.0
/*
 * Reads a record attribute the way the listener does: poll() for POLLPRI|POLLERR, then
 * read at most page size - 1 bytes from offset 0 and seek back to 0, again and again until a
 * read returns nothing. Prints "record TEXT" for each record and then "wake N", N being the
 * number of records that wake-up drained. Exits 0 once the expected number of records has
 * been seen, 1 when poll() waits longer than the timeout first, 2 on a usage or I/O error.
 *
 * Built static so that it runs in a bare initramfs.
 *
 * Usage: pollcheck PATH RECORDS TIMEOUT_MS
 */
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int Drain(int fd, char* buffer, size_t size) {
    int records = 0;
    for (;;) {
        ssize_t length = read(fd, buffer, size - 1);
        if (length < 0) {
            perror("read");
            return -1;
        }
        if (length == 0) return records;
        buffer[length] = '\0';
        lseek(fd, 0, SEEK_SET);
        printf("record %s", buffer);
        if (buffer[length - 1] != '\n') printf("\n");
        records++;
    }
}

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: %s PATH RECORDS TIMEOUT_MS\n", argv[0]);
        return 2;
    }
    int expected = atoi(argv[2]);
    int timeout_ms = atoi(argv[3]);
    int fd = open(argv[1], O_RDONLY);
    if (fd < 0) {
        perror(argv[1]);
        return 2;
    }
    size_t size = (size_t)getpagesize();
    char* buffer = malloc(size);
    if (buffer == NULL) return 2;

    setvbuf(stdout, NULL, _IOLBF, 0);
    int seen = 0;
    while (seen < expected) {
        struct pollfd entry = {.fd = fd, .events = POLLPRI | POLLERR};
        int ready = poll(&entry, 1, timeout_ms);
        if (ready < 0) {
            perror("poll");
            return 2;
        }
        if (ready == 0) {
            printf("timeout after %d of %d records\n", seen, expected);
            return 1;
        }
        int records = Drain(fd, buffer, size);
        if (records < 0) return 2;
        printf("wake %d\n", records);
        seen += records;
    }
    free(buffer);
    close(fd);
    return 0;
}
