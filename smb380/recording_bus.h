// Test bus for the SMB380 driver: a 256-byte register file behind the three
// callbacks, a transcript of every call (kind, address as passed, count, bytes, wait)
// and scripted callback results.
#ifndef KMXC_SMB380_RECORDING_BUS_H
#define KMXC_SMB380_RECORDING_BUS_H

#include <cstdint>
#include <functional>
#include <ostream>
#include <utility>
#include <vector>

#include "smb380/smb380.h"

namespace smb380_test {

enum class Kind { Read, Write, Sleep };

struct Call {
    Kind kind;
    uint8_t addr;                // as passed to the callback (reads carry bit 7)
    uint8_t count;               // bytes asked for
    std::vector<uint8_t> bytes;  // bytes delivered (read) or written (write)
    uint32_t ms;                 // wait (sleep only)
    bool operator==(const Call &) const = default;
};
std::ostream &operator<<(std::ostream &os, const Call &c);
Call R(uint8_t addr, std::vector<uint8_t> bytes);
Call W(uint8_t addr, std::vector<uint8_t> bytes);
Call S(uint32_t ms);

struct Bus {
    uint8_t regs[256] = {};
    std::vector<Call> calls;
    std::vector<int8_t> results;  // of the read and write calls in order; then 0
    size_t next_result = 0;
    bool fill_reads = true;  // false: reads leave the destination alone
};
extern Bus g_bus;
extern smb380_dev g_dev;  // wired to g_bus

// Fresh bus and record, registers preset, g_dev in use (no transfer made).
void attach(const std::vector<std::pair<uint8_t, uint8_t>> &preset = {});

// One sequence: preset registers, an action, the exact transcript and the result when
// read/write call k returns 2^k (so the result names the calls that were added up).
struct Sequence {
    const char *name;
    std::vector<std::pair<uint8_t, uint8_t>> preset;
    std::function<int32_t()> act;
    std::vector<Call> transcript;
    int32_t result;
};
void check(const Sequence &s);

}  // namespace smb380_test

#endif  // KMXC_SMB380_RECORDING_BUS_H
