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
    VPHONE_CALL_UNLINK,
    VPHONE_CALL_FSYNC,
    VPHONE_CALL_FDATASYNC,
    VPHONE_CALL_FLOCK,
    VPHONE_CALL_FCHMOD,
    VPHONE_CALL_FCHOWN,
    VPHONE_CALL_CLOCK_GETTIME,
    VPHONE_CALL_NANOSLEEP,
    VPHONE_CALL_CLOCK_NANOSLEEP,
    VPHONE_CALL_COUNT
};

/* 1 and the sandbox path in out when path is one of the phone's paths, else 0. */
int vphone_core_map_path(const char *path, char *out, size_t size);
int vphone_core_is_compass_path(const char *path);
/* Counts one call of the kind; returns the errno to inject, or 0. For calls that do not
 * concern a phone file (the compass descriptor, usleep). */
int vphone_core_take_fault(int call);
/* Counts one call on a phone file (phone_path names it in the file-call log); returns
 * the errno to inject, or 0. A scheduled power cut happens here: the files go back to
 * their durable state and the process ends, or (tests) every file call fails from now. */
int vphone_core_take_file_call(int call, const char *phone_path);
/* The same for a call on a phone file's descriptor. */
int vphone_core_take_fd_call(int call, int fd);

/* Descriptors open() returned on phone paths (files and directories). */
void vphone_core_track_fd(int fd, const char *phone_path, const char *host_path);
int vphone_core_is_phone_fd(int fd);
void vphone_core_untrack_fd(int fd);
/* Resolves a path relative to a phone directory's descriptor (renameat): 1 and the
 * phone path in out when dirfd is one, else 0. */
int vphone_core_fd_relative(int dirfd, const char *name, char *out, size_t size);

/* The durability model (vphone.h, "Power"): called around the calls that change the
 * phone's files. before_change: host_path's entry or content is about to change.
 * before_remove/removed: host_path's entry is about to go / went (rename's target,
 * unlink). synced: fsync or fdatasync succeeded on a phone descriptor. */
void vphone_core_before_change(const char *host_path);
void vphone_core_before_remove(const char *host_path);
void vphone_core_removed(void);
void vphone_core_synced(int fd);

int vphone_core_compass_open(int flags);
int vphone_core_is_compass_fd(int fd);
int vphone_core_compass_close(int fd);
ssize_t vphone_core_compass_read(int fd, void *buffer, size_t length);
ssize_t vphone_core_compass_write(int fd, const void *buffer, size_t length);
int vphone_core_compass_ioctl(int fd, unsigned long request, unsigned long argument);

int vphone_core_sleep_us(unsigned long long microseconds);
/* The virtual clock (vphone.h, "Virtual clock"): its time in nanoseconds, and a sleep
 * of ns nanoseconds made by a call of the kind (recorded in the transcript). */
unsigned long long vphone_core_now_ns(void);
int vphone_core_sleep_ns(int call, unsigned long long ns);

/* A file opened on a phone path; size is its length right after opening. */
void vphone_core_track_file(FILE *file, const char *phone_path, const char *host_path, long size);
/* The errno to inject into a call on a tracked FILE (0: none, or not a phone file). */
int vphone_core_take_stream_call(int call, FILE *file);
int vphone_core_is_tracked_file(FILE *file);
void vphone_core_untrack_file(FILE *file);
/* After a failing fclose: cut the file back to its length at opening (what a failed
 * write-back leaves behind). */
void vphone_core_lose_unflushed(FILE *file);

void vphone_core_set_owner(const char *host_path, unsigned uid, unsigned gid);
void vphone_core_set_owner_fd(int fd, unsigned uid, unsigned gid);
void vphone_core_move_owner(const char *host_from, const char *host_to);

#ifdef __cplusplus
}
#endif

#endif /* KMXC_VPHONE_CORE_H */
