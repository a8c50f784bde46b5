// The interposer's side of the virtual phone: the C library calls that shim.c
// intercepts (vphone_core.h) served on the simulated world: the compass descriptor
// as a bus, its control requests, usleep on the virtual clock, and the files and
// descriptors opened on phone paths.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "vphone/world.h"

using vphone::Event;
using vphone::Kind;
using vphone::state;
using vphone::State;

namespace {

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
    const std::string &r = vphone::ensure_root();
    int n = std::snprintf(out, size, "%s%s", r.c_str(), path);
    if (n < 0 || static_cast<size_t>(n) >= size) {
        std::fprintf(stderr, "vphone: sandbox path too long\n");
        std::abort();
    }
    return 1;
}

int vphone_core_is_compass_path(const char *path) { return std::strcmp(path, compass_device::kPath) == 0; }

int vphone_core_take_fault(int call) { return vphone::take(call); }

int vphone_core_take_file_call(int call, const char *phone_path) { return vphone::take_file(call, phone_path); }

int vphone_core_take_fd_call(int call, int fd) {
    const auto it = state().phone_fds.find(fd);
    return vphone::take_file(call, it == state().phone_fds.end() ? std::string() : it->second.phone);
}

void vphone_core_track_fd(int fd, const char *phone, const char *host) { state().phone_fds[fd] = {phone, host}; }
int vphone_core_is_phone_fd(int fd) { return state().phone_fds.count(fd) != 0 ? 1 : 0; }
void vphone_core_untrack_fd(int fd) { state().phone_fds.erase(fd); }

int vphone_core_fd_relative(int dirfd, const char *name, char *out, size_t size) {
    const auto it = state().phone_fds.find(dirfd);
    if (it == state().phone_fds.end() || name == nullptr || name[0] == '/') return 0;
    const int n = std::snprintf(out, size, "%s/%s", it->second.phone.c_str(), name);
    return n >= 0 && static_cast<size_t>(n) < size ? 1 : 0;
}

void vphone_core_before_change(const char *host) { vphone::durable_before_change(host); }
void vphone_core_before_remove(const char *host) { vphone::durable_before_remove(host); }
void vphone_core_removed(void) { vphone::durable_removed(); }

void vphone_core_synced(int fd) {
    const auto it = state().phone_fds.find(fd);
    if (it != state().phone_fds.end()) vphone::durable_synced(fd, it->second.host);
}

int vphone_core_compass_open(int flags) {
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
    e.result = fd;
    vphone::record(e);
    return fd;
}

int vphone_core_is_compass_fd(int fd) { return state().compass.count(fd) != 0 ? 1 : 0; }

int vphone_core_compass_close(int fd) {
    int error = vphone::take(VPHONE_CALL_CLOSE);
    state().compass.erase(fd);  // before ::close, which comes back through the shim
    ::close(fd);
    Event e{Kind::Close};
    e.time_us = state().clock_us;
    if (error != 0) return static_cast<int>(vphone::fail(e, error));
    vphone::record(e);
    return 0;
}

ssize_t vphone_core_compass_read(int fd, void *buffer, size_t length) {
    auto *bytes = static_cast<uint8_t *>(buffer);
    return transfer(fd, Kind::Read, VPHONE_CALL_READ, bytes, length,
                    [&](vphone::BusDevice *d, size_t n) { return d->read(bytes, n); });
}

ssize_t vphone_core_compass_write(int fd, const void *buffer, size_t length) {
    const auto *bytes = static_cast<const uint8_t *>(buffer);
    return transfer(fd, Kind::Write, VPHONE_CALL_WRITE, bytes, length,
                    [&](vphone::BusDevice *d, size_t n) { return d->write(bytes, n); });
}

int vphone_core_compass_ioctl(int fd, unsigned long request, unsigned long argument) {
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
    State &s = state();
    Event e{Kind::Sleep};
    e.time_us = s.clock_us;
    e.argument = static_cast<long>(microseconds);
    s.clock_us += microseconds;
    vphone::record(std::move(e));
    return 0;
}

void vphone_core_track_file(FILE *file, const char *phone, const char *host, long size) {
    state().files[file] = {phone, host, size};
}

int vphone_core_take_stream_call(int call, FILE *file) {
    const auto it = state().files.find(file);
    if (it == state().files.end()) return 0;
    return vphone::take_file(call, it->second.phone);
}
int vphone_core_is_tracked_file(FILE *file) { return state().files.count(file) != 0 ? 1 : 0; }
void vphone_core_untrack_file(FILE *file) { state().files.erase(file); }

void vphone_core_lose_unflushed(FILE *file) {
    auto it = state().files.find(file);
    if (it == state().files.end()) return;
    std::error_code ignored;
    std::filesystem::resize_file(it->second.host, static_cast<uintmax_t>(it->second.size_at_open), ignored);
}

void vphone_core_set_owner(const char *host, unsigned uid, unsigned gid) {
    state().owners[host] = vphone::Owner{uid, gid};
}

void vphone_core_set_owner_fd(int fd, unsigned uid, unsigned gid) {
    const auto it = state().phone_fds.find(fd);
    if (it != state().phone_fds.end()) state().owners[it->second.host] = vphone::Owner{uid, gid};
}

void vphone_core_move_owner(const char *from, const char *to) {
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
