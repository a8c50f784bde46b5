// Small files a phone can trust: read without following a link or waiting on a FIFO,
// replaced durably and exclusively. Every file the kit keeps goes through here (C++
// only, hidden in libkmxc_service.so; no heap, integer only).
//
// The writer's rule, for a file in a directory the caller has locked:
//   1. the target must be missing or a regular file that can be written (anything else
//      is refused, never written through);
//   2. a temporary file of a unique name ("<path>.tmp-<pid>-<n>") is created in the same
//      directory with O_CREAT|O_EXCL|O_NOFOLLOW, so no link or other writer's file is
//      ever reused;
//   3. it is written, given its owner and mode, and fsynced: its content and attributes
//      are on the flash before its name can point at it (a journal may commit the
//      rename on its own at any moment after it is made);
//   4. it is renamed over the target (atomic: readers see the old file or the new);
//   5. the directory is fsynced, which makes the rename itself survive a power cut.
// A failure before the rename removes the temporary and leaves the target as it was.
// The lock is the directory's own flock, taken without waiting; two writers of the
// same directory's files never interleave, and a writer that died leaves temporaries
// that the next one removes under the lock.
#ifndef KMXC_SERVICE_DURABLE_FILE_H
#define KMXC_SERVICE_DURABLE_FILE_H

#include <stddef.h>
#include <stdint.h>

namespace kmxc_kit {

// What is at a path, seen without following it.
enum class PathKind : uint8_t { kMissing, kRegular, kSymlink, kFifo, kDirectory, kDevice, kSocket, kUnreadable };
// "missing", "a regular file", "a symbolic link", "a FIFO", ...
const char *path_kind_text(PathKind kind);

struct FileRead {
    PathKind kind;
    int error;      // errno behind kUnreadable
    size_t length;  // bytes read (kRegular)
    bool too_long;  // the file holds more than the buffer
};
// Opens path with O_RDONLY|O_NOFOLLOW|O_NONBLOCK, checks it with fstat and reads up to
// capacity - 1 bytes of a regular file into buffer (NUL-terminated).
FileRead read_small_file(const char *path, char *buffer, size_t capacity);
// 0 when path (a file, or a directory) can be written; else the errno that says why
// not (EACCES, EROFS, EPERM, ...).
int write_denied(const char *path);

// The step a write failed at, for its message.
enum class WriteStep : uint8_t {
    kNone,
    kLock,
    kTarget,
    kAccess,
    kCreate,
    kWrite,
    kOwner,
    kMode,
    kSync,
    kRename,
    kSyncDir
};
enum class Outcome : uint8_t { kDone, kLocked, kRefused, kFailed };
struct WriteResult {
    Outcome outcome;
    WriteStep step;
    int error;      // errno of the failing call
    PathKind kind;  // the target as found (kRefused)
};

struct DirLock {
    int fd;  // -1: not held
};
// Takes dir's advisory lock without waiting: kDone (held), kLocked (another holds it),
// kFailed (dir cannot be opened or locked).
WriteResult lock_directory(const char *dir, DirLock *lock);
void unlock_directory(DirLock *lock);
// Removes the temporaries of path a writer that died left behind (lock held).
void remove_stale_temporaries(const DirLock &lock, const char *path);
// Replaces path, in the locked directory, with length bytes of data owned by uid:gid
// with mode, following the rule above.
WriteResult replace_file(const DirLock &lock, const char *path, const char *data, size_t length, uint32_t uid,
                         uint32_t gid, uint32_t mode);
// One line on stderr for a result that is not kDone: the path, what went wrong, why.
void report_write(const char *path, const WriteResult &r);

// A line for stderr, built without the heap or formatted I/O.
class Line {
public:
    Line &text(const char *s);
    Line &number(int64_t v);
    void print();  // with "kmxc_service: " before it and a line end after it

private:
    char buffer_[320];
    size_t length_ = 0;
};

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_DURABLE_FILE_H
