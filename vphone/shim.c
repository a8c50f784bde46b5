/* The C library calls the compass library makes, as the virtual phone answers them.
 *
 * Every call that concerns the phone (its paths, the compass descriptor, files opened
 * on its paths) is served here or by interposer.cpp, the sleeps and the monotonic
 * clocks by shim_clock.c; everything else goes on to the next definition in the
 * lookup order (the real C library, or a sanitizer's interceptor that itself forwards
 * to us). glibc
 * routes some calls through aliases (open64, __open_2, fopen64, __fprintf_chk,
 * __read_chk, ...); they are covered too. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include "shim.h"
#include "vphone_core.h"

typedef int (*open_fn)(const char *, int, ...);
typedef int (*close_fn)(int);
typedef ssize_t (*read_fn)(int, void *, size_t);
typedef ssize_t (*read_chk_fn)(int, void *, size_t, size_t);
typedef ssize_t (*write_fn)(int, const void *, size_t);
typedef int (*ioctl_fn)(int, unsigned long, ...);
typedef FILE *(*fopen_fn)(const char *, const char *);
typedef int (*fclose_fn)(FILE *);
typedef char *(*fgets_fn)(char *, int, FILE *);
typedef char *(*fgets_chk_fn)(char *, size_t, int, FILE *);
typedef int (*vfprintf_fn)(FILE *, const char *, va_list);
typedef int (*vfprintf_chk_fn)(FILE *, int, const char *, va_list);
typedef int (*access_fn)(const char *, int);
typedef int (*chown_fn)(const char *, uid_t, gid_t);
typedef int (*chmod_fn)(const char *, mode_t);
typedef int (*rename_fn)(const char *, const char *);
typedef int (*renameat_fn)(int, const char *, int, const char *);
typedef int (*unlink_fn)(const char *);
typedef int (*fd_fn)(int);
typedef int (*flock_fn)(int, int);
typedef int (*fchmod_fn)(int, mode_t);
typedef int (*fchown_fn)(int, uid_t, gid_t);

/* ---- open ------------------------------------------------------------------------ */

/* Flags that may change a file: its entry (O_CREAT) or its content. */
static int opens_for_change(int flags) { return (flags & (O_CREAT | O_TRUNC)) != 0 || (flags & O_ACCMODE) != O_RDONLY; }

static int phone_open(const char *name, const char *path, int flags, mode_t mode) {
    char host[PATH_MAX];
    if (path != NULL && vphone_core_is_compass_path(path)) {
        int error = vphone_core_take_fault(VPHONE_CALL_OPEN);
        if (error != 0) return fail_with(error);
        return vphone_core_compass_open(flags);
    }
    open_fn real = (open_fn)next_symbol(name);
    if (path == NULL || !vphone_core_map_path(path, host, sizeof host)) return real(path, flags, mode);
    int error = vphone_core_take_file_call(VPHONE_CALL_OPEN, path);
    if (error != 0) return fail_with(error);
    if (opens_for_change(flags)) vphone_core_before_change(host);
    int fd = real(host, flags, mode);
    if (fd >= 0) vphone_core_track_fd(fd, path, host);
    return fd;
}

/* open and open64: the mode argument is there only with O_CREAT or O_TMPFILE. */
#define VPHONE_DEFINE_OPEN(fn)                                            \
    VPHONE_EXPORT int fn(const char *path, int flags, ...) {              \
        mode_t mode = 0;                                                  \
        if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) { \
            va_list ap;                                                   \
            va_start(ap, flags);                                          \
            mode = (mode_t)va_arg(ap, unsigned);                          \
            va_end(ap);                                                   \
        }                                                                 \
        return phone_open(#fn, path, flags, mode);                        \
    }
VPHONE_DEFINE_OPEN(open)
VPHONE_DEFINE_OPEN(open64)

VPHONE_EXPORT int __open_2(const char *path, int flags) { return phone_open("open", path, flags, 0); }
VPHONE_EXPORT int __open64_2(const char *path, int flags) { return phone_open("open64", path, flags, 0); }

/* ---- descriptor calls ------------------------------------------------------------ */

