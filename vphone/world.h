// The simulated world's state, shared by its units (world.cpp: bus, clock, transcript
// and faults; sandbox.cpp: the phone's files) and the interposer (interposer.cpp),
// which feeds it the intercepted C library calls. Not for test code: use vphone.h.
#ifndef KMXC_VPHONE_WORLD_H
#define KMXC_VPHONE_WORLD_H

#include <array>
#include <cstdint>
#include <cstdio>
#include <sys/types.h>
#include <map>
#include <string>
#include <vector>

#include "vphone/vphone.h"
#include "vphone/vphone_core.h"

namespace vphone {

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

State &state();

// Counts one call of the kind; the errno of a fault window it falls into, else 0.
int take(int call);
// length cut by the transfer limits that cover call number n of the kind.
size_t limit_of(int call, long n, size_t length);
void record(Event e);
// Records e as failed with error, sets errno; returns -1.
ssize_t fail(Event e, int error);

bool phone_path(const char *path);
// The sandbox, chosen on first use by a preloaded program ($VPHONE_ROOT or a fresh one).
const std::string &ensure_root();

void attach_chips_from_environment();  // preload_chips.cpp

}  // namespace vphone

#endif  // KMXC_VPHONE_WORLD_H
