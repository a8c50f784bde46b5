// The interposer's side of the virtual phone: the C library calls that shim.c
// intercepts (vphone_core.h) served on the simulated world: the compass descriptor
// as a bus, its control requests, the sleeps on the virtual clock, and the files and
// descriptors opened on phone paths. Each function that uses the state holds
// vphone::InUse (one thread at a time).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "vphone/world.h"

using vphone::Event;
using vphone::InUse;
using vphone::Kind;
using vphone::state;
using vphone::State;

namespace {

// Whether a descriptor or FILE is the phone's, answered without the state, so that
// other threads' calls on their own files never enter the phone. Descriptors from
// kFdMirror on are looked up in the state.
constexpr int kFdMirror = 1024;
enum : uint8_t { kCompassFd = 1, kPhoneFd = 2 };
std::atomic<uint8_t> g_fd_kind[kFdMirror];
std::atomic<int> g_tracked_files{0};

bool mirrored(int fd) { return fd >= 0 && fd < kFdMirror; }
void mark_fd(int fd, uint8_t kind, bool on) {
    if (!mirrored(fd)) return;
    if (on)
        g_fd_kind[fd].fetch_or(kind);
    else
        g_fd_kind[fd].fetch_and(static_cast<uint8_t>(~kind));
}

// One read or write on the bus: faults, limits, then the device at the address.
// The bytes moved (at bytes, after the device ran) go into the transcript.
template <class Move>
ssize_t transfer(int fd, Kind kind, int call, const uint8_t *bytes, size_t length, Move move) {
    State &s = state();
    Event e{kind};
    e.address = s.compass[fd].address;
    e.time_us = s.clock_us;
    e.argument = static_cast<long>(length);
    int error = vphone::take(call);
    if (error != 0) return vphone::fail(std::move(e), error);
    size_t n = vphone::limit_of(call, s.counts[call], length);
    if (n == 0) {
        vphone::record(std::move(e));
        return 0;
    }
    auto it = s.devices.find(e.address);
    if (it == s.devices.end() || it->second == nullptr) return vphone::fail(std::move(e), ENXIO);
    int r = move(it->second, n);
    if (r < 0) return vphone::fail(std::move(e), -r);
    e.result = std::min<long>(r, static_cast<long>(n));
    if (e.result > 0) e.bytes.assign(bytes, bytes + e.result);
    const ssize_t result = e.result;
    vphone::record(std::move(e));
    return result;
}

}  // namespace

