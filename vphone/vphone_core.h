/* Bridge between the C shim that stands in for the C library calls (shim.c) and the
 * C++ state of the virtual phone (vphone.cpp). Not for test code: use vphone.h. */
#ifndef KMXC_VPHONE_CORE_H
#define KMXC_VPHONE_CORE_H

#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Call kinds, in the order of vphone::Call. */
enum {
    VPHONE_CALL_OPEN,
    VPHONE_CALL_CLOSE,
    VPHONE_CALL_READ,
    VPHONE_CALL_WRITE,
    VPHONE_CALL_IOCTL,
    VPHONE_CALL_USLEEP,
    VPHONE_CALL_FOPEN,
    VPHONE_CALL_FGETS,
    VPHONE_CALL_FPRINTF,
    VPHONE_CALL_FCLOSE,
    VPHONE_CALL_ACCESS,
    VPHONE_CALL_CHOWN,
    VPHONE_CALL_CHMOD,
    VPHONE_CALL_RENAME,
    VPHONE_CALL_COUNT
};

/* 1 and the sandbox path in out when path is one of the phone's paths, else 0. */
int vphone_core_map_path(const char *path, char *out, size_t size);
int vphone_core_is_compass_path(const char *path);
/* Counts one call of the kind; returns the errno to inject, or 0. */
int vphone_core_take_fault(int call);

int vphone_core_compass_open(int flags);
int vphone_core_is_compass_fd(int fd);
int vphone_core_compass_close(int fd);
ssize_t vphone_core_compass_read(int fd, void *buffer, size_t length);
ssize_t vphone_core_compass_write(int fd, const void *buffer, size_t length);
int vphone_core_compass_ioctl(int fd, unsigned long request, unsigned long argument);

int vphone_core_sleep_us(unsigned long long microseconds);

/* A file opened on a phone path; size is its length right after opening. */
void vphone_core_track_file(FILE *file, const char *host_path, long size);
int vphone_core_is_tracked_file(FILE *file);
void vphone_core_untrack_file(FILE *file);
/* After a failing fclose: cut the file back to its length at opening (what a failed
 * write-back leaves behind). */
void vphone_core_lose_unflushed(FILE *file);

void vphone_core_set_owner(const char *host_path, unsigned uid, unsigned gid);
void vphone_core_move_owner(const char *host_from, const char *host_to);

#ifdef __cplusplus
}
#endif

#endif /* KMXC_VPHONE_CORE_H */
