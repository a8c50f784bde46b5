// State of the virtual phone and its test-facing API (vphone.h); shim.c feeds the
// intercepted C library calls in through vphone_core.h.
#include "vphone/vphone.h"
#include "vphone/fault_plan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "vphone/vphone_core.h"

namespace vphone {

void attach_chips_from_environment();  // preload_chips.cpp

namespace {

constexpr int kCallCount = VPHONE_CALL_COUNT;
static_assert(static_cast<int>(Call::Rename) + 1 == kCallCount, "Call matches the shim's kinds");

struct Window {  // calls first..last (1-based counts of the kind) are affected
    int call;
    long first;
    long last;  // -1: no end
    int error;
    size_t max_bytes;
    bool contains(long n) const { return n >= first && (last < 0 || n <= last); }
};

struct Compass {
    int address = 0;  // i2c-dev starts with no client address chosen; 0 answers nobody
};

struct State {
    std::string root;
    bool made_root = false;
    uint64_t clock_us = 0;
    std::vector<Event> transcript;
    std::array<long, kCallCount> counts{};
    std::vector<Window> faults;
    std::vector<Window> limits;
    std::map<int, BusDevice *> devices;
    std::map<int, Compass> compass;  // open descriptors
    std::map<unsigned long, int> answers;
    std::map<unsigned long, int> control_errors;
    struct OpenFile {
        std::string host;
        long size_at_open;
    };
    std::map<FILE *, OpenFile> files;
    std::map<std::string, Owner> owners;
};

State &state() {
    static State *s = new State;  // never destroyed: calls may arrive during exit
    return *s;
}

struct Prefix {
    const char *text;
    bool whole;  // the path must equal the text
};
constexpr Prefix kPhonePrefixes[] = {
    {"/dev/compass", true}, {"/misc/", false}, {"/etc/kmxc_", false}, {"/sys/module/zorsensor/", false}};

bool phone_path(const char *path) {
    for (const Prefix &p : kPhonePrefixes) {
        size_t n = std::strlen(p.text);
        if (std::strncmp(path, p.text, n) == 0 && (!p.whole || path[n] == '\0')) return true;
    }
    return false;
}

void create_phone_dirs(const std::string &dir) {
    for (const char *sub : {"misc/sensor", "etc", "sys/module/zorsensor/parameters", "dev"})
        std::filesystem::create_directories(std::filesystem::path(dir) / sub);
}

// A program started with LD_PRELOAD has no test to choose the sandbox: take
// $VPHONE_ROOT, or make a fresh one and say where.
const std::string &ensure_root() {
    State &s = state();
    if (s.root.empty()) {
        const char *env = std::getenv("VPHONE_ROOT");
        if (env != nullptr && *env != '\0') {
            s.root = env;
            create_phone_dirs(s.root);
        } else {
            make_sandbox();
            std::fprintf(stderr, "vphone: sandbox %s\n", s.root.c_str());
        }
    }
    return s.root;
}

// Counts one call; the errno of a fault window it falls into, else 0.
int take(int call) {
    apply_environment_fault_plan();  // VPHONE_FAULTS, once, before the first call counts
    State &s = state();
    long n = ++s.counts[call];
    for (const Window &w : s.faults)
        if (w.call == call && w.contains(n)) return w.error;
    return 0;
}

size_t limit_of(int call, long n, size_t length) {
    for (const Window &w : state().limits)
        if (w.call == call && w.contains(n)) length = std::min(length, w.max_bytes);
    return length;
}

Window window(Call call, int nth, int count) {
    int c = static_cast<int>(call);
    long first = state().counts[c] + std::max(nth, 1);
    long last = count == kForever ? -1 : first + std::max(count, 1) - 1;
    return Window{c, first, last, 0, 0};
}

void record(Event e) { state().transcript.push_back(std::move(e)); }

ssize_t fail(Event e, int error) {
    e.result = -1;
    e.error = error;
    record(std::move(e));
    errno = error;
    return -1;
}

}  // namespace

// ---- Chip models --------------------------------------------------------------------

void attach(int address, BusDevice *device) { state().devices[address] = device; }
void detach(int address) { state().devices.erase(address); }
BusDevice *attached(int address) {
    const auto it = state().devices.find(address);
    return it == state().devices.end() ? nullptr : it->second;
}

int ScriptedDevice::write(const uint8_t *data, size_t length) {
    if (write_error != 0) return -write_error;
    writes.emplace_back(data, data + length);
    return static_cast<int>(length);
}

int ScriptedDevice::read(uint8_t *data, size_t length) {
    if (answers.empty()) return -EIO;
    std::vector<uint8_t> answer = std::move(answers.front());
    answers.pop_front();
    size_t n = std::min(length, answer.size());
    std::copy_n(answer.begin(), n, data);
    reads.emplace_back(answer.begin(), answer.begin() + static_cast<std::ptrdiff_t>(n));
    return static_cast<int>(n);
}

// ---- Clock and transcript -----------------------------------------------------------------

uint64_t now_us() { return state().clock_us; }
void advance_us(uint64_t microseconds) { state().clock_us += microseconds; }

const std::vector<Event> &transcript() { return state().transcript; }
std::vector<Event> transcript_of(Kind kind) {
    std::vector<Event> out;
    for (const Event &e : state().transcript)
        if (e.kind == kind) out.push_back(e);
    return out;
}
void clear_transcript() { state().transcript.clear(); }

// ---- Control requests and faults -------------------------------------------------------------

void set_control_answer(unsigned long request, int value) { state().answers[request] = value; }
void set_control_error(unsigned long request, int error) {
    if (error == 0)
        state().control_errors.erase(request);
    else
        state().control_errors[request] = error;
}

void fail_call(Call call, int nth, int error, int count) {
    Window w = window(call, nth, count);
    w.error = error;
    state().faults.push_back(w);
}

void limit_transfer(Call call, size_t max_bytes, int nth, int count) {
    Window w = window(call, nth, count);
    w.max_bytes = max_bytes;
    state().limits.push_back(w);
}

int calls(Call call) { return static_cast<int>(state().counts[static_cast<int>(call)]); }

const char *call_name(Call call) {
    static const char *const names[] = {"open", "close", "read", "write", "ioctl", "usleep", "fopen",
                                        "fgets", "fprintf", "fclose", "access", "chown", "chmod", "rename"};
    return names[static_cast<int>(call)];
}

// ---- Sandbox ---------------------------------------------------------------------------------

std::string make_sandbox() {
    remove_sandbox();
    const char *tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/vphone-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        std::perror("vphone: mkdtemp");
        std::abort();
    }
    State &s = state();
    s.root = buffer.data();
    s.made_root = true;
    create_phone_dirs(s.root);
    return s.root;
}

