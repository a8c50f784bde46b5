// The simulated world behind the interposed calls: the bus and its chips, the virtual
// clock, the transcript, control answers and injected faults (vphone.h).
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "vphone/fault_plan.h"
#include "vphone/world.h"

namespace vphone {

State &state() {
    static State *s = new State;  // never destroyed: calls may arrive during exit
    return *s;
}

// ---- One thread at a time ----------------------------------------------------------------

namespace {

std::atomic<pthread_t> g_user{};  // the thread inside the phone; 0: none
int g_depth = 0;                  // how often it came in; only that thread touches it

}  // namespace

InUse::InUse() {
    const pthread_t me = pthread_self();
    pthread_t user{};
    if (g_user.compare_exchange_strong(user, me)) {
        g_depth = 1;
        return;
    }
    if (pthread_equal(user, me)) {
        ++g_depth;
        return;
    }
    // fputs, not fprintf: the shim serves fprintf, which would come back here.
    std::fputs(
        "vphone: called from two threads at once; the virtual phone is single-threaded (make its calls from one "
        "thread, or one at a time)\n",
        stderr);
    std::abort();
}

InUse::~InUse() {
    if (--g_depth == 0) g_user.store(pthread_t{});
}

namespace {

// The scheduled power cut, when this call is its moment: the files go back to their
// durable state; a program ends there, a test's phone stays off.
void cut_if_due(int call, long n, bool file_call) {
    State &s = state();
    const PowerCut &c = s.cut;
    if (!c.armed || (c.any_file_call ? !file_call || s.file_calls != c.at : c.call != call || n != c.at)) return;
    s.cut.armed = false;
    power_cut(c.keeps);
    if (c.exit_process) _exit(kPowerCutExitStatus);
    s.powered_off = true;
}

int fault_of(int call, long n) {
    for (const Window &w : state().faults)
        if (w.call == call && w.contains(n)) return w.error;
    return 0;
}

}  // namespace

int take(int call) {
    apply_environment_fault_plan();  // VPHONE_FAULTS, once, before the first call counts
    State &s = state();
    long n = ++s.counts[call];
    cut_if_due(call, n, false);
    return fault_of(call, n);
}

int take_file(int call, const std::string &phone_path) {
    apply_environment_fault_plan();
    State &s = state();
    long n = ++s.counts[call];
    ++s.file_calls;
    if (s.file_log.size() < kTranscriptCap) s.file_log.push_back(FileCall{static_cast<Call>(call), phone_path});
    if (s.file_call_hook) s.file_call_hook(FileCall{static_cast<Call>(call), phone_path});
    if (s.file_log_out != nullptr) {
        std::fprintf(s.file_log_out, "%ld %s %s\n", s.file_calls, call_name(static_cast<Call>(call)),
                     phone_path.c_str());
        std::fflush(s.file_log_out);
    }
    cut_if_due(call, n, true);
    if (s.powered_off) return EIO;
    for (const State::PathFault &f : s.path_faults)
        if (f.call == call && f.path == phone_path) return f.error;
    return fault_of(call, n);
}

size_t limit_of(int call, long n, size_t length) {
    for (const Window &w : state().limits)
        if (w.call == call && w.contains(n)) length = std::min(length, w.max_bytes);
    return length;
}

void record(Event e) {
    State &s = state();
    if (s.transcript.size() >= kTranscriptCap) {
        ++s.transcript_dropped;
        return;
    }
    s.transcript.push_back(std::move(e));
}

ssize_t fail(Event e, int error) {
    e.result = -1;
    e.error = error;
    record(std::move(e));
    errno = error;
    return -1;
}

namespace {

Window window(Call call, int nth, int count) {
    int c = static_cast<int>(call);
    long first = state().counts[c] + std::max(nth, 1);
    long last = count == kForever ? -1 : first + std::max(count, 1) - 1;
    return Window{c, first, last, 0, 0};
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

namespace {

constexpr uint64_t kClockEnd = std::numeric_limits<uint64_t>::max();  // in ns

}  // namespace

uint64_t now_ns() {
    const State &s = state();
    if (s.clock_us > (kClockEnd - s.clock_sub_ns) / 1000) return kClockEnd;
    return s.clock_us * 1000 + s.clock_sub_ns;
}

uint64_t now_us() { return state().clock_us; }

void advance_clock_ns(uint64_t ns) {
    State &s = state();
    const uint64_t now = now_ns();
    const uint64_t then = ns > kClockEnd - now ? kClockEnd : now + ns;
    s.clock_us = then / 1000;
    s.clock_sub_ns = static_cast<uint32_t>(then % 1000);
}

void advance_us(uint64_t microseconds) {
    advance_clock_ns(microseconds > kClockEnd / 1000 ? kClockEnd : microseconds * 1000);
}

const std::vector<Event> &transcript() { return state().transcript; }
std::vector<Event> transcript_of(Kind kind) {
    std::vector<Event> out;
    for (const Event &e : state().transcript)
        if (e.kind == kind) out.push_back(e);
    return out;
}
void clear_transcript() {
    state().transcript.clear();
    state().transcript_dropped = 0;
}
size_t transcript_dropped() { return state().transcript_dropped; }

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
    static const char *const names[] = {"open",   "close",  "read",          "write",     "ioctl",          "usleep",
                                        "fopen",  "fgets",  "fprintf",       "fclose",    "access",         "chown",
                                        "chmod",  "rename", "unlink",        "fsync",     "fdatasync",      "flock",
                                        "fchmod", "fchown", "clock_gettime", "nanosleep", "clock_nanosleep"};
    static_assert(sizeof names / sizeof names[0] == kCallCount, "a name for every call");
    return names[static_cast<int>(call)];
}

const std::vector<FileCall> &file_call_log() { return state().file_log; }
long file_calls() { return state().file_calls; }

// ---- Power --------------------------------------------------------------------------------

void fail_path(std::string_view phone_path, Call call, int error) {
    state().path_faults.push_back(State::PathFault{std::string(phone_path), static_cast<int>(call), error});
}

void on_file_call(std::function<void(const FileCall &)> hook) { state().file_call_hook = std::move(hook); }

void cut_power_at_file_call(long nth, bool exit_process, CutKeeps keeps) {
    State &s = state();
    s.cut = PowerCut{true, true, 0, s.file_calls + std::max(nth, 1L), exit_process, keeps};
}

void cut_power_at(Call call, long nth, bool exit_process, CutKeeps keeps) {
    State &s = state();
    const int c = static_cast<int>(call);
    s.cut = PowerCut{true, false, c, s.counts[c] + std::max(nth, 1L), exit_process, keeps};
}

bool powered_off() { return state().powered_off; }

// ---- Whole state ----------------------------------------------------------------------------------

void reset() {
    State &s = state();
    s.clock_us = 0;
    s.clock_sub_ns = 0;
    s.transcript.clear();
    s.counts.fill(0);
    s.faults.clear();
    s.limits.clear();
    s.devices.clear();
    s.answers.clear();
    s.control_errors.clear();
    s.owners.clear();
    s.file_calls = 0;
    s.file_log.clear();
    s.transcript_dropped = 0;
    s.cut = PowerCut{};
    s.powered_off = false;
    s.path_faults.clear();
    s.file_call_hook = nullptr;
    power_on();
}

int open_compass_descriptors() { return static_cast<int>(state().compass.size()); }

int fork_process() {
    // Only the flags: the other arguments, whose order differs between architectures, are 0.
    return static_cast<int>(::syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
}

}  // namespace vphone