VPHONE_EXPORT int close(int fd) {
    if (vphone_core_is_compass_fd(fd)) return vphone_core_compass_close(fd);
    NEXT(close_fn, close);
    if (vphone_core_is_phone_fd(fd)) {
        /* Like the kernel, a failing close still releases the descriptor. */
        int error = vphone_core_take_fd_call(VPHONE_CALL_CLOSE, fd);
        vphone_core_untrack_fd(fd);
        int result = real_close(fd);
        return error != 0 ? fail_with(error) : result;
    }
    return real_close(fd);
}

VPHONE_EXPORT ssize_t read(int fd, void *buffer, size_t length) {
    if (vphone_core_is_compass_fd(fd)) return vphone_core_compass_read(fd, buffer, length);
    if (vphone_core_is_phone_fd(fd)) {
        int error = vphone_core_take_fd_call(VPHONE_CALL_READ, fd);
        if (error != 0) return fail_with(error);
    }
    NEXT(read_fn, read);
    return real_read(fd, buffer, length);
}

VPHONE_EXPORT ssize_t __read_chk(int fd, void *buffer, size_t length, size_t size) {
    if (vphone_core_is_compass_fd(fd)) {
        if (length > size) abort();
        return vphone_core_compass_read(fd, buffer, length);
    }
    if (vphone_core_is_phone_fd(fd)) {
        int error = vphone_core_take_fd_call(VPHONE_CALL_READ, fd);
        if (error != 0) return fail_with(error);
    }
    NEXT(read_chk_fn, __read_chk);
    return real___read_chk(fd, buffer, length, size);
}

VPHONE_EXPORT ssize_t write(int fd, const void *buffer, size_t length) {
    if (vphone_core_is_compass_fd(fd)) return vphone_core_compass_write(fd, buffer, length);
    if (vphone_core_is_phone_fd(fd)) {
        int error = vphone_core_take_fd_call(VPHONE_CALL_WRITE, fd);
        if (error != 0) return fail_with(error);
    }
    NEXT(write_fn, write);
    return real_write(fd, buffer, length);
}

/* fsync and fdatasync on a phone descriptor make what it holds durable in the phone's
 * model of its flash (vphone.h); the sandbox is scratch, so its own disk is not made to
 * wait for it (a real fsync per save made runs many times slower). */
static int phone_sync(const char *name, int call, int fd) {
    if (!vphone_core_is_phone_fd(fd)) return ((fd_fn)next_symbol(name))(fd);
    int error = vphone_core_take_fd_call(call, fd);
    if (error != 0) return fail_with(error);
    vphone_core_synced(fd);
    return 0;
}

VPHONE_EXPORT int fsync(int fd) { return phone_sync("fsync", VPHONE_CALL_FSYNC, fd); }
VPHONE_EXPORT int fdatasync(int fd) { return phone_sync("fdatasync", VPHONE_CALL_FDATASYNC, fd); }

VPHONE_EXPORT int flock(int fd, int operation) {
    NEXT(flock_fn, flock);
    if (vphone_core_is_phone_fd(fd)) {
        int error = vphone_core_take_fd_call(VPHONE_CALL_FLOCK, fd);
        if (error != 0) return fail_with(error);
    }
    return real_flock(fd, operation);
}

VPHONE_EXPORT int fchmod(int fd, mode_t mode) {
    NEXT(fchmod_fn, fchmod);
    if (vphone_core_is_phone_fd(fd)) {
        int error = vphone_core_take_fd_call(VPHONE_CALL_FCHMOD, fd);
        if (error != 0) return fail_with(error);
    }
    return real_fchmod(fd, mode);
}

/* Ownership is simulated, as for chown. */
VPHONE_EXPORT int fchown(int fd, uid_t uid, gid_t gid) {
    NEXT(fchown_fn, fchown);
    if (!vphone_core_is_phone_fd(fd)) return real_fchown(fd, uid, gid);
    int error = vphone_core_take_fd_call(VPHONE_CALL_FCHOWN, fd);
    if (error != 0) return fail_with(error);
    vphone_core_set_owner_fd(fd, (unsigned)uid, (unsigned)gid);
    return 0;
}

VPHONE_EXPORT int ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    unsigned long argument = va_arg(ap, unsigned long);
    va_end(ap);
    if (vphone_core_is_compass_fd(fd)) return vphone_core_compass_ioctl(fd, request, argument);
    NEXT(ioctl_fn, ioctl);
    return real_ioctl(fd, request, argument);
}

