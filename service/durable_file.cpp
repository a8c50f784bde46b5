// Small files read safely and replaced durably (durable_file.h).
#include "service/durable_file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kmxc_kit {

namespace {

constexpr size_t kPathMax = 256;
constexpr int kTemporaryTries = 8;  // names taken by files of other pids or leftovers
constexpr const char kTemporaryMark[] = ".tmp-";

PathKind kind_of(mode_t mode) {
    if (S_ISREG(mode)) return PathKind::kRegular;
    if (S_ISLNK(mode)) return PathKind::kSymlink;
    if (S_ISFIFO(mode)) return PathKind::kFifo;
    if (S_ISDIR(mode)) return PathKind::kDirectory;
    if (S_ISSOCK(mode)) return PathKind::kSocket;
    return PathKind::kDevice;
}

// Opens path for reading without following a link or waiting for a FIFO's writer: the
// descriptor of a regular file (-1 otherwise, kind and error saying what is there).
int open_regular(const char *path, PathKind *kind, int *error) {
    *error = 0;
    const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        *error = errno;
        *kind = errno == ENOENT ? PathKind::kMissing : errno == ELOOP ? PathKind::kSymlink : PathKind::kUnreadable;
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        *error = errno;
        *kind = PathKind::kUnreadable;
        close(fd);
        return -1;
    }
    *kind = kind_of(st.st_mode);
    if (*kind == PathKind::kRegular) return fd;
    close(fd);
    return -1;
}

// dst = a + b (+ c), cut to fit; false when it did not fit.
bool join(char *dst, const char *a, const char *b, const char *c = "") {
    const size_t la = strlen(a), lb = strlen(b), lc = strlen(c);
    if (la + lb + lc >= kPathMax) return false;
    memcpy(dst, a, la);
    memcpy(dst + la, b, lb);
    memcpy(dst + la + lb, c, lc + 1);
    return true;
}

// The directory part of path ("/misc/sensor/x" -> "/misc/sensor") and its last part.
void split(const char *path, char *dir, const char **name) {
    const char *slash = strrchr(path, '/');
    const size_t n = slash == nullptr ? 0 : static_cast<size_t>(slash - path);
    memcpy(dir, path, n);
    dir[n] = '\0';
    *name = slash == nullptr ? path : slash + 1;
}

WriteResult failed(WriteStep step, int error) { return WriteResult{Outcome::kFailed, step, error, PathKind::kRegular}; }

// The temporary's name for attempt n: "<path>.tmp-<pid>-<n>".
bool temporary_name(const char *path, int n, char *out) {
    char suffix[40];
    size_t at = 0;
    int64_t parts[2] = {getpid(), n};
    for (int p = 0; p < 2; ++p) {
        char digits[20];
        int count = 0;
        for (int64_t v = parts[p]; count == 0 || v > 0; v /= 10) digits[count++] = static_cast<char>('0' + v % 10);
        if (p > 0) suffix[at++] = '-';
        while (count > 0) suffix[at++] = digits[--count];
    }
    suffix[at] = '\0';
    return join(out, path, kTemporaryMark, suffix);
}