void set_root(const std::string &directory) {
    remove_sandbox();
    state().root = directory;
}

void remove_sandbox() {
    State &s = state();
    if (s.made_root && !s.root.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(s.root, ignored);
    }
    s.root.clear();
    s.made_root = false;
}

std::string root() { return state().root; }

bool is_phone_path(std::string_view path) { return phone_path(std::string(path).c_str()); }

std::string host_path(std::string_view phone) {
    std::string path(phone);
    if (!phone_path(path.c_str())) return path;
    return ensure_root() + path;
}

void write_file(std::string_view phone, std::string_view content) {
    std::ofstream out(host_path(phone), std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::optional<std::string> read_file(std::string_view phone) {
    std::ifstream in(host_path(phone), std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool exists(std::string_view phone) { return std::filesystem::exists(host_path(phone)); }

void remove_file(std::string_view phone) {
    std::error_code ignored;
    std::filesystem::remove(host_path(phone), ignored);
}

unsigned mode_of(std::string_view phone) {
    struct stat st {};
    if (::stat(host_path(phone).c_str(), &st) != 0) return 0;
    return st.st_mode & 07777u;
}

Owner owner_of(std::string_view phone) {
    std::string host = host_path(phone);
    auto it = state().owners.find(host);
    if (it != state().owners.end()) return it->second;
    struct stat st {};
    if (::stat(host.c_str(), &st) != 0) return Owner{~0u, ~0u};
    return Owner{st.st_uid, st.st_gid};
}

// ---- Whole state ----------------------------------------------------------------------------------

void reset() {
    State &s = state();
    s.clock_us = 0;
    s.transcript.clear();
    s.counts.fill(0);
    s.faults.clear();
    s.limits.clear();
    s.devices.clear();
    s.answers.clear();
    s.control_errors.clear();
    s.owners.clear();
}

int open_compass_descriptors() { return static_cast<int>(state().compass.size()); }

}  // namespace vphone

// ---- The shim's side ----------------------------------------------------------------------------

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

int vphone_core_is_compass_path(const char *path) { return std::strcmp(path, "/dev/compass") == 0; }

int vphone_core_take_fault(int call) { return vphone::take(call); }

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
    default:
        return static_cast<int>(vphone::fail(std::move(e), ENOTTY));
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

void vphone_core_track_file(FILE *file, const char *host, long size) { state().files[file] = {host, size}; }
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