/* ---- stdio ----------------------------------------------------------------------- */

static FILE *phone_fopen(const char *name, const char *path, const char *mode) {
    char host[PATH_MAX];
    fopen_fn real = (fopen_fn)next_symbol(name);
    if (path == NULL || !vphone_core_map_path(path, host, sizeof host)) return real(path, mode);
    int error = vphone_core_take_file_call(VPHONE_CALL_FOPEN, path);
    if (error != 0) {
        errno = error;
        return NULL;
    }
    if (mode != NULL && strpbrk(mode, "wa+") != NULL) vphone_core_before_change(host);
    FILE *file = real(host, mode);
    if (file != NULL) {
        struct stat st;
        vphone_core_track_file(file, path, host, stat(host, &st) == 0 ? (long)st.st_size : 0L);
    }
    return file;
}

VPHONE_EXPORT FILE *fopen(const char *path, const char *mode) { return phone_fopen("fopen", path, mode); }
VPHONE_EXPORT FILE *fopen64(const char *path, const char *mode) { return phone_fopen("fopen64", path, mode); }

VPHONE_EXPORT int fclose(FILE *file) {
    NEXT(fclose_fn, fclose);
    if (file != NULL && vphone_core_is_tracked_file(file)) {
        int error = vphone_core_take_stream_call(VPHONE_CALL_FCLOSE, file);
        int result = real_fclose(file);
        if (error != 0) vphone_core_lose_unflushed(file); /* by name: the FILE is gone */
        vphone_core_untrack_file(file);
        if (error != 0) return fail_with(error);
        return result;
    }
    return real_fclose(file);
}

/* 1 when the call is one on a phone file that must fail (errno set). */
static int phone_file_fault(FILE *file, int call) {
    if (file == NULL || !vphone_core_is_tracked_file(file)) return 0;
    int error = vphone_core_take_stream_call(call, file);
    if (error == 0) return 0;
    errno = error;
    return 1;
}

VPHONE_EXPORT char *fgets(char *buffer, int size, FILE *file) {
    if (phone_file_fault(file, VPHONE_CALL_FGETS)) return NULL;
    NEXT(fgets_fn, fgets);
    return real_fgets(buffer, size, file);
}

VPHONE_EXPORT char *__fgets_chk(char *buffer, size_t space, int size, FILE *file) {
    if (phone_file_fault(file, VPHONE_CALL_FGETS)) return NULL;
    NEXT(fgets_chk_fn, __fgets_chk);
    return real___fgets_chk(buffer, space, size, file);
}

/* fprintf's text goes through vfprintf so that a sanitizer's fprintf interceptor
 * (which calls the next vfprintf) still reaches the fault injection, once per call. */
static int phone_vfprintf(FILE *file, const char *format, va_list ap) {
    if (phone_file_fault(file, VPHONE_CALL_FPRINTF)) return -1;
    NEXT(vfprintf_fn, vfprintf);
    return real_vfprintf(file, format, ap);
}

static int phone_vfprintf_chk(FILE *file, int flag, const char *format, va_list ap) {
    if (phone_file_fault(file, VPHONE_CALL_FPRINTF)) return -1;
    NEXT(vfprintf_chk_fn, __vfprintf_chk);
    return real___vfprintf_chk(file, flag, format, ap);
}

VPHONE_EXPORT int vfprintf(FILE *file, const char *format, va_list ap) { return phone_vfprintf(file, format, ap); }

VPHONE_EXPORT int fprintf(FILE *file, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    int result = phone_vfprintf(file, format, ap);
    va_end(ap);
    return result;
}

VPHONE_EXPORT int __vfprintf_chk(FILE *file, int flag, const char *format, va_list ap) {
    return phone_vfprintf_chk(file, flag, format, ap);
}

VPHONE_EXPORT int __fprintf_chk(FILE *file, int flag, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    int result = phone_vfprintf_chk(file, flag, format, ap);
    va_end(ap);
    return result;
}

/* ---- path calls ------------------------------------------------------------------ */

/* Where a call on one path goes: the path itself when it is not the phone's, its
 * sandbox path (in host) when it is, NULL with errno set when a fault fails the call. */