bool write_all(int fd, const char *data, size_t length) {
    while (length > 0) {
        const ssize_t n = write(fd, data, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            return false;
        }
        data += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

const char *path_kind_text(PathKind kind) {
    switch (kind) {
    case PathKind::kMissing: return "missing";
    case PathKind::kRegular: return "a regular file";
    case PathKind::kSymlink: return "a symbolic link";
    case PathKind::kFifo: return "a FIFO";
    case PathKind::kDirectory: return "a directory";
    case PathKind::kDevice: return "a device";
    case PathKind::kSocket: return "a socket";
    case PathKind::kUnreadable: return "unreadable";
    }
    return "unknown";
}

FileRead read_small_file(const char *path, char *buffer, size_t capacity) {
    FileRead r{PathKind::kMissing, 0, 0, false};
    buffer[0] = '\0';
    const int fd = open_regular(path, &r.kind, &r.error);
    if (fd < 0) return r;
    for (;;) {
        char *at = buffer + r.length;
        const size_t room = capacity - 1 - r.length;
        char spill;  // one byte past a full buffer says the file is too long
        const ssize_t n = read(fd, room > 0 ? at : &spill, room > 0 ? room : 1);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            r.kind = PathKind::kUnreadable;
            r.error = errno;
            break;
        }
        if (n == 0) break;
        if (room == 0) {
            r.too_long = true;
            break;
        }
        r.length += static_cast<size_t>(n);
    }
    buffer[r.length] = '\0';
    close(fd);
    return r;
}

int write_denied(const char *path) { return access(path, W_OK) == 0 ? 0 : errno; }

WriteResult lock_directory(const char *dir, DirLock *lock) {
    lock->fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (lock->fd < 0) return failed(WriteStep::kLock, errno);
    if (flock(lock->fd, LOCK_EX | LOCK_NB) == 0)
        return WriteResult{Outcome::kDone, WriteStep::kNone, 0, PathKind::kRegular};
    const int error = errno;
    close(lock->fd);
    lock->fd = -1;
    if (error == EWOULDBLOCK) return WriteResult{Outcome::kLocked, WriteStep::kLock, error, PathKind::kRegular};
    return failed(WriteStep::kLock, error);
}

void unlock_directory(DirLock *lock) {
    if (lock->fd >= 0) close(lock->fd);  // closing releases the lock
    lock->fd = -1;
}

void remove_stale_temporaries(const DirLock &lock, const char *path) {
    char dir[kPathMax], prefix[kPathMax], victim[kPathMax];
    const char *name;
    split(path, dir, &name);
    if (!join(prefix, name, kTemporaryMark)) return;
    const size_t prefix_length = strlen(prefix);
    alignas(struct dirent64) char entries[1024];
    if (lseek(lock.fd, 0, SEEK_SET) != 0) return;
    for (;;) {
        const ssize_t n = getdents64(lock.fd, entries, sizeof entries);
        if (n <= 0) return;
        for (ssize_t at = 0; at < n;) {
            const auto *e = reinterpret_cast<const struct dirent64 *>(entries + at);
            at += e->d_reclen;
            if (strncmp(e->d_name, prefix, prefix_length) == 0 && join(victim, dir, "/", e->d_name)) unlink(victim);
        }
    }
}

WriteResult replace_file(const DirLock &lock, const char *path, const char *data, size_t length, uint32_t uid,
                         uint32_t gid, uint32_t mode) {
    // 1. The target: missing, or a regular file that can be written.
    PathKind kind;
    int error;
    const int existing = open_regular(path, &kind, &error);
    if (existing >= 0) close(existing);
    if (kind != PathKind::kMissing && kind != PathKind::kRegular)
        return WriteResult{Outcome::kRefused, WriteStep::kTarget, kind == PathKind::kUnreadable ? error : 0, kind};
    if (kind == PathKind::kRegular && (error = write_denied(path)) != 0)
        return WriteResult{Outcome::kRefused, WriteStep::kAccess, error, kind};
    // 2. A temporary of our own.
    char temporary[kPathMax];
    int fd = -1;
    for (int n = 0; n < kTemporaryTries && fd < 0; ++n) {
        if (!temporary_name(path, n, temporary)) return failed(WriteStep::kCreate, ENAMETOOLONG);
        fd = open(temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0 && errno != EEXIST) return failed(WriteStep::kCreate, errno);
    }
    if (fd < 0) return failed(WriteStep::kCreate, EEXIST);
    // 3. Content and attributes, on the flash before the name points at them; 4. the name.
    WriteStep step = WriteStep::kNone;
    if (!write_all(fd, data, length))
        step = WriteStep::kWrite;
    else if (fchown(fd, uid, gid) != 0)
        step = WriteStep::kOwner;
    else if (fchmod(fd, mode) != 0)
        step = WriteStep::kMode;
    else if (fsync(fd) != 0)
        step = WriteStep::kSync;
    else if (rename(temporary, path) != 0)
        step = WriteStep::kRename;
    error = step == WriteStep::kNone ? 0 : errno;
    // Synced, a failing close loses nothing; unsynced, the temporary goes anyway.
    close(fd);
    if (step != WriteStep::kNone) {
        unlink(temporary);
        return failed(step, error);
    }
    // 5. The rename, durable.
    if (fsync(lock.fd) != 0) return failed(WriteStep::kSyncDir, errno);
    return WriteResult{Outcome::kDone, WriteStep::kNone, 0, PathKind::kRegular};
}

void report_write(const char *path, const WriteResult &r) {
    static const char *const steps[] = {"",
                                        "lock",
                                        "open",
                                        "access",
                                        "create",
                                        "write",
                                        "fchown",
                                        "fchmod",
                                        "fsync",
                                        "rename",
                                        "fsync of the directory"};
    static_assert(sizeof steps / sizeof steps[0] == static_cast<int>(WriteStep::kSyncDir) + 1, "a name per step");
    Line line;
    switch (r.outcome) {
    case Outcome::kDone: return;
    case Outcome::kLocked: line.text(path).text(": another service is saving (its lock is held); not saved now"); break;
    case Outcome::kRefused:
        if (r.step == WriteStep::kAccess)
            line.text(path).text(" cannot be written (").text(strerror(r.error)).text("); not saved");
        else if (r.kind == PathKind::kUnreadable)
            line.text(path).text(" cannot be read (").text(strerror(r.error)).text("); not replaced");
        else
            line.text(path).text(" is ").text(path_kind_text(r.kind)).text(", not a regular file; never written");
        break;
    case Outcome::kFailed:
        line.text("saving ").text(path).text(" failed at ").text(steps[static_cast<int>(r.step)]).text(": ");
        line.text(strerror(r.error));
        line.text(r.step == WriteStep::kSyncDir ? "; the new file may not survive a power cut"
                                                : "; the previous file is kept");
        break;
    }
    line.print();
}

Line &Line::text(const char *s) {
    while (*s != '\0' && length_ < sizeof buffer_ - 1) buffer_[length_++] = *s++;
    return *this;
}

Line &Line::number(int64_t v) {
    char digits[20];
    int count = 0;
    const bool negative = v < 0;
    uint64_t u = negative ? uint64_t{0} - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
    do {
        digits[count++] = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    if (negative) text("-");
    while (count > 0 && length_ < sizeof buffer_ - 1) buffer_[length_++] = digits[--count];
    return *this;
}

void Line::print() {
    static const char kPrefix[] = "kmxc_service: ";
    char out[sizeof kPrefix + sizeof buffer_];
    memcpy(out, kPrefix, sizeof kPrefix - 1);
    memcpy(out + sizeof kPrefix - 1, buffer_, length_);
    out[sizeof kPrefix - 1 + length_] = '\n';
    const char *at = out;
    size_t left = sizeof kPrefix + length_;
    while (left > 0) {
        const ssize_t n = write(2, at, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        at += n;
        left -= static_cast<size_t>(n);
    }
}

}  // namespace kmxc_kit