extern "C" {

int vphone_core_map_path(const char *path, char *out, size_t size) {
    if (!vphone::phone_path(path)) return 0;
    const InUse in_use;
    const std::string &r = vphone::ensure_root();
    int n = std::snprintf(out, size, "%s%s", r.c_str(), path);
    if (n < 0 || static_cast<size_t>(n) >= size) {
        std::fprintf(stderr, "vphone: sandbox path too long\n");
        std::abort();
    }
    return 1;
}

int vphone_core_is_compass_path(const char *path) { return std::strcmp(path, compass_device::kPath) == 0; }

int vphone_core_take_fault(int call) {
    const InUse in_use;
    return vphone::take(call);
}

int vphone_core_take_file_call(int call, const char *phone_path) {
    const InUse in_use;
    return vphone::take_file(call, phone_path);
}

int vphone_core_take_fd_call(int call, int fd) {
    const InUse in_use;
    const auto it = state().phone_fds.find(fd);
    return vphone::take_file(call, it == state().phone_fds.end() ? std::string() : it->second.phone);
}

void vphone_core_track_fd(int fd, const char *phone, const char *host) {
    const InUse in_use;
    state().phone_fds[fd] = {phone, host};
    mark_fd(fd, kPhoneFd, true);
}

int vphone_core_is_phone_fd(int fd) {
    if (mirrored(fd)) return (g_fd_kind[fd].load() & kPhoneFd) != 0 ? 1 : 0;
    const InUse in_use;
    return state().phone_fds.count(fd) != 0 ? 1 : 0;
}

void vphone_core_untrack_fd(int fd) {
    const InUse in_use;
    state().phone_fds.erase(fd);
    mark_fd(fd, kPhoneFd, false);
}

int vphone_core_fd_relative(int dirfd, const char *name, char *out, size_t size) {
    if (!vphone_core_is_phone_fd(dirfd)) return 0;
    const InUse in_use;
    const auto it = state().phone_fds.find(dirfd);
    if (it == state().phone_fds.end() || name == nullptr || name[0] == '/') return 0;
    const int n = std::snprintf(out, size, "%s/%s", it->second.phone.c_str(), name);
    return n >= 0 && static_cast<size_t>(n) < size ? 1 : 0;
}

void vphone_core_before_change(const char *host) {
    const InUse in_use;
    vphone::durable_before_change(host);
}

void vphone_core_before_remove(const char *host) {
    const InUse in_use;
    vphone::durable_before_remove(host);
}

void vphone_core_removed(void) {
    const InUse in_use;
    vphone::durable_removed();
}

void vphone_core_synced(int fd) {
    const InUse in_use;
    const auto it = state().phone_fds.find(fd);
    if (it != state().phone_fds.end()) vphone::durable_synced(fd, it->second.host);
}

int vphone_core_compass_open(int flags) {
    const InUse in_use;
    static bool chips_attached = false;
    if (!chips_attached) {
        chips_attached = true;
        vphone::attach_chips_from_environment();
    }
    // A real descriptor keeps the number from being handed out twice.
    int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    Event e{Kind::Open};
    e.time_us = state().clock_us;
    e.argument = flags;
    if (fd < 0) return static_cast<int>(vphone::fail(e, errno));
    state().compass[fd] = vphone::Compass{};
    mark_fd(fd, kCompassFd, true);
    e.result = fd;
    vphone::record(e);
    return fd;
}

int vphone_core_is_compass_fd(int fd) {
    if (mirrored(fd)) return (g_fd_kind[fd].load() & kCompassFd) != 0 ? 1 : 0;
    const InUse in_use;
    return state().compass.count(fd) != 0 ? 1 : 0;
}

int vphone_core_compass_close(int fd) {
    const InUse in_use;
    int error = vphone::take(VPHONE_CALL_CLOSE);
    state().compass.erase(fd);  // before ::close, which comes back through the shim
    mark_fd(fd, kCompassFd, false);
    ::close(fd);
    Event e{Kind::Close};
    e.time_us = state().clock_us;
    if (error != 0) return static_cast<int>(vphone::fail(e, error));
    vphone::record(e);
    return 0;
}

ssize_t vphone_core_compass_read(int fd, void *buffer, size_t length) {
    const InUse in_use;
    auto *bytes = static_cast<uint8_t *>(buffer);
    return transfer(fd, Kind::Read, VPHONE_CALL_READ, bytes, length,
                    [&](vphone::BusDevice *d, size_t n) { return d->read(bytes, n); });
}

ssize_t vphone_core_compass_write(int fd, const void *buffer, size_t length) {
    const InUse in_use;
    const auto *bytes = static_cast<const uint8_t *>(buffer);
    return transfer(fd, Kind::Write, VPHONE_CALL_WRITE, bytes, length,
                    [&](vphone::BusDevice *d, size_t n) { return d->write(bytes, n); });
}

int vphone_core_compass_ioctl(int fd, unsigned long request, unsigned long argument) {
    const InUse in_use;
    State &s = state();
    Event e{request == vphone::kSelectSlave ? Kind::SelectSlave : Kind::Control};
    e.address = s.compass[fd].address;
    e.time_us = s.clock_us;
    e.request = request;
    // Arguments are ints passed by value; only the low 32 bits are meaningful.
    e.argument = static_cast<int32_t>(static_cast<uint32_t>(argument & 0xFFFFFFFFu));
    int error = vphone::take(VPHONE_CALL_IOCTL);
    if (error != 0) return static_cast<int>(vphone::fail(std::move(e), error));
    switch (request) {
    case vphone::kSelectSlave:
        if (e.argument < 0 || e.argument > 0x7F) return static_cast<int>(vphone::fail(std::move(e), EINVAL));
        s.compass[fd].address = static_cast<int>(e.argument);
        e.address = s.compass[fd].address;
        break;
    case vphone::kGetSensorControlInfo:
    case vphone::kSetChargerState:
    case vphone::kGetMagnetGuard:
    case vphone::kSetMagnetGuard: {
        auto err = s.control_errors.find(request);
        if (err != s.control_errors.end()) return static_cast<int>(vphone::fail(std::move(e), err->second));
        auto answer = s.answers.find(request);
        e.result = answer == s.answers.end() ? 0 : answer->second;
        break;
    }
    default: return static_cast<int>(vphone::fail(std::move(e), ENOTTY));
    }
    long result = e.result;
    vphone::record(std::move(e));
    return static_cast<int>(result);
}

int vphone_core_sleep_us(unsigned long long microseconds) {
    const InUse in_use;
    State &s = state();
    Event e{Kind::Sleep};
    e.time_us = s.clock_us;
    e.argument = static_cast<long>(microseconds);
    e.sleep_ns = microseconds * 1000;  // usleep's argument is 32 bits: no overflow
    e.request = VPHONE_CALL_USLEEP;
    vphone::advance_us(microseconds);
    vphone::record(std::move(e));
    return 0;
}

unsigned long long vphone_core_now_ns(void) {
    const InUse in_use;
    return vphone::now_ns();
}

int vphone_core_sleep_ns(int call, unsigned long long ns) {
    const InUse in_use;
    Event e{Kind::Sleep};
    e.time_us = state().clock_us;
    // The transcript's microseconds, rounded down; past LONG_MAX (35 minutes on 32-bit
    // targets) they stop there, sleep_ns keeps the whole.
    e.argument = static_cast<long>(std::min<unsigned long long>(ns / 1000, LONG_MAX));
    e.sleep_ns = ns;
    e.request = static_cast<unsigned long>(call);
    vphone::advance_clock_ns(ns);
    vphone::record(std::move(e));
    return 0;
}

void vphone_core_track_file(FILE *file, const char *phone, const char *host, long size) {
    const InUse in_use;
    if (state().files.insert_or_assign(file, State::OpenFile{phone, host, size}).second) ++g_tracked_files;
}

int vphone_core_take_stream_call(int call, FILE *file) {
    if (!vphone_core_is_tracked_file(file)) return 0;
    const InUse in_use;
    const auto it = state().files.find(file);
    if (it == state().files.end()) return 0;
    return vphone::take_file(call, it->second.phone);
}

int vphone_core_is_tracked_file(FILE *file) {
    if (g_tracked_files.load() == 0) return 0;
    const InUse in_use;
    return state().files.count(file) != 0 ? 1 : 0;
}

void vphone_core_untrack_file(FILE *file) {
    const InUse in_use;
    if (state().files.erase(file) != 0) --g_tracked_files;
}

void vphone_core_lose_unflushed(FILE *file) {
    const InUse in_use;
    auto it = state().files.find(file);
    if (it == state().files.end()) return;
    std::error_code ignored;
    std::filesystem::resize_file(it->second.host, static_cast<uintmax_t>(it->second.size_at_open), ignored);
}

void vphone_core_set_owner(const char *host, unsigned uid, unsigned gid) {
    const InUse in_use;
    state().owners[host] = vphone::Owner{uid, gid};
}

void vphone_core_set_owner_fd(int fd, unsigned uid, unsigned gid) {
    const InUse in_use;
    const auto it = state().phone_fds.find(fd);
    if (it != state().phone_fds.end()) state().owners[it->second.host] = vphone::Owner{uid, gid};
}

void vphone_core_move_owner(const char *from, const char *to) {
    const InUse in_use;
    State &s = state();
    auto it = s.owners.find(from);
    if (it == s.owners.end()) {
        s.owners.erase(to);
        return;
    }
    vphone::Owner owner = it->second;
    s.owners.erase(it);
    s.owners[to] = owner;
}

}  // extern "C"