static const char *phone_target(const char *path, char *host, size_t size, int call) {
    if (!vphone_core_map_path(path, host, size)) return path;
    int error = vphone_core_take_file_call(call, path);
    if (error == 0) return host;
    errno = error;
    return NULL;
}

VPHONE_EXPORT int access(const char *path, int how) {
    char host[PATH_MAX];
    NEXT(access_fn, access);
    const char *target = phone_target(path, host, sizeof host, VPHONE_CALL_ACCESS);
    return target == NULL ? -1 : real_access(target, how);
}

/* Ownership is simulated: the sandbox belongs to whoever runs the tests, so the
 * requested owner is recorded (vphone::owner_of) instead of applied. */
VPHONE_EXPORT int chown(const char *path, uid_t uid, gid_t gid) {
    char host[PATH_MAX];
    NEXT(chown_fn, chown);
    if (!vphone_core_map_path(path, host, sizeof host)) return real_chown(path, uid, gid);
    int error = vphone_core_take_file_call(VPHONE_CALL_CHOWN, path);
    if (error != 0) return fail_with(error);
    NEXT(access_fn, access);
    if (real_access(host, F_OK) != 0) return -1;
    vphone_core_set_owner(host, (unsigned)uid, (unsigned)gid);
    return 0;
}

VPHONE_EXPORT int chmod(const char *path, mode_t mode) {
    char host[PATH_MAX];
    NEXT(chmod_fn, chmod);
    const char *target = phone_target(path, host, sizeof host, VPHONE_CALL_CHMOD);
    return target == NULL ? -1 : real_chmod(target, mode);
}

/* rename and renameat: the entry at the target goes, the source's moves (the
 * durability model sees both; the simulated owner moves with the file). */
static int phone_rename(const char *from, const char *to, int (*real)(const char *, const char *)) {
    char host_from[PATH_MAX], host_to[PATH_MAX];
    int from_phone = vphone_core_map_path(from, host_from, sizeof host_from);
    int to_phone = vphone_core_map_path(to, host_to, sizeof host_to);
    if (!from_phone && !to_phone) return real(from, to);
    int error = vphone_core_take_file_call(VPHONE_CALL_RENAME, to_phone ? to : from);
    if (error != 0) return fail_with(error);
    const char *source = from_phone ? host_from : from;
    const char *target = to_phone ? host_to : to;
    vphone_core_before_change(source);
    vphone_core_before_remove(target);
    int result = real(source, target);
    if (result == 0) {
        vphone_core_removed();
        vphone_core_move_owner(source, target);
    }
    return result;
}

static int real_rename_at_cwd(const char *from, const char *to) {
    NEXT(rename_fn, rename);
    return real_rename(from, to);
}

VPHONE_EXPORT int rename(const char *from, const char *to) { return phone_rename(from, to, real_rename_at_cwd); }

/* renameat relative to a phone directory's descriptor (or AT_FDCWD) is a rename of the
 * phone paths; any other directory descriptor goes on unchanged. */
VPHONE_EXPORT int renameat(int from_dir, const char *from, int to_dir, const char *to) {
    char phone_from[PATH_MAX], phone_to[PATH_MAX];
    int from_rel = vphone_core_fd_relative(from_dir, from, phone_from, sizeof phone_from);
    int to_rel = vphone_core_fd_relative(to_dir, to, phone_to, sizeof phone_to);
    if ((from_rel || from_dir == AT_FDCWD || from[0] == '/') && (to_rel || to_dir == AT_FDCWD || to[0] == '/'))
        return phone_rename(from_rel ? phone_from : from, to_rel ? phone_to : to, real_rename_at_cwd);
    NEXT(renameat_fn, renameat);
    return real_renameat(from_dir, from, to_dir, to);
}

VPHONE_EXPORT int unlink(const char *path) {
    char host[PATH_MAX];
    NEXT(unlink_fn, unlink);
    if (!vphone_core_map_path(path, host, sizeof host)) return real_unlink(path);
    int error = vphone_core_take_file_call(VPHONE_CALL_UNLINK, path);
    if (error != 0) return fail_with(error);
    vphone_core_before_remove(host);
    int result = real_unlink(host);
    if (result == 0) vphone_core_removed();
    return result;
}
