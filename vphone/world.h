// The simulated world's state, shared by its units (world.cpp: bus, clock, transcript
// and faults; sandbox.cpp: the phone's files) and the interposer (interposer.cpp),
// which feeds it the intercepted C library calls. Not for test code: use vphone.h.
#ifndef KMXC_VPHONE_WORLD_H
#define KMXC_VPHONE_WORLD_H

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "vphone/vphone.h"
#include "vphone/vphone_core.h"

namespace vphone {

constexpr int kCallCount = VPHONE_CALL_COUNT;
static_assert(static_cast<int>(Call::ClockNanosleep) + 1 == kCallCount, "Call matches the shim's kinds");

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

// The durability model (durability.cpp). A phone file's durable content is shared by
// every durable directory entry that names it (one object per file, found by inode
// while the file has a name).
struct DurableContent {
    std::string bytes;
};
using Durable = std::shared_ptr<DurableContent>;
struct Durability {
    // Directories the phone has changed since power-on: their durable entries (regular
    // files only), name -> content. A directory enters with what it held then.
    std::map<std::string, std::map<std::string, Durable>> dirs;
    std::map<ino_t, Durable> live;  // the durable content of each named file seen
    ino_t retiring = 0;             // the inode a rename or unlink is about to free
    bool retiring_set = false;
};

// A scheduled power cut: at the at-th call of kind call (any_file_call: the at-th
// counted file call of any kind).
struct PowerCut {
    bool armed = false;
    bool any_file_call = false;
    int call = 0;
    long at = 0;
    bool exit_process = true;  // else the phone stays off: every later file call fails
    CutKeeps keeps = CutKeeps::kSynced;
};

struct State {
    std::string root;
    bool made_root = false;
    uint64_t clock_us = 0;      // the virtual clock: clock_us microseconds
    uint32_t clock_sub_ns = 0;  // and this many nanoseconds (0..999)
    std::vector<Event> transcript;
    std::array<long, kCallCount> counts{};
    std::vector<Window> faults;
    std::vector<Window> limits;
    std::map<int, BusDevice *> devices;
    std::map<int, Compass> compass;  // open descriptors
    std::map<unsigned long, int> answers;
    std::map<unsigned long, int> control_errors;
    struct OpenFile {
        std::string phone;
        std::string host;
        long size_at_open;
    };
    std::map<FILE *, OpenFile> files;
    std::map<std::string, Owner> owners;
    struct PhoneFd {
        std::string phone;
        std::string host;
    };
    std::map<int, PhoneFd> phone_fds;  // open() descriptors on phone paths
    long file_calls = 0;               // counted calls on phone files since reset()
    std::vector<FileCall> file_log;    // at most kTranscriptCap
    FILE *file_log_out = nullptr;      // VPHONE_FILE_LOG
    size_t transcript_dropped = 0;
    Durability durable;
    PowerCut cut;
    bool powered_off = false;
    struct PathFault {
        std::string path;
        int call;
        int error;
    };
    std::vector<PathFault> path_faults;
    std::function<void(const FileCall &)> file_call_hook;
};

State &state();

// The virtual phone is single-threaded. Every use of the state by an interposed call
// holds this for its duration; a second thread that comes in meanwhile stops the
// program with one line on standard error (abort) instead of corrupting the state
// silently. The holding thread may come back in (the phone's own C library calls reach
// the shim again).
class InUse {
public:
    InUse();
    ~InUse();
    InUse(const InUse &) = delete;
    InUse &operator=(const InUse &) = delete;
};

// Moves the virtual clock on by ns; it stops at 2^64-1 ns rather than wrap.
void advance_clock_ns(uint64_t ns);

// Counts one call of the kind; the errno of a fault window it falls into, else 0.
int take(int call);
// The same for a call on a phone file: also counted as a file call and logged; a power
// cut scheduled for it happens first (power_cut(), then the process ends or the phone
// stays off), and while the phone is off every file call fails with EIO.
int take_file(int call, const std::string &phone_path);
// length cut by the transfer limits that cover call number n of the kind.
size_t limit_of(int call, long n, size_t length);
void record(Event e);
// Records e as failed with error, sets errno; returns -1.
ssize_t fail(Event e, int error);

bool phone_path(const char *path);
// Power-on: the phone's files as they are now are its durable state (durability.cpp).
void power_on();
// Durability hooks (vphone_core.h).
void durable_before_change(const std::string &host_path);
void durable_before_remove(const std::string &host_path);
void durable_removed();
void durable_synced(int fd, const std::string &host_path);
void durable_helper_wrote(const std::string &host_path);
void durable_helper_removed(const std::string &host_path);
// The sandbox, chosen on first use by a preloaded program ($VPHONE_ROOT or a fresh one).
const std::string &ensure_root();

void attach_chips_from_environment();  // preload_chips.cpp

}  // namespace vphone

#endif  // KMXC_VPHONE_WORLD_H
